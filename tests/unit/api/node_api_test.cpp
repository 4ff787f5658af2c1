// Nodes as the management plane sees them: api/pbr_node_api.cpp.
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

constexpr uint32_t NODE_BASE = 0x08F04000u;
const char WEB10[] = "node(\"web\",10,mask=0,hop=0)";

class NodeApi : public ApiTest {};

uint32_t set(uint32_t field, uint32_t value) {
    return setNumber(pbrNodeSetApi, nodeKey("web", 10), field, value);
}
uint32_t get(uint32_t field) {
    const Answer answer = getNumber(pbrNodeGetApi, nodeKey("web", 10), field);
    EXPECT_EQ(answer.code, PBR_OK) << field;
    return answer.number;
}
void haveWeb10(uint32_t aclNum = 0, uint32_t ipVer = 0) {
    haveList("web");
    haveNode("web", 10, aclNum, ipVer);
    (void)fake::takeTrace();
}

// ---- life ----

TEST_F(NodeApi, ANewNodeStartsWithItsDefaults) {
    haveWeb10();

    EXPECT_EQ(get(PBR_NODE_STATUS), PBR_ROW_CREATED);
    EXPECT_EQ(get(PBR_NODE_IP_PRI), PBR_IP_PRI_NONE);
    EXPECT_EQ(get(PBR_NODE_IS_ECMP), 0u);
    EXPECT_EQ(get(PBR_NODE_IP_VERSION), 0u);
    EXPECT_EQ(get(PBR_NODE_TIME_RANGE_ID), PBR_TIME_RANGE_NONE);
    for (uint32_t field : {PBR_NODE_MATCH_VALUE1, PBR_NODE_MATCH_VALUE2, PBR_NODE_ACL_NUM,
                           PBR_NODE_OUT_IF_UNIT, PBR_NODE_FIELD7, PBR_NODE_FORWARD_FLAG, PBR_NODE_VRF_ID}) {
        EXPECT_EQ(get(field), 0u) << field;
    }
}

TEST_F(NodeApi, CreatingANodeInAListThatDoesNotExistReportsNoRecord) {
    EXPECT_EQ(set(PBR_NODE_STATUS, PBR_ROW_CREATED), PBR_ERR_NO_RECORD);

    EXPECT_EQ(fake::takeCalls(), Lines{syncLine(WEB10, NODE_BASE + 1, 3, 2)}) << "the service has seen it";
}

