// Interfaces as the management plane sees them: api/pbr_if_api.cpp.
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

constexpr uint32_t IF_BASE = 0x04128000u;
constexpr uint32_t FLAGS = 0x10000003u;
constexpr uint32_t IF_BYTES_FLAGS = 0x90000003u;
const char IF7[] = "if(7)";

class IfApi : public ApiTest {};

uint32_t setStatus(uint32_t command) { return setNumber(pbrIfSetApi, unitKey(7), PBR_IF_STATUS, command); }
uint32_t bindTo(const std::string &name) { return setBytes(pbrIfSetApi, unitKey(7), PBR_IF_PBR_NAME, name); }
Answer boundName(uint32_t capacity = 16) { return getBytes(pbrIfGetApi, unitKey(7), PBR_IF_PBR_NAME, capacity); }

// A list with one node that goes out of an interface, so that binding writes an entry at once.
void haveUsableList(const std::string &name, uint32_t aclNum) {
    haveList(name);
    haveNode(name, 10, aclNum);
    EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey(name, 10), PBR_NODE_OUT_IF_UNIT, 99), PBR_OK);
}

std::string sync2(const std::string &name) { return syncBytesLine(IF7, IF_BASE + 2, IF_BYTES_FLAGS, name); }
std::string addLine(uint32_t acl) {
    return "aclIfSetApi(7, 20, if=7 acl=" + std::to_string(acl) + " dir=0 act=4 pri=0 vrf=0 hops=00000063)";
}

// ---- status ----

TEST_F(IfApi, CreatingAndDestroyingAnEntry) {
    EXPECT_EQ(setStatus(PBR_IF_CREATE), PBR_OK);
    EXPECT_EQ(getNumber(pbrIfGetApi, unitKey(7), PBR_IF_STATUS).number, 1u);
    EXPECT_EQ(boundName().len, 0u);
    EXPECT_EQ(setStatus(PBR_IF_DESTROY), PBR_OK);
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_FALSE(fake::poolExists("pbr_if"));
}

TEST_F(IfApi, CreatingAnExistingAndDestroyingAMissingEntrySucceedAfterTheService) {
    EXPECT_EQ(setStatus(PBR_IF_DESTROY), PBR_OK);
    EXPECT_EQ(fake::takeTrace(), Lines{syncLine(IF7, IF_BASE + 1, FLAGS, 2)});
    haveInterface(7);
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(setStatus(PBR_IF_CREATE), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{syncLine(IF7, IF_BASE + 1, FLAGS, 1)});
    EXPECT_EQ(storeImage(), before);
}

TEST_F(IfApi, OtherCommandsAreSynchronisedAndThenRefused) {
    for (uint32_t command : {0u, 3u, 4u, 0xFFFFFFFFu}) {
        (void)fake::takeTrace();
        EXPECT_EQ(setStatus(command), PBR_FAIL);
        EXPECT_EQ(fake::takeTrace(), Lines{syncLine(IF7, IF_BASE + 1, FLAGS, command)});
    }
    EXPECT_EQ(interface(7), nullptr);
}

TEST_F(IfApi, AFullPoolIsReported) {
    for (uint32_t i = 0; i < gPbrInfo.maxIfNum; ++i) {
        haveInterface(100 + i);
    }

    EXPECT_EQ(setStatus(PBR_IF_CREATE), PBR_ERR_NO_RECORD);
}

