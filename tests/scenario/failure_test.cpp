// Entries that the device refuses to add or to remove: what is left, and what puts it right.
#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

class Failure : public Scene {
protected:
    void SetUp() override {
        Scene::SetUp();
        haveNode("wan", 10, 1501, 1);
        haveHops("wan", 10, {A, B});
        peer(A, true);
        peer(B, true);
    }
    void boundTo(std::initializer_list<uint32_t> units) {
        for (uint32_t unit : units) {
            ASSERT_EQ(PBR_OK, bind(unit, "wan"));
        }
        second();
        (void)work();
        (void)counted();
    }
    static std::string del(uint32_t unit) { return "DEL " + std::to_string(unit) + "/1501 act=0 hops=A,B"; }
    static std::string add(uint32_t unit) { return "ADD " + std::to_string(unit) + "/1501 act=0 hops=A,B"; }
    bool isIn(uint32_t unit) const { return calls().count({unit, 1501}) != 0; }
};

// ---- adds ----

// Interfaces 1, 2, 3: walked 3, 2, 1.
TEST_F(Failure, AnAddThatFailsWhereItIsWalkedFirstTakesTheOthersAwayForOneRunAndIsGivenUp) {
    boundTo({1, 2, 3});
    failingUnits_ = {3};
    peer(A, false);
    second();
    EXPECT_EQ((Lines{del(3), add(3), del(2), del(1)}), work());
    EXPECT_EQ("1:0 2:0 3:2", statuses("wan", 10));
    EXPECT_TRUE(calls().empty());
    EXPECT_EQ("B", view(1, "wan", 10));
    second();
    EXPECT_EQ((Lines{del(3), add(3), add(2), add(1)}), work());
    EXPECT_EQ("1:1 2:1 3:2", statuses("wan", 10));
    EXPECT_EQ("wan", queued());
    second();
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("", queued()) << "given up: published";
    EXPECT_EQ("add 2/2 del 4/0 rules 0/0", counted());

    failingUnits_.clear();
    second();
    EXPECT_TRUE(work().empty()) << "nobody tells that the device would take it now";
    EXPECT_FALSE(isIn(3));
    EXPECT_EQ("B", view(3, "wan", 10));
    peer(A, true); // the next change does
    second();
    EXPECT_EQ((Lines{del(3), add(3), del(2), add(2), del(1), add(1)}), work());
    EXPECT_EQ("1:1 2:1 3:1", statuses("wan", 10));
    EXPECT_EQ("best=A", marks("wan", 10).substr(0, 6));
}

TEST_F(Failure, AnAddThatFailsWhereItIsWalkedLastIsTriedEveryRunWithTheOthersRewritten) {
    boundTo({1, 2, 3});
    failingUnits_ = {1};
    peer(A, false);
    for (uint32_t run = 0; run < 5; run++) {
        second();
        EXPECT_EQ((Lines{del(3), add(3), del(2), add(2), del(1), add(1)}), work()) << run;
        EXPECT_EQ("1:2 2:1 3:1", statuses("wan", 10));
        EXPECT_EQ("wan", queued());
        EXPECT_FALSE(isIn(1));
    }
    EXPECT_EQ("add 10/5 del 15/0 rules 0/0", counted());
    failingUnits_.clear();
    second();
    EXPECT_EQ((Lines{del(3), add(3), del(2), add(2), del(1), add(1)}), work());
    EXPECT_EQ("1:1 2:1 3:1", statuses("wan", 10));
    EXPECT_EQ("", queued());
    second();
    EXPECT_TRUE(work().empty());
}

TEST_F(Failure, AnAddThatFailsInTheMiddleTakesTheLaterOneAwayForARunAndIsGivenUp) {
    boundTo({1, 2, 3});
    failingUnits_ = {2};
    peer(A, false);
    second();
    EXPECT_EQ((Lines{del(3), add(3), del(2), add(2), del(1)}), work());
    EXPECT_EQ("1:0 2:2 3:1", statuses("wan", 10));
    second();
    EXPECT_EQ((Lines{del(3), add(3), del(2), add(2), add(1)}), work());
    EXPECT_EQ("1:1 2:2 3:1", statuses("wan", 10));
    second();
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("", queued());
    failingUnits_.clear();
    ASSERT_EQ(PBR_OK, unbind(2)); // binding it anew helps
    ASSERT_EQ(PBR_OK, bind(2, "wan"));
    EXPECT_EQ("1:1 2:1 3:1", statuses("wan", 10));
}

