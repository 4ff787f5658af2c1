// The table of probe tests.
#include "store/pbr_nqa_entry.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/pbr_info.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_list_entry_del.h"
#include "store/pbr_next_hop_entry.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace {

using Pair = std::pair<std::string, std::string>;
using Pairs = std::vector<Pair>;
using Texts = std::vector<std::string>;

class NqaEntry : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        makeList("a"); // the pools exist
        pNode = makeNode("a", 1);
        fake::takeTrace();
    }
    void TearDown() override { checkStore(); }
    PbrNodeEntry *pNode = nullptr;
};

Pairs pairs() {
    Pairs all;
    for (PbrLink *p = listFirst(&gPbrInfo.nqaTable); p != nullptr; p = listNext(&gPbrInfo.nqaTable, p)) {
        const PbrNqaEntry *pNqa = pbrNqaFromNqaLink(p);
        all.push_back({std::string(reinterpret_cast<const char *>(pNqa->adminName), pNqa->adminNameLen),
                       std::string(reinterpret_cast<const char *>(pNqa->testName), pNqa->testNameLen)});
    }
    return all;
}

PbrNqaEntry *find(const std::string &admin, const std::string &test) {
    return pbrNqaEntryGet(bytes(admin).data(), static_cast<uint32_t>(admin.size()), bytes(test).data(),
                          static_cast<uint32_t>(test.size()));
}

TEST_F(NqaEntry, ANewTestCountsAsFailing) {
    EXPECT_EQ(makeNqa("ops", "isp")->status, 2u);
}

TEST_F(NqaEntry, ShorterNamesStandFirstWhateverTheirBytes) {
    for (const Pair &pair : Pairs{{"b", "t"}, {"aa", "t"}, {"a", "z"}, {"a", "y"}, {"a", "yy"}}) {
        makeNqa(pair.first, pair.second);
    }

    EXPECT_EQ(pairs(), (Pairs{{"a", "y"}, {"a", "z"}, {"a", "yy"}, {"b", "t"}, {"aa", "t"}}));
}

