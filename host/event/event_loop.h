// The host's event thread: descriptors, timers and posted work, all run on one thread.
//
// The host's services (peers, probes, time ranges, buses, management socket) do their work here. Code
// on this thread never takes the daemon's mutex (it posts route messages instead) and may take a
// service's own lock. One instance per process, made by hostEventLoop() on first use.
#ifndef HOST_EVENT_EVENT_LOOP_H
#define HOST_EVENT_EVENT_LOOP_H

#include <chrono>
#include <cstdint>
#include <functional>

namespace host {

class EventLoop {
public:
    using TimerId = uint64_t; // 0 is never an id

    virtual ~EventLoop() = default;

    // Calls `ready(epoll events)` on the event thread while fd has any of `events` (EPOLLIN ...).
    // The fd stays the caller's. A fd that is watched already gets the new events and the new handler.
    // Any thread. Lock: none
    virtual void fdAdd(int fd, uint32_t events, std::function<void(uint32_t)> ready) = 0;

    // Stops watching, before the fd is closed; its handler does not run any more when this returns (on
    // another thread it waits for a running one: the caller then holds no lock that the handler takes).
    virtual void fdDel(int fd) = 0;

    // Runs `work` once on the event thread, in the order of posting. Any thread. Lock: none
    virtual void post(std::function<void()> work) = 0;

    // Runs `work` on the event thread, once after `delay`. Any thread. Lock: none
    virtual TimerId timerStart(std::chrono::milliseconds delay, std::function<void()> work) = 0;

    // Cancels; harmless for an id that ran or is 0. Called on the event thread it is certain that the
    // work does not run any more. Any thread. Lock: none
    virtual void timerStop(TimerId id) = 0;

    // Whether the caller is on the event thread.
    virtual bool onThread() const = 0;
};

// The process's event loop; its thread ("hostevent") is started by the first call.
EventLoop &hostEventLoop();

} // namespace host

#endif
