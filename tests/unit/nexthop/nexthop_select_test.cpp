// Which next hop a node's packets should use, proved over every combination of signals.
#include "nexthop/pbr_nexthop_select.h"

#include <algorithm>
#include <optional>

#include "store/pbr_next_hop_entry.h"
#include "store/pbr_nqa_entry.h"
#include "tests/unit/hw/steps.h"

namespace {

// What a next hop's probe says: it names none, one without record, or one whose record has a status.
enum Probe { NO_PROBE, NO_RECORD, STATUS_0, STATUS_1, STATUS_2 };
constexpr Probe PROBES[] = {NO_PROBE, NO_RECORD, STATUS_0, STATUS_1, STATUS_2};
constexpr uint8_t ARPS[] = {0, 1, 2};

struct Signals {
    uint8_t arp;
    Probe probe;
};

// Every combination of the signals of one next hop.
std::vector<Signals> allSignals() {
    std::vector<Signals> out;
    for (uint8_t arp : ARPS) {
        for (Probe probe : PROBES) {
            out.push_back({arp, probe});
        }
    }
    return out;
}

// The answers that are meant, as tables: [arp][probe].
constexpr bool USABLE_ALONE[3][5] = {
    {false, false, false, false, false}, // not reachable
    {true, false, true, true, false},    // reachable: no probe, or any status but 2
    {true, false, true, true, false},    // a state other than 0 and 1 passes alone
};
constexpr bool FULLY_UP[3][5] = {
    {false, false, false, false, false},
    {false, false, false, true, false}, // reachable exactly, probe passing exactly
    {false, false, false, false, false},
};

class NexthopSelect : public steps::StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        makeList("a");
        pNode_ = makeNode("a", 10, {.acl = 1501, .ipVer = 1});
        for (int status = 0; status <= 2; status++) {
            std::string name = "t" + std::to_string(status);
            PbrNqaEntry *pNqa = pbrNqaEntryAdd(bytesOf("ops"), 3, bytesOf(name), 2);
            pNqa->status = static_cast<uint32_t>(status);
        }
    }
    // Records of the tests are not named by next hops all the time: the checker of the store would say so.
    void TearDown() override {
        while (PbrNqaEntry *pNqa = pbrNqaFromNqaLink(listFirst(&gPbrInfo.nqaTable))) {
            (void)pbrNqaEntryDel(pNqa);
        }
        StoreTest::TearDown();
    }

    static const uint8_t *bytesOf(const std::string &s) { return reinterpret_cast<const uint8_t *>(s.data()); }

    PbrNextHopEntry *hop(uint32_t index) {
        return makeNextHop(pNode_, index, ("10.0.0." + std::to_string(index)).c_str());
    }
    static void setSignals(PbrNextHopEntry *pHop, Signals signals) {
        static const char *const NAMES[] = {"", "tx", "t0", "t1", "t2"};
        pHop->nexthopArpState = signals.arp;
        pHop->nqaAdminNameLen = signals.probe == NO_PROBE ? 0 : 3;
        pHop->nqaTestNameLen = signals.probe == NO_PROBE ? 0 : 2;
        memcpy(pHop->nqaAdminName, "ops", 3);
        memcpy(pHop->nqaTestName, NAMES[signals.probe], signals.probe == NO_PROBE ? 0 : 2);
    }

    PbrNodeEntry *pNode_ = nullptr;
};