TEST_F(NodeApi, CreatingAnExistingNodeAndDestroyingAMissingOneSucceedWithoutChange) {
    haveWeb10(1501, 1);
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(set(PBR_NODE_STATUS, PBR_ROW_CREATED), PBR_OK);
    EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey("web", 11), PBR_NODE_STATUS, PBR_ROW_DESTROY), PBR_OK);
    EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey("no", 10), PBR_NODE_STATUS, PBR_ROW_DESTROY), PBR_OK);

    EXPECT_EQ(storeImage(), before);
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(NodeApi, AnythingButACreateNeedsTheNode) {
    haveList("web");
    (void)fake::takeTrace();

    for (uint32_t field = 0; field <= 25; ++field) {
        EXPECT_EQ(set(field, 1), PBR_ERR_NO_ROW) << field;
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(NodeApi, ActivateDeactivateAndDestroy) {
    haveWeb10();

    EXPECT_EQ(set(PBR_NODE_STATUS, PBR_ROW_ACTIVE), PBR_OK);
    EXPECT_EQ(get(PBR_NODE_STATUS), PBR_ROW_ACTIVE);
    EXPECT_EQ(set(PBR_NODE_STATUS, PBR_ROW_INACTIVE), PBR_OK);
    EXPECT_EQ(get(PBR_NODE_STATUS), PBR_ROW_INACTIVE);
    EXPECT_EQ(set(PBR_NODE_STATUS, 5), PBR_FAIL);
    EXPECT_EQ(set(PBR_NODE_STATUS, PBR_ROW_DESTROY), PBR_OK);
    EXPECT_EQ(node("web", 10), nullptr);
    EXPECT_EQ(fake::slotsTaken("pbr_node"), 0u);
}

TEST_F(NodeApi, AFullPoolIsReported) {
    haveList("web");
    for (uint32_t i = 1; i <= gPbrInfo.maxNodeNum; ++i) {
        haveNode("web", 100 + i);
    }

    EXPECT_EQ(set(PBR_NODE_STATUS, PBR_ROW_CREATED), PBR_ERR_NO_RECORD);
}

TEST_F(NodeApi, AKeyWithNodeIndexZeroOrNoKeyIsABadArgument) {
    haveList("web");
    (void)fake::takeTrace();
    PbrApiValue value = {PBR_ROW_CREATED, 0};
    Key key = nodeKey("web", 10);

    for (uint32_t field : {1u, 4u, 16u, 19u, 99u}) {
        EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey("web", 0), field, PBR_ROW_CREATED), PBR_ERR_BAD_ARGUMENT);
        EXPECT_EQ(pbrNodeSetApi(nullptr, field, &value), PBR_ERR_BAD_ARGUMENT);
        EXPECT_EQ(pbrNodeSyncApi(nullptr, field, &value), PBR_ERR_BAD_ARGUMENT);
        EXPECT_EQ(pbrNodeSetApi(key.data(), field, nullptr), PBR_ERR_BAD_ARGUMENT);
        EXPECT_EQ(pbrNodeGetApi(nullptr, field, &value), PBR_ERR_BAD_ARGUMENT);
        EXPECT_EQ(pbrNodeGetApi(key.data(), field, nullptr), PBR_ERR_BAD_ARGUMENT);
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(NodeApi, AListInUseRefusesEverySetButTheTimeRangeEvents) {
    haveWeb10(1501, 1);
    ASSERT_EQ(set(PBR_NODE_OUT_IF_UNIT, 9), PBR_OK);
    haveBinding(7, "web");
    const std::string before = storeImage();
    (void)fake::takeTrace();

    for (uint32_t field : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 13u, 14u, 15u, 19u, 20u}) {
        EXPECT_EQ(set(field, 2), PBR_ERR_IN_USE) << field;
    }
    EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey("web", 11), PBR_NODE_STATUS, PBR_ROW_CREATED), PBR_ERR_IN_USE);
    EXPECT_EQ(fake::takeTrace(), Lines{});
    EXPECT_EQ(storeImage(), before);
    EXPECT_EQ(set(PBR_NODE_TIME_RANGE_START, 0), PBR_OK);
    EXPECT_EQ(node("web", 10)->timeRangeMatched, 1u);
}

