// The text form of ACL rules, and what an ACL's number says about them.
//
// The canonical text names both ends always, so that equal rules have equal texts.
#include <arpa/inet.h>

#include <string>

#include "host/acl/acl_rule.h"
#include "host/acl/acl_rule_words.h"

namespace host {

namespace {

std::string protocolText(int version, int16_t protocol) {
    if (protocol < 0) {
        return "ip";
    }
    if (protocol == ACL_PROTOCOL_TCP) {
        return "tcp";
    }
    if (protocol == ACL_PROTOCOL_UDP) {
        return "udp";
    }
    const bool isIcmp = (version == 4 && protocol == ACL_PROTOCOL_ICMP) ||
                        (version == 6 && protocol == ACL_PROTOCOL_ICMP_6);
    return isIcmp ? "icmp" : std::to_string(protocol);
}

std::string portsText(const AclPorts &ports) {
    if (ports.any) {
        return "";
    }
    std::string text = " port " + std::to_string(ports.first);
    return ports.first == ports.last ? text : text + "-" + std::to_string(ports.last);
}

std::string endText(int version, const AclPrefix &prefix) {
    return prefix.any ? "any" : aclPrefixText(version, prefix.address, prefix.length);
}

} // namespace

std::string aclPrefixText(int version, const std::array<uint8_t, 16> &address, unsigned length) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(version == 4 ? AF_INET : AF_INET6, address.data(), text, sizeof text);
    return std::string(text) + "/" + std::to_string(length);
}

bool aclPrefixTrim(std::array<uint8_t, 16> &address, int version, unsigned length) {
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

std::optional<int> aclVersion(uint32_t aclNum) {
    if (aclNum >= 1001 && aclNum <= 2000) {
        return 4;
    }
    if (aclNum >= 3001 && aclNum <= 4000) {
        return 6;
    }
    if (aclNum >= 5001) {
        return 0;
    }
    return std::nullopt;
}

int aclRuleVersion(uint32_t aclNum, const AclRule &rule) {
    const int version = aclVersion(aclNum).value_or(0);
    return version != 0 ? version : rule.version;
}

std::string aclRuleFormat(uint32_t aclNum, const AclRule &rule) {
    const int version = aclRuleVersion(aclNum, rule);
    std::string source = endText(version, rule.source);
    // Without an address only the source can tell the version of a rule in an ACL of either version.
    if (version != 0 && aclVersion(aclNum).value_or(0) == 0 && rule.source.any && rule.destination.any) {
        source = version == 4 ? "0.0.0.0/0" : "::/0";
    }
    return std::string(rule.permit ? "permit " : "deny ") + protocolText(version, rule.protocol) +
           " from " + source + portsText(rule.sourcePorts) + " to " +
           endText(version, rule.destination) + portsText(rule.destinationPorts);
}

} // namespace host
