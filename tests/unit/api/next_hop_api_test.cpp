// Next hops as the management plane sees them: api/pbr_next_hop_api.cpp.
#include "store/pbr_nqa_entry.h"
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

constexpr uint32_t NEXT_HOP_BASE = 0x0CC60000u;
constexpr uint32_t NEXT_HOP_BYTES_FLAGS = 0x80000003u;
const char HOP1[] = "node(\"web\",10,mask=0,hop=1)";

class NextHopApi : public ApiTest {
protected:
    void SetUp() override {
        ApiTest::SetUp();
        haveList("web");
        haveNode("web", 10);
    }
    void haveVersion(uint8_t version) {
        node("web", 10)->policyRouteIpVer = version;
        (void)fake::takeTrace();
    }
    void haveHop1(uint8_t version) {
        haveVersion(version);
        haveNextHop("web", 10, 1);
        (void)fake::takeTrace();
    }
};

Key key(uint8_t index) { return nodeKey("web", 10, index); }
uint32_t setStatus(uint8_t index, uint32_t command) {
    return setNumber(pbrNextHopSetApi, key(index), PBR_NEXT_HOP_STATUS, command);
}
uint32_t create(uint8_t index) { return setStatus(index, PBR_ROW_CREATED); }
uint32_t setText(uint32_t field, const std::string &bytes) {
    return setBytes(pbrNextHopSetApi, key(1), field, bytes);
}
Answer getText(uint32_t field, uint32_t capacity = 64) {
    return getBytes(pbrNextHopGetApi, key(1), field, capacity, true);
}
std::string sync1(uint8_t index, uint32_t value) {
    return syncLine("node(\"web\",10,mask=0,hop=" + std::to_string(index) + ")", NEXT_HOP_BASE + 1, 3, value);
}

// ---- life ----

TEST_F(NextHopApi, ANewNextHopIsInStateCreatedWithNothingSet) {
    haveVersion(1);

    EXPECT_EQ(create(1), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{sync1(1, 2)});
    EXPECT_EQ(getNumber(pbrNextHopGetApi, key(1), PBR_NEXT_HOP_STATUS).number, PBR_ROW_CREATED);
    EXPECT_EQ(getText(PBR_NEXT_HOP_ADDRESS).bytes, std::string(4, '\0'));
    EXPECT_EQ(getText(PBR_NEXT_HOP_NQA_ADMIN_NAME).len, 0u);
    EXPECT_EQ(getText(PBR_NEXT_HOP_NQA_TEST_NAME).len, 0u);
}

TEST_F(NextHopApi, ANodeWithoutIpVersionTakesNoNextHop) {
    (void)fake::takeTrace();

    EXPECT_EQ(create(1), PBR_FAIL);

    EXPECT_EQ(fake::takeTrace(), Lines{sync1(1, 2)}) << "the service has seen it";
    EXPECT_EQ(hop("web", 10, 1), nullptr);
}

TEST_F(NextHopApi, ANodeWithAnOutInterfaceTakesNoNextHop) {
    haveVersion(1);
    node("web", 10)->outIfUnit = 9;

    EXPECT_EQ(create(1), PBR_ERR_HAS_OUT_IF);
    EXPECT_EQ(hop("web", 10, 1), nullptr);
}

TEST_F(NextHopApi, NextHopOneMustComeFirst) {
    haveVersion(1);
    haveNextHop("web", 10, 2);
    haveNextHop("web", 10, 3);

    EXPECT_EQ(create(1), PBR_ERR_FIRST_NEXT_HOP);
    EXPECT_EQ(create(4), PBR_OK);
    EXPECT_EQ(hop("web", 10, 1), nullptr);
    EXPECT_NE(hop("web", 10, 4), nullptr);
}

TEST_F(NextHopApi, TheNodesStateIsCheckedInThePublishedOrder) {
    haveVersion(1);
    haveNextHop("web", 10, 2);
    node("web", 10)->outIfUnit = 9;

    EXPECT_EQ(create(1), PBR_ERR_HAS_OUT_IF) << "before the index";
    node("web", 10)->policyRouteIpVer = 0;
    EXPECT_EQ(create(1), PBR_FAIL) << "before the out interface";
}

