// Netlink notification socket: see the header.
#include "host/netlink/netlink_monitor.h"

#include <linux/netlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "host/netlink/netlink_socket.h"

namespace host {

namespace {

constexpr size_t NEWS_BYTES = 64 * 1024;
constexpr size_t NEWS_ROOM_BYTES = 8 * 1024 * 1024; // some ten thousand notifications
constexpr int READS_AT_ONCE = 256;             // others on the event thread get their turn
constexpr int READS_AFTER_LOSS = 1000000;      // more than any room holds

int openJoined(int protocol, const std::vector<uint32_t> &groups) {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "netlink socket");
    }
    netlinkSetRoom(fd, SO_RCVBUF, SO_RCVBUFFORCE, NEWS_ROOM_BYTES);
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    int failed = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address));
    for (uint32_t group : groups) {
        const int value = static_cast<int>(group);
        failed = failed != 0 ? failed
                             : setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &value, sizeof(value));
    }
    if (failed != 0) {
        const int code = errno;
        close(fd);
        throw std::system_error(code, std::generic_category(), "join netlink groups");
    }
    return fd;
}

} // namespace

NetlinkMonitor::NetlinkMonitor(int protocol, const std::vector<uint32_t> &groups, Handler message,
                               std::function<void()> lost)
    : fd_(openJoined(protocol, groups)), message_(std::move(message)), lost_(std::move(lost)),
      buffer_(NEWS_BYTES) {}

NetlinkMonitor::~NetlinkMonitor() {
    stop();
    close(fd_);
}

void NetlinkMonitor::start(EventLoop &loop, std::function<void()> readEnd) {
    readEnd_ = std::move(readEnd);
    pLoop_ = &loop;
    loop.fdAdd(fd_, EPOLLIN, [this](uint32_t) { read(); });
}

void NetlinkMonitor::stop() {
    if (pLoop_ != nullptr) {
        pLoop_->fdDel(fd_);
        pLoop_ = nullptr;
    }
}

// One datagram of the kernel into the buffer.
NetlinkMonitor::Got NetlinkMonitor::receive(size_t *pLen) {
    sockaddr_nl from = {};
    socklen_t fromLen = sizeof(from);
    const ssize_t got = recvfrom(fd_, buffer_.data(), buffer_.size(), MSG_TRUNC,
                                 reinterpret_cast<sockaddr *>(&from), &fromLen);
    if (got < 0 && errno != ENOBUFS && errno != EINTR) {
        return Got::Nothing;
    }
    if ((got < 0 && errno == ENOBUFS) || got > static_cast<ssize_t>(buffer_.size())) {
        return Got::Loss; // dropped by the kernel, or too large for us: both are messages not seen
    }
    *pLen = got < 0 || from.nl_pid != 0 ? 0 : static_cast<size_t>(got); // 0: interrupted, or not the kernel's
    return Got::Messages;
}

// After a loss the kernel goes on dropping, without a word, until everything that waits has been read:
// the tables may only be read anew after that, and what waited is older than they are.
void NetlinkMonitor::readAwayAndTell() {
    size_t len = 0;
    for (int count = 0; count < READS_AFTER_LOSS && receive(&len) != Got::Nothing; ++count) {
    }
    ++lostCount_;
    lost_();
}

void NetlinkMonitor::read() {
    for (int count = 0; count < READS_AT_ONCE; ++count) {
        size_t len = 0;
        const Got got = receive(&len);
        if (got == Got::Nothing) {
            break;
        }
        if (got == Got::Loss) {
            readAwayAndTell();
            break;
        }
        int left = static_cast<int>(len);
        for (const nlmsghdr *pMessage = reinterpret_cast<const nlmsghdr *>(buffer_.data());
             netlinkIsWhole(pMessage, left); pMessage = mnl_nlmsg_next(pMessage, &left)) {
            message_(pMessage);
        }
    }
    if (readEnd_) {
        readEnd_();
    }
}

} // namespace host
