// The hub of the route bus.
#include "host/bus/bus_hub.h"

#include <algorithm>
#include <cstring>

#include "host/bus/bus_packet.h"
#include "host/event/event_loop.h"
#include "host/logging/host_log.h"
#include "platform/qrv_rtm.h"

namespace host {
namespace {

size_t aligned(size_t len) {
    return (len + QRV_RTM_ALIGN - 1) / QRV_RTM_ALIGN * QRV_RTM_ALIGN;
}

void toSocket(Hub &all, RouteSocket &socket, const void *pMessage, size_t len) {
    if (routeSocketKeep(socket, pMessage, len)) {
        ++all.counters.delivered;
        return;
    }
    ++all.counters.lost;
    if (!socket.isLosing) {
        hostLog(LOG_LEVEL_WARNING, "bus",
                "%llu bytes wait for the daemon: messages are lost until it has read most of them; "
                "everything is posted again then",
                static_cast<unsigned long long>(socket.waiting));
    }
    socket.isLosing = true;
}

void toClients(const Hub &all, const BusSource &source, uint32_t group, const void *pMessage, size_t len) {
    std::vector<uint8_t> packet; // made for the first member
    for (const auto &[fd, pClient] : all.clients) {
        if (fd == source.clientFd || !pClient->groups.contains(group)) {
            continue;
        }
        if (packet.empty()) {
            packet = busPacket(BUS_MESSAGE, group, pMessage, len);
        }
        busClientSend(*pClient, packet.data(), packet.size());
    }
}

void toSubscribers(const Hub &all, uint32_t group, const void *pMessage, size_t len) {
    const auto found = all.subscribers.find(group);
    if (found == all.subscribers.end()) {
        return;
    }
    const auto *pBytes = static_cast<const uint8_t *>(pMessage);
    hostEventLoop().post([handlers = found->second, message = std::vector<uint8_t>(pBytes, pBytes + len)] {
        for (const auto &handler : handlers) {
            handler(message);
        }
    });
}

} // namespace

Hub &hub() {
    static Hub *pHub = new Hub; // never destroyed: used by threads that run until the process ends
    return *pHub;
}

bool busMessageCheck(const void *pMessage, size_t len) {
    if (pMessage == nullptr || len == 0 || len > BUS_MESSAGE_BYTES) {
        return false;
    }
    const auto *pBytes = static_cast<const uint8_t *>(pMessage);
    size_t at = 0;
    while (at < len) {
        RtMsgHeader header{};
        if (len - at < sizeof(header)) {
            return false;
        }
        memcpy(&header, pBytes + at, sizeof(header));
        if (header.length < sizeof(header) || header.length > len - at) {
            return false;
        }
        at += aligned(header.length);
    }
    return true;
}

void hubSend(const BusSource &source, uint32_t group, const void *pMessage, size_t len) {
    Hub &all = hub();
    const std::lock_guard<std::mutex> guard(all.lock);
    ++all.counters.published;
    for (auto &[fd, socket] : all.sockets) {
        if (source.kind != BusSource::Daemon && socket.groups.contains(group)) {
            toSocket(all, socket, pMessage, len);
        }
    }
    toClients(all, source, group, pMessage, len);
    if (source.kind != BusSource::Service) {
        toSubscribers(all, group, pMessage, len);
    }
}

void hubTook(int readFd, size_t len) {
    Hub &all = hub();
    const std::lock_guard<std::mutex> guard(all.lock);
    const auto found = all.sockets.find(readFd);
    if (found == all.sockets.end() || !routeSocketTook(found->second, len)) {
        return;
    }
    hostEventLoop().post([resyncs = all.onLoss] {
        for (const auto &resync : resyncs) {
            resync();
        }
    });
}

void busPublish(uint32_t group, const void *pMessage, size_t len) {
    if (!busMessageCheck(pMessage, len)) {
        Hub &all = hub();
        const std::lock_guard<std::mutex> guard(all.lock);
        ++all.counters.refused;
        hostLog(LOG_LEVEL_ERROR, "bus", "%zu bytes for group %u are no route message", len, group);
        return;
    }
    hubSend({BusSource::Service, -1}, group, pMessage, len);
}

std::vector<uint8_t> busMessage(uint16_t type, const void *pPayload, size_t payloadLen) {
    RtMsgHeader header{};
    header.length = static_cast<uint32_t>(sizeof(header) + payloadLen);
    header.type = type;
    std::vector<uint8_t> message(aligned(header.length));
    memcpy(message.data(), &header, sizeof(header));
    if (payloadLen > 0) {
        memcpy(message.data() + sizeof(header), pPayload, payloadLen);
    }
    return message;
}

void busSubscribe(uint32_t group, std::function<void(const std::vector<uint8_t> &)> handler) {
    Hub &all = hub();
    const std::lock_guard<std::mutex> guard(all.lock);
    all.subscribers[group].push_back(std::move(handler));
}

void busOnLoss(std::function<void()> resync) {
    Hub &all = hub();
    const std::lock_guard<std::mutex> guard(all.lock);
    all.onLoss.push_back(std::move(resync));
}

BusCounters busCounters() {
    Hub &all = hub();
    const std::lock_guard<std::mutex> guard(all.lock);
    BusCounters counters = all.counters;
    counters.clients = static_cast<uint32_t>(all.clients.size());
    for (const auto &[fd, socket] : all.sockets) {
        counters.waitingBytes += socket.waiting;
    }
    return counters;
}

} // namespace host
