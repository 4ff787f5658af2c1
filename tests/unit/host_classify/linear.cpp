// See linear.h.
#include "linear.h"

#include <algorithm>
#include <optional>

namespace classify_test {

using namespace host;
using aclrule::AclAnswer;
using aclrule::AclPacket;

namespace {

constexpr uint32_t ACL = 5001; // of both versions

bool isMatch(const aclrule::AclRule &rule, const AclPacket &packet) {
    return aclRuleMatch(ACL, rule, packet).answer == AclAnswer::Match;
}

ClassNumber addressNumber(const aclrule::AclAddress &address, int version) {
    ClassNumber number;
    for (size_t i = 0; i < (version == 6 ? 16u : 4u); i++) {
        number.high = number.high << 8 | number.low >> 56;
        number.low = number.low << 8 | address[i];
    }
    return number;
}

// The packet's value of a field; none: it does not carry it.
std::optional<ClassNumber> valueOf(const AclPacket &packet, ClassField field) {
    const auto header = [&](const auto &value) -> std::optional<ClassNumber> {
        return value && !packet.isLaterFragment ? std::optional(ClassNumber{0, *value}) : std::nullopt;
    };
    switch (field) {
    case ClassField::SourceMac: {
        if (!packet.isEthernet || !packet.sourceMac) {
            return std::nullopt;
        }
        ClassNumber number;
        for (const uint8_t byte : *packet.sourceMac) {
            number.low = number.low << 8 | byte;
        }
        return number;
    }
    case ClassField::Dscp: return ClassNumber{0, packet.dscp};
    case ClassField::Length: return ClassNumber{0, *packet.length};
    case ClassField::Source: return addressNumber(packet.source, packet.version);
    case ClassField::Destination: return addressNumber(packet.destination, packet.version);
    case ClassField::Protocol: return ClassNumber{0, *packet.protocol};
    case ClassField::SourcePort: return header(packet.sourcePort);
    case ClassField::DestinationPort: return header(packet.destinationPort);
    case ClassField::IcmpType: return header(packet.icmpType);
    case ClassField::IcmpCode: return header(packet.icmpCode);
    }
    return std::nullopt;
}

const ClassCell *cellOf(const ClassStep &step, const AclPacket &packet, Way &way) {
    if (!isMatch(step.guard, packet)) {
        return nullptr;
    }
    std::vector<ClassNumber> key;
    for (const ClassField field : step.fields) {
        const std::optional<ClassNumber> value = valueOf(packet, field);
        if (!value) {
            return nullptr;
        }
        key.push_back(*value);
    }
    const ClassCell *pFound = nullptr;
    for (const ClassCell &cell : step.cells) {
        bool isInside = true;
        for (size_t i = 0; i < key.size(); i++) {
            isInside = isInside && cell.key[i].first <= key[i] && key[i] <= cell.key[i].last;
        }
        if (isInside && pFound != nullptr) {
            way.fault = "two cells hold it";
        }
        pFound = isInside ? &cell : pFound;
    }
    return pFound;
}

std::optional<ClassEnd> mapAsk(const ClassPlan &plan, const ClassStep &step, const AclPacket &packet, Way &way) {
    const ClassCell *pCell = cellOf(step, packet, way);
    if (pCell == nullptr) {
        return std::nullopt;
    }
    way.rules.insert(way.rules.end(), pCell->rules.begin(), pCell->rules.end());
    return classCellEnd(plan, *pCell);
}

std::optional<ClassEnd> linearAsk(const ClassPlan &plan, const ClassStep &step, const std::vector<ClassRule> &rules,
                                  const AclPacket &packet, Way &way) {
    std::optional<uint32_t> denied;
    for (const uint32_t rule : step.rules) {
        if (rules[rule].node == denied || !isMatch(rules[rule].rule, packet)) {
            continue;
        }
        way.rules.push_back(rule);
        if (rules[rule].rule.permit) {
            return ClassEnd::Decide;
        }
        if (plan.leaves[rule]) {
            return ClassEnd::Leave;
        }
        denied = rules[rule].node;
    }
    return std::nullopt;
}

} // namespace

Way linearWay(const std::vector<ClassRule> &rules, const AclPacket &packet) {
    Way way;
    std::optional<uint32_t> denied;
    for (uint32_t rule = 0; rule < rules.size() && !way.isDecided; rule++) {
        if (rules[rule].node != denied && isMatch(rules[rule].rule, packet)) {
            way.rules.push_back(rule);
            way.isDecided = rules[rule].rule.permit;
            denied = rules[rule].node;
        }
    }
    return way;
}

Way planWay(const ClassPlan &plan, const std::vector<ClassRule> &rules, const AclPacket &packet) {
    Way way;
    for (const std::vector<ClassStep> &section : plan.sections) {
        for (const ClassStep &step : section) {
            const std::optional<ClassEnd> end = step.kind == ClassStepKind::Linear
                                                    ? linearAsk(plan, step, rules, packet, way)
                                                    : mapAsk(plan, step, packet, way);
            if (end == ClassEnd::Decide) {
                way.isDecided = true;
                return way;
            }
            if (end == ClassEnd::Leave) {
                break;
            }
        }
    }
    return way;
}

std::string rulesText(const std::vector<ClassRule> &rules) {
    std::string text;
    for (size_t i = 0; i < rules.size(); i++) {
        text += std::to_string(i) + " (node " + std::to_string(rules[i].node) + "): " + aclRuleFormat(ACL, rules[i].rule) + "\n";
    }
    return text;
}

std::string packetText(const AclPacket &packet) {
    const auto bytes = [&](const aclrule::AclAddress &address) {
        std::string text;
        for (size_t i = 0; i < (packet.version == 6 ? 16u : 4u); i++) {
            text += (i == 0 ? "" : ".") + std::to_string(address[i]);
        }
        return text;
    };
    const auto number = [](const char *pName, const auto &value) {
        return value ? std::string(" ") + pName + " " + std::to_string(*value) : std::string();
    };
    return bytes(packet.source) + " to " + bytes(packet.destination) + number("protocol", packet.protocol) +
           number("from port", packet.sourcePort) + number("to port", packet.destinationPort) + number("flags", packet.flags) +
           number("type", packet.icmpType) + number("code", packet.icmpCode) + " dscp " + std::to_string(packet.dscp) +
           number("length", packet.length) + (packet.isLaterFragment ? " later fragment" : "");
}

std::string wayText(const Way &way) {
    std::string text = way.fault;
    for (const uint32_t rule : way.rules) {
        text += " " + std::to_string(rule);
    }
    return text + (way.isDecided ? " decides" : " no node");
}

} // namespace classify_test
