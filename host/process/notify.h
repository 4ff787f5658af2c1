// Tells the service manager how the process fares: it serves, it ends, it is alive. One datagram each on the
// socket that the environment names; without a service manager nothing happens.
//
// NOTIFY_SOCKET is the socket's path, or '@' and an abstract name. WATCHDOG_USEC is the time after which the
// manager takes a silent process for stuck, in microseconds; WATCHDOG_PID, when it is there, names the process
// that it is meant for.
#ifndef HOST_PROCESS_NOTIFY_H
#define HOST_PROCESS_NOTIFY_H

#include <chrono>
#include <string>

namespace host {

// Sends `state` (lines NAME=VALUE) as one datagram. Result: empty, also when nobody wants to know, or why it
// could not be sent. Never waits. Any thread. Lock: none
std::string notifySend(const std::string &state);

// Time between two signs of life, half of what the manager allows; 0 when it wants none of this process.
// Lock: none
std::chrono::milliseconds notifyWatchdogPeriod();

// The process serves: READY=1, and from now on WATCHDOG=1 from the event thread, so that a stuck event thread
// is noticed. A manager that cannot be told is logged once. Lock: none
void notifyReady();

// The process ends in good order: STOPPING=1. Lock: none
void notifyStopping();

} // namespace host

#endif