TEST_F(NextHopApi, CreatingAnExistingNextHopSucceedsWithoutChange) {
    haveHop1(1);
    ASSERT_EQ(setStatus(1, PBR_ROW_ACTIVE), PBR_OK);
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(create(1), PBR_OK);

    EXPECT_EQ(storeImage(), before);
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(NextHopApi, DestroyingAMissingNextHopIsRefused) {
    haveVersion(1);

    EXPECT_EQ(setStatus(1, PBR_ROW_DESTROY), PBR_ERR_NO_ROW) << "unlike lists and nodes";
}

TEST_F(NextHopApi, ActivateDeactivateDestroyAndUnknownCommands) {
    haveHop1(1);

    EXPECT_EQ(setStatus(1, PBR_ROW_ACTIVE), PBR_OK);
    EXPECT_EQ(hop("web", 10, 1)->status, PBR_ROW_ACTIVE);
    EXPECT_EQ(setStatus(1, PBR_ROW_INACTIVE), PBR_OK);
    EXPECT_EQ(hop("web", 10, 1)->status, PBR_ROW_INACTIVE);
    EXPECT_EQ(setStatus(1, 5), PBR_FAIL);
    EXPECT_EQ(setStatus(1, PBR_ROW_DESTROY), PBR_OK);
    EXPECT_EQ(hop("web", 10, 1), nullptr);
    EXPECT_EQ(fake::takeCalls(), (Lines{sync1(1, 1), sync1(1, 3), sync1(1, 5), sync1(1, 4)}));
}

TEST_F(NextHopApi, AFullPoolIsReported) {
    haveVersion(1);
    fake::answer("silMemPoolAlloc", 0);

    EXPECT_EQ(create(1), PBR_ERR_NO_RECORD);
}

TEST_F(NextHopApi, IndexTwoHundredFiftyFiveIsTheLast) {
    haveVersion(1);

    EXPECT_EQ(create(255), PBR_OK);
    EXPECT_EQ(hop("web", 10, 255)->nextHopIndex, 255);
}

TEST_F(NextHopApi, BadArgumentsAreRefusedWithoutLookingAtTheStore) {
    haveHop1(1);
    PbrApiValue number = {PBR_ROW_CREATED, 0};
    PbrApiValue noBuffer = {0, 4};
    Key good = key(1);

    EXPECT_EQ(pbrNextHopSetApi(nullptr, 1, &number), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrNextHopSyncApi(nullptr, 1, &number), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrNextHopGetApi(nullptr, 1, &number), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrNextHopSetApi(good.data(), 1, nullptr), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrNextHopGetApi(good.data(), 1, nullptr), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(create(0), PBR_ERR_BAD_ARGUMENT);
    for (uint32_t field : {2u, 4u, 5u}) {
        EXPECT_EQ(pbrNextHopSetApi(good.data(), field, &noBuffer), PBR_ERR_BAD_ARGUMENT) << field;
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
    EXPECT_FALSE(fake::locked());
}

TEST_F(NextHopApi, NamesOfNoBytesNeedNoBuffer) {
    haveHop1(1);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"), PBR_OK);
    fake::answer("qrvHwilCmdSyncApi", 0);
    PbrApiValue none = {0, 0};
    Key good = key(1);

    EXPECT_EQ(pbrNextHopSetApi(good.data(), PBR_NEXT_HOP_NQA_ADMIN_NAME, &none), PBR_OK);

    EXPECT_EQ(hop("web", 10, 1)->nqaAdminNameLen, 0);
}

TEST_F(NextHopApi, AMissingNodeOrNextHopIsReported) {
    haveVersion(1);
    for (uint32_t field : {0u, 1u, 2u, 3u, 4u, 5u, 6u}) {
        EXPECT_EQ(setNumber(pbrNextHopSetApi, nodeKey("web", 11, 1), field, 3), PBR_ERR_NO_ROW) << field;
        EXPECT_EQ(setNumber(pbrNextHopSetApi, nodeKey("no", 10, 1), field, 3), PBR_ERR_NO_ROW) << field;
        EXPECT_EQ(setNumber(pbrNextHopSetApi, nodeKey("web", 10, 1), field, 3), PBR_ERR_NO_ROW) << field;
        EXPECT_EQ(getBytes(pbrNextHopGetApi, nodeKey("web", 11, 1), field, 64).code, PBR_FAIL) << field;
        EXPECT_EQ(getBytes(pbrNextHopGetApi, nodeKey("web", 10, 1), field, 64).code, PBR_FAIL) << field;
    }
    EXPECT_EQ(setNumber(pbrNextHopSetApi, nodeKey("web", 11, 1), 1, PBR_ROW_CREATED), PBR_ERR_NO_ROW);
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(NextHopApi, AListInUseRefusesEverySet) {
    haveHop1(1);
    node("web", 10)->aclNum = 1501;
    haveBinding(7, "web");
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(create(2), PBR_ERR_IN_USE);
    EXPECT_EQ(setStatus(1, PBR_ROW_DESTROY), PBR_ERR_IN_USE);
    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("10.0.0.1")), PBR_ERR_IN_USE);
    EXPECT_EQ(setText(99, "x"), PBR_ERR_IN_USE);
    EXPECT_EQ(setNumber(pbrNextHopSetApi, nodeKey("web", 11, 1), 1, 1), PBR_ERR_IN_USE);

    EXPECT_EQ(fake::takeTrace(), Lines{});
    EXPECT_EQ(storeImage(), before);
}

TEST_F(NextHopApi, UnknownFieldsAreNotSynchronised) {
    haveHop1(1);
    for (uint32_t field : {0u, 3u, 6u, 255u, 0xFFFFFFFFu}) {
        EXPECT_EQ(setNumber(pbrNextHopSetApi, key(1), field, 1), PBR_FAIL) << field;
        EXPECT_EQ(getNumber(pbrNextHopGetApi, key(1), field).code, PBR_FAIL) << field;
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

// ---- address ----

TEST_F(NextHopApi, AnIpv4AddressHasFourBytes) {
    haveHop1(1);

    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("10.0.0.1")), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{syncBytesLine(HOP1, NEXT_HOP_BASE + 2, NEXT_HOP_BYTES_FLAGS, address("10.0.0.1"))});
    EXPECT_EQ(getText(PBR_NEXT_HOP_ADDRESS, 4).bytes, address("10.0.0.1"));
}

TEST_F(NextHopApi, AnIpv6AddressHasSixteenBytes) {
    haveHop1(2);

    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("2001:db8::1")), PBR_OK);

    EXPECT_EQ(getText(PBR_NEXT_HOP_ADDRESS, 16).bytes, address("2001:db8::1"));
}

