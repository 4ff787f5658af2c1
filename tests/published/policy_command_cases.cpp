// The commands of lists and nodes: what each accepted and each refused set says, asks and answers.
#include "tests/published/command_lines.h"

namespace published {
namespace {

// ---- lists ----

PUBLISHED(ListCommand, AListIsMadeWithThePoolsSwitchedAndDestroyedWithThem) {
    s.start();
    EXPECT_EQ(0u, s.set(10, A, 1, 2));
    s.said(Lines{listSync("a", 2)} + POOLS_MADE);
    EXPECT_EQ(0u, s.set(11, A, 1, 3));
    s.said({listSync("a", 3, 1)});
    EXPECT_EQ(3u, s.getNumber(9, A, 1).number);
    EXPECT_EQ(0u, s.set(10, A, 1, 1));
    s.said({listSync("a", 1)});
    EXPECT_EQ(0u, s.set(11, A, 1, 4));
    s.said(Lines{listSync("a", 4, 1)} + POOLS_FREED);
}

PUBLISHED(ListCommand, MakingAListThatExistsChangesNothing) {
    s.start();
    s.list("a");
    EXPECT_EQ(0u, s.set(10, A, 1, 2));
    s.said({general("pbrListSetApi: pbr list a is exist.")});
}

PUBLISHED(ListCommand, AMissingListIsToldToWhoeverAsks) {
    s.start();
    EXPECT_EQ(0u, s.set(10, A, 1, 4));
    s.said({general("pbrListSetApi: pbr list a is not exist.")});
    EXPECT_EQ(0x03E80002u, s.set(10, A, 1, 1));
    s.said({general("pbrListSetApi: pbr list a is not exist.")});
    EXPECT_EQ(0x03E80002u, s.getNumber(9, A, 1).code);
    s.said({general("pbr list a is not exist.")});
}

PUBLISHED(ListCommand, AListInUseIsNeitherSwitchedNorDestroyed) {
    s.start();
    s.list("a");
    s.bind(7, "a");
    for (uint32_t value : {1u, 3u, 4u}) {
        EXPECT_EQ(0x03E8000Cu, s.set(10, A, 1, value));
        s.said({general("pbrListSetApi: pbr list a can not modify.")});
    }
    EXPECT_EQ(1u, s.getNumber(9, A, 2).number);
}

PUBLISHED(ListCommand, AFieldThatCannotBeSetIsRefusedUnseenAndAnUnknownCommandSeen) {
    s.start();
    s.list("a");
    EXPECT_EQ(0xFFFFFFFFu, s.set(10, A, 2, 1));
    EXPECT_EQ(0xFFFFFFFFu, s.getNumber(9, A, 4).code);
    s.said({});
    EXPECT_EQ(0xFFFFFFFFu, s.set(10, A, 1, 5));
    s.said({listSync("a", 5)});
}

PUBLISHED(ListCommand, WithoutKeyAListIsABadArgument) {
    s.start();
    EXPECT_EQ(0x03E8001Au, s.set(10, {}, 1, 2));
    EXPECT_EQ(0x03E8001Au, s.getNumber(9, {}, 1).code);
    s.said({});
}

PUBLISHED(ListCommand, TheServicesRefusalIsAnsweredAndNothingApplied) {
    s.start();
    fake::answer("qrvHwilCmdSyncApi", fake::FAULT_CODE);
    EXPECT_EQ(0x0BAD0001u, s.set(10, A, 1, 2));
    s.said({listSync("a", 2)});
    EXPECT_EQ(0x03E80002u, s.getNumber(9, A, 1).code);
}

PUBLISHED(ListCommand, WithoutMemoryForThePoolsNoListIsMadeAndNoPoolLeft) {
    s.start();
    fake::answerNth("silMemPoolInit", 1, -1);
    EXPECT_EQ(0x03E80001u, s.set(10, A, 1, 2));
    s.said({listSync("a", 2), POOLS_MADE[0], table("pbr malloc malloc error !")});
    fake::answerNth("silMemPoolInit", 3, -1);
    EXPECT_EQ(0x03E80001u, s.set(10, A, 1, 2));
    s.said({listSync("a", 2), POOLS_MADE[0], POOLS_MADE[1], POOLS_MADE[2], POOLS_FREED[0], POOLS_FREED[1],
            "silMemPoolDestroy(none)", "silMemPoolDestroy(none)", "silMemPoolDestroy(none)",
            "silMemPoolDestroy(none)", table("pbr malloc malloc error !")});
}

PUBLISHED(ListCommand, BeyondTheLimitNoListIsMade) {
    s.start(1);
    s.list("a");
    EXPECT_EQ(0x03E80001u, s.set(10, listKey("b"), 1, 2));
    s.said({listSync("b", 2), table("pbr list free table is empty !")});
}

// ---- nodes ----

void haveNode(Stage &s) {
    s.list("a");
    s.node("a", 10, {});
}

// Every field of a node is set by the command, which comes from the given origin.
void everyField(Stage &s, uint32_t command, uint32_t origin) {
    s.start();
    s.list("a");
    auto sets = [&](uint32_t field, uint32_t value, const Lines &before) {
        EXPECT_EQ(0u, s.set(command, A10, field, value)) << field;
        s.said(before + Lines{nodeSync(field, value, origin)});
    };
    sets(1, 2, {});
    const uint32_t values[][2] = {{2, 8}, {3, 9}, {5, 3}, {6, 77}, {7, 11}, {8, 1}, {9, 1}, {1, 1}, {1, 3}};
    for (const auto &value : values) {
        sets(value[0], value[1], {});
        EXPECT_EQ(value[1], s.getNumber(12, A10, value[0]).number) << value[0];
    }
    sets(12, 6, {});
    EXPECT_EQ(0xFFFFFFFFu, s.getNumber(12, A10, 12).code); // stored, not readable
    sets(11, 4, {general("pbrNodeSetApi: pbr list a index 10 vrfid 0.")});
    sets(11, 5, {general("pbrNodeSetApi: pbr list a index 10 vrfid 4.")});
    sets(4, 1501, {"aclLstGetApi(1501, 4)"});
    sets(10, 1, {});
    sets(13, 0, {});
    EXPECT_EQ(0u, s.getNumber(12, A10, 10).number);
    EXPECT_EQ(0u, s.set(command, A10, 19, 5));
    s.said({nodeSync(19, 5, origin), general("pbr\ttimerange name pbra-10."), general("pbr bind timerange 5."),
            "timerangeBind(5, \"pbra-10\", node(\"a\",10,mask=0,hop=0))"});
    EXPECT_EQ(5u, s.getNumber(12, A10, 19).number);
    sets(1, 4, {});
}

PUBLISHED(NodeCommand, EveryFieldThatIsSetIsToldToTheServiceAndStored) { everyField(s, 13, 3); }
PUBLISHED(NodeCommand, EveryFieldThatIsSynchronisedIsToldWithItsOwnOrigin) { everyField(s, 14, 1); }

PUBLISHED(NodeCommand, MissingPresentAndUsedNodesAreTold) {
    s.start();
    haveNode(s);
    const Key none = nodeKey("a", 20);
    EXPECT_EQ(0u, s.set(13, none, 1, 4));
    s.said({general("pbrNodeSetApi: pbr list a index 20 is not exist.")});
    EXPECT_EQ(0x03E80002u, s.set(13, none, 5, 1));
    s.said({general("pbrNodeSetApi: pbr list a index 20 is not exist.")});
    EXPECT_EQ(0u, s.set(13, A10, 1, 2));
    s.said({general("pbrNodeSetApi: pbr list a index 10 is exist.")});
    EXPECT_EQ(0xFFFFFFFFu, s.getNumber(12, none, 1).code);
    s.said({general("pbrNodeGetApi: pbr list a index 20 is not exist.")});
    EXPECT_EQ(0x03E8001Au, s.set(13, nodeKey("a", 0), 1, 2));
    EXPECT_EQ(0x03E8001Au, s.getNumber(12, {}, 1).code);
    s.said({});
    s.set(13, A10, 5, 1);
    s.set(13, A10, 2, 1);
    s.bind(7, "a");
    EXPECT_EQ(0x03E8000Cu, s.set(13, A10, 5, 1));
    s.said({general("pbrNodeSetApi: pbr list a can't be modified.")});
}

PUBLISHED(NodeCommand, WithoutListOrFreeRecordNoNodeIsMade) {
    s.start(0, 1);
    haveNode(s);
    EXPECT_EQ(0x03E80001u, s.set(13, nodeKey("a", 20), 1, 2));
    s.said({api_test::syncLine("node(\"a\",20,mask=0,hop=0)", 0x08F04001, 3, 2),
            table("pbr node free table is empty!")});
    EXPECT_EQ(0x03E80001u, s.set(13, nodeKey("b", 10), 1, 2));
    s.said({api_test::syncLine("node(\"b\",10,mask=0,hop=0)", 0x08F04001, 3, 2)});
}

PUBLISHED(NodeCommand, EveryRefusalOfAnAclHasItsTextAndCode) {
    s.start();
    haveNode(s);
    s.node("a", 20, {.acl = 1600});
    fake::acl(1700, false);
    EXPECT_EQ(0x044B0004u, s.set(13, A10, 4, 1700));
    s.said({"aclLstGetApi(1700, 4)", general("pbrNodeSetApi: acl 1700 is not exist.")});
    EXPECT_EQ(0x044B0005u, s.set(13, A10, 4, 1600));
    s.said({"aclLstGetApi(1600, 4)", general("pbrNodeSetApi: acl 1600 is already binded.")});
    for (uint32_t acl : {1u, 1000u, 2001u, 3000u, 4001u, 5000u}) {
        EXPECT_EQ(0x044B0007u, s.set(13, A10, 4, acl));
        s.said({"aclLstGetApi(" + std::to_string(acl) + ", 4)",
                general("pbrNodeSetApi:can't bind acl:" + std::to_string(acl) + ".")});
    }
    EXPECT_EQ(0u, s.set(13, A10, 4, 3500));
    EXPECT_EQ(0u, s.set(13, A10, 10, 2));
    s.drop();
    EXPECT_EQ(0x044B000Du, s.set(13, A10, 4, 1500));
    s.said({"aclLstGetApi(1500, 4)", general("pbrNodeSetApi: acl 1500 is not match ip address version 3500.")});
}

PUBLISHED(NodeCommand, AVersionThatContradictsIsRefused) {
    s.start();
    haveNode(s);
    s.set(13, A10, 4, 1500);
    s.drop();
    EXPECT_EQ(0x044B000Du, s.set(13, A10, 10, 2));
    s.said({general("pbrNodeSetApi: acl 1500 is not match ip address version 2.")});
    EXPECT_EQ(0u, s.set(13, A10, 10, 1));
    s.drop();
    EXPECT_EQ(0x044B000Eu, s.set(13, A10, 10, 2));
    s.said({general("pbrNodeSetApi: ip version is exist.")});
}

PUBLISHED(NodeCommand, AnOutgoingInterfaceBesideNextHopsIsRefusedAfterTheServiceSawIt) {
    s.start();
    s.list("a");
    s.node("a", 10, {.ipVer = 1});
    s.hop("a", 10, 1, "10.0.0.1");
    EXPECT_EQ(0x044B000Cu, s.set(13, A10, 6, 12));
    s.said({nodeSync(6, 12)});
    EXPECT_EQ(0u, s.getNumber(12, A10, 6).number);
}

PUBLISHED(NodeCommand, UnknownFieldsAreRefusedUnseen) {
    s.start();
    haveNode(s);
    for (uint32_t field : {0u, 14u, 15u, 20u}) {
        EXPECT_EQ(0xFFFFFFFFu, s.set(13, A10, field, 1)) << field;
    }
    s.said({});
}

PUBLISHED(NodeCommand, ATimeRangeIsBoundOnceAndLetGo) {
    s.start();
    haveNode(s);
    const std::string name = general("pbr\ttimerange name pbra-10.");
    EXPECT_EQ(0u, s.set(13, A10, 19, 5));
    s.said({nodeSync(19, 5), name, general("pbr bind timerange 5."),
            "timerangeBind(5, \"pbra-10\", node(\"a\",10,mask=0,hop=0))"});
    EXPECT_EQ(0u, s.set(13, A10, 19, 5));
    s.said({nodeSync(19, 5), name, general("pbr bind timerange 5."), general("pbr bind same timerange 5 alreaey.")});
    EXPECT_EQ(0xFFFFFFFFu, s.set(13, A10, 19, 6));
    s.said({nodeSync(19, 6), name, general("pbr bind timerange 6."), general("pbr bind timerange 5 alreaey.")});
    fake::answerNth("timerangeUnbind", 1, fake::FAULT_CODE);
    EXPECT_EQ(0x0BAD0001u, s.set(13, A10, 19, 0xFFFFFFFF));
    s.said({nodeSync(19, 0xFFFFFFFF), name, general("pbr unbind timerange 5."), "timerangeUnbind(5, \"pbra-10\", 1)",
            general("pbr unbind timerange ERROR.")});
    EXPECT_EQ(0u, s.set(13, A10, 19, 0xFFFFFFFF));
    s.said({nodeSync(19, 0xFFFFFFFF), name, general("pbr unbind timerange 5."), "timerangeUnbind(5, \"pbra-10\", 1)"});
    fake::answer("timerangeBind", 1);
    EXPECT_EQ(0x03E8001Au, s.set(13, A10, 19, 7));
    s.said({nodeSync(19, 7), name, general("pbr bind timerange 7."),
            "timerangeBind(7, \"pbra-10\", node(\"a\",10,mask=0,hop=0))", general("pbr bind timerange ERROR.")});
}

PUBLISHED(NodeCommand, ATimeRangeSwitchedByHandIsToldAndNotSynchronised) {
    s.start();
    haveNode(s);
    s.set(13, A10, 19, 5);
    s.drop();
    const char *words[] = {"start", "stop", "unbind"};
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(0u, s.set(13, A10, 16 + i, 0));
        s.said({event("pbr a node 10 timerange 5 " + std::string(words[i]) + " ")});
        EXPECT_EQ(0x03E80002u, s.set(13, nodeKey("a", 20), 16 + i, 0));
        s.said({general("pbrNodeSetApi: pbr list a index 20, timerange set can't find pbrnode.")});
    }
}

PUBLISHED(NodeCommand, TheServicesReportsOfATimeRangeAreTold) {
    s.start();
    haveNode(s);
    s.set(13, A10, 19, 5);
    s.drop();
    fake::TimerangeBinding bound = fake::timerangeBindings().at(0);
    bound.start(bound.context.data());
    bound.stop(bound.context.data());
    bound.unbind(bound.context.data());
    s.said({event("pbr a node 10 timerange 5 start "), event("pbr a node 10 timerange 5 stop "),
            event("pbr a node 10 timerange 5 unbind ")});
}

} // namespace
} // namespace published
