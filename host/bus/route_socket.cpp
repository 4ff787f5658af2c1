// The daemon's end of the bus.
#include "host/bus/route_socket.h"

#include <algorithm>
#include <cerrno>

#include <sys/socket.h>
#include <unistd.h>

namespace host {
namespace {

bool kernelTakes(const RouteSocket &socket, const void *pMessage, size_t len) {
    return send(socket.writeFd, pMessage, len, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(len);
}

void topUp(RouteSocket &socket) {
    while (!socket.queue.empty() &&
           kernelTakes(socket, socket.queue.front().data(), socket.queue.front().size())) {
        socket.queue.pop_front();
    }
}

} // namespace

bool routeSocketOpen(RouteSocket &socket) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        return false;
    }
    socket.readFd = ends[0];
    socket.writeFd = ends[1];
    return true;
}

void routeSocketClose(RouteSocket &socket) {
    close(socket.readFd);
    close(socket.writeFd);
    socket = RouteSocket{};
}

bool routeSocketKeep(RouteSocket &socket, const void *pMessage, size_t len) {
    if (socket.waiting + len > socket.limit) {
        return false;
    }
    topUp(socket);
    if (!socket.queue.empty() || !kernelTakes(socket, pMessage, len)) {
        const auto *pBytes = static_cast<const uint8_t *>(pMessage);
        socket.queue.emplace_back(pBytes, pBytes + len);
    }
    socket.waiting += len;
    return true;
}

bool routeSocketTook(RouteSocket &socket, size_t len) {
    socket.waiting -= std::min<uint64_t>(len, socket.waiting);
    topUp(socket);
    // Three quarters free: everything that is posted afresh then has room.
    if (!socket.isLosing || socket.waiting > socket.limit / 4) {
        return false;
    }
    socket.isLosing = false;
    return true;
}

} // namespace host