TEST_F(NextHopApi, AnAddressOfTheOtherLengthIsRefusedAfterTheService) {
    for (uint8_t version : {1, 2}) {
        haveVersion(version);
        if (hop("web", 10, 1) == nullptr) {
            haveNextHop("web", 10, 1);
        }
        for (size_t len : {0, 1, 3, 4, 5, 15, 16, 17, 64}) {
            if (len == (version == 1 ? 4u : 16u)) {
                continue;
            }
            const std::string bytes(len, '\x11');
            (void)fake::takeTrace();
            EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, bytes), PBR_FAIL) << len;
            EXPECT_EQ(fake::takeTrace(), Lines{syncBytesLine(HOP1, NEXT_HOP_BASE + 2, NEXT_HOP_BYTES_FLAGS, bytes)}) << len;
        }
    }
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(hop("web", 10, 1)->nextHop), 16), std::string(16, '\0'));
}

TEST_F(NextHopApi, TheZeroAddressIsRefused) {
    haveHop1(1);
    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("0.0.0.0")), PBR_ERR_ZERO_NEXT_HOP);
    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("0.0.0.1")), PBR_OK);
    haveVersion(2);
    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("::")), PBR_ERR_ZERO_NEXT_HOP);
    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("::1")), PBR_OK);
}