TEST_F(NexthopSelect, FirstUsableInListOrderWinsWhateverTheSignals) {
    const std::vector<Signals> signals = allSignals();
    std::vector<PbrNextHopEntry *> hops;
    for (uint32_t count = 0; count <= 3; count++) {
        if (count != 0) {
            hops.push_back(hop(count));
        }
        size_t total = 1;
        for (uint32_t i = 0; i < count; i++) {
            total *= signals.size();
        }
        for (size_t n = 0; n < total; n++) {
            std::optional<size_t> expected;
            for (size_t i = 0, rest = n; i < count; i++, rest /= signals.size()) {
                Signals s = signals[rest % signals.size()];
                setSignals(hops[i], s);
                if (!expected && USABLE_ALONE[s.arp][s.probe]) {
                    expected = i;
                }
            }
            for (uint8_t before : {0, 1}) {
                for (PbrNextHopEntry *pHop : hops) {
                    pHop->curSelected = before;
                }
                std::vector<PbrNextHopEntry> untouched;
                for (PbrNextHopEntry *pHop : hops) {
                    untouched.push_back(*pHop);
                }
                const PbrNextHopEntry *pPeeked = pbrBestNexthopPeek(pNode_);
                for (size_t i = 0; i < hops.size(); i++) {
                    ASSERT_EQ(0, memcmp(&untouched[i], hops[i], sizeof(PbrNextHopEntry)));
                }
                const PbrNextHopEntry *pChosen = pbrBestNexthopSelect(pNode_);
                ASSERT_EQ(pChosen, pPeeked);
                ASSERT_EQ(expected ? hops[*expected] : nullptr, pChosen) << "combination " << n;
                for (size_t i = 0; i < hops.size(); i++) {
                    uint8_t mark = !expected || i < *expected ? 0 : (i == *expected ? 1 : before);
                    ASSERT_EQ(mark, hops[i]->curSelected) << "combination " << n << " hop " << i;
                }
            }
        }
    }
    EXPECT_TRUE(fake::takeTexts().empty());
}

TEST_F(NexthopSelect, OrderOfTheListDecidesAndNotTheOrderOfAdding) {
    std::vector<uint32_t> indexes = {1, 2, 3};
    do {
        std::vector<PbrNextHopEntry *> hops;
        for (uint32_t index : indexes) {
            hops.push_back(hop(index));
        }
        for (uint32_t reachable = 0; reachable < 8; reachable++) {
            uint32_t lowest = 0;
            for (PbrNextHopEntry *pHop : hops) {
                pHop->nexthopArpState = (reachable >> (pHop->nextHopIndex - 1)) & 1;
                if (pHop->nexthopArpState != 0 && (lowest == 0 || pHop->nextHopIndex < lowest)) {
                    lowest = pHop->nextHopIndex;
                }
            }
            const PbrNextHopEntry *pChosen = pbrBestNexthopSelect(pNode_);
            EXPECT_EQ(lowest, pChosen == nullptr ? 0u : pChosen->nextHopIndex);
        }
        for (PbrNextHopEntry *pHop : hops) {
            (void)pbrNextHopEntryDel(pHop);
        }
    } while (std::next_permutation(indexes.begin(), indexes.end()));
}

TEST_F(NexthopSelect, OneCandidateWinsWhenUsableAloneOnEitherSide) {
    PbrNextHopEntry *pHop = hop(1);
    EXPECT_EQ(nullptr, pbrNhopSelect(nullptr, nullptr));
    for (Signals s : allSignals()) {
        setSignals(pHop, s);
        PbrNextHopEntry *pExpected = USABLE_ALONE[s.arp][s.probe] ? pHop : nullptr;
        EXPECT_EQ(pExpected, pbrNhopSelect(pHop, nullptr));
        EXPECT_EQ(pExpected, pbrNhopSelect(nullptr, pHop));
    }
}

TEST_F(NexthopSelect, OfTwoOnlyFullyUpNextHopsWinTheLowerIndexFirst) {
    PbrNextHopEntry *pA = hop(1);
    PbrNextHopEntry *pB = hop(2);
    for (int order = 0; order < 3; order++) { // a before b, after b, equal
        pA->nextHopIndex = order == 1 ? 4 : 3;
        pB->nextHopIndex = order == 0 ? 4 : 3;
        for (Signals a : allSignals()) {
            for (Signals b : allSignals()) {
                setSignals(pA, a);
                setSignals(pB, b);
                const bool aUp = FULLY_UP[a.arp][a.probe];
                const bool bUp = FULLY_UP[b.arp][b.probe];
                PbrNextHopEntry *pForward = nullptr; // of (a, b)
                PbrNextHopEntry *pBackward = nullptr; // of (b, a)
                if (aUp && bUp) {
                    pForward = order == 0 ? pA : pB;  // equal indexes: the candidate
                    pBackward = order == 1 ? pB : pA;
                } else if (aUp || bUp) {
                    pForward = pBackward = aUp ? pA : pB;
                }
                EXPECT_EQ(pForward, pbrNhopSelect(pA, pB));
                EXPECT_EQ(pBackward, pbrNhopSelect(pB, pA));
            }
        }
    }
    pA->nextHopIndex = 1;
    pB->nextHopIndex = 2;
}

