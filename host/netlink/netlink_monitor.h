// A notification socket: the kernel's messages of some multicast groups, on the event thread.
//
// The groups are joined by the constructor, so that a dump made afterwards misses nothing. When the
// kernel had to drop messages (receive room full), what waits is thrown away and `lost` is called: the
// owner then reads the tables anew. Belongs to the network namespace of the thread that made it.
#ifndef HOST_NETLINK_NETLINK_MONITOR_H
#define HOST_NETLINK_NETLINK_MONITOR_H

#include <cstdint>
#include <functional>
#include <vector>

#include "host/event/event_loop.h"
#include "host/netlink/netlink_message.h"

namespace host {

class NetlinkMonitor {
public:
    using Handler = std::function<void(const nlmsghdr *)>;

    // Opens and joins; throws std::system_error. groups: RTNLGRP_..., NFNLGRP_... . Nothing is called
    // before start().
    NetlinkMonitor(int protocol, const std::vector<uint32_t> &groups, Handler message,
                   std::function<void()> lost);
    ~NetlinkMonitor(); // on the event thread, or stopped before
    NetlinkMonitor(const NetlinkMonitor &) = delete;
    NetlinkMonitor &operator=(const NetlinkMonitor &) = delete;

    // Calls `message` for each message from now on (and for those that waited). `readEnd`, may be empty,
    // is called after each run of messages. Callbacks come on the event thread.
    void start(EventLoop &loop, std::function<void()> readEnd = {});
    void stop();

    // Calls `message` for what waits now, and `readEnd`: what a dump that was just read may have seen. Event thread.
    void readNow() { read(); }

    uint64_t lostCount() const { return lostCount_; } // event thread

private:
    enum class Got { Nothing, Messages, Loss };
    Got receive(size_t *pLen);
    void readAwayAndTell();
    void read();

    int fd_ = -1;
    EventLoop *pLoop_ = nullptr;
    Handler message_;
    std::function<void()> lost_, readEnd_;
    uint64_t lostCount_ = 0;
    std::vector<uint8_t> buffer_;
};

} // namespace host

#endif
