// The redirect view: what should happen to the packets of a link now, and what has to be asked again.
#include "hw/pbr_redirect_view.h"

#include <set>

#include "store/pbr_if_node_entry.h"
#include "store/pbr_view_mark.h"
#include "tests/unit/hw/steps.h"

namespace {

using steps::Lines;
using steps::view;

class RedirectView : public steps::StoreTest {
protected:
    // List "a", node 10, ACL 1501, on interface 1 by a link that no binding made.
    void SetUp() override {
        StoreTest::SetUp();
        makeList("a");
        pNode_ = makeNode("a", 10, {.acl = 1501, .ipVer = 1});
        pIf_ = makeIf(1);
        pLink_ = pbrIfNodeEntryAdd(pIf_, pNode_);
        pbrViewMarkAll();
        (void)fake::takeTrace();
    }
    void TearDown() override {
        pbrViewMarkAll(); // these tests write the records themselves
        EXPECT_TRUE(fake::takeTexts().empty());
        EXPECT_TRUE(fake::takeCalls().empty());
        StoreTest::TearDown();
    }
    void hops(uint32_t count) {
        for (uint32_t i = 1; i <= count; i++) {
            hops_.push_back(makeNextHop(pNode_, i, "10.0.0." + std::to_string(i)));
        }
        (void)fake::takeTrace();
    }
    PbrRedirect get() {
        PbrRedirect redirect;
        memset(&redirect, 0xEE, sizeof(redirect));
        EXPECT_TRUE(pbrRedirectViewGet(1, pNode_->aclNum, &redirect));
        return redirect;
    }
    std::string answer() { return steps::viewText(get()); }