TEST_F(NexthopSelect, ThreeResolvedNextHopsWithoutProbesGiveTheFirstAndKeepTheMarksBehindIt) {
    PbrNextHopEntry *hops[] = {hop(1), hop(2), hop(3)};
    for (PbrNextHopEntry *pHop : hops) {
        pHop->nexthopArpState = 1;
    }
    hops[2]->curSelected = 1;

    EXPECT_EQ(hops[0], pbrBestNexthopSelect(pNode_));

    EXPECT_EQ(1, hops[0]->curSelected);
    EXPECT_EQ(0, hops[1]->curSelected);
    EXPECT_EQ(1, hops[2]->curSelected);
}

TEST_F(NexthopSelect, AnUnresolvedNextHopIsPassedOverAndLosesItsMark) {
    PbrNextHopEntry *hops[] = {hop(1), hop(2)};
    hops[0]->curSelected = 1;
    hops[1]->nexthopArpState = 1;

    EXPECT_EQ(hops[1], pbrBestNexthopSelect(pNode_));

    EXPECT_EQ(0, hops[0]->curSelected);
    EXPECT_EQ(1, hops[1]->curSelected);
}

TEST_F(NexthopSelect, AProbeThatFailsOrHasNoRecordSkipsAResolvedNextHop) {
    PbrNextHopEntry *pHop = hop(1);
    for (Probe probe : {STATUS_2, NO_RECORD}) {
        setSignals(pHop, {1, probe});
        EXPECT_EQ(nullptr, pbrBestNexthopSelect(pNode_));
        EXPECT_EQ(0, pHop->curSelected);
    }
}

TEST_F(NexthopSelect, AProbeThatPassesOrReportsAnUnknownStatusLetsANextHopPass) {
    PbrNextHopEntry *pHop = hop(1);
    for (Probe probe : {STATUS_1, STATUS_0}) {
        setSignals(pHop, {1, probe});
        EXPECT_EQ(pHop, pbrBestNexthopSelect(pNode_));
    }
}

TEST_F(NexthopSelect, AnArpStateOfTwoPassesAlone) {
    PbrNextHopEntry *pHop = hop(1);
    pHop->nexthopArpState = 2;
    EXPECT_EQ(pHop, pbrBestNexthopSelect(pNode_));
}

TEST_F(NexthopSelect, AProbeNeedsBothNames) {
    PbrNextHopEntry *pHop = hop(1);
    setSignals(pHop, {1, STATUS_2});
    pHop->nqaTestNameLen = 0;
    EXPECT_EQ(pHop, pbrBestNexthopSelect(pNode_));
    setSignals(pHop, {1, STATUS_2});
    pHop->nqaAdminNameLen = 0;
    EXPECT_EQ(pHop, pbrBestNexthopSelect(pNode_));
}

TEST_F(NexthopSelect, ProbeNamesAreLookedUpByTheLowEightBitsOfTheirLengths) {
    PbrNextHopEntry *pHop = hop(1);
    setSignals(pHop, {1, STATUS_1});
    pHop->nqaAdminNameLen = 256 + 3;
    pHop->nqaTestNameLen = 512 + 2;
    EXPECT_EQ(pHop, pbrBestNexthopSelect(pNode_));
    pHop->nqaTestNameLen = 512 + 1; // "t": no such test
    EXPECT_EQ(nullptr, pbrBestNexthopSelect(pNode_));
    setSignals(pHop, {1, NO_PROBE});
}

TEST_F(NexthopSelect, AnInactiveTimeRangeSelectsNothingAndChangesNoMark) {
    PbrNextHopEntry *pHop = hop(1);
    pHop->nexthopArpState = 1;
    pHop->curSelected = 1;
    gPbrInfo.debugFlags = 4;
    pNode_->timeRangeId = 7;
    (void)fake::takeTrace();

    EXPECT_EQ(nullptr, pbrBestNexthopPeek(pNode_));
    EXPECT_TRUE(fake::takeTexts().empty());
    EXPECT_EQ(nullptr, pbrBestNexthopSelect(pNode_));

    EXPECT_EQ(1, pHop->curSelected);
    EXPECT_EQ(fake::takeTexts(),
              steps::Lines{steps::hwText("pbrIfNodeUpdate set timerang but not in time,return NULL."
                                         "timeRangeId[7],timeRangeMatched[0].\r\n")});
}

