// See event_ops.h.
#include "host/mgmt/event_ops.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "host/bus/bus.h"
#include "host/ifnet/link_messages.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"
#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"

namespace host {

namespace {

using nlohmann::json;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t NUMBER_MAX = 0xFFFFFFFFu;

uint32_t unitOf(const json &request) {
    return mgmtArgNumber(request, "unit", 1, NUMBER_MAX);
}

Bytes linkNew(const json &request) {
    mgmtArgsOnly(request, {"event", "unit"});
    return linkMessage(QRV_RTM_NEWLINK, unitOf(request));
}

// An aggregation event: who it is about and the other end, which the member `pOther` names.
Bytes linkWith(const json &request, QrvRtmLinkAttr attribute, const char *pOther) {
    mgmtArgsOnly(request, {"event", "unit", pOther});
    const uint32_t unit = unitOf(request), other = mgmtArgNumber(request, pOther, 1, NUMBER_MAX);
    if (unit == other) {
        throw std::runtime_error("members \"unit\" and \"" + std::string(pOther) +
                                 "\" are the same interface: a port and its aggregation are two");
    }
    return linkMessage(QRV_RTM_NEWLINK, unit, attribute, other);
}

Bytes linkJoined(const json &request) {
    return linkWith(request, QRV_RTM_LINK_JOINED, "aggregation");
}

Bytes portAdded(const json &request) {
    return linkWith(request, QRV_RTM_LINK_PORT_ADDED, "port");
}

Bytes portRemoved(const json &request) {
    return linkWith(request, QRV_RTM_LINK_PORT_REMOVED, "port");
}

Bytes linkGone(const json &request) {
    mgmtArgsOnly(request, {"event", "unit"});
    return linkMessage(QRV_RTM_DELLINK_FINAL, unitOf(request));
}

Bytes portReset(const json &request) {
    mgmtArgsOnly(request, {"event", "unit"});
    const PortResetMsg payload{0, unitOf(request)};
    return busMessage(QRV_RTM_RESETPORTCONFIG, &payload, sizeof(payload));
}

// Card and slot messages are read over the header: the first word, its length, is the system's index
// (that of this host is the length of a header alone), the slot stands behind the type.
Bytes hardwareUp(uint16_t type, uint32_t slot, uint32_t word2, uint32_t word3) {
    Bytes message = busMessage(type, nullptr, 0);
    const uint16_t slotId = static_cast<uint16_t>(slot);
    std::memcpy(message.data() + 6, &slotId, sizeof(slotId));
    std::memcpy(message.data() + 8, &word2, sizeof(word2));
    std::memcpy(message.data() + 12, &word3, sizeof(word3));
    return message;
}

uint32_t slotOf(const json &request) {
    return mgmtArgNumber(request, "slot", 0, 0xFFFF, 0);
}

Bytes cardUp(const json &request) {
    mgmtArgsOnly(request, {"event", "slot", "card", "type"});
    return hardwareUp(QRV_RTM_CARD_UP, slotOf(request), mgmtArgNumber(request, "card", 0, NUMBER_MAX, 0),
                      mgmtArgNumber(request, "type", 0, NUMBER_MAX, 0));
}

Bytes slotUp(const json &request) {
    mgmtArgsOnly(request, {"event", "slot", "type"});
    return hardwareUp(QRV_RTM_SLOT_UP, slotOf(request), mgmtArgNumber(request, "type", 0, NUMBER_MAX, 0), 0);
}

void nameFill(const json &request, const char *pMember, uint8_t *pName, uint8_t *pLen) {
    const std::string name = mgmtArgText(request, pMember);
    if (name.empty() || name.size() > NQA_NAME_BYTES) {
        throw std::runtime_error("member \"" + std::string(pMember) + "\" must be a name of 1 to " +
                                 std::to_string(NQA_NAME_BYTES) + " bytes");
    }
    std::memcpy(pName, name.data(), name.size());
    *pLen = static_cast<uint8_t>(name.size());
}

Bytes probe(const json &request) {
    mgmtArgsOnly(request, {"event", "admin", "test", "status"});
    NqaStatusMsg payload{};
    nameFill(request, "admin", payload.adminName, &payload.adminNameLen);
    nameFill(request, "test", payload.testName, &payload.testNameLen);
    const std::string known[] = {"passing", "failing", "none"}; // 1, 2, 3
    const auto *pFound = std::find(std::begin(known), std::end(known), mgmtArgText(request, "status"));
    if (pFound == std::end(known)) {
        throw std::runtime_error("member \"status\" must be \"passing\", \"failing\" or \"none\"");
    }
    payload.status = static_cast<uint8_t>(pFound - known + 1);
    return busMessage(QRV_RTM_NQA, &payload, sizeof(payload));
}

struct EventRow {
    const char *pName;
    uint32_t group;
    Bytes (*make)(const json &request);
};
const EventRow EVENTS[] = {
    {"card-up", QRV_RTNLGRP_LINK, cardUp},         {"link-gone", QRV_RTNLGRP_LINK, linkGone},
    {"link-joined", QRV_RTNLGRP_LINK, linkJoined}, {"link-new", QRV_RTNLGRP_LINK, linkNew},
    {"port-added", QRV_RTNLGRP_LINK, portAdded},   {"port-removed", QRV_RTNLGRP_LINK, portRemoved},
    {"port-reset", QRV_RTNLGRP_LINK, portReset},   {"probe", QRV_RTNLGRP_NQA, probe},
    {"slot-up", QRV_RTNLGRP_LINK, slotUp},
};

std::string hexOf(const Bytes &bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += {digits[byte >> 4], digits[byte & 15]};
    }
    return text;
}

json opEvent(const json &request) {
    const EventMessage message = eventMessageOf(request);
    busPublish(message.group, message.bytes.data(), message.bytes.size());
    RtMsgHeader header;
    std::memcpy(&header, message.bytes.data(), sizeof(header));
    return {{"type", header.type}, {"group", message.group}, {"message", hexOf(message.bytes)}};
}

} // namespace

EventMessage eventMessageOf(const json &request) {
    const std::string name = mgmtArgText(request, "event");
    std::string known;
    for (const EventRow &row : EVENTS) {
        if (name == row.pName) {
            return {row.group, row.make(request)};
        }
        known += (known.empty() ? "" : ", ") + std::string(row.pName);
    }
    throw std::runtime_error("unknown event \"" + name.substr(0, 64) + "\"; known are " + known);
}

void eventOpsRegister() {
    mgmtRegister("event", true, opEvent);
}

} // namespace host
