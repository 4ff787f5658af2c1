// Events as route messages: every byte of each, and what is refused.
#include <gtest/gtest.h>

#include <cstring>

#include "host/bus/bus.h"
#include "host/mgmt/event_ops.h"
#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"
#include "tests/unit/host_acl/host_environment.h"

namespace {

using namespace host;
using nlohmann::json;

// As it comes over the socket.
EventMessage made(const json &request) {
    return eventMessageOf(json::parse(request.dump()));
}

// The message's words of 32 bits, after a check of header and group.
std::vector<uint32_t> words(const json &request, uint16_t type, uint32_t group = QRV_RTNLGRP_LINK) {
    const EventMessage message = made(request);
    RtMsgHeader header{};
    std::memcpy(&header, message.bytes.data(), sizeof(header));
    EXPECT_EQ(message.group, group);
    EXPECT_EQ(header.type, type);
    EXPECT_EQ(header.length, message.bytes.size());
    std::vector<uint32_t> found(message.bytes.size() / 4);
    std::memcpy(found.data(), message.bytes.data(), found.size() * 4);
    return found;
}

std::string errorOf(const json &request) {
    try {
        (void)made(request);
    } catch (const std::runtime_error &refusal) {
        return refusal.what();
    }
    return "";
}

TEST(Event, LinksCarryTheirUnitAndTheOtherEnd) {
    const auto link = [](const std::string &event, const char *pOther) {
        json request = {{"event", event}, {"unit", 7}};
        if (pOther != nullptr) {
            request[pOther] = 9;
        }
        return words(request, event == "link-gone" ? QRV_RTM_DELLINK_FINAL : QRV_RTM_NEWLINK);
    };
    EXPECT_EQ(link("link-new", nullptr).size(), 12u);
    EXPECT_EQ(link("link-new", nullptr)[7], 7u);
    EXPECT_EQ(link("link-gone", nullptr).size(), 12u);
    EXPECT_EQ(link("link-gone", nullptr)[7], 7u);
    for (const auto &[event, pOther, type] :
         {std::tuple{"link-joined", "aggregation", 52}, {"port-added", "port", 66}, {"port-removed", "port", 67}}) {
        const std::vector<uint32_t> found = link(event, pOther);
        RtAttr attr;
        std::memcpy(&attr, &found[12], sizeof(attr));
        EXPECT_EQ(found.size(), 14u);
        EXPECT_EQ(found[7], 7u);
        EXPECT_EQ(attr.length, 8);
        EXPECT_EQ(attr.type, type);
        EXPECT_EQ(found[13], 9u);
    }
}

TEST(Event, APortResetNamesItsUnitInTheSecondWord) {
    const std::vector<uint32_t> found = words({{"event", "port-reset"}, {"unit", 7}}, QRV_RTM_RESETPORTCONFIG);
    EXPECT_EQ(found.size(), 8u);
    EXPECT_EQ(found[7], 7u);
}

TEST(Event, CardsAndSlotsStandInTheHeaderWhereTheyAreRead) {
    const std::vector<uint32_t> card =
        words({{"event", "card-up"}, {"slot", 5}, {"card", 6}, {"type", 7}}, QRV_RTM_CARD_UP);
    uint16_t slot;
    std::memcpy(&slot, reinterpret_cast<const uint8_t *>(card.data()) + 6, sizeof(slot));
    EXPECT_EQ(slot, 5);
    EXPECT_EQ(card, (std::vector<uint32_t>{24, card[1], 6, 7, 0, 0}));
    const std::vector<uint32_t> slotUp = words({{"event", "slot-up"}, {"type", 7}}, QRV_RTM_SLOT_UP);
    EXPECT_EQ(slotUp, (std::vector<uint32_t>{24, slotUp[1], 7, 0, 0, 0}));
}

TEST(Event, AProbeCarriesItsNamesAndStatus) {
    for (const auto &[status, code] : {std::pair{"passing", 1}, {"failing", 2}, {"none", 3}}) {
        const EventMessage message = eventMessageOf(
            {{"event", "probe"}, {"admin", "ops"}, {"test", std::string(32, 't')}, {"status", status}});
        NqaStatusMsg payload;
        ASSERT_EQ(message.bytes.size(), QRV_RTM_HEADER_BYTES + sizeof(payload));
        EXPECT_EQ(message.group, QRV_RTNLGRP_NQA);
        std::memcpy(&payload, message.bytes.data() + QRV_RTM_HEADER_BYTES, sizeof(payload));
        EXPECT_EQ(std::string(payload.adminName, payload.adminName + payload.adminNameLen), "ops");
        EXPECT_EQ(std::string(payload.testName, payload.testName + payload.testNameLen), std::string(32, 't'));
        EXPECT_EQ(payload.status, code);
    }
}

TEST(Event, WhatIsNotWholeIsRefused) {
    EXPECT_EQ(errorOf({{"event", "card-down"}}),
              "unknown event \"card-down\"; known are card-up, link-gone, link-joined, link-new, port-added, "
              "port-removed, port-reset, probe, slot-up");
    EXPECT_EQ(errorOf(json::object()), "member \"event\" is missing: it must be a text");
    EXPECT_EQ(errorOf({{"event", "port-reset"}}),
              "member \"unit\" is missing: it must be a whole number 1 to 4294967295");
    EXPECT_EQ(errorOf({{"event", "port-reset"}, {"unit", 0}}), "member \"unit\" must be a whole number 1 to 4294967295");
    EXPECT_EQ(errorOf({{"event", "port-reset"}, {"unit", 1}, {"port", 2}}),
              "unknown member \"port\"; this operation takes event, unit");
    EXPECT_EQ(errorOf({{"event", "port-added"}, {"unit", 1}, {"port", 1}}),
              "members \"unit\" and \"port\" are the same interface: a port and its aggregation are two");
    EXPECT_EQ(errorOf({{"event", "card-up"}, {"slot", 65536}}), "member \"slot\" must be a whole number 0 to 65535");
    EXPECT_EQ(errorOf({{"event", "slot-up"}, {"card", 1}}), "unknown member \"card\"; this operation takes event, slot, type");
    EXPECT_EQ(errorOf({{"event", "probe"}, {"admin", ""}, {"test", "t"}, {"status", "passing"}}),
              "member \"admin\" must be a name of 1 to 32 bytes");
    EXPECT_EQ(errorOf({{"event", "probe"}, {"admin", "a"}, {"test", std::string(33, 't')}, {"status", "passing"}}),
              "member \"test\" must be a name of 1 to 32 bytes");
    EXPECT_EQ(errorOf({{"event", "probe"}, {"admin", "a"}, {"test", "t"}, {"status", "good"}}),
              "member \"status\" must be \"passing\", \"failing\" or \"none\"");
}

TEST(Event, TheOperationPublishesOnTheBus) {
    eventOpsRegister();
    ASSERT_EQ(hosttest::mgmtOpen(), "");
    hosttest::Client client(hosttest::root() + "/tmp/policyroutemgmt.socket");
    hosttest::RouteSocket socket; // of the probe group
    const json request = {{"op", "event"}, {"event", "probe"}, {"admin", "a"}, {"test", "t"}, {"status", "passing"}};
    const json answer = client.call(request);
    EXPECT_EQ(answer.value("type", 0), 349);
    EXPECT_EQ(answer.value("group", 0), 89);
    json plain = request;
    plain.erase("op");
    EXPECT_EQ(socket.read(10000), eventMessageOf(plain).bytes);
    EXPECT_EQ(client.call({{"op", "event"}}).value("ok", true), false);
}

} // namespace