TEST_F(NextHopApi, ANodeOfNoVersionAcceptsAnAddressAndStoresNothing) {
    haveHop1(1);
    haveVersion(0);
    const std::string before = storeImage();

    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("10.0.0.1")), PBR_OK);
    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, "x"), PBR_OK);

    EXPECT_EQ(storeImage(), before);
}

TEST_F(NextHopApi, AnIpv4AddressLeavesNothingOfAnEarlierIpv6One) {
    haveHop1(2);
    ASSERT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("2001:db8::1")), PBR_OK);
    haveVersion(1);

    ASSERT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("10.0.0.1")), PBR_OK);

    EXPECT_EQ(std::string(reinterpret_cast<const char *>(hop("web", 10, 1)->nextHop), 16),
              address("10.0.0.1") + std::string(12, '\0'));
}

TEST_F(NextHopApi, AnAddressIsReadOnlyIntoABufferThatHoldsIt) {
    haveHop1(1);
    ASSERT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("10.0.0.1")), PBR_OK);
    for (uint32_t capacity : {0u, 1u, 3u}) {
        EXPECT_EQ(getBytes(pbrNextHopGetApi, key(1), PBR_NEXT_HOP_ADDRESS, capacity).code, PBR_FAIL);
    }
    EXPECT_EQ(getBytes(pbrNextHopGetApi, key(1), PBR_NEXT_HOP_ADDRESS, 64).len, 4u);
    for (uint8_t version : {0, 2, 3}) { // any version but 1 reads 16 bytes
        haveVersion(version);
        EXPECT_EQ(getBytes(pbrNextHopGetApi, key(1), PBR_NEXT_HOP_ADDRESS, 15).code, PBR_FAIL);
        EXPECT_EQ(getBytes(pbrNextHopGetApi, key(1), PBR_NEXT_HOP_ADDRESS, 16).len, 16u);
    }
}

TEST_F(NextHopApi, ReadingBytesWithoutBufferIsABadArgument) {
    haveHop1(1);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"), PBR_OK);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_TEST_NAME, "isp"), PBR_OK);
    Key good = key(1);
    for (uint32_t field : {2u, 4u, 5u}) {
        PbrApiValue none = {0, 64};
        EXPECT_EQ(pbrNextHopGetApi(good.data(), field, &none), PBR_ERR_BAD_ARGUMENT) << field;
    }
    EXPECT_FALSE(fake::locked());
}

// ---- probe names ----

TEST_F(NextHopApi, ProbeNamesOfUpToThirtyTwoBytesAreStored) {
    haveHop1(1);
    const std::string longest(32, 'n');
    for (uint32_t field : {PBR_NEXT_HOP_NQA_ADMIN_NAME, PBR_NEXT_HOP_NQA_TEST_NAME}) {
        for (const std::string &name : {longest, std::string("ops"), std::string("x"), std::string()}) {
            (void)fake::takeTrace();
            EXPECT_EQ(setText(field, name), PBR_OK);
            EXPECT_EQ(fake::takeTrace(), Lines{syncBytesLine(HOP1, NEXT_HOP_BASE + field, NEXT_HOP_BYTES_FLAGS, name)});
            EXPECT_EQ(getText(field).bytes, name);
        }
    }
}

TEST_F(NextHopApi, LongerProbeNamesAreRefusedAfterTheService) {
    haveHop1(1);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"), PBR_OK);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_TEST_NAME, "isp"), PBR_OK);
    const std::string before = storeImage();
    for (uint32_t field : {PBR_NEXT_HOP_NQA_ADMIN_NAME, PBR_NEXT_HOP_NQA_TEST_NAME}) {
        for (size_t len : {33, 64, 65535, 65537}) {
            (void)fake::takeTrace();
            EXPECT_EQ(setText(field, std::string(len, 'n')), PBR_FAIL) << len;
            EXPECT_EQ(fake::takeTrace().size(), 1u) << "the service has seen it";
            EXPECT_EQ(storeImage(), before);
        }
    }
}

