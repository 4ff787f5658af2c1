// The orderly end: SIGTERM and SIGINT.
#ifndef HOST_PROCESS_STOP_SIGNALS_H
#define HOST_PROCESS_STOP_SIGNALS_H

namespace host {

// From now on SIGTERM and SIGINT end the process in good order on the event thread: one log line, our
// socket files removed, exit status 0. The forwarding plane is left as it is, so that packets keep
// flowing by the policy. Called before other threads start: they inherit the blocked signals. Lock: none
void stopSignalsWatch();

} // namespace host

#endif