TEST_F(NodeApi, FieldsThatDoNotExistCannotBeSetOrRead) {
    haveWeb10();

    for (uint32_t field : {0u, 14u, 15u, 20u, 21u, 255u, 0xFFFFFFFFu}) {
        EXPECT_EQ(set(field, 1), PBR_FAIL) << field;
    }
    for (uint32_t field : {0u, 12u, 13u, 14u, 16u, 17u, 18u, 20u, 0xFFFFFFFFu}) {
        EXPECT_EQ(getNumber(pbrNodeGetApi, nodeKey("web", 10), field).code, PBR_FAIL) << field;
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(NodeApi, ReadingAMissingNodeFails) {
    haveWeb10();

    EXPECT_EQ(getNumber(pbrNodeGetApi, nodeKey("web", 11), 1).code, PBR_FAIL);
    EXPECT_EQ(getNumber(pbrNodeGetApi, nodeKey("web", 0), 1).code, PBR_FAIL);
    EXPECT_EQ(getNumber(pbrNodeGetApi, nodeKey("no", 10), 1).code, PBR_FAIL);
}

TEST_F(NodeApi, WildNameLengthsNameNoList) {
    haveWeb10();
    for (uint16_t len : {uint16_t(0), uint16_t(17), uint16_t(65535)}) {
        Key key = nodeKey("0123456789abcdef", 10);
        memcpy(key.data() + 16, &len, sizeof len);
        EXPECT_EQ(setNumber(pbrNodeSetApi, key, PBR_NODE_STATUS, PBR_ROW_CREATED), PBR_ERR_NO_RECORD) << len;
        EXPECT_EQ(setNumber(pbrNodeSetApi, key, PBR_NODE_ACL_NUM, 1501), PBR_ERR_NO_ROW) << len;
        EXPECT_EQ(setNumber(pbrNodeSetApi, key, PBR_NODE_TIME_RANGE_STOP, 0), PBR_ERR_NO_ROW) << len;
        EXPECT_EQ(getNumber(pbrNodeGetApi, key, PBR_NODE_STATUS).code, PBR_FAIL) << len;
    }
    EXPECT_EQ(fake::slotsTaken("pbr_node"), 1u);
}

// ---- plain fields ----

struct PlainField {
    uint32_t id, value, stored;
};

TEST_F(NodeApi, PlainFieldsKeepWhatTheirWidthTakes) {
    const PlainField fields[] = {
        {PBR_NODE_MATCH_VALUE1, 0x12345, 0x2345}, {PBR_NODE_MATCH_VALUE2, 0xFFFF, 0xFFFF},
        {PBR_NODE_FIELD7, 0xFFFFFFFF, 0xFFFFFFFF}, {PBR_NODE_OUT_IF_UNIT, 0x80000001, 0x80000001},
        {PBR_NODE_FORWARD_FLAG, 6, 2},            {PBR_NODE_IS_ECMP, 5, 1},
        {PBR_NODE_IS_ECMP, 3, 3},                 {PBR_NODE_VRF_ID, 0xFFFFFFFF, 0xFFFFFFFF},
        {PBR_NODE_IP_PRI, 7, 7},                  {PBR_NODE_IP_PRI, 0x25, 5},
        {PBR_NODE_IP_PRI, 15, 15},                {PBR_NODE_IP_PRI, 0, PBR_IP_PRI_NONE},
    };
    haveWeb10();
    for (const PlainField &field : fields) {
        EXPECT_EQ(set(field.id, field.value), PBR_OK) << field.id;
        EXPECT_EQ(get(field.id), field.stored) << field.id;
        EXPECT_EQ(fake::takeTrace(), Lines{syncLine(WEB10, NODE_BASE + field.id, 3, field.value)}) << field.id;
    }
}

TEST_F(NodeApi, SubByteNeighboursAreLeftAlone) {
    haveWeb10();
    ASSERT_EQ(set(PBR_NODE_IP_PRI, 6), PBR_OK);
    ASSERT_EQ(set(PBR_NODE_IS_ECMP, 2), PBR_OK);
    ASSERT_EQ(set(PBR_NODE_FORWARD_FLAG, 1), PBR_OK);

    EXPECT_EQ(get(PBR_NODE_IP_PRI), 6u);
    EXPECT_EQ(get(PBR_NODE_IS_ECMP), 2u);
    EXPECT_EQ(get(PBR_NODE_FORWARD_FLAG), 1u);
    EXPECT_EQ(node("web", 10)->flagByte, 0x66);
}

TEST_F(NodeApi, FieldTwelveIsStoredAndCannotBeRead) {
    haveWeb10();

    EXPECT_EQ(set(PBR_NODE_FIELD12, 0x1AB), PBR_OK);

    EXPECT_EQ(node("web", 10)->nodeField12, 0xAB);
    EXPECT_EQ(getNumber(pbrNodeGetApi, nodeKey("web", 10), PBR_NODE_FIELD12).code, PBR_FAIL);
    EXPECT_EQ(fake::takeCalls(), Lines{syncLine(WEB10, NODE_BASE + 12, 3, 0x1AB)});
}

TEST_F(NodeApi, TheSyncCommandDiffersOnlyInTheOrigin) {
    haveWeb10();

    EXPECT_EQ(setNumber(pbrNodeSyncApi, nodeKey("web", 10), PBR_NODE_FIELD7, 77), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{syncLine(WEB10, NODE_BASE + 7, 1, 77)});
    EXPECT_EQ(get(PBR_NODE_FIELD7), 77u);
}

TEST_F(NodeApi, TheVrfTextTellsTheOldVrfBeforeTheService) {
    haveWeb10();
    ASSERT_EQ(set(PBR_NODE_VRF_ID, 5), PBR_OK);
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    (void)fake::takeTrace();

    EXPECT_EQ(set(PBR_NODE_VRF_ID, 6), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), (Lines{debugLine("pbrNodeSetApi: pbr list web index 10 vrfid 5."),
                                        syncLine(WEB10, NODE_BASE + 11, 3, 6)}));
}

// ---- ACL ----

TEST_F(NodeApi, AnAclIsAskedForCheckedAndStored) {
    haveWeb10();

    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 1501), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), (Lines{"aclLstGetApi(1501, 4)", syncLine(WEB10, NODE_BASE + 4, 3, 1501)}));
    EXPECT_EQ(get(PBR_NODE_ACL_NUM), 1501u);
}

