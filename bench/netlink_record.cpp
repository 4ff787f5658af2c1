// Preloaded into policyrouted (LD_PRELOAD): keeps what it writes into the kernel by netlink, so that netlink_replay can do
// the same without the daemon. Questions, and the requests that make a neighbour answer, are left out.
//   NETLINK_RECORD   file: for each datagram its protocol and its length (32 bits each, machine order), then its bytes
// Called by bench/kit/apply.py, with host.seccomp=off: the filter does not permit to ask for a socket's protocol.
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

bool changesSomething(int protocol, const void *pBytes, size_t size) {
    nlmsghdr head{};
    if (size < sizeof(head)) {
        return false;
    }
    std::memcpy(&head, pBytes, sizeof(head));
    if (protocol == NETLINK_NETFILTER) {
        return head.nlmsg_type == NFNL_MSG_BATCH_BEGIN;
    }
    const bool question = (head.nlmsg_type - RTM_BASE) % 4 == 2;
    const bool neighbour = head.nlmsg_type >= RTM_NEWNEIGH && head.nlmsg_type <= RTM_GETNEIGH;
    return protocol == NETLINK_ROUTE && head.nlmsg_type >= RTM_BASE && !question && !neighbour;
}

void keep(int protocol, const void *pBytes, size_t size) {
    static const int file = open(std::getenv("NETLINK_RECORD"), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const std::array<uint32_t, 2> head = {static_cast<uint32_t>(protocol), static_cast<uint32_t>(size)};
    if (write(file, head.data(), sizeof(head)) != sizeof(head) || write(file, pBytes, size) != static_cast<ssize_t>(size)) {
        std::abort(); // half a record would be taken for another
    }
}

} // namespace

extern "C" ssize_t sendto(int socket, const void *pBytes, size_t size, int flags, const sockaddr *pTo, socklen_t toSize) {
    using Send = ssize_t (*)(int, const void *, size_t, int, const sockaddr *, socklen_t);
    static const auto real = reinterpret_cast<Send>(dlsym(RTLD_NEXT, "sendto"));
    if (pTo != nullptr && pTo->sa_family == AF_NETLINK && std::getenv("NETLINK_RECORD") != nullptr) {
        int protocol = -1;
        socklen_t length = sizeof(protocol);
        if (getsockopt(socket, SOL_SOCKET, SO_PROTOCOL, &protocol, &length) == 0 && changesSomething(protocol, pBytes, size)) {
            keep(protocol, pBytes, size);
        }
    }
    return real(socket, pBytes, size, flags, pTo, toSize);
}
