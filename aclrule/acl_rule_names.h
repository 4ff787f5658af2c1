// Names in ACL rules and the numbers they stand for, one table a subject, and the address texts that the
// parser and the writer share. Used by these two; others may look up names.
#ifndef ACLRULE_ACL_RULE_NAMES_H
#define ACLRULE_ACL_RULE_NAMES_H

#include <cstdint>
#include <string>

#include "aclrule/acl_rule.h"

namespace aclrule {

constexpr int16_t ACL_PROTOCOL_ICMP = 1;    // `icmp` of an IPv4 rule
constexpr int16_t ACL_PROTOCOL_TCP = 6;
constexpr int16_t ACL_PROTOCOL_UDP = 17;
constexpr int16_t ACL_PROTOCOL_DCCP = 33;
constexpr int16_t ACL_PROTOCOL_ICMP_6 = 58; // `icmp` of an IPv6 rule
constexpr int16_t ACL_PROTOCOL_SCTP = 132;
constexpr int16_t ACL_PROTOCOL_UDPLITE = 136;

// Bits of the TCP flags byte.
constexpr uint8_t ACL_FLAG_RST = 0x04, ACL_FLAG_ACK = 0x10;

// Least and greatest bytes of a packet with its IP header.
constexpr uint32_t ACL_LENGTH_LEAST_4 = 20, ACL_LENGTH_MOST_4 = 65535;
constexpr uint32_t ACL_LENGTH_LEAST_6 = 40, ACL_LENGTH_MOST_6 = 65575;

// Whether the protocol's header begins with a source and a destination port. Lock: none
bool aclProtocolHasPorts(int protocol);

// Number of a name, -1 when it is none; name of a number, empty when it has none. The names of ICMP
// types are those of the version (4 or 6). Lock: none
int aclProtocolNumber(const std::string &name);
std::string aclProtocolName(int number);
int aclIcmpTypeNumber(int version, const std::string &name);
std::string aclIcmpTypeName(int version, int number);
int aclDscpNumber(const std::string &name);
std::string aclDscpName(int number);

// Bit of a TCP flag's name, 0 when it is none; the flags that are set and clear as "syn,!ack". Lock: none
uint8_t aclFlagBit(const std::string &name);
std::string aclFlagsText(uint8_t set, uint8_t clear);

// All names of a subject, separated by ", ", for error texts. Lock: none
std::string aclIcmpTypeNames(int version);
std::string aclFlagNames();

// "10.1.0.0"; version: 4 or 6. Lock: none
std::string aclAddressText(int version, const AclAddress &address);

// "10.1.0.0/16". Lock: none
std::string aclPrefixText(int version, const AclAddress &address, unsigned length);

// Clears the bits beyond the first `length` ones. Result: whether one of them was set. Lock: none
bool aclPrefixTrim(AclAddress &address, int version, unsigned length);

} // namespace aclrule

#endif
