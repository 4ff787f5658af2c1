// Whether a rule matches a packet: see acl_packet.h.
//
// One function a condition, each with the three answers; they are put together in one place, where a miss
// is stronger than not knowing.
#include "aclrule/acl_packet.h"

#include "aclrule/acl_rule_names.h"

namespace aclrule {

namespace {

const AclMatch MATCH;

AclMatch miss(const std::string &why) { return {AclAnswer::Miss, why}; }
AclMatch unknown(const char *pWhat) { return {AclAnswer::Unknown, std::string("it asks for the ") + pWhat}; }

AclMatch versionMatch(uint32_t aclNum, const AclRule &rule, const AclPacket &packet) {
    const int version = aclRuleVersion(aclNum, rule);
    return version == 0 || version == packet.version ? MATCH : miss("it is for IPv" + std::to_string(version));
}

AclMatch macMatch(const AclRule &rule, const AclPacket &packet) {
    if (!rule.sourceMac) {
        return MATCH;
    }
    if (!packet.isEthernet) {
        return miss("it has no source MAC: it does not come in over Ethernet");
    }
    if (!packet.sourceMac) {
        return unknown("source MAC");
    }
    return *rule.sourceMac == *packet.sourceMac ? MATCH : miss("another source MAC");
}

AclMatch fragmentMatch(const AclRule &rule, const AclPacket &packet) {
    return !rule.fragments || packet.isLaterFragment ? MATCH : miss("it is for later fragments");
}

AclMatch classMatch(const AclRule &rule, const AclPacket &packet) {
    if (rule.dscp >= 0 && rule.dscp != packet.dscp) {
        return miss("another DSCP");
    }
    return rule.precedence >= 0 && rule.precedence != packet.dscp >> 3 ? miss("another precedence") : MATCH;
}

AclMatch lengthMatch(const AclRule &rule, const AclPacket &packet) {
    if (rule.length.any) {
        return MATCH;
    }
    if (!packet.length) {
        return unknown("length");
    }
    const bool isInside = *packet.length >= rule.length.first && *packet.length <= rule.length.last;
    return isInside ? MATCH : miss("another length");
}

AclMatch addressMatch(const AclPrefix &prefix, const AclAddress &address, int version, const char *pMiss) {
    const AclAddress mask = aclPrefixMask(prefix, version);
    for (size_t i = 0; i < mask.size(); i++) {
        if ((address[i] & mask[i]) != (prefix.address[i] & mask[i])) {
            return miss(pMiss);
        }
    }
    return MATCH;
}

AclMatch protocolMatch(const AclRule &rule, const AclPacket &packet) {
    if (rule.protocol < 0) {
        return MATCH;
    }
    if (!packet.protocol) {
        return unknown("protocol");
    }
    return rule.protocol == *packet.protocol ? MATCH : miss("another protocol");
}

bool isHeaderAsked(const AclRule &rule) {
    return !rule.sourcePorts.any || !rule.destinationPorts.any || rule.established ||
           (rule.flagsSet | rule.flagsClear) != 0 || rule.icmpType >= 0;
}

AclMatch headerMatch(const AclRule &rule, const AclPacket &packet) {
    return isHeaderAsked(rule) && packet.isLaterFragment ? miss("a later fragment has no such header") : MATCH;
}

AclMatch portMatch(const AclPorts &ports, const std::optional<uint16_t> &port, const char *pMiss, const char *pName) {
    if (ports.any) {
        return MATCH;
    }
    if (!port) {
        return unknown(pName);
    }
    return *port >= ports.first && *port <= ports.last ? MATCH : miss(pMiss);
}

AclMatch flagsMatch(const AclRule &rule, const AclPacket &packet) {
    const uint8_t asked = rule.flagsSet | rule.flagsClear;
    if (asked == 0 && !rule.established) {
        return MATCH;
    }
    if (!packet.flags) {
        return unknown("TCP flags");
    }
    if ((*packet.flags & asked) != rule.flagsSet) {
        return miss("other TCP flags");
    }
    const bool isEstablished = (*packet.flags & (ACL_FLAG_ACK | ACL_FLAG_RST)) != 0;
    return rule.established && !isEstablished ? miss("neither ack nor rst") : MATCH;
}

AclMatch icmpMatch(const AclRule &rule, const AclPacket &packet) {
    if (rule.icmpType < 0) {
        return MATCH;
    }
    if (!packet.icmpType) {
        return unknown("ICMP type");
    }
    if (rule.icmpType != *packet.icmpType) {
        return miss("another ICMP type");
    }
    if (rule.icmpCode < 0) {
        return MATCH;
    }
    if (!packet.icmpCode) {
        return unknown("ICMP code");
    }
    return rule.icmpCode == *packet.icmpCode ? MATCH : miss("another ICMP code");
}

} // namespace

AclMatch aclRuleMatch(uint32_t aclNum, const AclRule &rule, const AclPacket &packet) {
    const AclMatch conditions[] = {
        versionMatch(aclNum, rule, packet),
        macMatch(rule, packet),
        fragmentMatch(rule, packet),
        classMatch(rule, packet),
        lengthMatch(rule, packet),
        addressMatch(rule.source, packet.source, packet.version, "another source"),
        addressMatch(rule.destination, packet.destination, packet.version, "another destination"),
        protocolMatch(rule, packet),
        headerMatch(rule, packet),
        portMatch(rule.sourcePorts, packet.sourcePort, "another source port", "source port"),
        portMatch(rule.destinationPorts, packet.destinationPort, "another destination port", "destination port"),
        flagsMatch(rule, packet),
        icmpMatch(rule, packet)};
    const AclMatch *pUnknown = nullptr;
    for (const AclMatch &condition : conditions) {
        if (condition.answer == AclAnswer::Miss) {
            return condition;
        }
        if (condition.answer == AclAnswer::Unknown && pUnknown == nullptr) {
            pUnknown = &condition;
        }
    }
    return pUnknown == nullptr ? MATCH : *pUnknown;
}

} // namespace aclrule