TEST_F(IfApi, AMissingEntryRefusesEveryFieldButTheStatus) {
    for (uint32_t field : {0u, 2u, 3u, 4u, 5u}) {
        EXPECT_EQ(setBytes(pbrIfSetApi, unitKey(7), field, "a"), PBR_ERR_NO_ROW) << field;
    }
    for (uint32_t field : {0u, 1u, 2u, 3u, 4u, 5u}) {
        EXPECT_EQ(getBytes(pbrIfGetApi, unitKey(7), field, 64).code, PBR_ERR_NO_ROW) << field;
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(IfApi, FieldsThatDoNotExistCannotBeSetOrRead) {
    haveInterface(7);
    (void)fake::takeTrace();

    for (uint32_t field : {0u, 3u, 4u, 5u, 0xFFFFFFFFu}) {
        EXPECT_EQ(setBytes(pbrIfSetApi, unitKey(7), field, "a"), PBR_FAIL) << field;
    }
    for (uint32_t field : {0u, 5u, 0xFFFFFFFFu}) {
        EXPECT_EQ(getBytes(pbrIfGetApi, unitKey(7), field, 64).code, PBR_FAIL) << field;
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
}

TEST_F(IfApi, BadArgumentsAreRefused) {
    haveInterface(7);
    (void)fake::takeTrace();
    PbrApiValue value = {1, 0};
    PbrApiValue noBuffer = {0, 3};
    Key key = unitKey(7);

    EXPECT_EQ(pbrIfSetApi(nullptr, 1, &value), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrIfSyncApi(nullptr, 1, &value), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrIfGetApi(nullptr, 1, &value), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrIfSetApi(key.data(), 1, nullptr), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrIfGetApi(key.data(), 1, nullptr), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(pbrIfSetApi(key.data(), 2, &noBuffer), PBR_ERR_BAD_ARGUMENT);
    EXPECT_EQ(fake::takeTrace(), Lines{});
    EXPECT_FALSE(fake::locked());
}

TEST_F(IfApi, MoreListsThanTheLimitRefuseEveryInterfaceCommand) {
    haveUsableList("a", 1501);
    haveBinding(7, "a");
    gPbrInfo.listCount += gPbrInfo.maxListNum; // one more than the limit
    PbrApiValue value = {PBR_IF_DESTROY, 0};
    Key key = unitKey(7);
    (void)fake::takeTrace();

    for (uint32_t field : {0u, 1u, 2u, 3u, 4u, 9u}) {
        EXPECT_EQ(pbrIfSetApi(key.data(), field, &value), PBR_ERR_LIST_LIMIT) << field;
        EXPECT_EQ(pbrIfSyncApi(key.data(), field, &value), PBR_ERR_LIST_LIMIT) << field;
        EXPECT_EQ(pbrIfGetApi(key.data(), field, &value), PBR_ERR_LIST_LIMIT) << field;
    }
    EXPECT_EQ(fake::takeTrace(), Lines{});
    gPbrInfo.listCount = 1;
    gPbrInfo.maxListNum = 1; // exactly the limit
    EXPECT_EQ(pbrIfGetApi(key.data(), PBR_IF_STATUS, &value), PBR_OK);
}

// ---- binding ----

TEST_F(IfApi, BindingStoresTheNameAndBinds) {
    haveUsableList("a", 1501);
    haveInterface(7);
    (void)fake::takeTrace();

    EXPECT_EQ(bindTo("a"), PBR_OK);

    EXPECT_EQ(fake::takeTrace(),
              (Lines{sync2("a"), "aclLstSyncApi(1501, 2, 1)", addLine(1501), "qrvIfSetApi(7, 56, 206)"}));
    EXPECT_EQ(boundName().bytes, "a");
    EXPECT_EQ(pbrListRefCntGet(list("a")), 1u);
}

TEST_F(IfApi, BindingTheBoundListAgainTouchesNothing) {
    haveUsableList("a", 1501);
    haveBinding(7, "a");
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(bindTo("a"), PBR_OK);

    EXPECT_EQ(fake::takeTrace(), Lines{sync2("a")});
    EXPECT_EQ(storeImage(), before);
}

TEST_F(IfApi, BindingAnotherListUnbindsTheFirst) {
    haveUsableList("a", 1501);
    haveUsableList("b", 1502);
    haveBinding(7, "a");
    (void)fake::takeTrace();

    EXPECT_EQ(bindTo("b"), PBR_OK);

    const Lines calls = fake::takeCalls();
    ASSERT_EQ(calls.size(), 7u);
    EXPECT_EQ(calls[0], sync2("b"));
    EXPECT_EQ(calls[1], "aclLstSyncApi(1501, 2, -1)");
    EXPECT_EQ(calls[2].rfind("aclIfSetApi(7, 21, if=7 acl=1501", 0), 0u) << calls[2];
    EXPECT_EQ(calls[3], "qrvIfSetApi(7, 57, 206)");
    EXPECT_EQ(calls[4], "aclLstSyncApi(1502, 2, 1)");
    EXPECT_EQ(calls[5], addLine(1502));
    EXPECT_EQ(calls[6], "qrvIfSetApi(7, 56, 206)");
    EXPECT_EQ(pbrListRefCntGet(list("a")), 0u);
    EXPECT_EQ(pbrListRefCntGet(list("b")), 1u);
    EXPECT_EQ(boundName().bytes, "b");
}

TEST_F(IfApi, AMissingListIsRefusedWithoutTouchingTheBoundOne) {
    haveUsableList("a", 1501);
    haveBinding(7, "a");
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(bindTo("b"), PBR_ERR_NO_LIST);
    EXPECT_EQ(bindTo(""), PBR_ERR_NO_LIST);
    EXPECT_EQ(bindTo("aa"), PBR_ERR_NO_LIST);

    EXPECT_EQ(fake::takeTrace(), (Lines{sync2("b"), sync2(""), sync2("aa")}));
    EXPECT_EQ(storeImage(), before);
}

TEST_F(IfApi, AMissingListIsTriedWhenNoneIsBound) {
    haveInterface(7);
    const std::string before = storeImage();
    (void)fake::takeTrace();

    EXPECT_EQ(bindTo("b"), PBR_ERR_BIND);
    EXPECT_EQ(bindTo(""), PBR_ERR_BIND);

    EXPECT_EQ(fake::takeTrace(), (Lines{sync2("b"), sync2("")}));
    EXPECT_EQ(storeImage(), before) << "the name is cleared again";
}

TEST_F(IfApi, AListThatMatchesOrDoesNothingKeepsTheBoundOne) {
    haveUsableList("a", 1501);
    haveList("no-match");
    haveNode("no-match", 1);
    haveList("no-apply");
    haveNode("no-apply", 1, 1600);
    haveBinding(7, "a");
    const std::string before = storeImage();

    EXPECT_EQ(bindTo("no-match"), PBR_ERR_NO_MATCH);
    EXPECT_EQ(bindTo("no-apply"), PBR_ERR_NO_APPLY);

    EXPECT_EQ(storeImage(), before);
}

TEST_F(IfApi, TheSameListsFailTheBindWhenNoneIsBound) {
    haveList("no-match");
    haveNode("no-match", 1);
    haveInterface(7);
    const std::string before = storeImage();

    EXPECT_EQ(bindTo("no-match"), PBR_ERR_BIND);

    EXPECT_EQ(storeImage(), before);
}

TEST_F(IfApi, AFailedBindAfterAnUnbindLeavesTheEntryWithoutAList) {
    haveUsableList("a", 1501);
    haveUsableList("b", 1502);
    haveBinding(7, "a");
    fake::answer("silMemPoolAlloc", 0);
    PbrApiValue value = {reinterpret_cast<uintptr_t>("b"), 1};
    Key key = unitKey(7);

    EXPECT_EQ(pbrIfSetApi(key.data(), PBR_IF_PBR_NAME, &value), PBR_ERR_BIND);

    EXPECT_EQ(interface(7)->pbrNameLen, 0);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(interface(7)->pbrName), 16), std::string(16, '\0'));
    EXPECT_EQ(pbrListRefCntGet(list("a")), 0u);
    EXPECT_EQ(pbrListRefCntGet(list("b")), 1u) << "published: a bind that stops half-way is not undone";
    EXPECT_FALSE(fake::locked());
    pbrListRefCntSet(list("b"), 0); // for the store checker
}

TEST_F(IfApi, AnUnbindThatFindsNoListIsPassedOnAndKeepsTheName) {
    haveUsableList("a", 1501);
    haveUsableList("b", 1502);
    haveInterface(7);
    memcpy(interface(7)->pbrName, "gone", 4);
    interface(7)->pbrNameLen = 4;
    const std::string before = storeImage();

    EXPECT_EQ(bindTo("b"), PBR_ERR_UNBIND_NO_LIST);

    EXPECT_EQ(storeImage(), before);
    interface(7)->pbrNameLen = 0;
}

TEST_F(IfApi, DestroyingABoundEntryUnbindsIt) {
    haveUsableList("a", 1501);
    haveBinding(7, "a");
    (void)fake::takeTrace();

    EXPECT_EQ(setStatus(PBR_IF_DESTROY), PBR_OK);

    const Lines calls = fake::takeCalls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0], syncLine(IF7, IF_BASE + 1, FLAGS, 2));
    EXPECT_EQ(calls[1], "aclLstSyncApi(1501, 2, -1)");
    EXPECT_EQ(calls[3], "qrvIfSetApi(7, 57, 206)");
    EXPECT_EQ(interface(7), nullptr);
    EXPECT_EQ(pbrListRefCntGet(list("a")), 0u);
    EXPECT_EQ(fake::slotsTaken("pbr_ifnode"), 0u);
}

