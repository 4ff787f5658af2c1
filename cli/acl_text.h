// An ACL rule's text, read and written. pbrctl checks the rules of a policy file before anything is
// changed, and compares rules by what they match, not by how they are spelled.
//
// Text: permit|deny ip|tcp|udp|icmp|NUMBER [from PREFIX|any [port N[-M]]] [to PREFIX|any [port N[-M]]]
#ifndef CLI_ACL_TEXT_H
#define CLI_ACL_TEXT_H

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace cli {

struct AclEnd { // one end of a rule
    bool anyAddress = true;
    std::array<uint8_t, 16> address{}; // network order, IPv4 in the first 4 bytes
    unsigned prefixLen = 0;
    bool anyPort = true;
    uint16_t firstPort = 0;
    uint16_t lastPort = 65535;
    bool operator==(const AclEnd &) const = default;
};

constexpr int ACL_PROTOCOL_ANY = -1;
constexpr int ACL_PROTOCOL_ICMP = -2; // while reading: icmp of the version that the addresses tell

struct AclRule {
    bool permit = true;
    int protocol = ACL_PROTOCOL_ANY; // 0..255 or ACL_PROTOCOL_ANY
    int family = 0;                  // 4, 6, or 0: neither the ACL's number nor an address tells
    AclEnd from;
    AclEnd to;
    bool operator==(const AclRule &) const = default;
};

// Rules of an ACL by rule number: the text as given, and its value (none when it cannot be read, which
// happens only to texts that the daemon holds). Two are equal when they match the same.
struct AclRuleText {
    std::string text;
    std::optional<AclRule> value;
    bool operator==(const AclRuleText &other) const {
        return value && other.value ? *value == *other.value : text == other.text;
    }
};
using AclRules = std::map<uint32_t, AclRuleText>;

// IP version told by an ACL's number: 4 (1001..2000), 6 (3001..4000), 0 either (5001 and up); none for a
// number that a node can never use. Lock: none
std::optional<int> aclVersionOf(uint32_t aclNum);

// Reads a rule of ACL aclNum. Result: the rule, or none with error saying what is wrong. Lock: none
std::optional<AclRule> aclRuleRead(uint32_t aclNum, const std::string &text, std::string &error);

// As aclRuleRead, keeping the text; for texts of the daemon. Lock: none
AclRuleText aclRuleText(uint32_t aclNum, const std::string &text);

} // namespace cli

#endif