TEST_F(NextHopApi, ProbeNamesAreWrittenWholeWhateverTheCapacity) {
    haveHop1(1);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, std::string(32, 'a')), PBR_OK);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_TEST_NAME, std::string(32, 't')), PBR_OK);

    EXPECT_EQ(getText(PBR_NEXT_HOP_NQA_ADMIN_NAME, 0).bytes, std::string(32, 'a'));
    EXPECT_EQ(getText(PBR_NEXT_HOP_NQA_TEST_NAME, 4).bytes, std::string(32, 't'));
}

TEST_F(NextHopApi, ActivatingANextHopThatNamesAProbeAddsItsRecordAndAsksForItsStatus) {
    haveHop1(1);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"), PBR_OK);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_TEST_NAME, "isp"), PBR_OK);
    (void)fake::takeTrace();

    EXPECT_EQ(setStatus(1, PBR_ROW_ACTIVE), PBR_OK);

    const Lines calls = fake::takeTrace();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0], sync1(1, 1));
    EXPECT_EQ(calls[1].rfind("qrvNetlinkSGrpSend(", 0), 0u) << calls[1];
    EXPECT_EQ(fake::slotsTaken("pbr_nqa"), 1u);
}

TEST_F(NextHopApi, ActivatingAgainOrBesideAnotherNextHopAddsNoSecondRecord) {
    haveVersion(1);
    haveNextHop("web", 10, 1);
    haveNextHop("web", 10, 2);
    for (uint8_t i : {1, 2}) {
        ASSERT_EQ(setBytes(pbrNextHopSetApi, key(i), PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"), PBR_OK);
        ASSERT_EQ(setBytes(pbrNextHopSetApi, key(i), PBR_NEXT_HOP_NQA_TEST_NAME, "isp"), PBR_OK);
        ASSERT_EQ(setStatus(i, PBR_ROW_ACTIVE), PBR_OK);
        ASSERT_EQ(setStatus(i, PBR_ROW_ACTIVE), PBR_OK);
    }

    EXPECT_EQ(fake::slotsTaken("pbr_nqa"), 1u);
}

TEST_F(NextHopApi, ActivatingWithAnEmptyNameAddsNoProbe) {
    haveHop1(1);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"), PBR_OK);
    EXPECT_EQ(setStatus(1, PBR_ROW_ACTIVE), PBR_OK);
    EXPECT_EQ(fake::slotsTaken("pbr_nqa"), 0u);

    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, ""), PBR_OK);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_TEST_NAME, "isp"), PBR_OK);
    EXPECT_EQ(setStatus(1, PBR_ROW_ACTIVE), PBR_OK);
    EXPECT_EQ(fake::slotsTaken("pbr_nqa"), 0u);
}

TEST_F(NextHopApi, AFullProbePoolDoesNotFailTheActivation) {
    haveHop1(1);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"), PBR_OK);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_TEST_NAME, "isp"), PBR_OK);
    fake::answer("silMemPoolAlloc", 0);

    EXPECT_EQ(setStatus(1, PBR_ROW_ACTIVE), PBR_OK);

    EXPECT_EQ(hop("web", 10, 1)->status, PBR_ROW_ACTIVE);
}

TEST_F(NextHopApi, DestroyingTheLastNextHopOfAProbeRemovesItsRecord) {
    haveHop1(1);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"), PBR_OK);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_TEST_NAME, "isp"), PBR_OK);
    ASSERT_EQ(setStatus(1, PBR_ROW_ACTIVE), PBR_OK);

    EXPECT_EQ(setStatus(1, PBR_ROW_DESTROY), PBR_OK);

    EXPECT_EQ(fake::slotsTaken("pbr_nqa"), 0u);
}

// ---- service and texts ----

TEST_F(NextHopApi, TheSyncCommandDiffersOnlyInTheOrigin) {
    haveHop1(1);

    EXPECT_EQ(setBytes(pbrNextHopSyncApi, key(1), PBR_NEXT_HOP_ADDRESS, address("10.0.0.9")), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{syncBytesLine(HOP1, NEXT_HOP_BASE + 2, 0x80000001u, address("10.0.0.9"))});
    EXPECT_EQ(getText(PBR_NEXT_HOP_ADDRESS).bytes, address("10.0.0.9"));
}