TEST_F(NodeApi, AclZeroIsStoredWithoutAskingTheModule) {
    haveWeb10(1501);

    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 0), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{syncLine(WEB10, NODE_BASE + 4, 3, 0)});
    EXPECT_EQ(get(PBR_NODE_ACL_NUM), 0u);
}

TEST_F(NodeApi, AnAclThatDoesNotExistIsRefusedFirst) {
    haveWeb10();
    haveNode("web", 20, 1501);
    fake::acl(1501, false);
    fake::acl(2500, false);

    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 1501), PBR_ERR_ACL_MISSING) << "although it is used";
    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 2500), PBR_ERR_ACL_MISSING) << "although its range cannot be bound";
    EXPECT_EQ(get(PBR_NODE_ACL_NUM), 0u);
}

TEST_F(NodeApi, AnAclBelongsToOneNodeOnly) {
    haveWeb10(1501);
    haveNode("web", 20);
    haveList("other");
    haveNode("other", 10);

    for (const Key &key : {nodeKey("web", 20), nodeKey("other", 10), nodeKey("web", 10)}) {
        EXPECT_EQ(setNumber(pbrNodeSetApi, key, PBR_NODE_ACL_NUM, 1501), PBR_ERR_ACL_USED) << show(key);
    }
}

TEST_F(NodeApi, AclNumbersOfThreeRangesCanNeverBeBound) {
    haveWeb10();
    for (uint32_t acl : {1u, 1000u, 2001u, 2500u, 3000u, 4001u, 5000u}) {
        for (uint8_t version : {0, 1, 2}) {
            node("web", 10)->policyRouteIpVer = version;
            EXPECT_EQ(set(PBR_NODE_ACL_NUM, acl), PBR_ERR_ACL_RANGE) << acl;
        }
    }
    EXPECT_EQ(get(PBR_NODE_ACL_NUM), 0u);
}

TEST_F(NodeApi, TheRangeIsCheckedAfterExistenceAndUse) {
    haveWeb10();
    haveNode("web", 20);
    node("web", 20)->aclNum = 2500;

    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 2500), PBR_ERR_ACL_USED);
    fake::acl(2500, false);
    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 2500), PBR_ERR_ACL_MISSING);
}

TEST_F(NodeApi, AnIpv6NodeRefusesAnIpv4AclAndTakesAnIpv6One) {
    haveWeb10(0, PBR_IP_VERSION_6);

    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 1500), PBR_ERR_ACL_VERSION);
    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 6000), PBR_ERR_ACL_VERSION);
    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 3500), PBR_OK);
}

TEST_F(NodeApi, AnIpv4NodeRefusesAnIpv6AclAndTakesAnIpv4One) {
    haveWeb10(0, PBR_IP_VERSION_4);

    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 3500), PBR_ERR_ACL_VERSION);
    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 5001), PBR_ERR_ACL_VERSION);
    EXPECT_EQ(set(PBR_NODE_ACL_NUM, 2000), PBR_OK);
}

TEST_F(NodeApi, ANodeWithoutVersionTakesAnyBindableAcl) {
    haveWeb10();
    for (uint32_t acl : {1001u, 2000u, 3001u, 4000u, 5001u, 0xFFFFFFFFu}) {
        EXPECT_EQ(set(PBR_NODE_ACL_NUM, acl), PBR_OK) << acl;
        EXPECT_EQ(get(PBR_NODE_ACL_NUM), acl);
    }
}

TEST_F(NodeApi, TheMismatchTextNamesThePresentAclAsSecondNumber) {
    haveWeb10(1501, PBR_IP_VERSION_4);
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::acl(1600, false);

    (void)set(PBR_NODE_ACL_NUM, 3500);
    (void)set(PBR_NODE_ACL_NUM, 1600);
    (void)set(PBR_NODE_ACL_NUM, 1501);
    (void)set(PBR_NODE_ACL_NUM, 2500);

    EXPECT_EQ(fake::takeTexts(),
              (Lines{debugLine("pbrNodeSetApi: acl 3500 is not match ip address version 1501."),
                     debugLine("pbrNodeSetApi: acl 1600 is not exist."),
                     debugLine("pbrNodeSetApi: acl 1501 is already binded."),
                     debugLine("pbrNodeSetApi:can't bind acl:2500.")}));
}

