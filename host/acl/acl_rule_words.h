// Words that the parser and the writer of ACL rules share: addresses and prefixes as text.
#ifndef HOST_ACL_ACL_RULE_WORDS_H
#define HOST_ACL_ACL_RULE_WORDS_H

#include <array>
#include <cstdint>
#include <string>

namespace host {

constexpr int16_t ACL_PROTOCOL_TCP = 6;
constexpr int16_t ACL_PROTOCOL_UDP = 17;
constexpr int16_t ACL_PROTOCOL_ICMP = 1;    // `icmp` of an IPv4 rule
constexpr int16_t ACL_PROTOCOL_ICMP_6 = 58; // `icmp` of an IPv6 rule

// "10.1.0.0/16". version: 4 or 6. address: network order. Lock: none
std::string aclPrefixText(int version, const std::array<uint8_t, 16> &address, unsigned length);

// Clears the bits beyond the first `length` ones. Result: whether one of them was set. Lock: none
bool aclPrefixTrim(std::array<uint8_t, 16> &address, int version, unsigned length);

} // namespace host

#endif