TEST_F(NextHopApi, ARejectedSynchronisationLeavesEveryFieldAlone) {
    haveHop1(1);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"), PBR_OK);
    ASSERT_EQ(setText(PBR_NEXT_HOP_NQA_TEST_NAME, "isp"), PBR_OK);
    const std::string before = storeImage();
    fake::answer("qrvHwilCmdSyncApi", 0x00C0FFEE);

    EXPECT_EQ(create(2), 0x00C0FFEEu);
    for (uint32_t command : {1u, 3u, 4u, 5u}) {
        EXPECT_EQ(setStatus(1, command), 0x00C0FFEEu);
    }
    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, address("10.0.0.1")), 0x00C0FFEEu);
    EXPECT_EQ(setText(PBR_NEXT_HOP_ADDRESS, "bad length"), 0x00C0FFEEu);
    EXPECT_EQ(setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, "x"), 0x00C0FFEEu);
    EXPECT_EQ(setText(PBR_NEXT_HOP_NQA_TEST_NAME, "x"), 0x00C0FFEEu);

    EXPECT_EQ(storeImage(), before);
}

TEST_F(NextHopApi, RefusalsOfTheLookupsAreTold) {
    haveHop1(1);
    haveList("used");
    haveNode("used", 1, 1501);
    node("used", 1)->outIfUnit = 3;
    haveBinding(7, "used");
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    (void)fake::takeTrace();

    (void)setNumber(pbrNextHopSetApi, nodeKey("used", 1, 1), 1, 2);
    (void)setNumber(pbrNextHopSetApi, nodeKey("web", 11, 1), 4, 2);
    (void)setStatus(9, PBR_ROW_ACTIVE);
    (void)setText(5, "x");
    (void)create(1);
    (void)getNumber(pbrNextHopGetApi, nodeKey("web", 11, 1), 1);
    (void)getNumber(pbrNextHopGetApi, nodeKey("web", 10, 9), 1);

    EXPECT_EQ(fake::takeTexts(),
              (Lines{debugLine("_pbrNextHopSetApi: pbr list used can't be modified."),
                     debugLine("_pbrNextHopSetApi: pbr list web index 11 is not exist.cmd 4"),
                     debugLine("_pbrNextHopSetApi: pbr nexthop index 9 is not exist, cmd 1."),
                     debugLine("_pbrNextHopSetApi: pbr nexthop index 1 is exist."),
                     debugLine("pbrNextHopGetApi: pbr list web index 11 is not exist."),
                     debugLine("pbrNextHopGetApi: pbr nexthop index 9 is not exist.")}));
}

TEST_F(NextHopApi, ValuesAreToldAfterTheyAreStoredOrRefused) {
    haveHop1(1);
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    (void)setText(PBR_NEXT_HOP_ADDRESS, address("192.0.2.254"));
    (void)setText(PBR_NEXT_HOP_ADDRESS, "x");
    (void)setText(PBR_NEXT_HOP_ADDRESS, address("0.0.0.0"));
    (void)setText(PBR_NEXT_HOP_NQA_ADMIN_NAME, std::string(33, 'a'));
    (void)setText(PBR_NEXT_HOP_NQA_TEST_NAME, std::string(33, 'a'));
    node("web", 10)->policyRouteIpVer = 2;
    (void)setText(PBR_NEXT_HOP_ADDRESS, address("2001:db8::1"));

    EXPECT_EQ(fake::takeTexts(), (Lines{debugLine("_pbrNextHopSetApi ipAddr=192.0.2.254!"),
                                        debugLine("_pbrNextHopSetApi:the format of nextHop is wrong!"),
                                        debugLine("_pbrNextHopSetApi:nextHop is zero!"),
                                        debugLine("_pbrNextHopSetApi:the nqa admin name too long!"),
                                        debugLine("_pbrNextHopSetApi:the nqa operatTag name too long!"),
                                        debugLine("_pbrNextHopSetApi ip6Addr=2001:db8::1.")}));
}

} // namespace
