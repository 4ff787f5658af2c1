// The hub of the route bus: who is in which group, and the way of a message to them. For the files of
// this folder; everybody else uses bus.h.
#ifndef HOST_BUS_BUS_HUB_H
#define HOST_BUS_BUS_HUB_H

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "host/bus/bus.h"
#include "host/bus/route_socket.h"
#include "host/process/peer_rights.h"

namespace host {

// Another process on the bus.
struct BusClient {
    int fd = -1;
    PeerRight right = PeerRight::None;
    std::set<uint32_t> groups;
    std::deque<std::vector<uint8_t>> queue; // packets that its socket did not take, oldest first
    size_t queueBytes = 0;
    bool isDoomed = false; // its end is posted to the event thread
};

struct Hub {
    std::mutex lock; // guards everything; innermost but for the event loop's
    std::map<int, RouteSocket> sockets; // by the daemon's descriptor
    std::map<int, std::unique_ptr<BusClient>> clients; // by descriptor; come and go on the event thread
    std::map<uint32_t, std::vector<std::function<void(const std::vector<uint8_t> &)>>> subscribers;
    std::vector<std::function<void()>> onLoss;
    BusCounters counters{};
};
Hub &hub();

// Where a message comes from: its sender does not get it back.
struct BusSource {
    enum Kind { Service, Daemon, Client } kind;
    int clientFd; // of a client, else -1
};

// Whether the bytes are one or more whole messages that fill them. Lock: none
bool busMessageCheck(const void *pMessage, size_t len);

// Sends to every member of the group but the source. Lock: takes the hub's
void hubSend(const BusSource &source, uint32_t group, const void *pMessage, size_t len);

// The daemon read len bytes from its socket. Lock: takes the hub's
void hubTook(int readFd, size_t len);

// ---- bus_clients ----

// Sends a packet to a client, or dooms a client whose queue is full. Lock: held by caller (the hub's)
void busClientSend(BusClient &client, const void *pPacket, size_t len);

} // namespace host

#endif