TEST_F(NexthopSelect, ATimeRangeGatesUnlessItsIdIsZeroOrAllOnes) {
    PbrNextHopEntry *pHop = hop(1);
    pHop->nexthopArpState = 1;
    for (uint32_t id : {0u, 1u, 7u, 0x7FFFFFFFu, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        for (uint32_t matched : {0u, 1u, 5u}) {
            pNode_->timeRangeId = id;
            pNode_->timeRangeMatched = matched;
            const bool open = id == 0 || id == 0xFFFFFFFFu || matched != 0;
            EXPECT_EQ(open ? pHop : nullptr, pbrBestNexthopSelect(pNode_)) << id << " " << matched;
            EXPECT_EQ(open ? pHop : nullptr, pbrBestNexthopPeek(pNode_));
        }
    }
}

TEST_F(NexthopSelect, ANodeWithoutNextHopsSelectsNothingAndSaysNothingOfItsTimeRange) {
    gPbrInfo.debugFlags = 4;
    pNode_->timeRangeId = 7;
    (void)fake::takeTrace();
    EXPECT_EQ(nullptr, pbrBestNexthopSelect(pNode_));
    EXPECT_TRUE(fake::takeTexts().empty());
}

TEST_F(NexthopSelect, AnEcmpNodeMarksItsResolvedNextHopsAndGivesTheMarker) {
    PbrNextHopEntry *hops[] = {hop(1), hop(2), hop(3)};
    pbrNodeIsEcmpSet(pNode_, 1);
    for (uint8_t before : {0, 1}) {
        for (uint32_t reachable = 0; reachable < 27; reachable++) {
            const uint8_t arps[] = {static_cast<uint8_t>(reachable % 3), static_cast<uint8_t>(reachable / 3 % 3),
                                    static_cast<uint8_t>(reachable / 9)};
            for (int i = 0; i < 3; i++) {
                hops[i]->nexthopArpState = arps[i];
                hops[i]->curSelected = before;
            }

            const PbrNextHopEntry *pMarker = pbrBestNexthopSelect(pNode_);

            EXPECT_EQ(static_cast<void *>(&pNode_->nextHopList), static_cast<const void *>(pMarker));
            for (int i = 0; i < 3; i++) {
                EXPECT_EQ(arps[i] == 1 ? 1 : before, hops[i]->curSelected);
                EXPECT_NE(pMarker, hops[i]);
            }
        }
    }
}

TEST_F(NexthopSelect, AnEcmpNodeLooksAtNeitherProbesNorTimeRange) {
    PbrNextHopEntry *pHop = hop(1);
    setSignals(pHop, {1, STATUS_2});
    pbrNodeIsEcmpSet(pNode_, 1);
    pNode_->timeRangeId = 7;
    EXPECT_NE(nullptr, pbrBestNexthopSelect(pNode_));
    EXPECT_EQ(1, pHop->curSelected);
}

TEST_F(NexthopSelect, AnEcmpValueOfTwoOrThreeIsSelectedLikeASingleNode) {
    PbrNextHopEntry *pHop = hop(1);
    pHop->nexthopArpState = 1;
    for (uint32_t isEcmp : {2u, 3u}) {
        pbrNodeIsEcmpSet(pNode_, isEcmp);
        EXPECT_EQ(pHop, pbrBestNexthopSelect(pNode_));
    }
}

TEST_F(NexthopSelect, WithTwoCandidatesAndEqualIndexesTheCandidateWins) {
    PbrNextHopEntry *pA = hop(3);
    PbrNextHopEntry *pB = hop(3);
    setSignals(pA, {1, STATUS_1});
    setSignals(pB, {1, STATUS_1});
    EXPECT_EQ(pB, pbrNhopSelect(pA, pB));
    EXPECT_EQ(pA, pbrNhopSelect(pB, pA));
}

} // namespace
