// A packet as far as ACL rules look at it, and the question whether a rule matches it. Used where packets
// are thought of and not seen: the explanation of a policy. Pure.
//
// A packet need not be told whole. Where a rule's answer hangs on something that was not told, the answer
// is Unknown and names it; a rule that misses for another reason misses all the same.
#ifndef ACLRULE_ACL_PACKET_H
#define ACLRULE_ACL_PACKET_H

#include <cstdint>
#include <optional>
#include <string>

#include "aclrule/acl_rule.h"

namespace aclrule {

struct AclPacket {
    int version = 4;          // 4 or 6
    AclAddress source{};      // network order, IPv4 in the first 4 bytes
    AclAddress destination{}; // the same
    std::optional<uint8_t> protocol; // IPv6: the one behind the extension headers
    std::optional<uint16_t> sourcePort, destinationPort;
    std::optional<uint8_t> flags;    // the TCP flags byte
    std::optional<uint8_t> icmpType, icmpCode;
    uint8_t dscp = 0;                // 0..63; its upper three bits are the precedence
    bool isLaterFragment = false;    // without the protocol's header
    std::optional<uint32_t> length;  // bytes with the IP header
    bool isEthernet = true;          // it came in over Ethernet; else it has no source MAC, known or not
    std::optional<AclMac> sourceMac; // of the Ethernet frame
};

enum class AclAnswer : uint8_t { Match, Miss, Unknown };

struct AclMatch {
    AclAnswer answer = AclAnswer::Match;
    std::string why; // of a miss: what differs; of Unknown: what must be told; empty for a match
};

// Whether the conditions of a rule of ACL aclNum hold for the packet, permit or deny alike. Conditions are
// asked in the order of the headers; the first that does not hold is told. Lock: none
AclMatch aclRuleMatch(uint32_t aclNum, const AclRule &rule, const AclPacket &packet);

} // namespace aclrule

#endif
