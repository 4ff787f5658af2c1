// The commands of next hops, interfaces and scalars, whole rows and walks: what each accepted and each refused
// set says, asks and answers.
#include "tests/published/command_lines.h"

namespace published {
namespace {

// ---- next hops ----

void haveVersion(Stage &s, uint32_t version) {
    s.list("a");
    s.node("a", 10, {.ipVer = version});
}

PUBLISHED(NextHopCommand, ANextHopIsMadeAddressedSwitchedAndDestroyed) {
    s.start();
    haveVersion(s, 1);
    EXPECT_EQ(0u, s.set(19, A10H1, 1, 2));
    s.said({hopSync(1, 2), general("pbr nexthop entry add 1!")});
    EXPECT_EQ(0u, s.setBytes(19, A10H1, 2, api_test::address("10.0.0.1")));
    s.said({hopBytesSync(2, api_test::address("10.0.0.1")), general("_pbrNextHopSetApi ipAddr=10.0.0.1!")});
    EXPECT_EQ(api_test::address("10.0.0.1"), s.getBytes(18, A10H1, 2, 16).bytes);
    for (uint32_t value : {3u, 1u, 4u}) {
        EXPECT_EQ(0u, s.set(20, A10H1, 1, value));
        s.said({hopSync(1, value, 1)});
    }
}

PUBLISHED(NextHopCommand, SynchronisedByteStringsAreToldWithTheirOwnOrigin) {
    s.start();
    haveVersion(s, 1);
    s.hop("a", 10, 1, "10.0.0.1");
    EXPECT_EQ(0u, s.setBytes(20, A10H1, 2, api_test::address("10.0.0.2")));
    EXPECT_EQ(0u, s.setBytes(20, A10H1, 4, "admin"));
    EXPECT_EQ(0u, s.setBytes(20, A10H1, 5, "icmp"));
    s.said({hopBytesSync(2, api_test::address("10.0.0.2"), 1), general("_pbrNextHopSetApi ipAddr=10.0.0.2!"),
            hopBytesSync(4, "admin", 1), hopBytesSync(5, "icmp", 1)});
    EXPECT_EQ("admin", s.getBytes(18, A10H1, 4, 32).bytes);
    EXPECT_EQ("icmp", s.getBytes(18, A10H1, 5, 32).bytes);
}

PUBLISHED(NextHopCommand, AnIpv6AddressIsTold) {
    s.start();
    haveVersion(s, 2);
    EXPECT_EQ(0u, s.set(19, A10H1, 1, 2));
    s.drop();
    EXPECT_EQ(0u, s.setBytes(19, A10H1, 2, api_test::address("2001:db8::1")));
    s.said({hopBytesSync(2, api_test::address("2001:db8::1")), general("_pbrNextHopSetApi ip6Addr=2001:db8::1.")});
}

PUBLISHED(NextHopCommand, AProbeIsFollowedFromTheActivationOnAndItsStateAskedFor) {
    s.start();
    haveVersion(s, 1);
    s.hop("a", 10, 1, "10.0.0.1");
    EXPECT_EQ(0u, s.setBytes(19, A10H1, 4, "admin"));
    EXPECT_EQ(0u, s.setBytes(19, A10H1, 5, "icmp"));
    s.said({hopBytesSync(4, "admin"), hopBytesSync(5, "icmp")});
    const Lines followed = {hopSync(1, 1), table("pbr nqa add admin icmp"),
                            "qrvNetlinkSGrpSend(89, 350, admin=\"admin\"/5 test=\"icmp\"/4 status=0)"};
    EXPECT_EQ(0u, s.set(19, A10H1, 1, 1));
    s.said(followed + Lines{event("pbr send QRV_RTM_NQA_STATEREQ OK!")});
    EXPECT_EQ(0u, s.set(19, A10H1, 1, 4));
    s.said({hopSync(1, 4), table("pbr nqa del admin icmp")});
}

PUBLISHED(NextHopCommand, ARequestThatCannotBeSentIsToldTwice) {
    s.start();
    haveVersion(s, 1);
    s.hop("a", 10, 1, "10.0.0.1");
    fake::answer("qrvNetlinkSGrpSend", -1);
    fake::answer("errnoGet", 11);
    s.setBytes(19, A10H1, 4, "admin");
    s.setBytes(19, A10H1, 5, "icmp");
    s.drop();
    EXPECT_EQ(0u, s.set(19, A10H1, 1, 1));
    s.said({hopSync(1, 1), table("pbr nqa add admin icmp"),
            "qrvNetlinkSGrpSend(89, 350, admin=\"admin\"/5 test=\"icmp\"/4 status=0)",
            event("pbr send QRV_RTM_NQA_STATEREQ ERROR 11!"), event("pbr send QRV_RTM_NQA_STATEREQ OK!")});
}

PUBLISHED(NextHopCommand, RenamedTestsFillTheTableUntilNoneIsFollowed) {
    s.start(0, 1);
    haveVersion(s, 1);
    s.hop("a", 10, 1, "10.0.0.1");
    for (const char *name : {"t1", "t2", "t3", "t4"}) {
        s.hopActive("a", 10, 1, "admin", name);
    }
    s.setBytes(19, A10H1, 5, "t5");
    s.drop();
    EXPECT_EQ(0u, s.set(19, A10H1, 1, 1));
    s.said({hopSync(1, 1), table("pbr nqa free table is empty!")});
}

PUBLISHED(NextHopCommand, MissingAndPresentNextHopsAndNodesAreTold) {
    s.start();
    haveVersion(s, 1);
    s.hop("a", 10, 1, "10.0.0.1");
    EXPECT_EQ(0u, s.set(19, A10H1, 1, 2));
    s.said({general("_pbrNextHopSetApi: pbr nexthop index 1 is exist.")});
    EXPECT_EQ(0x03E80002u, s.set(19, nodeKey("a", 10, 2), 1, 4));
    s.said({general("_pbrNextHopSetApi: pbr nexthop index 2 is not exist, cmd 1.")});
    EXPECT_EQ(0x03E80002u, s.set(19, nodeKey("a", 20, 1), 1, 2));
    s.said({general("_pbrNextHopSetApi: pbr list a index 20 is not exist.cmd 1")});
    EXPECT_EQ(0xFFFFFFFFu, s.getNumber(18, nodeKey("a", 20, 1), 1).code);
    s.said({general("pbrNextHopGetApi: pbr list a index 20 is not exist.")});
    EXPECT_EQ(0xFFFFFFFFu, s.getNumber(18, nodeKey("a", 10, 2), 1).code);
    s.said({general("pbrNextHopGetApi: pbr nexthop index 2 is not exist.")});
    EXPECT_EQ(0x03E8001Au, s.set(19, nodeKey("a", 10, 0), 1, 2));
    EXPECT_EQ(0x03E8001Au, s.getNumber(18, {}, 1).code);
    EXPECT_EQ(0xFFFFFFFFu, s.set(19, A10H1, 3, 1));
    s.said({});
    s.set(13, A10, 4, 1501);
    s.bind(7, "a");
    EXPECT_EQ(0x03E8000Cu, s.set(19, A10H1, 1, 4));
    s.said({general("_pbrNextHopSetApi: pbr list a can't be modified.")});
}

PUBLISHED(NextHopCommand, EveryRefusalComesAfterTheServiceSawTheSet) {
    s.start();
    haveVersion(s, 1);
    s.node("a", 20, {});
    s.node("a", 30, {.ipVer = 1, .outIf = 9});
    auto sync = [](uint32_t index, uint32_t hop) {
        return api_test::syncLine("node(\"a\"," + std::to_string(index) + ",mask=0,hop=" + std::to_string(hop) + ")",
                                  0x0CC60001, 3, 2);
    };
    EXPECT_EQ(0xFFFFFFFFu, s.set(19, nodeKey("a", 20, 1), 1, 2));
    s.said({sync(20, 1)});
    EXPECT_EQ(0x044B000Bu, s.set(19, nodeKey("a", 30, 1), 1, 2));
    s.said({sync(30, 1)});
    EXPECT_EQ(0u, s.set(19, nodeKey("a", 10, 2), 1, 2));
    s.drop();
    EXPECT_EQ(0x044B0001u, s.set(19, nodeKey("a", 10, 1), 1, 2));
    s.said({sync(10, 1)});
}

PUBLISHED(NextHopCommand, EveryWrongByteStringHasItsText) {
    s.start();
    haveVersion(s, 1);
    s.hop("a", 10, 1, "10.0.0.1");
    const std::string five(5, 1), zero(4, 0), longName(33, 'n');
    EXPECT_EQ(0xFFFFFFFFu, s.setBytes(19, A10H1, 2, five));
    s.said({hopBytesSync(2, five), general("_pbrNextHopSetApi:the format of nextHop is wrong!")});
    EXPECT_EQ(0x044B0006u, s.setBytes(19, A10H1, 2, zero));
    s.said({hopBytesSync(2, zero), general("_pbrNextHopSetApi:nextHop is zero!")});
    EXPECT_EQ(0xFFFFFFFFu, s.setBytes(19, A10H1, 4, longName));
    s.said({hopBytesSync(4, longName), general("_pbrNextHopSetApi:the nqa admin name too long!")});
    EXPECT_EQ(0xFFFFFFFFu, s.setBytes(19, A10H1, 5, longName));
    s.said({hopBytesSync(5, longName), general("_pbrNextHopSetApi:the nqa operatTag name too long!")});
}

PUBLISHED(NextHopCommand, BeyondThePoolNoNextHopIsMade) {
    s.start(0, 1);
    haveVersion(s, 1);
    for (uint8_t hop = 1; hop <= 4; ++hop) {
        EXPECT_EQ(0u, s.set(19, nodeKey("a", 10, hop), 1, 2));
    }
    s.drop();
    EXPECT_EQ(0x03E80001u, s.set(19, nodeKey("a", 10, 5), 1, 2));
    s.said({hopSync(5, 2), general("pbr nexthop entry add 5!"), table("pbr nexthop free table is empty!")});
}

// ---- interfaces ----

PUBLISHED(InterfaceCommand, AnInterfaceIsMadeAndDestroyed) {
    s.start();
    fake::nameInterface(7, "lan0");
    EXPECT_EQ(0u, s.set(16, IF7, 1, 1));
    s.said(Lines{ifSync(1)} + POOLS_MADE + Lines{general("pbrIfEntry Add if(lan0)")});
    EXPECT_EQ(0u, s.set(17, IF7, 1, 1));
    s.said({ifSync(1, 1)});
    EXPECT_EQ(1u, s.getNumber(15, IF7, 1).number);
    EXPECT_EQ(0u, s.set(16, IF7, 1, 2));
    s.said(Lines{ifSync(2), general("pbrIfEntry delete")} + POOLS_FREED);
    EXPECT_EQ(0u, s.set(16, IF7, 1, 2));
    s.said({ifSync(2)});
}

PUBLISHED(InterfaceCommand, AMissingInterfaceIsToldAndAnUnknownFieldRefused) {
    s.start();
    EXPECT_EQ(0x03E80002u, s.setBytes(16, IF7, 2, "a"));
    s.said({general("pbrIfSetApi:pbrIfEntry is NULL.")});
    EXPECT_EQ(0x03E80002u, s.getNumber(15, IF7, 1).code);
    s.said({general("pbrIfGetApi: pbrIfEntry is NULL.")});
    s.set(16, IF7, 1, 1);
    s.drop();
    EXPECT_EQ(0xFFFFFFFFu, s.set(16, IF7, 3, 1));
    EXPECT_EQ(0xFFFFFFFFu, s.getNumber(15, IF7, 5).code);
    s.said({});
}

PUBLISHED(InterfaceCommand, BeyondTheLimitOrWithoutMemoryNoInterfaceIsMade) {
    s.start(0, 0, 1);
    fake::answerNth("silMemPoolInit", 1, -1);
    EXPECT_EQ(0x03E80001u, s.set(16, IF7, 1, 1));
    s.said({ifSync(1), "silMemPoolInit(\"pbr_if\", 1)", table("pbr malloc malloc error !")});
    EXPECT_EQ(0u, s.set(16, IF7, 1, 1));
    s.drop();
    EXPECT_EQ(0x03E80001u, s.set(16, unitKey(8), 1, 1));
    s.said({api_test::syncLine("if(8)", 0x04128001, 0x10000003, 1), table("pbr if free table is empty !")});
}

PUBLISHED(InterfaceCommand, AListThatMatchesOrDoesNothingIsNotBound) {
    s.start();
    s.list("a");
    s.list("b");
    s.list("c");
    s.node("b", 10, {});
    s.node("c", 10, {.acl = 1501});
    s.set(16, IF7, 1, 1);
    s.drop();
    EXPECT_EQ(0x044B0003u, s.setBytes(16, IF7, 2, "b"));
    s.said({ifNameSync("b"), table("pbr if bind ,but no if-match!"), general("pbrIfSetApi: pbr bind error.")});
    EXPECT_EQ(0x044B0003u, s.setBytes(16, IF7, 2, "c"));
    s.said({ifNameSync("c"), table("pbr if bind ,but no apply!"), general("pbrIfSetApi: pbr bind error.")});
    EXPECT_EQ(0x044B0003u, s.setBytes(16, IF7, 2, "none"));
    s.said({ifNameSync("none"), general("pbrIfSetApi: pbr bind error.")});
    s.bind(7, "a");
    EXPECT_EQ(0x044B0009u, s.setBytes(16, IF7, 2, "b"));
    s.said({ifNameSync("b"), table("pbr if bind ,but no if-match!")});
    EXPECT_EQ(0x044B000Au, s.setBytes(16, IF7, 2, "c"));
    s.said({ifNameSync("c"), table("pbr if bind ,but no apply!")});
    EXPECT_EQ(0x044B0008u, s.setBytes(16, IF7, 2, "none"));
    s.said({ifNameSync("none")});
    EXPECT_EQ(0u, s.setBytes(16, IF7, 2, "a"));
    s.said({ifNameSync("a")});
}

PUBLISHED(InterfaceCommand, WithoutARecordForALinkBindingFails) {
    s.start();
    s.list("a");
    s.node("a", 10, {.acl = 1501, .pri = 3});
    s.set(16, IF7, 1, 1);
    s.drop();
    fake::answer("silMemPoolAlloc", 0);
    s.allowed = STORE_ALLOW_COUNTS;
    EXPECT_EQ(0x044B0003u, s.setBytes(16, IF7, 2, "a"));
    s.said({ifNameSync("a"), "aclLstSyncApi(1501, 2, 1)", table("pbr if node free table is empty !"),
            general("pbrIfSetApi: pbr bind error.")});
}

PUBLISHED(InterfaceCommand, AShortBufferForTheNameIsRefusedWith22) {
    s.start();
    s.list("list");
    s.bind(7, "list");
    EXPECT_EQ(22u, s.getBytes(15, IF7, 2, 3).code);
    EXPECT_EQ("list", s.getBytes(15, IF7, 2, 4).bytes);
    EXPECT_EQ(0u, s.getBytes(15, IF7, 3, 4).len);
    s.said({});
    EXPECT_EQ(0u, s.setBytes(17, IF7, 2, "list"));
    s.said({ifNameSync("list", 1)});
}

PUBLISHED(InterfaceCommand, AListThatIsGoneUnderSixteenBindingsIsNotLetGo) {
    s.start();
    s.list("a");
    s.list("b");
    s.allowed = STORE_ALLOW_COUNTS;
    for (uint32_t unit = 1; unit <= 16; ++unit) {
        s.bind(unit, "a");
    }
    EXPECT_EQ(0u, s.set(10, A, 1, 4));
    s.drop();
    EXPECT_EQ(0x03E80002u, s.setBytes(16, IF7, 2, "b"));
    s.said({ifNameSync("b")});
}

// ---- scalars ----

PUBLISHED(ScalarCommand, TheDebugFlagsAreTheOnlyScalarToSet) {
    s.start();
    const uint32_t flags = s.getNumber(21, {}, 4).number;
    EXPECT_EQ(0u, s.set(22, {}, 4, flags));
    s.said({api_test::syncLine("none", 0x001F4004, 3, flags)});
    EXPECT_EQ(0u, s.set(23, {}, 4, flags));
    s.said({api_test::syncLine("none", 0x001F4004, 1, flags)});
    EXPECT_EQ(0xFFFFFFFFu, s.set(22, {}, 1, 5));
    s.said({});
}

PUBLISHED(ScalarCommand, LimitsCountVersionAndPendingWorkAreRead) {
    s.start();
    s.list("a");
    s.node("a", 10, {});
    EXPECT_EQ(64u, s.getNumber(21, {}, 1).number);
    EXPECT_EQ(128u, s.getNumber(21, {}, 2).number);
    EXPECT_EQ(1u, s.getNumber(21, {}, 3).number);
    EXPECT_EQ("PBR_V7.00.00.00", s.getBytes(21, {}, 5, 20).bytes);
    EXPECT_EQ("PBR_", s.getBytes(21, {}, 5, 4).bytes);
    auto words = [](uint32_t a, uint32_t b, uint32_t c) {
        const uint32_t all[3] = {a, b, c};
        return std::string(reinterpret_cast<const char *>(all), sizeof(all));
    };
    EXPECT_EQ(words(1, 0, 2), s.getBytes(21, {}, 6, 12).bytes);
    EXPECT_EQ(0xFFFFFFFFu, s.getBytes(21, {}, 6, 11).code);
    EXPECT_EQ(0u, s.getNumber(21, {}, 9).code);
    EXPECT_EQ(0x5A5A5A5Au, s.getNumber(21, {}, 9).number);
    s.said({});
    s.set(13, A10, 16, 0);
    EXPECT_EQ(words(2, 2, 2), s.getBytes(21, {}, 6, 12).bytes);
}

// ---- whole rows and walks ----

std::string recordOf(uint32_t id, uint32_t value) {
    return api_test::word(id) + api_test::word(4) + api_test::word(value);
}

PUBLISHED(RowCommand, WholeRowsAreRunsOfFieldRecords) {
    s.start();
    s.list("a");
    s.node("a", 10, {.acl = 1501, .ipVer = 1, .vrf = 4, .ecmp = 1, .outIf = 9, .pri = 3,
                       .forwardFlag = 1, .match1 = 8});
    s.set(13, A10, 3, 6);
    s.set(13, A10, 7, 11);
    s.bind(7, "a");
    EXPECT_EQ(recordOf(1, 2) + recordOf(2, 1), s.getBytes(9, A, 3, 100).bytes);
    EXPECT_EQ(recordOf(1, 2) + recordOf(2, 8) + recordOf(3, 6) + recordOf(4, 1501) + recordOf(10, 1) +
                  recordOf(5, 3) + recordOf(6, 9) + recordOf(11, 4) + recordOf(7, 11) + recordOf(8, 1) + recordOf(9, 1),
              s.getBytes(12, A10, 15, 200).bytes);
    EXPECT_EQ(recordOf(1, 1) + api_test::word(2) + api_test::word(1) + "a", s.getBytes(15, IF7, 4, 100).bytes);
    const uint32_t flags = s.getNumber(21, {}, 4).number;
    EXPECT_EQ(recordOf(1, 64) + recordOf(2, 128) + recordOf(3, 1) + recordOf(4, flags) + api_test::word(5) +
                  api_test::word(15) + "PBR_V7.00.00.00",
              s.getBytes(21, {}, 7, 100).bytes);
    EXPECT_EQ(0u, s.getBytes(9, A, 3, 11).len);
    s.said({});
}

PUBLISHED(WalkCommand, EveryTableIsWalkedFromItsFirstRowToItsEnd) {
    s.start();
    for (const char *name : {"b", "a"}) {
        s.list(name);
        s.node(name, 20, {.ipVer = 1, .outIf = 5, .match1 = 1});
        s.node(name, 10, {.ipVer = 1, .match1 = 1});
        s.hop(name, 10, 2, "10.0.0.2");
        s.hop(name, 10, 3, "10.0.0.3");
    }
    s.bind(9, "a");
    s.bind(7, "b");

    Key key = listKey("");
    EXPECT_EQ(0u, s.first(1, key));
    EXPECT_EQ("a", api_test::listName(key));
    EXPECT_EQ(0u, s.next(2, listKey("a"), key));
    EXPECT_EQ("b", api_test::listName(key));
    EXPECT_EQ(0xFFFFFFFFu, s.next(2, listKey("b"), key));

    key = nodeKey("", 0);
    EXPECT_EQ(0u, s.first(3, key));
    EXPECT_EQ("a\\10\\0", api_test::show(key));
    Lines nodes;
    while (s.next(4, Key(key), key) == 0) {
        nodes.push_back(api_test::show(key));
    }
    EXPECT_EQ((Lines{"a\\20\\0", "b\\10\\0", "b\\20\\0"}), nodes);

    key = unitKey(0);
    EXPECT_EQ(0u, s.first(5, key));
    EXPECT_EQ(7u, api_test::unit(key));
    EXPECT_EQ(0u, s.next(6, unitKey(8), key));
    EXPECT_EQ(9u, api_test::unit(key));
    EXPECT_EQ(0xFFFFFFFFu, s.next(6, unitKey(9), key));

    // In a later list the first node is answered with the index of the next hop looked at last.
    key = nodeKey("", 0);
    EXPECT_EQ(0u, s.first(7, key));
    EXPECT_EQ("a\\10\\2", api_test::show(key));
    Lines hops;
    while (s.next(8, Key(key), key) == 0) {
        hops.push_back(api_test::show(key));
    }
    EXPECT_EQ((Lines{"a\\10\\3", "b\\10\\3"}), hops);
    s.said({});
}

} // namespace
} // namespace published
