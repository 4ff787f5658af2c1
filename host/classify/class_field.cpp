// Rules as boxes: see class_field.h. Called by the plan; calls aclrule/ values only.
#include "host/classify/class_field.h"

namespace host {

namespace {

using aclrule::AclAddress;
using aclrule::AclPrefix;
using aclrule::AclRule;

ClassNumber numberOf(const uint8_t *pBytes, size_t size) {
    ClassNumber number;
    for (size_t i = 0; i < size; i++) {
        number.high = number.high << 8 | number.low >> 56;
        number.low = number.low << 8 | pBytes[i];
    }
    return number;
}

bool isWildcard(const AclPrefix &prefix) { return !prefix.any && prefix.length == 0; }

class Builder {
public:
    Builder(const AclRule &rule, int family) : rule_(rule), family_(family) {}

    ClassBox build() {
        if (rule_.sourceMac) {
            one(ClassField::SourceMac, numberOf(rule_.sourceMac->data(), rule_.sourceMac->size()));
        }
        traffic();
        if (!rule_.length.any) {
            set(ClassField::Length, {0, rule_.length.first}, {0, rule_.length.last});
        }
        address(ClassField::Source, rule_.source);
        address(ClassField::Destination, rule_.destination);
        number(ClassField::Protocol, rule_.protocol);
        ports(ClassField::SourcePort, rule_.sourcePorts);
        ports(ClassField::DestinationPort, rule_.destinationPorts);
        number(ClassField::IcmpType, rule_.icmpType);
        number(ClassField::IcmpCode, rule_.icmpCode);
        rest();
        return box_;
    }

private:
    void set(ClassField field, const ClassNumber &first, const ClassNumber &last) {
        box_.fields |= 1u << static_cast<unsigned>(field);
        box_.ranges[static_cast<size_t>(field)] = {first, last};
    }
    void one(ClassField field, const ClassNumber &value) { set(field, value, value); }

    void number(ClassField field, int value) {
        if (value >= 0) {
            one(field, {0, static_cast<uint64_t>(value)});
        }
    }

    void traffic() {
        number(ClassField::Dscp, rule_.dscp);
        if (rule_.precedence >= 0) {
            const uint64_t first = static_cast<uint64_t>(rule_.precedence) * 8;
            set(ClassField::Dscp, {0, first}, {0, first + 7});
        }
    }

    void address(ClassField field, const AclPrefix &prefix) {
        if (prefix.any || isWildcard(prefix)) {
            return;
        }
        const size_t size = family_ == 6 ? 16 : 4;
        const AclAddress mask = aclPrefixMask(prefix, family_);
        AclAddress last = prefix.address;
        for (size_t i = 0; i < size; i++) {
            last[i] = static_cast<uint8_t>(last[i] | ~mask[i]);
        }
        set(field, numberOf(prefix.address.data(), size), numberOf(last.data(), size));
    }

    void ports(ClassField field, const aclrule::AclPorts &ports) {
        if (!ports.any) {
            set(field, {0, ports.first}, {0, ports.last});
        }
    }

    void rest() {
        box_.rest.flagsSet = rule_.flagsSet;
        box_.rest.flagsClear = rule_.flagsClear;
        box_.rest.established = rule_.established;
        box_.rest.fragments = rule_.fragments;
        if (isWildcard(rule_.source)) {
            box_.rest.source = rule_.source;
        }
        if (isWildcard(rule_.destination)) {
            box_.rest.destination = rule_.destination;
        }
    }

    const AclRule &rule_;
    const int family_;
    ClassBox box_;
};

// Flags of one that the other wants cleared: no packet has both.
bool areFlagsContrary(const AclRule &left, const AclRule &right) {
    return (left.flagsSet & right.flagsClear) != 0 || (right.flagsSet & left.flagsClear) != 0;
}

} // namespace

ClassNumber classNext(const ClassNumber &number) {
    return {number.low == UINT64_MAX ? number.high + 1 : number.high, number.low + 1};
}

ClassNumber classPrevious(const ClassNumber &number) {
    return {number.low == 0 ? number.high - 1 : number.high, number.low - 1};
}

const char *classFieldName(ClassField field) {
    switch (field) {
    case ClassField::SourceMac: return "mac";
    case ClassField::Dscp: return "dscp";
    case ClassField::Length: return "length";
    case ClassField::Source: return "saddr";
    case ClassField::Destination: return "daddr";
    case ClassField::Protocol: return "proto";
    case ClassField::SourcePort: return "sport";
    case ClassField::DestinationPort: return "dport";
    case ClassField::IcmpType: return "type";
    case ClassField::IcmpCode: return "code";
    }
    return "";
}

ClassBox classBox(const AclRule &rule, int family) { return Builder(rule, family).build(); }

bool classMayMeet(const ClassBox &left, const ClassBox &right) {
    for (uint32_t both = left.fields & right.fields, i = 0; both != 0; both >>= 1, i++) {
        if ((both & 1u) != 0 &&
            (left.ranges[i].last < right.ranges[i].first || right.ranges[i].last < left.ranges[i].first)) {
            return false;
        }
    }
    return !areFlagsContrary(left.rest, right.rest);
}

bool classSameForm(const ClassBox &left, const ClassBox &right) {
    return left.fields == right.fields && left.rest == right.rest;
}

void classConditionCopy(AclRule &rest, const AclRule &rule, ClassField field) {
    switch (field) {
    case ClassField::SourceMac: rest.sourceMac = rule.sourceMac; break;
    case ClassField::Dscp:
        rest.dscp = rule.dscp;
        rest.precedence = rule.precedence;
        break;
    case ClassField::Length: rest.length = rule.length; break;
    case ClassField::Source: rest.source = rule.source; break;
    case ClassField::Destination: rest.destination = rule.destination; break;
    case ClassField::Protocol: rest.protocol = rule.protocol; break;
    case ClassField::SourcePort: rest.sourcePorts = rule.sourcePorts; break;
    case ClassField::DestinationPort: rest.destinationPorts = rule.destinationPorts; break;
    case ClassField::IcmpType: rest.icmpType = rule.icmpType; break;
    case ClassField::IcmpCode: rest.icmpCode = rule.icmpCode; break;
    }
}

std::string classRestText(const AclRule &rest) {
    std::string text;
    const auto add = [&text](bool isAsked, const char *pWhat) {
        if (isAsked) {
            text += (text.empty() ? "" : ", ") + std::string(pWhat);
        }
    };
    add((rest.flagsSet | rest.flagsClear) != 0, "TCP flags");
    add(rest.established, "established");
    add(rest.fragments, "fragments");
    add(isWildcard(rest.source) || isWildcard(rest.destination), "a wildcard mask");
    return text;
}

} // namespace host
