// One ACL rule as a value, its text form and its check.
//
// Text: permit|deny ip|tcp|udp|icmp|NUMBER from PREFIX|any [port N[-M]] to PREFIX|any [port N[-M]]
// A missing "to" part means "to any", a missing "from" part "from any". `ip` is every protocol; `icmp`
// is 1 in an IPv4 rule and 58 in an IPv6 rule; ports need tcp or udp. A prefix without length is one
// address; a prefix with bits set beyond its length is refused. In an ACL whose number leaves the
// version open, 0.0.0.0/0 and ::/0 are every address of that version and make the rule one of it.
#ifndef HOST_ACL_ACL_RULE_H
#define HOST_ACL_ACL_RULE_H

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace host {

struct AclPrefix {
    std::array<uint8_t, 16> address{}; // network order, IPv4 in the first 4 bytes; host bits are 0
    uint8_t length = 0;                // 1..32 or 1..128; 0 with any = true
    bool any = true;                   // every address of the rule's version
    bool operator==(const AclPrefix &) const = default;
};

struct AclPorts {
    uint16_t first = 0;
    uint16_t last = 65535; // inclusive, not below first
    bool any = true;
    bool operator==(const AclPorts &) const = default;
};

struct AclRule {
    bool permit = true;
    uint8_t version = 0;   // 4 or 6: of the ACL's number, else of the addresses; 0: both
    int16_t protocol = -1; // 0..255, or -1: every protocol
    AclPrefix source;
    AclPrefix destination;
    AclPorts sourcePorts;      // only with protocol 6 or 17
    AclPorts destinationPorts; // only with protocol 6 or 17
    bool operator==(const AclRule &) const = default;
};

// IP version of an ACL by its number: 4 (1001..2000), 6 (3001..4000), 0 either (5001 and up; each of its
// rules may be of either version, a rule without addresses is of both). none: not a number an ACL can have.
std::optional<int> aclVersion(uint32_t aclNum);

// Parses a rule of ACL aclNum. Result: the rule, or none with *pError saying what is wrong where.
std::optional<AclRule> aclRuleParse(uint32_t aclNum, const std::string &text, std::string *pError);

// The rule's canonical text; parses back to the same rule.
std::string aclRuleFormat(uint32_t aclNum, const AclRule &rule);

// IP version of a rule: that of the ACL's number, else the rule's own; 0: packets of both versions.
int aclRuleVersion(uint32_t aclNum, const AclRule &rule);

using AclRules = std::map<uint32_t, AclRule>; // by rule number, evaluated in ascending order

// The rules of an ACL now, a snapshot; null when the ACL does not exist. Any thread. Lock: none
// (takes the module's own)
std::shared_ptr<const AclRules> aclSnapshot(uint32_t aclNum);

} // namespace host

#endif