TEST_F(Failure, AllAddsFailingAreAllTriedUntilTheDeviceTakesThem) {
    boundTo({1, 2});
    failingUnits_ = {1, 2};
    peer(A, false);
    second();
    EXPECT_EQ((Lines{del(2), add(2), del(1)}), work());
    second();
    EXPECT_EQ((Lines{del(2), add(2), add(1)}), work());
    second();
    EXPECT_EQ((Lines{del(2), add(2), del(1)}), work());
    EXPECT_EQ("best=- cur=01 last=00 hw=11", marks("wan", 10).substr(0, 27));
    failingUnits_.clear();
    second();
    EXPECT_EQ((Lines{del(2), add(2), add(1)}), work());
    EXPECT_EQ("1:1 2:1", statuses("wan", 10));
    EXPECT_EQ("", queued());
}

TEST_F(Failure, AFailureInOneListDoesNotHoldAnotherBack) {
    boundTo({1});
    haveNode("other", 10, 1601, 1);
    haveHops("other", 10, {A, B});
    ASSERT_EQ(PBR_OK, bind(2, "other"));
    second();
    (void)work();
    failingUnits_ = {1};
    peer(A, false);
    second();
    EXPECT_EQ((Lines{del(1), add(1), "DEL 2/1601 act=0 hops=A,B", "ADD 2/1601 act=0 hops=A,B"}), work());
    EXPECT_EQ("wan", queued());
    second();
    EXPECT_EQ((Lines{del(1), add(1)}), work());
}

TEST_F(Failure, AFailedEntryOfASecondBindingWaitsForTheNextChange) {
    boundTo({1});
    failingUnits_ = {2};
    ASSERT_EQ(PBR_OK, bind(2, "wan")) << "the binding stands";
    second();
    EXPECT_EQ((Lines{"USE 1501 +1", add(2), "ON 2"}), work()) << "not tried again: published";
    EXPECT_EQ("1:1 2:2", statuses("wan", 10));
    failingUnits_.clear();
    second();
    EXPECT_TRUE(work().empty());
    peerChanges(A);
    second();
    EXPECT_EQ((Lines{del(2), add(2), del(1), add(1)}), work());
    EXPECT_EQ("1:1 2:1", statuses("wan", 10));
}

TEST_F(Failure, UnbindingAFailedEntryRemovesItAllTheSameAndEndsItsRetries) {
    failingUnits_ = {1};
    boundTo({1});
    ASSERT_EQ("1:2", statuses("wan", 10));
    ASSERT_EQ("wan", queued());
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ((Lines{"USE 1501 -1", "UNWATCH A", "UNWATCH B", del(1), "OFF 1"}), work());
    EXPECT_EQ("", queued());
    second();
    EXPECT_TRUE(work().empty());
    haveNothingLeft({"wan"});
}

// ---- deletes ----

TEST_F(Failure, ADeleteThatFailsBeforeAnAddIsForgottenByTheAdd) {
    boundTo({1});
    failingDeletes_ = {1};
    peer(A, false);
    second();
    EXPECT_EQ((Lines{del(1), add(1)}), work());
    EXPECT_EQ("add 1/0 del 0/1 rules 0/0", counted());
    EXPECT_EQ("1:1", statuses("wan", 10));
    EXPECT_EQ("", queued());
    // What the refused delete did not clear stays beside the new mark.
    EXPECT_EQ("best=B cur=00 last=11 hw=11 add=00 del=22", marks("wan", 10));
    failingDeletes_.clear();
    peer(A, true);
    second();
    EXPECT_EQ("best=A cur=00 last=10 hw=11", marks("wan", 10).substr(0, 27));
}

