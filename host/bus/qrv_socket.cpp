// The platform's sockets on the bus (platform/qrv_socket.h): the only kind is the route socket, an end of
// a pair whose other end the hub holds. The platform's numbers are read here and never passed on.
#include "platform/qrv_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include "host/bus/bus_hub.h"

namespace {

constexpr int MOST_FD = QRV_FD_SET_WORDS * 32; // descriptors that a QrvFdSet can name

int32_t failed(int error) {
    errno = error;
    return -1;
}

// Calls `use(socket)` for the route socket of fd, under the hub's lock.
template <typename Use>
int32_t withSocket(int32_t fd, Use use) {
    host::Hub &all = host::hub();
    const std::lock_guard<std::mutex> guard(all.lock);
    const auto found = all.sockets.find(fd);
    return found == all.sockets.end() ? failed(EBADF) : use(found->second);
}

int32_t optionSet(host::RouteSocket &socket, int32_t level, int32_t option, uint32_t value) {
    if (level == QRV_SOL_NETLINK && option == QRV_NETLINK_ADD_MEMBERSHIP) {
        socket.groups.insert(value);
    } else if (level == QRV_SOL_SOCKET && option == QRV_SO_RCVBUF) {
        socket.limit = value;
    } else if (level == QRV_SOL_SOCKET && option == QRV_SO_OWNER) {
        socket.owner = value;
    } else {
        return failed(ENOPROTOOPT);
    }
    return 0;
}

int32_t blockingSet(int32_t fd, bool isBlocking) {
    const int flags = fcntl(fd, F_GETFL);
    return flags < 0 ? -1 : fcntl(fd, F_SETFL, isBlocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}

void fromFill(void *pFrom, uint32_t *pFromLen) {
    if (pFrom == nullptr || pFromLen == nullptr) {
        return;
    }
    QrvNetlinkAddr from{};
    from.family = QRV_AF_NETLINK;
    *pFromLen = std::min<uint32_t>(*pFromLen, sizeof(from));
    memcpy(pFrom, &from, *pFromLen);
}

bool isSet(const QrvFdSet &set, int fd) {
    return (set.word[fd / 32] >> (fd % 32) & 1) != 0;
}

} // namespace

int32_t qrv_socket(int32_t family, int32_t type, int32_t protocol) {
    if (family != QRV_AF_NETLINK || type != QRV_SOCK_DGRAM || protocol != 0) {
        return failed(EAFNOSUPPORT);
    }
    host::RouteSocket socket;
    if (!host::routeSocketOpen(socket)) {
        return -1;
    }
    if (socket.readFd >= MOST_FD) {
        host::routeSocketClose(socket);
        return failed(EMFILE);
    }
    const int fd = socket.readFd;
    host::Hub &all = host::hub();
    const std::lock_guard<std::mutex> guard(all.lock);
    all.sockets[fd] = std::move(socket);
    return fd;
}

int32_t qrv_bind(int32_t fd, const void *pAddr, uint32_t addrLen) {
    QrvNetlinkAddr address{};
    if (pAddr == nullptr || addrLen != sizeof(address)) {
        return failed(EINVAL);
    }
    memcpy(&address, pAddr, sizeof(address));
    if (address.family != QRV_AF_NETLINK || address.groups != 0) {
        return failed(EINVAL); // groups are joined one by one
    }
    return withSocket(fd, [](host::RouteSocket &) { return 0; });
}

int32_t qrv_setsockopt(int32_t fd, int32_t level, int32_t option, const void *pValue, uint32_t valueLen) {
    uint32_t value = 0;
    if (pValue == nullptr || valueLen != sizeof(value)) {
        return failed(EINVAL);
    }
    memcpy(&value, pValue, sizeof(value));
    return withSocket(fd, [&](host::RouteSocket &socket) { return optionSet(socket, level, option, value); });
}

int32_t qrv_ioctl(int32_t fd, uint32_t request, uint32_t *pValue) {
    if (pValue == nullptr) {
        return failed(EINVAL);
    }
    return withSocket(fd, [&](const host::RouteSocket &socket) {
        if (request == QRV_FIONBIO) {
            return blockingSet(socket.readFd, *pValue == 0);
        }
        if (request != QRV_FIONREAD) {
            return failed(ENOTTY);
        }
        *pValue = static_cast<uint32_t>(std::min<uint64_t>(socket.waiting, UINT32_MAX));
        return 0;
    });
}

int32_t qrv_recvfrom(int32_t fd, void *pBuffer, uint32_t bufferLen, uint32_t, void *pFrom,
                     uint32_t *pFromLen) {
    const int32_t known = withSocket(fd, [](host::RouteSocket &) { return 0; });
    if (known != 0 || pBuffer == nullptr) {
        return pBuffer == nullptr ? failed(EINVAL) : known;
    }
    // MSG_TRUNC: the message's whole length, so that the count of waiting bytes stays right.
    const ssize_t len = recv(fd, pBuffer, bufferLen, MSG_TRUNC);
    if (len <= 0) {
        return static_cast<int32_t>(len);
    }
    host::hubTook(fd, static_cast<size_t>(len));
    fromFill(pFrom, pFromLen);
    return static_cast<int32_t>(std::min<size_t>(static_cast<size_t>(len), bufferLen));
}

int32_t qrv_select(int32_t maxFd, QrvFdSet *pRead, const QrvTimeval *pTimeout) {
    if (pRead == nullptr || maxFd < 0 || maxFd >= MOST_FD) {
        return failed(EINVAL);
    }
    pollfd waited[MOST_FD];
    nfds_t count = 0;
    for (int fd = 0; fd <= maxFd; ++fd) {
        if (isSet(*pRead, fd)) {
            waited[count++] = {fd, POLLIN, 0};
        }
    }
    timespec timeout{};
    if (pTimeout != nullptr) {
        timeout.tv_sec = pTimeout->sec + pTimeout->usec / 1000000;
        timeout.tv_nsec = static_cast<long>(pTimeout->usec % 1000000) * 1000;
    }
    const int ready = ppoll(waited, count, pTimeout != nullptr ? &timeout : nullptr, nullptr);
    if (ready < 0) {
        return -1; // the set is left as it was
    }
    *pRead = QrvFdSet{};
    for (nfds_t i = 0; i < count; ++i) {
        if ((waited[i].revents & POLLNVAL) != 0) {
            return failed(EBADF);
        }
        if (waited[i].revents != 0) {
            pRead->word[waited[i].fd / 32] |= 1u << (waited[i].fd % 32);
        }
    }
    return ready;
}

int32_t qrv_close(int32_t fd) {
    host::Hub &all = host::hub();
    const std::lock_guard<std::mutex> guard(all.lock);
    const auto found = all.sockets.find(fd);
    if (found == all.sockets.end()) {
        return failed(EBADF);
    }
    host::routeSocketClose(found->second);
    all.sockets.erase(found);
    return 0;
}

int32_t qrvNetlinkSGrpSend(uint32_t group, uint32_t, const void *pMessage, uint32_t len) {
    if (!host::busMessageCheck(pMessage, len)) {
        return failed(EINVAL);
    }
    host::hubSend({host::BusSource::Daemon, -1}, group, pMessage, len);
    return 0;
}