// ---- IP version ----

TEST_F(NodeApi, AnIpVersionStaysOnceSet) {
    haveWeb10();

    EXPECT_EQ(set(PBR_NODE_IP_VERSION, 1), PBR_OK);
    (void)fake::takeTrace();
    EXPECT_EQ(set(PBR_NODE_IP_VERSION, 2), PBR_ERR_VERSION_SET);
    EXPECT_EQ(set(PBR_NODE_IP_VERSION, 0), PBR_ERR_VERSION_SET);
    EXPECT_EQ(set(PBR_NODE_IP_VERSION, 257), PBR_ERR_VERSION_SET);
    EXPECT_EQ(fake::takeTrace(), Lines{}) << "refused before the service is asked";
    EXPECT_EQ(set(PBR_NODE_IP_VERSION, 1), PBR_OK);
    EXPECT_EQ(get(PBR_NODE_IP_VERSION), 1u);
}

TEST_F(NodeApi, AVersionMustTakeTheNodesAcl) {
    haveWeb10(3500);

    EXPECT_EQ(set(PBR_NODE_IP_VERSION, 1), PBR_ERR_ACL_VERSION);
    EXPECT_EQ(set(PBR_NODE_IP_VERSION, 257), PBR_ERR_ACL_VERSION) << "would be stored as 1";
    EXPECT_EQ(get(PBR_NODE_IP_VERSION), 0u);
    EXPECT_EQ(set(PBR_NODE_IP_VERSION, 2), PBR_OK);
}

TEST_F(NodeApi, TheVersionTextsNameAclAndNewVersion) {
    haveWeb10(3500);
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    (void)set(PBR_NODE_IP_VERSION, 1);
    (void)set(PBR_NODE_IP_VERSION, 2);
    (void)set(PBR_NODE_IP_VERSION, 1);

    EXPECT_EQ(fake::takeTexts(), (Lines{debugLine("pbrNodeSetApi: acl 3500 is not match ip address version 1."),
                                        debugLine("pbrNodeSetApi: ip version is exist.")}));
}

// ---- out interface, clear ----

TEST_F(NodeApi, AnOutInterfaceExcludesNextHopsAndIsCheckedAfterTheService) {
    haveWeb10(0, 1);
    haveNextHop("web", 10, 1);
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(set(PBR_NODE_OUT_IF_UNIT, 9), PBR_ERR_HAS_NEXT_HOP);

    EXPECT_EQ(fake::takeTrace(), Lines{syncLine(WEB10, NODE_BASE + 6, 3, 9)});
    EXPECT_EQ(storeImage(), before);
}

TEST_F(NodeApi, ClearWithValueZeroKeepsTheNextHopsButClearsVersionAndVrf) {
    haveWeb10(0, 1);
    ASSERT_EQ(set(PBR_NODE_VRF_ID, 3), PBR_OK);
    haveNextHop("web", 10, 1, "10.0.0.1");

    EXPECT_EQ(set(PBR_NODE_CLEAR, 0), PBR_OK);

    EXPECT_NE(hop("web", 10, 1), nullptr);
    EXPECT_EQ(get(PBR_NODE_IP_VERSION), 0u);
    EXPECT_EQ(get(PBR_NODE_VRF_ID), 0u);
}

TEST_F(NodeApi, ClearWithAnotherValueDeletesTheNextHopsToo) {
    haveWeb10(1501, 1);
    ASSERT_EQ(set(PBR_NODE_VRF_ID, 3), PBR_OK);
    for (uint8_t i : {3, 2, 5}) {
        haveNextHop("web", 10, i, "10.0.0." + std::to_string(i));
    }
    (void)fake::takeTrace();

    EXPECT_EQ(set(PBR_NODE_CLEAR, 0x80000000u), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{syncLine(WEB10, NODE_BASE + 13, 3, 0x80000000u)});
    EXPECT_EQ(fake::slotsTaken("pbr_nexthop"), 0u);
    EXPECT_EQ(get(PBR_NODE_IP_VERSION), 0u);
    EXPECT_EQ(get(PBR_NODE_VRF_ID), 0u);
    EXPECT_EQ(get(PBR_NODE_ACL_NUM), 1501u);
}

