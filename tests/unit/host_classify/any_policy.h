// Random policies of many forms, with overlaps and deny rules, and packets at the edges of what their rules ask for.
#ifndef TESTS_UNIT_HOST_CLASSIFY_ANY_POLICY_H
#define TESTS_UNIT_HOST_CLASSIFY_ANY_POLICY_H

#include <cstdint>
#include <initializer_list>
#include <random>
#include <vector>

#include "aclrule/acl_packet.h"
#include "aclrule/acl_rule_names.h"
#include "host/classify/class_plan.h"

namespace classify_test {

using aclrule::AclPacket;
using aclrule::AclRule;
using host::ClassRule;

// How a policy is thrown: which conditions its rules have, and how wide they are.
struct Style {
    uint32_t nodes, rulesMost, denyPercent;
    bool ports, classes, lengths, macs, icmp, flags, wildcards;
    uint32_t addressBits; // of the part of the address that differs
};

class Dice {
public:
    Dice(uint32_t seed, int family) : random_(seed), family_(family) {}

    uint32_t any(uint32_t count) { return static_cast<uint32_t>(random_() % count); }
    bool percent(uint32_t chance) { return any(100) < chance; }

    Style style() {
        return {1 + any(30), 1 + any(6), oneOf({0u, 0u, 20u, 60u}), percent(50), percent(20), percent(15), percent(15),
                percent(20), percent(15), percent(15), oneOf({2u, 4u, 6u})};
    }

    template <class Value> Value oneOf(std::initializer_list<Value> values) {
        return *(values.begin() + any(static_cast<uint32_t>(values.size())));
    }

    std::vector<ClassRule> policy() {
        const Style style = this->style();
        const bool isOneForm = percent(30);
        const uint32_t form = any(256);
        std::vector<ClassRule> rules;
        for (uint32_t node = 0; node < style.nodes; node++) {
            for (uint32_t i = 1 + any(style.rulesMost); i > 0; i--) {
                rules.push_back({node * 10, rule(style, isOneForm ? form : any(256))});
            }
        }
        return rules;
    }

    // Near the edges of some rule, and partly of another one.
    AclPacket packet(const std::vector<ClassRule> &rules) {
        AclPacket packet;
        packet.version = family_;
        packet.source = address(0, false, 6);
        packet.destination = address(0, true, 6);
        const AclRule &rule = rules[any(static_cast<uint32_t>(rules.size()))].rule;
        const AclRule &other = percent(50) ? rule : rules[any(static_cast<uint32_t>(rules.size()))].rule;
        near(packet.source, rule.source);
        near(packet.destination, other.destination);
        packet.protocol = static_cast<uint8_t>(rule.protocol >= 0 ? rule.protocol : oneOf({6, 17, icmp(), 47}));
        packet.isLaterFragment = percent(8);
        packet.isEthernet = !percent(8);
        packet.sourceMac = rule.sourceMac && !percent(20) ? *rule.sourceMac : mac();
        packet.dscp = static_cast<uint8_t>(rule.dscp >= 0 ? rule.dscp : rule.precedence >= 0 ? rule.precedence * 8 + static_cast<int>(any(9)) : static_cast<int>(any(64))) % 64;
        packet.length = rule.length.any ? 60 + any(12) : edge(rule.length.first, rule.length.last);
        header(packet, rule, other);
        return packet;
    }

private:
    int icmp() const { return family_ == 6 ? 58 : 1; }

    uint16_t port() { return static_cast<uint16_t>(1 + any(12)); }
    aclrule::AclMac mac() { return {2, 0, 0, 0, 0, static_cast<uint8_t>(any(3))}; }
    uint32_t edge(uint32_t first, uint32_t last) { return oneOf({first, last, first == 0 ? 0 : first - 1, last + 1}); }

    aclrule::AclAddress address(uint32_t, bool isDestination, uint32_t bits) {
        aclrule::AclAddress address{};
        address[0] = isDestination ? 203 : 10;
        address[family_ == 6 ? 15 : 3] = static_cast<uint8_t>(any(1u << bits));
        return address;
    }

