// The running policy as sets: what a destroyed row takes along, and the order in which it is made again.
#include "host/journal/policy_state.h"

#include <gtest/gtest.h>

#include <cstring>

#include "api/pbr_keys.h"
#include "core/pbr_types.h"
#include "host/journal/policy_replay.h"

namespace {

using host::PolicyRow;
using host::PolicySet;
using host::PolicyState;
using host::PolicyTable;
using host::policyReplay;

const PolicyRow LIST{PolicyTable::List, "wan", 0, 0, 0};
const PolicyRow NODE{PolicyTable::Node, "wan", 10, 0, 0};
const PolicyRow LAN{PolicyTable::Interface, "", 0, 0, 7};

PolicyRow hop(uint32_t index) {
    return {PolicyTable::NextHop, "wan", 10, index, 0};
}

PolicySet number(const PolicyRow &row, uint32_t field, uint32_t value) {
    return {row, field, {false, value, ""}};
}

PolicySet bytes(const PolicyRow &row, uint32_t field, const std::string &value) {
    return {row, field, {true, 0, value}};
}

// A bound list with a node and two next hops.
PolicyState bound() {
    PolicyState state;
    for (const PolicySet &set :
         {number(LIST, 1, PBR_ROW_CREATED), number(NODE, 1, PBR_ROW_CREATED), number(NODE, PBR_NODE_ACL_NUM, 1501),
          number(NODE, PBR_NODE_IP_VERSION, 1), number(hop(1), 1, PBR_ROW_CREATED),
          bytes(hop(1), PBR_NEXT_HOP_ADDRESS, "\x0a\x01\x02\x03"), number(hop(1), 1, PBR_ROW_ACTIVE),
          number(hop(2), 1, PBR_ROW_CREATED), number(NODE, 1, PBR_ROW_ACTIVE), number(LAN, 1, PBR_IF_CREATE),
          bytes(LAN, PBR_IF_PBR_NAME, "wan")}) {
        state.done(set);
    }
    return state;
}

TEST(PolicyStates, ADestroyedListTakesItsNodesAndNextHopsAlong) {
    PolicyState state = bound();
    state.done(number({PolicyTable::List, "wan2", 0, 0, 0}, 1, PBR_ROW_CREATED));

    state.done(number(LIST, 1, PBR_ROW_DESTROY));

    EXPECT_EQ(2u, state.rows().size()); // the other list and the interface
    EXPECT_EQ(0u, state.rows().count(NODE));
}

TEST(PolicyStates, ACreatedNodeHasNothingOfAnEarlierOne) {
    PolicyState state = bound();

    state.done(number(NODE, 1, PBR_ROW_CREATED));

    EXPECT_EQ(1u, state.rows().at(NODE).size());
    EXPECT_EQ(0u, state.rows().count(hop(1)));
}

TEST(PolicyStates, CreatingAnInterfaceThatExistsKeepsItsList) {
    PolicyState state = bound();

    state.done(number(LAN, PBR_IF_STATUS, PBR_IF_CREATE));

    EXPECT_EQ("wan", state.rows().at(LAN).at(PBR_IF_PBR_NAME).bytes);
}

TEST(PolicyStates, AClearTakesVersionAndVrfAndItsNextHopsUnlessItIsZero) {
    PolicyState kept = bound(), gone = bound();

    kept.done(number(NODE, PBR_NODE_CLEAR, 0));
    gone.done(number(NODE, PBR_NODE_CLEAR, 1));

    EXPECT_EQ(0u, kept.rows().at(NODE).count(PBR_NODE_IP_VERSION));
    EXPECT_EQ(1u, kept.rows().count(hop(1)));
    EXPECT_EQ(0u, gone.rows().count(hop(1)));
    EXPECT_EQ(0u, gone.rows().count(hop(2)));
}

TEST(PolicyStates, ABindThatFailedLeavesTheInterfaceWithoutAList) {
    PolicyState state = bound();

    EXPECT_FALSE(state.failed(bytes(LAN, PBR_IF_PBR_NAME, "x"), PBR_ERR_NO_LIST));
    EXPECT_EQ("wan", state.rows().at(LAN).at(PBR_IF_PBR_NAME).bytes);
    EXPECT_TRUE(state.failed(bytes(LAN, PBR_IF_PBR_NAME, "x"), PBR_ERR_BIND));

    EXPECT_EQ(0u, state.rows().at(LAN).count(PBR_IF_PBR_NAME));
}

TEST(PolicyStates, IsMadeAgainListsFirstAndBindingsLast) {
    const std::vector<PolicySet> expected = {
        number(LIST, 1, PBR_ROW_CREATED),
        number(NODE, 1, PBR_ROW_CREATED),
        number(NODE, PBR_NODE_IP_VERSION, 1),
        number(hop(1), 1, PBR_ROW_CREATED),
        bytes(hop(1), PBR_NEXT_HOP_ADDRESS, "\x0a\x01\x02\x03"),
        number(hop(1), 1, PBR_ROW_ACTIVE),
        number(hop(2), 1, PBR_ROW_CREATED),
        number(NODE, PBR_NODE_ACL_NUM, 1501),
        number(NODE, 1, PBR_ROW_ACTIVE),
        number(LAN, 1, PBR_IF_CREATE),
        bytes(LAN, PBR_IF_PBR_NAME, "wan"),
    };

    EXPECT_EQ(expected, policyReplay(bound()));
}

TEST(PolicyStates, TheSetsOfAReplayMakeTheSameStateAgain) {
    PolicyState state = bound();
    state.done(number(NODE, PBR_NODE_CLEAR, 0)); // next hops of another version stay
    state.done(number(NODE, PBR_NODE_IP_VERSION, 2));
    state.done(bytes(hop(2), PBR_NEXT_HOP_ADDRESS, std::string(16, '\x20')));

    PolicyState again;
    for (const PolicySet &set : policyReplay(state)) {
        again.done(set);
    }

    EXPECT_EQ(state.rows(), again.rows());
}

TEST(PolicyStates, ReadsTheSetsOfTheCommandSocket) {
    PbrNodeKey key{};
    memcpy(key.listName, "wan\x7f\x7f", 5);
    key.listNameLen = 3;
    key.nodeIndex = 10;
    key.keyMask = 0xC0;
    key.nextHopIndex = 2;
    const uint32_t unit = 7;

    const auto hopSet = host::policySetRead(&key, sizeof key, 0x0CC60001u, {4, 0}, false);
    const auto ifSet = host::policySetRead(&unit, 4, 0x04128002u, {reinterpret_cast<uintptr_t>("wan"), 3}, true);

    EXPECT_EQ(number(hop(2), 1, 4), *hopSet);
    EXPECT_EQ(bytes(LAN, 2, "wan"), *ifSet);
    EXPECT_FALSE(host::policySetRead(&key, 4, 0x0CC60001u, {4, 0}, false));
    EXPECT_FALSE(host::policySetRead(nullptr, 28, 0x0CC60001u, {4, 0}, false));
    EXPECT_FALSE(host::policySetRead(&key, 28, 0x11110001u, {4, 0}, false));
}

} // namespace
