// Other processes on the route bus: a Unix SEQPACKET socket on the event thread.
//
// Clients come and go on the event thread, under the hub's lock; any thread may send to them under that
// lock. What a client's socket does not take is queued; a client whose queue is full is hung up on, so
// nobody waits for one that does not read.
#include <cerrno>
#include <cstring>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "host/bus/bus_hub.h"
#include "host/bus/bus_packet.h"
#include "host/event/event_loop.h"
#include "host/logging/host_log.h"
#include "host/option/option.h"
#include "host/process/unix_listen.h"
#include "platform/platform_types.h"

namespace host {
namespace {

constexpr const char *BUS_PATH = "/tmp/policyroutebus.socket";
constexpr size_t MOST_CLIENTS = 64;
constexpr size_t MOST_QUEUE_BYTES = 2500000;
constexpr int PACKETS_A_TURN = 32; // then other descriptors have theirs
constexpr size_t MOST_PACKET_BYTES = sizeof(BusPacketHead) + BUS_MESSAGE_BYTES;

void clientReady(int fd, uint32_t events);

void watch(const BusClient &client) {
    const uint32_t events = client.queue.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT;
    hostEventLoop().fdAdd(client.fd, events, [fd = client.fd](uint32_t ready) { clientReady(fd, ready); });
}

// Event thread, hub's lock held.
void clientEnd(Hub &all, int fd) {
    hostEventLoop().fdDel(fd);
    close(fd);
    all.clients.erase(fd);
}

void doom(Hub &all, BusClient &client) {
    client.isDoomed = true;
    client.queue.clear();
    ++all.counters.dropped;
    hostLog(LOG_LEVEL_WARNING, "bus", "a process that does not read its messages is hung up on");
    hostEventLoop().post([fd = client.fd] {
        Hub &theHub = hub();
        const std::lock_guard<std::mutex> guard(theHub.lock);
        const auto found = theHub.clients.find(fd);
        if (found != theHub.clients.end() && found->second->isDoomed) {
            clientEnd(theHub, fd);
        }
    });
}

bool socketTakes(const BusClient &client, const void *pPacket, size_t len) {
    return send(client.fd, pPacket, len, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(len);
}

void topUp(BusClient &client) {
    while (!client.queue.empty() &&
           socketTakes(client, client.queue.front().data(), client.queue.front().size())) {
        client.queueBytes -= client.queue.front().size();
        client.queue.pop_front();
    }
    if (client.queue.empty()) {
        watch(client); // for reading only again
    }
}

void answer(BusClient &client, uint32_t operation, uint32_t group) {
    const std::vector<uint8_t> packet = busPacket(operation, group);
    busClientSend(client, packet.data(), packet.size());
}

void refuse(Hub &all, BusClient &client, uint32_t group, uint32_t code) {
    ++all.counters.refused;
    const std::vector<uint8_t> packet = busPacket(BUS_REFUSED, group, &code, sizeof(code));
    busClientSend(client, packet.data(), packet.size());
}

// What a packet asks for, but for messages. Result: QRV_OK, or the code of the refusal.
uint32_t groupChange(BusClient &client, const BusPacketHead &head, size_t restLen) {
    if (restLen != 0 || (head.operation != BUS_JOIN && head.operation != BUS_LEAVE)) {
        return QRV_ERR_BAD_ARGUMENT;
    }
    if (head.operation == BUS_JOIN) {
        client.groups.insert(head.group);
    } else {
        client.groups.erase(head.group);
    }
    answer(client, head.operation, head.group);
    return QRV_OK;
}

uint32_t messageCheck(const BusClient &client, const uint8_t *pMessage, size_t len) {
    if (!busMessageCheck(pMessage, len)) {
        return QRV_ERR_BAD_ARGUMENT;
    }
    return client.right == PeerRight::Write ? QRV_OK : QRV_ERR_NOT_PERMITTED;
}

// One packet of len bytes, of which at most MOST_PACKET_BYTES were kept.
void packetRcv(int fd, const uint8_t *pPacket, size_t len) {
    BusPacketHead head{};
    memcpy(&head, pPacket, std::min(len, sizeof(head)));
    uint32_t code = QRV_ERR_BAD_ARGUMENT;
    bool isMessage = false;
    {
        Hub &all = hub();
        const std::lock_guard<std::mutex> guard(all.lock);
        const auto found = all.clients.find(fd);
        if (found == all.clients.end() || found->second->isDoomed) {
            return;
        }
        BusClient &client = *found->second;
        if (len >= sizeof(head) && len <= MOST_PACKET_BYTES) {
            isMessage = head.operation == BUS_MESSAGE;
            code = isMessage ? messageCheck(client, pPacket + sizeof(head), len - sizeof(head))
                             : groupChange(client, head, len - sizeof(head));
        }
        if (code != QRV_OK) {
            refuse(all, client, head.group, code);
        }
    }
    if (isMessage && code == QRV_OK) {
        hubSend({BusSource::Client, fd}, head.group, pPacket + sizeof(head), len - sizeof(head));
    }
}

// Reads some packets. Result: false when the client is gone.
bool packetsRead(int fd) {
    alignas(8) uint8_t packet[MOST_PACKET_BYTES];
    for (int i = 0; i < PACKETS_A_TURN; ++i) {
        const ssize_t len = recv(fd, packet, sizeof(packet), MSG_DONTWAIT | MSG_TRUNC);
        if (len < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        if (len == 0) {
            return false; // hung up; an empty packet looks the same
        }
        packetRcv(fd, packet, static_cast<size_t>(len));
    }
    return true;
}

void clientReady(int fd, uint32_t events) {
    const bool isAlive = (events & EPOLLIN) == 0 || packetsRead(fd);
    Hub &all = hub();
    const std::lock_guard<std::mutex> guard(all.lock);
    const auto found = all.clients.find(fd);
    if (found == all.clients.end()) {
        return;
    }
    if (!isAlive || ((events & (EPOLLHUP | EPOLLERR)) != 0 && (events & EPOLLIN) == 0)) {
        clientEnd(all, fd);
    } else if ((events & EPOLLOUT) != 0) {
        topUp(*found->second);
    }
}

// Why a new client is not admitted; QRV_OK when it is.
uint32_t admission(const Hub &all, PeerRight right) {
    if (right == PeerRight::None) {
        return QRV_ERR_NOT_PERMITTED;
    }
    return all.clients.size() < MOST_CLIENTS ? QRV_OK : QRV_ERR_NO_RECORD;
}

void admit(int fd) {
    auto pClient = std::make_unique<BusClient>();
    pClient->fd = fd;
    pClient->right = peerRight(fd);
    Hub &all = hub();
    const std::lock_guard<std::mutex> guard(all.lock);
    const uint32_t code = admission(all, pClient->right);
    if (code != QRV_OK) {
        refuse(all, *pClient, 0, code);
        unixHangUp(fd);
        return;
    }
    watch(*pClient);
    all.clients[fd] = std::move(pClient);
}

} // namespace

void busClientSend(BusClient &client, const void *pPacket, size_t len) {
    if (client.isDoomed || (client.queue.empty() && socketTakes(client, pPacket, len))) {
        return;
    }
    if (client.queueBytes + len > MOST_QUEUE_BYTES) {
        doom(hub(), client);
        return;
    }
    const auto *pBytes = static_cast<const uint8_t *>(pPacket);
    client.queue.emplace_back(pBytes, pBytes + len);
    client.queueBytes += len;
    if (client.queue.size() == 1) {
        watch(client); // for writing too
    }
}

std::string busStart() {
    const std::string path = optionPath(BUS_PATH);
    int listener = -1;
    const std::string error = unixListen(path, SOCK_SEQPACKET, &listener);
    if (!error.empty()) {
        return error;
    }
    hostEventLoop().fdAdd(listener, EPOLLIN, [listener](uint32_t) {
        for (int fd = unixAccept(listener); fd >= 0; fd = unixAccept(listener)) {
            admit(fd);
        }
    });
    return "";
}

} // namespace host