    aclrule::AclPrefix prefix(const Style &style, bool isDestination) {
        aclrule::AclPrefix prefix;
        const uint8_t whole = family_ == 6 ? 128 : 32;
        prefix.any = false;
        prefix.address = address(0, isDestination, style.addressBits);
        uint8_t &last = prefix.address[family_ == 6 ? 15 : 3];
        if (style.wildcards && percent(40)) {
            const uint8_t open = static_cast<uint8_t>(1 + any(7));
            prefix.wildcard[family_ == 6 ? 15 : 3] = open;
            last = static_cast<uint8_t>(last & ~open);
            return prefix;
        }
        prefix.length = percent(5) ? 8 : static_cast<uint8_t>(whole - (percent(50) ? 0 : any(5)));
        if (prefix.length == 8) {
            last = 0;
        }
        last = static_cast<uint8_t>(last & (0xff << (whole - prefix.length > 8 ? 8 : whole - prefix.length)));
        return prefix;
    }

    aclrule::AclPorts ports() {
        const uint16_t first = port();
        return {first, static_cast<uint16_t>(first + (percent(60) ? 0 : any(6))), false};
    }

    AclRule rule(const Style &style, uint32_t form) {
        AclRule rule;
        rule.version = static_cast<uint8_t>(family_);
        rule.permit = !percent(style.denyPercent);
        if (form & 1) {
            rule.source = prefix(style, false);
        }
        if (form & 2) {
            rule.destination = prefix(style, true);
        }
        upper(style, form, rule);
        if (style.classes && (form & 32)) {
            (percent(50) ? rule.dscp : rule.precedence) = static_cast<int8_t>(any(8));
        }
        if (style.lengths && (form & 64)) {
            rule.length.any = false;
            rule.length.first = 60 + any(10);
            rule.length.last = rule.length.first + any(3);
        }
        if (style.macs && (form & 128)) {
            rule.sourceMac = mac();
        }
        return rule;
    }

    void upper(const Style &style, uint32_t form, AclRule &rule) {
        if (style.icmp && percent(30)) {
            rule.protocol = static_cast<int16_t>(icmp());
            rule.icmpType = static_cast<int16_t>(any(3));
            rule.icmpCode = static_cast<int16_t>(percent(50) ? -1 : static_cast<int>(any(2)));
            return;
        }
        if (form & 4) {
            rule.protocol = oneOf<int16_t>({6, 17, 47});
        }
        const bool hasPorts = rule.protocol == 6 || rule.protocol == 17;
        if (style.ports && hasPorts && (form & 8)) {
            rule.destinationPorts = ports();
        }
        if (style.ports && hasPorts && (form & 16)) {
            rule.sourcePorts = ports();
        }
        if (style.flags && rule.protocol == 6 && percent(40)) {
            rule.established = percent(50);
            rule.flagsSet = percent(50) ? aclrule::ACL_FLAG_ACK : 0;
            rule.flagsClear = percent(50) ? aclrule::ACL_FLAG_RST : 0;
        } else if (style.flags && rule.destinationPorts.any && rule.sourcePorts.any && percent(20)) {
            rule.fragments = true;
        }
    }

    void near(aclrule::AclAddress &address, const aclrule::AclPrefix &prefix) {
        if (prefix.any || percent(15)) {
            return;
        }
        uint8_t &last = address[family_ == 6 ? 15 : 3];
        const uint8_t begin = prefix.address[family_ == 6 ? 15 : 3];
        const uint8_t whole = family_ == 6 ? 128 : 32;
        const uint32_t size = prefix.length == 0 ? 8 : prefix.length + 8 > whole ? 1u << (whole - prefix.length) : 256;
        last = static_cast<uint8_t>(oneOf<uint32_t>({begin, begin + size - 1, begin + size, begin - 1u, begin + any(size)}));
    }

    void header(AclPacket &packet, const AclRule &rule, const AclRule &other) {
        if (*packet.protocol == 6 || *packet.protocol == 17) {
            packet.sourcePort = rule.sourcePorts.any ? port() : static_cast<uint16_t>(edge(rule.sourcePorts.first, rule.sourcePorts.last));
            packet.destinationPort = other.destinationPorts.any ? port() : static_cast<uint16_t>(edge(other.destinationPorts.first, other.destinationPorts.last));
        }
        if (*packet.protocol == 6) {
            packet.flags = static_cast<uint8_t>(percent(50) ? (rule.established ? rule.flagsSet | aclrule::ACL_FLAG_ACK : rule.flagsSet) : any(64));
        }
        if (*packet.protocol == icmp()) {
            packet.icmpType = static_cast<uint8_t>(rule.icmpType >= 0 ? rule.icmpType : static_cast<int>(any(4)));
            packet.icmpCode = static_cast<uint8_t>(any(3));
        }
    }

    std::mt19937 random_;
    const int family_;
};

} // namespace classify_test

#endif