TEST_F(NqaEntry, TheOrderDoesNotDependOnTheOrderOfCreation) {
    const Pairs sorted = {{"a", "zz"}, {"\xff", "a"}, {"aa", "b"}, {"zz", "\x7f"}, {"zz", "\x80"}, {"aaa", ""}};
    Pairs order = sorted;
    std::sort(order.begin(), order.end());
    do {
        startDaemon();
        makeList("a");
        for (const Pair &pair : order) {
            makeNqa(pair.first, pair.second);
        }
        checkStore();
        ASSERT_EQ(pairs(), sorted);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(NqaEntry, AnEqualPairGoesBehindTheExistingOne) {
    PbrNqaEntry *pFirst = makeNqa("ops", "isp");
    PbrNqaEntry *pSecond = makeNqa("ops", "isp");

    EXPECT_EQ(pbrNqaFromNqaLink(listFirst(&gPbrInfo.nqaTable)), pFirst);
    EXPECT_EQ(pFirst->nqaLink.pNext, &pSecond->nqaLink);
    EXPECT_EQ(find("ops", "isp"), pFirst);
}

TEST_F(NqaEntry, TheStatusOfANewTestIsAskedForAtOnce) {
    makeNqa("ops", "isp-a");

    EXPECT_EQ(fake::takeTrace(),
              (Texts{"qrvNetlinkSGrpSend(89, 350, admin=\"ops\"/3 test=\"isp-a\"/5 status=0)"}));
}

TEST_F(NqaEntry, NamesOfThirtyTwoBytesFitAndOneMoreDoesNot) {
    makeNqa(std::string(32, 'x'), std::string(32, 'y'));

    EXPECT_EQ(pbrNqaEntryAdd(bytes(std::string(33, 'x')).data(), 33, bytes("y").data(), 1), nullptr);
    EXPECT_EQ(pbrNqaEntryAdd(bytes("x").data(), 1, bytes(std::string(33, 'y')).data(), 33), nullptr);
    EXPECT_EQ(pairs(), (Pairs{{std::string(32, 'x'), std::string(32, 'y')}}));
}

TEST_F(NqaEntry, CreationAndDeletionAreLoggedWithNamesThatHaveNoTerminator) {
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    const std::string admin(32, 'x');

    pbrNqaEntryDel(makeNqa(admin, "isp"));

    EXPECT_EQ(fake::takeTexts(), (Texts{"debug 0x044B0004 7 0 \"pbr nqa add " + admin + " isp\\r\\n\"",
                                        "debug 0x044B0002 7 0 \"pbr send QRV_RTM_NQA_STATEREQ OK!\\r\\n\"",
                                        "debug 0x044B0004 7 0 \"pbr nqa del " + admin + " isp\\r\\n\""}));
    EXPECT_EQ(pairs(), Pairs{});
}

TEST_F(NqaEntry, TheTestsOfThePoolFitAndOneMoreIsRefusedWithItsTextAndWithoutARequest) {
    startDaemon(0, 1);
    makeList("a");
    for (const char *test : {"a", "b", "c", "d"}) {
        makeNqa("ops", test);
    }
    gPbrInfo.debugFlags = PBR_DEBUG_GENERAL;
    fake::takeTrace();

    EXPECT_EQ(pbrNqaEntryAdd(bytes("ops").data(), 3, bytes("e").data(), 1), nullptr);

    EXPECT_EQ(fake::takeTrace(), (Texts{"debug 0x044B0004 7 0 \"pbr nqa free table is empty!\\r\\n\""}));
}

TEST_F(NqaEntry, ATestIsFoundByBothNamesAndTheirLengths) {
    PbrNqaEntry *pNqa = makeNqa("ops", "isp");

    EXPECT_EQ(find("ops", "isp"), pNqa);
    EXPECT_EQ(find("op", "isp"), nullptr);
    EXPECT_EQ(find("ops", "is"), nullptr);
    EXPECT_EQ(find("opt", "isp"), nullptr);
    EXPECT_EQ(find("ops", "isq"), nullptr);
}

TEST_F(NqaEntry, LengthsOfALookUpCountWithTheirLowEightBits) {
    PbrNqaEntry *pNqa = makeNqa("ops", "isp");

    EXPECT_EQ(pbrNqaEntryGet(bytes("ops").data(), 0x103, bytes("isp").data(), 0xFF03), pNqa);
}

TEST_F(NqaEntry, ATestIsInUseWhenANextHopOfAnyListNamesIt) {
    makeList("b");
    PbrNextHopEntry *pHop = makeNextHop(pNode, 1, "10.0.0.1");
    nameTest(pHop, "ops", "isp");
    EXPECT_EQ(pbrNqaCheckNoUsed(pHop), 0) << "itself does not count";

    PbrNextHopEntry *pOther = makeNextHop(makeNode("b", 1), 1, "10.0.0.2");
    nameTest(pOther, "ops", "isq");
    EXPECT_EQ(pbrNqaCheckNoUsed(pHop), 0);
    nameTest(pOther, "opsi", "sp");
    EXPECT_EQ(pbrNqaCheckNoUsed(pHop), 0);
    nameTest(pOther, "ops", "isp");
    EXPECT_EQ(pbrNqaCheckNoUsed(pHop), -1);
}

TEST_F(NqaEntry, LengthsAreComparedInFullByTheUseCheck) {
    PbrNextHopEntry *pHop = makeNextHop(pNode, 1, "10.0.0.1");
    PbrNextHopEntry *pOther = makeNextHop(pNode, 2, "10.0.0.2");
    nameTest(pHop, "ops", "isp");
    nameTest(pOther, "ops", "isp");
    pOther->nqaAdminNameLen = 0x103;

    EXPECT_EQ(pbrNqaCheckNoUsed(pHop), 0);
    pOther->nqaAdminNameLen = 3;
}

TEST_F(NqaEntry, NoTestIsLeftWhenTheLastNextHopThatNamesOneIsGone) {
    PbrNextHopEntry *pHop = makeNextHop(pNode, 1, "10.0.0.1");
    nameTest(pHop, "ops", "isp");
    makeNqa("ops", "isp");

    pbrNextHopEntryDel(pHop);

    EXPECT_EQ(pairs(), Pairs{});
}

TEST_F(NqaEntry, AnOrphanedTestGoesWithThePools) {
    makeNqa("ops", "isp"); // no next hop names it any more, as after a renaming

    pbrListEntryDel(usedLists().front());
    EXPECT_TRUE(listEmpty(&gPbrInfo.nqaTable));

    makeList("b");
    EXPECT_EQ(find("ops", "isp"), nullptr);
}

TEST_F(NqaEntry, AFailedRequestKeepsTheRecordAndIsNotRepeated) {
    fake::answer("qrvNetlinkSGrpSend", -1);

    PbrNqaEntry *pNqa = makeNqa("ops", "isp");

    EXPECT_EQ(find("ops", "isp"), pNqa);
    EXPECT_EQ(fake::takeCalls().size(), 1u);
}

TEST_F(NqaEntry, EveryFailureOfACreationComesBackAsPublished) {
    fake::failNth(1);
    EXPECT_EQ(pbrNqaEntryAdd(bytes("ops").data(), 3, bytes("isp").data(), 3), nullptr);
    EXPECT_EQ(fake::faultCall(), "silMemPoolAlloc");
    EXPECT_EQ(pairs(), Pairs{});

    fake::failNth(2);
    EXPECT_NE(pbrNqaEntryAdd(bytes("ops").data(), 3, bytes("isp").data(), 3), nullptr);
    EXPECT_EQ(fake::faultCall(), "qrvNetlinkSGrpSend");
}

} // namespace
