// See link_messages.h.
//
// A port that joins an aggregation is told twice: about the port (it loses its own policy) and about the
// aggregation (it may need the aggregation's entries on the port).
#include "host/ifnet/link_messages.h"

#include <cstring>

#include "host/bus/bus.h"
#include "platform/qrv_socket.h"

namespace host {

namespace {

using Message = std::vector<uint8_t>;

uint32_t aggregationOf(const std::optional<IfnetLink> &link) {
    return link ? link->aggregation : 0;
}

} // namespace

Message linkMessage(uint16_t type, uint32_t unit) {
    LinkInfo info{};
    info.ifIndex = unit;
    return busMessage(type, &info, sizeof(info));
}

Message linkMessage(uint16_t type, uint32_t unit, QrvRtmLinkAttr attribute, uint32_t other) {
    LinkInfo info{};
    info.ifIndex = unit;
    const RtAttr header{sizeof(RtAttr) + sizeof(other), attribute};
    uint8_t payload[sizeof(info) + sizeof(header) + sizeof(other)];
    std::memcpy(payload, &info, sizeof(info));
    std::memcpy(payload + sizeof(info), &header, sizeof(header));
    std::memcpy(payload + sizeof(info) + sizeof(header), &other, sizeof(other));
    return busMessage(type, payload, sizeof(payload));
}

std::vector<Message> linkMessagesOf(const std::optional<IfnetLink> &before, const std::optional<IfnetLink> &after) {
    std::vector<Message> messages;
    const uint32_t left = aggregationOf(before), joined = aggregationOf(after);
    if (left != 0 && left != joined) {
        messages.push_back(linkMessage(QRV_RTM_NEWLINK, left, QRV_RTM_LINK_PORT_REMOVED, before->unit));
    }
    if (before && !after) {
        messages.push_back(linkMessage(QRV_RTM_DELLINK_FINAL, before->unit));
    }
    if (after && !before) {
        messages.push_back(linkMessage(QRV_RTM_NEWLINK, after->unit));
    }
    if (joined != 0 && joined != left) {
        messages.push_back(linkMessage(QRV_RTM_NEWLINK, after->unit, QRV_RTM_LINK_JOINED, joined));
        messages.push_back(linkMessage(QRV_RTM_NEWLINK, joined, QRV_RTM_LINK_PORT_ADDED, after->unit));
    }
    return messages;
}

void linkMessagesPublish(const std::vector<Message> &messages) {
    for (const Message &message : messages) {
        busPublish(QRV_RTNLGRP_LINK, message.data(), message.size());
    }
}

} // namespace host