    PbrNodeEntry *pNode_ = nullptr;
    PbrIfEntry *pIf_ = nullptr;
    PbrIfNodeEntry *pLink_ = nullptr;
    std::vector<PbrNextHopEntry *> hops_;
};

TEST_F(RedirectView, TheOrderOfDecisionHoldsForEveryCombinationOfANodesSettings) {
    hops(2);
    PbrLink empty;
    listInit(&empty);
    const PbrLink full = pNode_->nextHopList;
    const PbrLink *const pHead = &pNode_->nextHopList;
    for (uint32_t n = 0; n < 2 * 4 * 3 * 2 * 2 * 3 * 4 * 4; n++) {
        uint32_t rest = n;
        auto pick = [&rest](uint32_t count) { return std::exchange(rest, rest / count) % count; };
        const uint32_t acl = pick(2) == 0 ? 0 : 1501, flag = pick(4), range = pick(3), out = pick(2) * 9;
        const bool hasHops = pick(2) == 1;
        const uint8_t version = static_cast<uint8_t>(pick(3));
        const uint32_t ecmp = pick(4), reachable = pick(4);
        pNode_->aclNum = acl;
        pbrNodeForwardFlagSet(pNode_, flag);
        pNode_->timeRangeId = range == 0 ? PBR_TIME_RANGE_NONE : 7;
        pNode_->timeRangeMatched = range == 2 ? 1 : 0;
        pNode_->outIfUnit = out;
        pNode_->policyRouteIpVer = version;
        pbrNodeIsEcmpSet(pNode_, ecmp);
        hops_[0]->nexthopArpState = reachable & 1;
        hops_[1]->nexthopArpState = static_cast<uint8_t>(reachable >> 1);
        if (hasHops) {
            pNode_->nextHopList = full;
        } else {
            listInit(&pNode_->nextHopList);
        }
        ASSERT_EQ(pHead, &pNode_->nextHopList);

        const std::string both[] = {"", "A", "B", "AB"};
        const std::string first[] = {"", "A", "B", "A"};
        std::string expected;
        if (acl == 0 || flag == 2 || range == 1) {
            expected = "absent";
        } else if (out != 0) {
            expected = "out 9";
        } else if (!hasHops) {
            expected = "priority 0";
        } else if (version == 0 || reachable == 0) {
            expected = "inert";
        } else {
            expected = ecmp != 0 ? both[reachable] : first[reachable];
        }
        PbrRedirect redirect;
        memset(&redirect, 0xEE, sizeof(redirect));
        ASSERT_TRUE(pbrRedirectViewGet(1, acl, &redirect));
        if (version == 2) { // the bytes are an IPv4 address: named by its fourth byte all the same
            redirect.ipVer = 1;
        }
        ASSERT_EQ(expected, steps::viewText(redirect)) << "combination " << n;
        ASSERT_EQ(hasHops ? 2u : 0u, redirect.configuredCount);
        if (redirect.kind != PBR_REDIRECT_NEXT_HOPS) {
            ASSERT_EQ(0u, redirect.nextHopCount);
        }
        ASSERT_EQ(redirect.kind == PBR_REDIRECT_OUT_IF ? 9u : 0u, redirect.outIfUnit);
    }
    pNode_->nextHopList = full;
    pNode_->aclNum = 1501;
    pNode_->policyRouteIpVer = 1;
}

TEST_F(RedirectView, AnAnswerNamesItsLinkAndItsNode) {
    hops(3);
    hops_[1]->nexthopArpState = 1;
    pNode_->vrfid = 12;
    pbrNodeIpPriSet(pNode_, 5);
    pbrNodeIsEcmpSet(pNode_, 3);
    const PbrRedirect r = get();
    EXPECT_EQ("a", std::string(reinterpret_cast<const char *>(r.pListName), r.listNameLen));
    EXPECT_EQ(1u, r.ifUnit);
    EXPECT_EQ(10u, r.nodeIndex);
    EXPECT_EQ(1501u, r.aclNum);
    EXPECT_EQ(PBR_REDIRECT_NEXT_HOPS, r.kind);
    EXPECT_EQ(1, r.ipVer);
    EXPECT_EQ(3, r.isEcmp);
    EXPECT_EQ(5, r.newIpPri);
    EXPECT_EQ(12u, r.vrfid);
    EXPECT_EQ(1u, r.nextHopCount);
    EXPECT_EQ(3u, r.configuredCount);
    const uint8_t address[16] = {10, 0, 0, 2}; // an IPv4 address and zeros
    EXPECT_EQ(0, memcmp(address, r.nextHops[0], 16));
}

TEST_F(RedirectView, AnIpv6NextHopIsGivenWithAllItsBytes) {
    pNode_->policyRouteIpVer = 2;
    PbrNextHopEntry *pHop = makeNextHop(pNode_, 1, "2001:db8::1");
    pHop->nexthopArpState = 1;
    (void)fake::takeTrace();
    const PbrRedirect r = get();
    EXPECT_EQ(2, r.ipVer);
    EXPECT_EQ(0, memcmp(steps::addressOf("2001:db8::1").data(), r.nextHops[0], 16));
}

TEST_F(RedirectView, PriorityNineMeansUnchanged) {
    for (uint32_t ipPri = 0; ipPri <= 15; ipPri++) {
        pbrNodeIpPriSet(pNode_, ipPri);
        EXPECT_EQ("priority " + std::to_string(ipPri == 9 ? 0 : ipPri), answer());
    }
}

TEST_F(RedirectView, AnUnknownVersionIsInertAndReportedAsNone) {
    hops(1);
    hops_[0]->nexthopArpState = 1;
    for (uint8_t version : {0, 3, 255}) {
        pNode_->policyRouteIpVer = version;
        EXPECT_EQ("inert", answer());
        EXPECT_EQ(0, get().ipVer);
    }
}

TEST_F(RedirectView, MarksOfSelectionAndBestAreNeitherReadNorWritten) {
    hops(2);
    hops_[1]->nexthopArpState = 1;
    for (uint32_t n = 0; n < 256; n++) {
        hops_[0]->curSelected = n & 1;
        hops_[0]->lastSelected = (n >> 1) & 1;
        hops_[0]->nexthopHwState = (n >> 2) & 1;
        hops_[1]->curSelected = (n >> 3) & 1;
        hops_[1]->lastSelected = (n >> 4) & 1;
        hops_[1]->nexthopHwState = (n >> 5) & 1;
        pNode_->pPbrNhopBest = (n >> 6) == 0 ? nullptr : hops_[(n >> 6) & 1];
        pbrIfNodeHwStatusSet(pLink_, n % 3);
        const PbrNodeEntry node = *pNode_;
        const PbrNextHopEntry hop0 = *hops_[0], hop1 = *hops_[1];
        const PbrIfNodeEntry linkBefore = *pLink_;
        EXPECT_EQ("B", answer());
        EXPECT_EQ(0, memcmp(&node, pNode_, sizeof(node)));
        EXPECT_EQ(0, memcmp(&hop0, hops_[0], sizeof(hop0)));
        EXPECT_EQ(0, memcmp(&hop1, hops_[1], sizeof(hop1)));
        // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): a copy of the bytes, padding and all
        EXPECT_EQ(0, memcmp(&linkBefore, pLink_, sizeof(linkBefore)));
    }
    pNode_->pPbrNhopBest = nullptr;
}

TEST_F(RedirectView, EcmpMembersAreTheReachableOnesWhateverTheirProbes) {
    hops(4);
    pbrNodeIsEcmpSet(pNode_, 1);
    hops_[0]->nexthopArpState = 2;
    hops_[2]->nexthopArpState = 1;
    hops_[3]->nexthopArpState = 1;
    nameTest(hops_[3], "ops", "down");
    EXPECT_EQ("ACD", answer());
    hops_[3]->nqaAdminNameLen = hops_[3]->nqaTestNameLen = 0;
}

TEST_F(RedirectView, AllTwoHundredFiftyFiveNextHopsAreGiven) {
    hops(255);
    pbrNodeIsEcmpSet(pNode_, 1);
    for (PbrNextHopEntry *pHop : hops_) {
        pHop->nexthopArpState = 1;
    }
    const PbrRedirect r = get();
    EXPECT_EQ(255u, r.nextHopCount);
    EXPECT_EQ(255u, r.configuredCount);
    EXPECT_EQ(255, r.nextHops[254][3]);
}

TEST_F(RedirectView, AnUnknownInterfaceOrAclHasNoAnswer) {
    PbrRedirect redirect;
    EXPECT_FALSE(pbrRedirectViewGet(2, 1501, &redirect));
    EXPECT_FALSE(pbrRedirectViewGet(1, 1502, &redirect));
}

// ---- taking what changed ----

class RedirectViewTake : public RedirectView {
protected:
    void SetUp() override {
        RedirectView::SetUp();
        pB_ = makeList("b");
        (void)makeNode("b", 20, {.acl = 1502, .outIf = 8});
        (void)makeNode("b", 30, {.acl = 0, .outIf = 8});
        PbrIfEntry *pIf = makeIf(2);
        for (PbrNodeEntry *pNode = pbrListNodeFirst(pB_); pNode != nullptr; pNode = pbrListNodeNext(pB_, pNode)) {
            (void)pbrIfNodeEntryAdd(pIf, pNode);
            (void)pbrIfNodeEntryAdd(pIf_, pNode);
        }
        (void)take(true);
        (void)fake::takeTrace();
    }
    // What a take visits, in order: "list a", "a 1/10 priority 0".
    Lines take(bool all) {
        lines_.clear();
        const PbrRedirectVisitor visitor = {
            this,
            [](void *p, const uint8_t *pName, uint32_t len) {
                static_cast<RedirectViewTake *>(p)->lines_.push_back(
                    "list " + std::string(reinterpret_cast<const char *>(pName), len));
            },
            [](void *p, const PbrRedirect *r) {
                static_cast<RedirectViewTake *>(p)->lines_.push_back(
                    std::string(reinterpret_cast<const char *>(r->pListName), r->listNameLen) + " " +
                    std::to_string(r->ifUnit) + "/" + std::to_string(r->nodeIndex) + " " + steps::viewText(*r));
            }};
        isAll_ = pbrRedirectViewTake(all, &visitor);
        return lines_;
    }
    PbrListEntry *pB_ = nullptr;
    Lines lines_;
    bool isAll_ = false;
};

TEST_F(RedirectViewTake, NothingMarkedIsNothingTaken) {
    EXPECT_EQ(0u, pbrRedirectViewChanged());
    EXPECT_TRUE(take(false).empty());
    EXPECT_FALSE(isAll_);
}

TEST_F(RedirectViewTake, AMarkedListIsVisitedWholeInterfaceByInterfaceOnce) {
    pbrViewMarkList(pB_);
    EXPECT_EQ(1u, pbrRedirectViewChanged());
    EXPECT_EQ(take(false),
              (Lines{"list b", "b 1/20 out 8", "b 1/30 absent", "b 2/20 out 8", "b 2/30 absent"}));
    EXPECT_FALSE(isAll_);
    EXPECT_EQ(0u, pbrRedirectViewChanged());
    EXPECT_TRUE(take(false).empty());
}

TEST_F(RedirectViewTake, EverythingMarkedVisitsAllLists) {
    pbrViewMarkAll();
    EXPECT_EQ(2u, pbrRedirectViewChanged());
    EXPECT_EQ(take(false), (Lines{"list a", "a 1/10 priority 0", "list b", "b 1/20 out 8", "b 1/30 absent",
                                  "b 2/20 out 8", "b 2/30 absent"}));
    EXPECT_TRUE(isAll_);
    EXPECT_EQ(0u, pbrRedirectViewChanged());
}

TEST_F(RedirectViewTake, AskingForAllVisitsAllAndClearsTheMarks) {
    pbrViewMarkList(pB_);
    EXPECT_EQ(7u, take(true).size());
    EXPECT_TRUE(isAll_);
    EXPECT_EQ(0u, pbrRedirectViewChanged());
    EXPECT_TRUE(take(false).empty());
}

TEST_F(RedirectViewTake, AMarkedListWithoutLinksIsNamedWithNothingBehindIt) {
    PbrListEntry *pC = makeList("c");
    (void)fake::takeTrace();
    pbrViewMarkList(pC);
    EXPECT_EQ(take(false), Lines{"list c"});
}

TEST_F(RedirectViewTake, BeforeAnyListExistsThereIsNothingToVisit) {
    gPbrInfo.usedTable = {}; // as before start-up
    const PbrLink none = {};
    EXPECT_EQ(0, memcmp(&none, &gPbrInfo.usedTable, sizeof(none)));
    EXPECT_TRUE(take(true).empty());
    (void)pbrUnlock();
    startDaemon();
    (void)pbrLock();
    mirror_ = {};
}

TEST_F(RedirectView, TheStandbyIsTheNextUsableOneBehindTheChosen) {
    hops(4);
    EXPECT_EQ(0, get().hasStandby);
    hops_[1]->nexthopArpState = hops_[3]->nexthopArpState = 1;
    PbrRedirect r = get();
    ASSERT_EQ(1, r.hasStandby);
    EXPECT_EQ(0, memcmp(r.standby, hops_[3]->nextHop, sizeof(r.standby)));
    hops_[0]->nexthopArpState = 1;
    r = get();
    EXPECT_EQ(0, memcmp(r.nextHops[0], hops_[0]->nextHop, sizeof(r.standby)));
    EXPECT_EQ(0, memcmp(r.standby, hops_[1]->nextHop, sizeof(r.standby)));
    hops_[1]->nqaAdminNameLen = hops_[1]->nqaTestNameLen = 1; // a probe without record fails
    EXPECT_EQ(0, memcmp(get().standby, hops_[3]->nextHop, sizeof(r.standby)));
    hops_[3]->nexthopArpState = 0;
    EXPECT_EQ(0, get().hasStandby);
    pbrNodeIsEcmpSet(pNode_, 1);
    hops_[3]->nexthopArpState = 1;
    EXPECT_EQ(0, get().hasStandby) << "the others of a set are in it";
}

TEST_F(RedirectView, TheChoiceDependsOnWhatIsConfiguredAndNotOnWhatIsUsable) {
    EXPECT_EQ(0u, get().choice);
    hops(3);
    const uint64_t choice = get().choice;
    EXPECT_NE(0u, choice);
    hops_[1]->nexthopArpState = 1;
    pbrNodeIpPriSet(pNode_, 1);
    pNode_->aclNum = 1502;
    EXPECT_EQ(choice, get().choice);
    std::set<uint64_t> choices = {choice};
    const auto differs = [&](const char *pWhat) { EXPECT_TRUE(choices.insert(get().choice).second) << pWhat; };
    hops_[2]->nextHop[3]++;
    differs("an address");
    std::swap(hops_[0]->nextHop[3], hops_[1]->nextHop[3]);
    differs("the order");
    hops_[0]->nqaAdminNameLen = 1;
    hops_[0]->nqaTestNameLen = 2;
    differs("a probe");
    std::swap(hops_[0]->nqaAdminNameLen, hops_[0]->nqaTestNameLen);
    differs("names of other lengths");
    hops_[0]->nqaTestName[0] = 'x';
    differs("a probe's name");
    pNode_->vrfid = 9;
    differs("the VRF");
    pbrNodeIsEcmpSet(pNode_, 1);
    differs("ECMP");
    hops_.push_back(makeNextHop(pNode_, 9, "10.0.0.9"));
    (void)fake::takeTrace();
    differs("one more");
}

} // namespace
