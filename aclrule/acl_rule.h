// One ACL rule as a value, its text form and its check. Shared by the host's ACL module and the operator's
// tool, so that both read the same language. Pure: the C++ library and the machine's address texts only.
//
//   permit|deny PROTOCOL [from ADDR [port PORTS]] [to ADDR [port PORTS]] [OPTION ...]
//
//   PROTOCOL  ip (every protocol), icmp (1 of IPv4, 58 of IPv6), a name of acl_rule_names.h, or 0 to 255
//   ADDR      any, an address, a prefix, or ADDRESS mask WILDCARD (address-shaped; ones: bits that may be
//             anything). Address bits that are not compared must be 0.
//   PORTS     N or N-M; with protocols that have ports
//   OPTION    flags FLAG,!FLAG,...   TCP flags that are set, and with ! not set; others do not matter
//             established            TCP with ack or rst set
//             type N|NAME [code N]   ICMP of the rule's version
//             dscp N|NAME            or: precedence 0 to 7
//             fragments              later fragments only: those without the protocol's header
//             length N[-M]           bytes of the packet with its IP header
//             source-mac MAC         of packets that come in over Ethernet
//
// A missing "to" part means "to any", a missing "from" part "from any". Options stand in any order behind
// the addresses, each once. In an ACL whose number leaves the version open, 0.0.0.0/0 and ::/0 are every
// address of that version and make the rule one of it.
#ifndef ACLRULE_ACL_RULE_H
#define ACLRULE_ACL_RULE_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace aclrule {

using AclAddress = std::array<uint8_t, 16>; // network order, IPv4 in the first 4 bytes

struct AclPrefix {
    AclAddress address{};  // bits that are not compared are 0
    AclAddress wildcard{}; // ones: bits that are not compared, with length 0; all 0: any, or a prefix
    uint8_t length = 0;    // of a prefix: 1..32 or 1..128; 0 with any and with a wildcard
    bool any = true;       // every address of the rule's version
    bool operator==(const AclPrefix &) const = default;
};

struct AclPorts {
    uint16_t first = 0;
    uint16_t last = 65535; // inclusive, not below first
    bool any = true;
    bool operator==(const AclPorts &) const = default;
};

// Bytes of a packet, IP header included.
struct AclLength {
    uint32_t first = 0;
    uint32_t last = 0; // inclusive, not below first; within what a packet of the rule's version can have
    bool any = true;
    bool operator==(const AclLength &) const = default;
};

using AclMac = std::array<uint8_t, 6>;

struct AclRule {
    bool permit = true;
    uint8_t version = 0;   // 4 or 6: of the ACL's number, else of the addresses; 0: both
    int16_t protocol = -1; // 0..255, or -1: every protocol
    AclPrefix source;
    AclPrefix destination;
    AclPorts sourcePorts;      // only with a protocol that has ports
    AclPorts destinationPorts; // the same
    uint8_t flagsSet = 0;      // bits of the TCP flags byte that must be set; only with protocol 6
    uint8_t flagsClear = 0;    // and not set; no bit in common with flagsSet
    bool established = false;  // ack or rst set; only with protocol 6
    int16_t icmpType = -1;     // 0..255, -1 any; only with the version's ICMP
    int16_t icmpCode = -1;     // 0..255, -1 any; only with icmpType
    int8_t dscp = -1;          // 0..63, -1 any
    int8_t precedence = -1;    // 0..7, -1 any; never beside dscp
    bool fragments = false;    // later fragments only; never with ports, flags, established or a type
    AclLength length;
    std::optional<AclMac> sourceMac;
    bool operator==(const AclRule &) const = default;
};

// IP version of an ACL by its number: 4 (1001..2000), 6 (3001..4000), 0 either (5001 and up; each of its
// rules may be of either version, a rule without addresses is of both). none: not a number an ACL can have.
// Lock: none
std::optional<int> aclVersion(uint32_t aclNum);

// Twelve hexadecimal digits in pairs with colons between: 02:00:5e:00:53:01. none: anything else. Lock: none
std::optional<AclMac> aclMacRead(const std::string &word);

// Parses a rule of ACL aclNum. Result: the rule, or none with *pError saying what is wrong where. Lock: none
std::optional<AclRule> aclRuleParse(uint32_t aclNum, const std::string &text, std::string *pError);

// The rule's canonical text; parses back to the same rule. Lock: none
std::string aclRuleFormat(uint32_t aclNum, const AclRule &rule);

// IP version of a rule: that of the ACL's number, else the rule's own; 0: packets of both versions. Lock: none
int aclRuleVersion(uint32_t aclNum, const AclRule &rule);

// The address bits that are compared, as ones; version: 4 or 6. Lock: none
AclAddress aclPrefixMask(const AclPrefix &prefix, int version);

using AclRules = std::map<uint32_t, AclRule>; // by rule number, evaluated in ascending order

} // namespace aclrule

#endif