TEST_F(IfApi, AnEntryWhoseListHasGoneCanBeDestroyed) {
    haveInterface(7);
    memcpy(interface(7)->pbrName, "gone", 4);
    interface(7)->pbrNameLen = 4;

    EXPECT_EQ(setStatus(PBR_IF_DESTROY), PBR_OK);

    EXPECT_EQ(interface(7), nullptr);
}

TEST_F(IfApi, NamesOfSixteenBytesBindAndLongerOnesNameNoList) {
    const std::string sixteen = "0123456789abcdef";
    haveUsableList(sixteen, 1501);
    haveInterface(7);
    for (size_t len : {17, 18, 32, 65535, 65536 + 16}) {
        const std::string before = storeImage();
        const std::string name = sixteen + std::string(len - 16, 'x');
        (void)fake::takeTrace();
        EXPECT_EQ(bindTo(name), PBR_ERR_BIND) << len;
        EXPECT_EQ(fake::takeTrace().size(), 1u) << "the service has seen it, nothing else was called";
        EXPECT_EQ(storeImage(), before) << len;
    }
    EXPECT_EQ(bindTo(sixteen), PBR_OK);
    for (size_t len : {17, 65535, 65536 + 16}) {
        const std::string before = storeImage();
        EXPECT_EQ(bindTo(sixteen + std::string(len - 16, 'x')), PBR_ERR_NO_LIST) << len;
        EXPECT_EQ(storeImage(), before) << len;
    }
    EXPECT_EQ(boundName(16).bytes, sixteen);
}