// ---- events, refusals, texts ----

TEST_F(NodeApi, TimeRangeEventsReachTheNodeWithoutTheService) {
    haveWeb10();
    fake::answer("qrvHwilCmdSyncApi", -1);

    EXPECT_EQ(set(PBR_NODE_TIME_RANGE_START, 0), PBR_OK);
    EXPECT_EQ(node("web", 10)->timeRangeMatched, 1u);
    EXPECT_EQ(set(PBR_NODE_TIME_RANGE_STOP, 0), PBR_OK);
    EXPECT_EQ(node("web", 10)->timeRangeMatched, 0u);
    node("web", 10)->timeRangeMatched = 1;
    EXPECT_EQ(set(PBR_NODE_TIME_RANGE_UNBIND, 0), PBR_OK);
    EXPECT_EQ(node("web", 10)->timeRangeMatched, 0u);
    EXPECT_EQ(fake::takeTrace(), Lines{});
    EXPECT_EQ(listFirst(&gPbrInfo.readyTable), &list("web")->readyLink);
}

TEST_F(NodeApi, ARejectedSynchronisationLeavesEveryFieldAlone) {
    haveWeb10(0, 1);
    haveNode("web", 20);
    ASSERT_EQ(set(PBR_NODE_VRF_ID, 3), PBR_OK);
    haveNextHop("web", 10, 2, "10.0.0.2");
    const std::string before = storeImage();
    fake::answer("qrvHwilCmdSyncApi", 0x00C0FFEE);

    for (uint32_t field : {1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 13u, 19u}) {
        const uint32_t value = field == PBR_NODE_ACL_NUM ? 1501 : 1;
        EXPECT_EQ(set(field, value), 0x00C0FFEEu) << field;
        EXPECT_EQ(storeImage(), before) << field;
    }
    for (uint32_t command : {3u, 4u, 9u}) {
        EXPECT_EQ(set(PBR_NODE_STATUS, command), 0x00C0FFEEu);
    }
    EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey("web", 30), PBR_NODE_STATUS, PBR_ROW_CREATED), 0x00C0FFEEu);
    EXPECT_EQ(storeImage(), before);
    EXPECT_TRUE(fake::timerangeBindings().empty());
}

TEST_F(NodeApi, EveryRefusalIsToldWhileTheDebugFlagIsSet) {
    haveWeb10();
    haveList("used");
    haveNode("used", 1, 1501);
    ASSERT_EQ(setNumber(pbrNodeSetApi, nodeKey("used", 1), PBR_NODE_OUT_IF_UNIT, 4), PBR_OK);
    haveBinding(7, "used");
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    (void)fake::takeTrace();

    (void)setNumber(pbrNodeSetApi, nodeKey("web", 11), PBR_NODE_TIME_RANGE_START, 0);
    (void)setNumber(pbrNodeSetApi, nodeKey("used", 1), PBR_NODE_FIELD7, 0);
    (void)setNumber(pbrNodeSetApi, nodeKey("web", 11), PBR_NODE_STATUS, PBR_ROW_DESTROY);
    (void)setNumber(pbrNodeSetApi, nodeKey("web", 0xFFFFFFFF), PBR_NODE_FIELD7, 0);
    (void)set(PBR_NODE_STATUS, PBR_ROW_CREATED);
    (void)getNumber(pbrNodeGetApi, nodeKey("web", 11), 1);

    EXPECT_EQ(fake::takeTrace(),
              (Lines{debugLine("pbrNodeSetApi: pbr list web index 11, timerange set can't find pbrnode."),
                     debugLine("pbrNodeSetApi: pbr list used can't be modified."),
                     debugLine("pbrNodeSetApi: pbr list web index 11 is not exist."),
                     debugLine("pbrNodeSetApi: pbr list web index -1 is not exist."),
                     debugLine("pbrNodeSetApi: pbr list web index 10 is exist."),
                     debugLine("pbrNodeGetApi: pbr list web index 11 is not exist.")}));
}

} // namespace
