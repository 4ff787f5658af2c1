// See explain_ops.h. Called by the management socket; calls the device.
#include "host/mgmt/explain_ops.h"

#include <arpa/inet.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "aclrule/acl_rule_names.h"
#include "host/acl/acl_rule.h"
#include "host/ifnet/ifnet.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"

namespace host {

namespace {

using nlohmann::json;

// Result: the version of the address, 4 or 6.
int addressOf(const json &request, const char *pName, AclAddress *pAddress) {
    const std::string text = mgmtArgText(request, pName);
    if (inet_pton(AF_INET, text.c_str(), pAddress->data()) == 1) {
        return 4;
    }
    if (inet_pton(AF_INET6, text.c_str(), pAddress->data()) == 1) {
        return 6;
    }
    throw std::runtime_error("member \"" + std::string(pName) + "\" must be an IPv4 or IPv6 address");
}

template <typename Value>
std::optional<Value> numberOf(const json &request, const char *pName, uint32_t least, uint32_t most) {
    if (!request.contains(pName)) {
        return std::nullopt;
    }
    return static_cast<Value>(mgmtArgNumber(request, pName, least, most));
}

std::optional<AclMac> macOf(const json &request) {
    if (!request.contains("sourceMac")) {
        return std::nullopt;
    }
    const std::optional<AclMac> mac = aclrule::aclMacRead(mgmtArgText(request, "sourceMac"));
    if (!mac) {
        throw std::runtime_error("member \"sourceMac\" must be a MAC address: 02:00:5e:00:53:01");
    }
    return mac;
}

// "interface": a name, or "unit": the kernel's index.
uint32_t interfaceAsked(const json &request) {
    if (request.contains("unit")) {
        return mgmtArgNumber(request, "unit", 1, UINT32_MAX);
    }
    const std::string name = mgmtArgText(request, "interface");
    const std::optional<IfnetLink> link = ifnetByName(name);
    if (!link) {
        throw std::runtime_error("interface " + name.substr(0, 64) + " does not exist");
    }
    return link->unit;
}

json opExplain(const json &request) {
    const PacketQuestion question = packetQuestionOf(request);
    json answer = hostDevice().explain(question);
    answer["interface"] = ifnetName(question.ifUnit);
    return answer;
}

json opCosts(const json &request) {
    mgmtArgsOnly(request, {"interface", "unit"});
    const bool isOne = request.contains("interface") || request.contains("unit");
    return hostDevice().costs(isOne ? std::optional(interfaceAsked(request)) : std::nullopt);
}

json opCounters(const json &request) {
    mgmtArgsOnly(request, {});
    return hostDevice().policyCounters();
}

json opCountersClear(const json &request) {
    mgmtArgsOnly(request, {});
    const std::string error = hostDevice().policyCountersClear();
    if (!error.empty()) {
        throw std::runtime_error(error);
    }
    return json::object();
}

} // namespace

PacketQuestion packetQuestionOf(const json &request) {
    mgmtArgsOnly(request, {"interface", "unit", "source", "destination", "protocol", "sourcePort", "destinationPort",
                           "flags", "type", "code", "dscp", "fragment", "length", "sourceMac", "mark"});
    PacketQuestion question;
    aclrule::AclPacket &packet = question.packet;
    question.ifUnit = interfaceAsked(request);
    question.mark = mgmtArgNumber(request, "mark", 0, UINT32_MAX, 0);
    packet.version = addressOf(request, "source", &packet.source);
    if (addressOf(request, "destination", &packet.destination) != packet.version) {
        throw std::runtime_error("source and destination must be of one IP version");
    }
    packet.protocol = numberOf<uint8_t>(request, "protocol", 0, 255);
    packet.sourcePort = numberOf<uint16_t>(request, "sourcePort", 0, 65535);
    packet.destinationPort = numberOf<uint16_t>(request, "destinationPort", 0, 65535);
    packet.flags = numberOf<uint8_t>(request, "flags", 0, 255);
    packet.icmpType = numberOf<uint8_t>(request, "type", 0, 255);
    packet.icmpCode = numberOf<uint8_t>(request, "code", 0, 255);
    packet.dscp = static_cast<uint8_t>(mgmtArgNumber(request, "dscp", 0, 63, 0));
    packet.isLaterFragment = mgmtArgFlag(request, "fragment", false);
    packet.length = packet.version == 6
        ? numberOf<uint32_t>(request, "length", aclrule::ACL_LENGTH_LEAST_6, aclrule::ACL_LENGTH_MOST_6)
        : numberOf<uint32_t>(request, "length", aclrule::ACL_LENGTH_LEAST_4, aclrule::ACL_LENGTH_MOST_4);
    packet.sourceMac = macOf(request);
    const std::optional<IfnetLink> link = ifnetByUnit(question.ifUnit);
    packet.isEthernet = !link || link->isEthernet;
    return question;
}

void explainOpsRegister() {
    mgmtRegister("device.explain", false, opExplain);
    mgmtRegister("device.costs", false, opCosts);
    mgmtRegister("device.counters", false, opCounters);
    mgmtRegister("device.countersClear", true, opCountersClear);
}

} // namespace host