// ---- reading ----

TEST_F(IfApi, TheNameIsReadOnlyIntoABufferThatHoldsIt) {
    haveUsableList("abc", 1501);
    haveBinding(7, "abc");

    for (uint32_t capacity : {0u, 1u, 2u}) {
        EXPECT_EQ(boundName(capacity).code, PBR_ERR_LIST_LIMIT) << "22, also the code of a short buffer";
    }
    EXPECT_EQ(boundName(3).bytes, "abc");
    EXPECT_EQ(boundName(64).len, 3u);
}

TEST_F(IfApi, AnEmptyNameFitsNoBuffer) {
    haveInterface(7);
    PbrApiValue none = {0, 0};
    Key key = unitKey(7);

    EXPECT_EQ(boundName(0).code, PBR_OK);
    EXPECT_EQ(pbrIfGetApi(key.data(), PBR_IF_PBR_NAME, &none), PBR_OK);
    EXPECT_EQ(none.word1, 0u);
}

TEST_F(IfApi, ABoundNameWithoutBufferIsABadArgument) {
    haveUsableList("abc", 1501);
    haveBinding(7, "abc");
    PbrApiValue none = {0, 64};
    Key key = unitKey(7);

    EXPECT_EQ(pbrIfGetApi(key.data(), PBR_IF_PBR_NAME, &none), PBR_ERR_BAD_ARGUMENT);
    EXPECT_FALSE(fake::locked());
}

