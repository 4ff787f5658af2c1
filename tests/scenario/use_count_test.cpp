// The four bits of a list's use count, up to seventeen interfaces and down again.
#include <algorithm>

#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

class UseCount : public Scene {
protected:
    void SetUp() override {
        Scene::SetUp();
        haveNode("wan", 10, 1501, 1);
        haveHops("wan", 10, {A, B});
        peer(A, true);
        peer(B, true);
        (void)work();
    }
    void bindUnits(uint32_t from, uint32_t to) {
        for (uint32_t unit = from; unit <= to; unit++) {
            ASSERT_EQ(PBR_OK, bind(unit, "wan"));
        }
    }
    // The words of a rewrite of these interfaces, the latest bound first.
    static Lines rewrites(uint32_t from, uint32_t to) {
        Lines out;
        for (uint32_t unit = to; unit >= from; unit--) {
            const std::string entry = std::to_string(unit) + "/1501 act=0 hops=A,B";
            out.push_back("DEL " + entry);
            out.push_back("ADD " + entry);
        }
        return out;
    }
    static Lines bound(uint32_t unit) {
        return {"USE 1501 +1", "ADD " + std::to_string(unit) + "/1501 act=0 hops=A,B", "ON " + std::to_string(unit)};
    }
    static Lines unbound(uint32_t unit) {
        return {"USE 1501 -1", "DEL " + std::to_string(unit) + "/1501 act=0 hops=A,B", "OFF " + std::to_string(unit)};
    }
    static uint32_t programmed(const std::string &text) { // interfaces in statuses() with their entry
        uint32_t count = 0;
        for (size_t found = text.find(":1"); found != std::string::npos; found = text.find(":1", found + 1)) {
            count++;
        }
        return count;
    }
};

TEST_F(UseCount, FifteenBindingsAreFollowedAndTheSixteenthStopsThemAll) {
    bindUnits(1, 1);
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "WATCH B", "ON 1"}), work());
    for (uint32_t unit = 2; unit <= 15; unit++) {
        bindUnits(unit, unit);
        EXPECT_EQ(bound(unit), work()) << unit;
    }
    second();
    Lines first = rewrites(2, 15);
    first.push_back("ADD 1/1501 act=0 hops=A,B");
    EXPECT_EQ(first, work()) << "the first choice is a change";
    peer(A, false);
    second();
    EXPECT_EQ(rewrites(1, 15), work());

    bindUnits(16, 16);
    EXPECT_EQ((Lines{"USE 1501 +1", "ON 16"}), work()) << "count 0: neither watched nor written";
    EXPECT_EQ(15u, programmed(statuses("wan", 10)));
    peer(A, true);
    EXPECT_EQ("", queued()) << "a list of count 0 does not hear";
    EXPECT_EQ("B", view(1, "wan", 10));
    peerChanges(B);
    receive(ruleAdded(1501, 1));
    receive(probe("ops", "isp", 1));
    second();
    EXPECT_TRUE(work().empty());
}

TEST_F(UseCount, TheSeventeenthIsAFirstBindingAgainAndBringsAllToLife) {
    bindUnits(1, 16);
    second();
    peer(A, false);
    (void)work();
    bindUnits(17, 17); // watched anew, and the service tells the present state
    EXPECT_EQ((Lines{"USE 1501 +1", "WATCH A", "WATCH B", "ON 17"}), work());
    EXPECT_EQ("wan", queued());
    EXPECT_EQ("B", view(1, "wan", 10));
    second();
    const Lines all = work();
    EXPECT_EQ(17, std::count_if(all.begin(), all.end(), [](const auto &line) { return line.rfind("ADD", 0) == 0; }));
    EXPECT_EQ(17u, programmed(statuses("wan", 10)));
    EXPECT_EQ("best=B", marks("wan", 10).substr(0, 6));
    peer(A, true);
    second();
    EXPECT_EQ(rewrites(1, 17), work());
}

TEST_F(UseCount, UnbindingOneOfSixteenBringsTheOthersBackToLife) {
    bindUnits(1, 16);
    second();
    (void)work();
    ASSERT_EQ(PBR_OK, unbind(3)); // 0 less one is 15: not the last
    EXPECT_EQ(unbound(3), work());
    EXPECT_TRUE(isPeerRegistered(A));
    peer(A, false);
    EXPECT_EQ("wan", queued());
    EXPECT_EQ("B", view(16, "wan", 10));
    second();
    EXPECT_EQ(15u, programmed(statuses("wan", 10)));
    EXPECT_EQ("best=B", marks("wan", 10).substr(0, 6));
}

TEST_F(UseCount, UnbindingOneOfSeventeenIsTakenForTheLastAndTheNextBringsTheRestBack) {
    bindUnits(1, 17);
    second();
    (void)work();
    peer(A, false);
    ASSERT_EQ(PBR_OK, unbind(17)); // count 0
    EXPECT_EQ(unbound(17), work()) << "the hops are asked for, and the other sixteen need them";
    EXPECT_EQ("", queued()) << "and the work for A is forgotten";
    second();
    EXPECT_TRUE(work().empty());
    EXPECT_EQ("B", view(1, "wan", 10));
    ASSERT_EQ(PBR_OK, unbind(16)); // count 15
    (void)work();
    peer(A, false);
    second();
    EXPECT_EQ(rewrites(1, 15), work());
}

TEST_F(UseCount, SeventeenUnboundOneByOneLeaveNothingBehind) {
    bindUnits(1, 17);
    second();
    second();
    (void)work();
    for (uint32_t unit = 17; unit >= 2; unit--) {
        ASSERT_EQ(PBR_OK, unbind(unit));
        EXPECT_EQ(unbound(unit), work()) << unit;
        EXPECT_EQ("A", view(1, "wan", 10)) << unit;
    }
    EXPECT_EQ((Plane{{{1, 1501}, "act=0 pri=0 vrf=0 hops=0a000001,0a000002"}}), calls());
    ASSERT_EQ(PBR_OK, unbind(1));
    EXPECT_EQ((Lines{"USE 1501 -1", "UNWATCH A", "UNWATCH B", "DEL 1/1501 act=0 hops=A,B", "OFF 1"}), work());
    EXPECT_TRUE(calls().empty());
    haveNothingLeft({"wan"});
}

TEST_F(UseCount, InTheOppositeOrderToo) {
    bindUnits(1, 17);
    second();
    for (uint32_t unit = 1; unit <= 17; unit++) {
        ASSERT_EQ(PBR_OK, unbind(unit));
    }
    EXPECT_FALSE(isPeerRegistered(A));
    EXPECT_TRUE(calls().empty());
    haveNothingLeft({"wan"});
}

TEST_F(UseCount, InterfacesThatVanishAtCountZeroAreUnboundLikeAnyOther) {
    bindUnits(1, 16);
    second();
    (void)work();
    receive(joined({interfaceGone(2), portReset(5), portJoins(9, 100)}));
    EXPECT_EQ((Lines{"USE 1501 -1", "DEL 2/1501 act=0 hops=A,B", "OFF 2", "USE 1501 -1", "DEL 5/1501 act=0 hops=A,B",
                     "OFF 5", "USE 1501 -1", "DEL 9/1501 act=0 hops=A,B", "OFF 9"}),
              work());
    peer(A, false);
    EXPECT_EQ("wan", queued());
    EXPECT_EQ("B", view(1, "wan", 10));
}

} // namespace