TEST_F(Failure, ADeleteThatFailsWhenNothingIsUsableLeavesTheEntryUntilAHopIsBack) {
    boundTo({1});
    failingDeletes_ = {1};
    peer(A, false);
    peer(B, false);
    second();
    EXPECT_EQ(Lines{del(1)}, work());
    EXPECT_TRUE(isIn(1)) << "published";
    EXPECT_EQ("1:1", statuses("wan", 10));
    EXPECT_EQ("", queued());
    EXPECT_EQ("inert", view(1, "wan", 10));
    failingDeletes_.clear();
    for (uint32_t run = 0; run < 3; run++) {
        peer(A, false); // queued again: none before, none now
        second();
        EXPECT_TRUE(work().empty());
    }
    EXPECT_TRUE(isIn(1));
    peer(B, true);
    second();
    EXPECT_EQ((Lines{del(1), add(1)}), work());
    peer(B, false);
    second();
    EXPECT_EQ(Lines{del(1)}, work());
    EXPECT_FALSE(isIn(1));
    EXPECT_EQ("inert", view(1, "wan", 10));
}

TEST_F(Failure, ADeleteThatFailsAtTheLastUnbindHidesTheSameChoiceOfTheNextBinding) {
    boundTo({1});
    failingDeletes_ = {1};
    ASSERT_EQ(PBR_OK, unbind(1));
    failingDeletes_.clear();
    EXPECT_TRUE(isIn(1)) << "no link knows the entry any more: published";
    EXPECT_TRUE(mirror().lists().empty());
    (void)work();
    ASSERT_EQ(PBR_OK, bind(2, "wan"));
    second();
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "WATCH B", "ON 2"}), work()) << "the choice is what it was";
    EXPECT_EQ("2:0", statuses("wan", 10));
    EXPECT_EQ("A", view(2, "wan", 10));
    peer(A, false); // another choice is a change
    second();
    EXPECT_EQ(Lines{add(2)}, work());
    peer(A, true);
    second();
    EXPECT_EQ((Lines{del(2), add(2)}), work());
    EXPECT_TRUE(isIn(1));
    ASSERT_EQ(PBR_OK, bind(1, "wan")); // written again, the entry has a link that can remove it
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_FALSE(isIn(1));
}

TEST_F(Failure, ADeleteThatFailsAtTheUnbindOfOneOfTwoKeepsTheOthersChoice) {
    boundTo({1, 2});
    failingDeletes_ = {2};
    ASSERT_EQ(PBR_OK, unbind(2));
    EXPECT_EQ("best=A", marks("wan", 10).substr(0, 6)) << "a delete that was done would have taken it";
    (void)work();
    receive(ruleAdded(1501, 1));
    EXPECT_EQ(Lines{"RADD 1 1501/1 A"}, work());
    EXPECT_TRUE(isIn(2));
    EXPECT_EQ("", view(2, "wan", 10));
}

TEST_F(Failure, AVanishingInterfaceWhoseEntryCannotBeRemovedIsForgottenAllTheSame) {
    boundTo({1});
    failingDeletes_ = {1};
    receive(interfaceGone(1));
    EXPECT_EQ((Lines{"USE 1501 -1", "UNWATCH A", "UNWATCH B", del(1), "OFF 1"}), work());
    EXPECT_EQ("add 0/0 del 0/1 rules 0/0", counted());
    EXPECT_TRUE(mirror().lists().empty());
    haveNothingLeft({"wan"});
}

// ---- all of the device ----

TEST_F(Failure, ADeviceThatRefusesEverythingForAMinuteKeepsWhatItHadAndEndsRight) {
    boundTo({1, 2});
    const Plane before = calls();
    const uint32_t added = gPbrInfo.hwAclAddCnt, deleted = gPbrInfo.hwAclDelCnt;
    failingUnits_ = {1, 2};
    failingDeletes_ = {1, 2};
    for (uint32_t run = 0; run < 60; run++) {
        peer(run % 3 == 0 ? B : A, run % 2 == 0);
        second();
        EXPECT_EQ(isUp(A) ? "A" : isUp(B) ? "B" : "inert", view(1, "wan", 10)) << run;
    }
    EXPECT_EQ(before, calls());
    EXPECT_EQ(added, gPbrInfo.hwAclAddCnt);
    EXPECT_EQ(deleted, gPbrInfo.hwAclDelCnt);
    EXPECT_EQ("1:1 2:2", statuses("wan", 10)) << "the first failure of a run ends the others' adds";
    failingUnits_.clear();
    failingDeletes_.clear();
    peer(A, true);
    second();
    second();
    EXPECT_EQ("1:1 2:1", statuses("wan", 10));
    EXPECT_EQ("best=A", marks("wan", 10).substr(0, 6));
    EXPECT_EQ("", queued());
    (void)work();
    second();
    EXPECT_TRUE(work().empty());
}

} // namespace
