// The text form of ACL rules, and what an ACL's number says about them.
//
// The canonical text names both ends always and the options in one order, so that equal rules have equal
// texts.
#include <algorithm>
#include <cstdio>
#include <string>

#include "aclrule/acl_rule.h"
#include "aclrule/acl_rule_names.h"

namespace aclrule {

namespace {

std::string protocolText(int version, int16_t protocol) {
    if (protocol < 0) {
        return "ip";
    }
    const bool isIcmp = (version == 4 && protocol == ACL_PROTOCOL_ICMP) ||
                        (version == 6 && protocol == ACL_PROTOCOL_ICMP_6);
    const std::string name = isIcmp ? "icmp" : aclProtocolName(protocol);
    return name.empty() ? std::to_string(protocol) : name;
}

std::string rangeText(uint32_t first, uint32_t last) {
    return first == last ? std::to_string(first) : std::to_string(first) + "-" + std::to_string(last);
}

std::string portsText(const AclPorts &ports) {
    return ports.any ? "" : " port " + rangeText(ports.first, ports.last);
}

std::string endText(int version, const AclPrefix &prefix) {
    if (prefix.any) {
        return "any";
    }
    if (prefix.length == 0) {
        return aclAddressText(version, prefix.address) + " mask " + aclAddressText(version, prefix.wildcard);
    }
    return aclPrefixText(version, prefix.address, prefix.length);
}

std::string icmpText(int version, const AclRule &rule) {
    if (rule.icmpType < 0) {
        return "";
    }
    const std::string name = aclIcmpTypeName(version, rule.icmpType);
    const std::string type = " type " + (name.empty() ? std::to_string(rule.icmpType) : name);
    return rule.icmpCode < 0 ? type : type + " code " + std::to_string(rule.icmpCode);
}

std::string classText(const AclRule &rule) {
    if (rule.precedence >= 0) {
        return " precedence " + std::to_string(rule.precedence);
    }
    if (rule.dscp < 0) {
        return "";
    }
    const std::string name = aclDscpName(rule.dscp);
    return " dscp " + (name.empty() ? std::to_string(rule.dscp) : name);
}

std::string macText(const AclMac &mac) {
    char text[24];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

std::string optionsText(int version, const AclRule &rule) {
    std::string text;
    if ((rule.flagsSet | rule.flagsClear) != 0) {
        text += " flags " + aclFlagsText(rule.flagsSet, rule.flagsClear);
    }
    text += rule.established ? " established" : "";
    text += icmpText(version, rule);
    text += classText(rule);
    text += rule.fragments ? " fragments" : "";
    text += rule.length.any ? "" : " length " + rangeText(rule.length.first, rule.length.last);
    return rule.sourceMac ? text + " source-mac " + macText(*rule.sourceMac) : text;
}

} // namespace

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

AclAddress aclPrefixMask(const AclPrefix &prefix, int version) {
    AclAddress mask{};
    if (prefix.any) {
        return mask;
    }
    mask.fill(0xFF);
    if (prefix.length != 0) {
        (void)aclPrefixTrim(mask, version, prefix.length); // ones beyond it are meant to go
    } else {
        for (size_t i = 0; i < mask.size(); i++) {
            mask[i] = static_cast<uint8_t>(~prefix.wildcard[i]);
        }
    }
    if (version == 4) {
        std::fill(mask.begin() + 4, mask.end(), uint8_t{0});
    }
    return mask;
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
           endText(version, rule.destination) + portsText(rule.destinationPorts) + optionsText(version, rule);
}

} // namespace aclrule
