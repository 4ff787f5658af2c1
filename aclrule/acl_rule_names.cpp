// Names in ACL rules: see acl_rule_names.h. The tables are the published ones; a name stands once.
#include "aclrule/acl_rule_names.h"

#include <arpa/inet.h>


namespace aclrule {

namespace {

struct Name {
    const char *pName;
    int number;
};

const Name PROTOCOLS[] = {
    {"igmp", 2},  {"ipip", 4},  {"tcp", 6},   {"udp", 17},   {"dccp", 33},  {"rsvp", 46},
    {"gre", 47},  {"esp", 50},  {"ah", 51},   {"eigrp", 88}, {"ospf", 89},  {"pim", 103},  {"ipcomp", 108},
    {"vrrp", 112}, {"l2tp", 115}, {"sctp", 132}, {"udplite", 136},
};

const Name ICMP_TYPES_4[] = {
    {"echo-reply", 0}, {"unreachable", 3}, {"redirect", 5}, {"echo-request", 8}, {"router-advertisement", 9},
    {"router-solicitation", 10}, {"time-exceeded", 11}, {"parameter-problem", 12}, {"timestamp-request", 13},
    {"timestamp-reply", 14},
};

const Name ICMP_TYPES_6[] = {
    {"unreachable", 1}, {"packet-too-big", 2}, {"time-exceeded", 3}, {"parameter-problem", 4},
    {"echo-request", 128}, {"echo-reply", 129}, {"mld-query", 130}, {"mld-report", 131}, {"mld-done", 132},
    {"router-solicitation", 133}, {"router-advertisement", 134}, {"neighbour-solicitation", 135},
    {"neighbour-advertisement", 136}, {"redirect", 137}, {"mld2-report", 143},
};

const Name DSCPS[] = {
    {"cs0", 0},   {"le", 1},    {"cs1", 8},   {"af11", 10}, {"af12", 12}, {"af13", 14}, {"cs2", 16}, {"af21", 18},
    {"af22", 20}, {"af23", 22}, {"cs3", 24},  {"af31", 26}, {"af32", 28}, {"af33", 30}, {"cs4", 32}, {"af41", 34},
    {"af42", 36}, {"af43", 38}, {"cs5", 40},  {"va", 44},   {"ef", 46},   {"cs6", 48},  {"cs7", 56},
};

const Name FLAGS[] = {
    {"fin", 0x01}, {"syn", 0x02}, {"rst", 0x04}, {"psh", 0x08}, {"ack", 0x10}, {"urg", 0x20}, {"ece", 0x40},
    {"cwr", 0x80},
};

template <size_t COUNT> int numberOf(const Name (&table)[COUNT], const std::string &name) {
    for (const Name &row : table) {
        if (name == row.pName) {
            return row.number;
        }
    }
    return -1;
}

template <size_t COUNT> std::string nameOf(const Name (&table)[COUNT], int number) {
    for (const Name &row : table) {
        if (number == row.number) {
            return row.pName;
        }
    }
    return "";
}

template <size_t COUNT> std::string namesOf(const Name (&table)[COUNT]) {
    std::string names;
    for (const Name &row : table) {
        names.append(names.empty() ? "" : ", ").append(row.pName);
    }
    return names;
}

} // namespace

bool aclProtocolHasPorts(int protocol) {
    return protocol == ACL_PROTOCOL_TCP || protocol == ACL_PROTOCOL_UDP || protocol == ACL_PROTOCOL_DCCP ||
           protocol == ACL_PROTOCOL_SCTP || protocol == ACL_PROTOCOL_UDPLITE;
}

int aclProtocolNumber(const std::string &name) { return numberOf(PROTOCOLS, name); }

std::string aclProtocolName(int number) { return nameOf(PROTOCOLS, number); }

int aclIcmpTypeNumber(int version, const std::string &name) {
    return version == 6 ? numberOf(ICMP_TYPES_6, name) : numberOf(ICMP_TYPES_4, name);
}

std::string aclIcmpTypeName(int version, int number) {
    return version == 6 ? nameOf(ICMP_TYPES_6, number) : nameOf(ICMP_TYPES_4, number);
}

int aclDscpNumber(const std::string &name) { return numberOf(DSCPS, name); }

std::string aclDscpName(int number) { return nameOf(DSCPS, number); }

uint8_t aclFlagBit(const std::string &name) {
    const int bit = numberOf(FLAGS, name);
    return bit < 0 ? uint8_t{0} : static_cast<uint8_t>(bit);
}

std::string aclFlagsText(uint8_t set, uint8_t clear) {
    std::string text;
    for (const Name &flag : FLAGS) {
        if (((set | clear) & flag.number) != 0) {
            text += text.empty() ? "" : ",";
            text += (clear & flag.number) != 0 ? "!" : "";
            text += flag.pName;
        }
    }
    return text;
}

std::string aclIcmpTypeNames(int version) { return version == 6 ? namesOf(ICMP_TYPES_6) : namesOf(ICMP_TYPES_4); }

std::string aclFlagNames() { return namesOf(FLAGS); }

std::string aclAddressText(int version, const AclAddress &address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(version == 4 ? AF_INET : AF_INET6, address.data(), text, sizeof text);
    return text;
}

std::string aclPrefixText(int version, const AclAddress &address, unsigned length) {
    return aclAddressText(version, address) + "/" + std::to_string(length);
}

bool aclPrefixTrim(AclAddress &address, int version, unsigned length) {
    bool wasSet = false;
    const unsigned bytes = version == 4 ? 4 : 16;
    for (unsigned i = 0; i < bytes; i++) {
        const unsigned kept = length >= 8 * (i + 1) ? 8 : length <= 8 * i ? 0 : length - 8 * i;
        const uint8_t mask = static_cast<uint8_t>(0xFF00u >> kept);
        wasSet = wasSet || (address[i] & static_cast<uint8_t>(~mask)) != 0;
        address[i] &= mask;
    }
    return wasSet;
}

} // namespace aclrule