TEST_F(IfApi, FieldThreeAlwaysReadsAsEmpty) {
    haveUsableList("abc", 1501);
    haveBinding(7, "abc");

    const Answer answer = getBytes(pbrIfGetApi, unitKey(7), PBR_IF_EMPTY, 64);

    EXPECT_EQ(answer.code, PBR_OK);
    EXPECT_EQ(answer.len, 0u);
}

// ---- service and texts ----

TEST_F(IfApi, TheSyncCommandDiffersOnlyInTheOrigin) {
    haveUsableList("a", 1501);

    EXPECT_EQ(setNumber(pbrIfSyncApi, unitKey(7), PBR_IF_STATUS, PBR_IF_CREATE), PBR_OK);
    EXPECT_EQ(setBytes(pbrIfSyncApi, unitKey(7), PBR_IF_PBR_NAME, "a"), PBR_OK);

    Lines syncs;
    for (const std::string &line : fake::takeCalls()) {
        if (line.rfind("qrvHwilCmdSyncApi(if", 0) == 0) {
            syncs.push_back(line);
        }
    }
    EXPECT_EQ(syncs, (Lines{syncLine(IF7, IF_BASE + 1, 0x10000001u, 1), syncBytesLine(IF7, IF_BASE + 2, 0x90000001u, "a")}));
    EXPECT_EQ(boundName().bytes, "a");
}

TEST_F(IfApi, ARejectedSynchronisationLeavesEverythingAlone) {
    haveUsableList("a", 1501);
    haveUsableList("b", 1502);
    haveBinding(7, "a");
    haveInterface(8);
    const std::string before = storeImage();
    fake::answer("qrvHwilCmdSyncApi", 0x00C0FFEE);

    EXPECT_EQ(setStatus(PBR_IF_CREATE), 0x00C0FFEEu);
    EXPECT_EQ(setStatus(PBR_IF_DESTROY), 0x00C0FFEEu);
    EXPECT_EQ(setStatus(9), 0x00C0FFEEu);
    EXPECT_EQ(bindTo("a"), 0x00C0FFEEu);
    EXPECT_EQ(bindTo("b"), 0x00C0FFEEu);
    EXPECT_EQ(bindTo("missing"), 0x00C0FFEEu);
    EXPECT_EQ(setBytes(pbrIfSetApi, unitKey(8), PBR_IF_PBR_NAME, "b"), 0x00C0FFEEu);
    EXPECT_EQ(setNumber(pbrIfSetApi, unitKey(9), PBR_IF_STATUS, PBR_IF_CREATE), 0x00C0FFEEu);

    EXPECT_EQ(storeImage(), before);
}

TEST_F(IfApi, EveryRefusalIsToldWhileTheDebugFlagIsSet) {
    haveInterface(8);
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;

    (void)bindTo("a");
    (void)boundName();
    (void)setBytes(pbrIfSetApi, unitKey(8), PBR_IF_PBR_NAME, "a");
    (void)setBytes(pbrIfSetApi, unitKey(8), PBR_IF_PBR_NAME, std::string(17, 'a'));

    EXPECT_EQ(fake::takeTexts(), (Lines{debugLine("pbrIfSetApi:pbrIfEntry is NULL."),
                                        debugLine("pbrIfGetApi: pbrIfEntry is NULL."),
                                        debugLine("pbrIfSetApi: pbr bind error."),
                                        debugLine("pbrIfSetApi: pbr bind error.")}));
}

} // namespace
