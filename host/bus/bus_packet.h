// Packets between the hub and other processes (docs/route-bus.md): two words and what follows them, all
// in machine order, one packet a send on a SOCK_SEQPACKET socket.
#ifndef HOST_BUS_BUS_PACKET_H
#define HOST_BUS_BUS_PACKET_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace host {

enum BusOperation : uint32_t {
    BUS_JOIN = 1,    // asks to join a group; the answer repeats the packet
    BUS_LEAVE = 2,   // asks to leave it; the answer repeats the packet
    BUS_MESSAGE = 3, // either way: route messages of the group follow
    BUS_REFUSED = 4, // answer: a word follows, the code that says why
};

struct BusPacketHead {
    uint32_t operation; // BusOperation
    uint32_t group;
};
static_assert(sizeof(BusPacketHead) == 8);

inline std::vector<uint8_t> busPacket(uint32_t operation, uint32_t group, const void *pRest = nullptr,
                                      size_t restLen = 0) {
    const BusPacketHead head{operation, group};
    std::vector<uint8_t> packet(sizeof(head) + restLen);
    memcpy(packet.data(), &head, sizeof(head));
    if (restLen > 0) {
        memcpy(packet.data() + sizeof(head), pRest, restLen);
    }
    return packet;
}

} // namespace host

#endif
