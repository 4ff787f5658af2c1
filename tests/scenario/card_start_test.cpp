// Cards and slots that start: what is rewritten while lists are queued, and what nobody rewrites.
#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

// The same with both kinds of message.
class CardStart : public Scene, public ::testing::WithParamInterface<bool> {
protected:
    // "wan" on interfaces 1 and 2: node 5 goes out of interface 99, node 10 takes A or B, node 20 C or D.
    // A and B are up.
    void SetUp() override {
        Scene::SetUp();
        haveNode("wan", 5, 1500);
        ASSERT_EQ(PBR_OK, nodeSet("wan", 5, PBR_NODE_OUT_IF_UNIT, 99));
        haveNode("wan", 10, 1501, 1);
        haveHops("wan", 10, {A, B});
        haveNode("wan", 20, 1502, 1);
        haveHops("wan", 20, {C, D});
        peer(A, true);
        peer(B, true);
        ASSERT_EQ(PBR_OK, bind(1, "wan"));
        ASSERT_EQ(PBR_OK, bind(2, "wan"));
        second();
        fake::answer("qrvSelfSysIndex", OWN_SYSTEM);
        clear();
        ASSERT_EQ("1:1 2:1", statuses("wan", 10));
    }
    void clear() {
        (void)work();
        (void)counted();
    }
    Bytes started() const { return GetParam() ? cardStarted() : slotStarted(); }
    // The device calls since the last look, without the questions before them.
    Lines rewrites() {
        Lines out;
        for (const std::string &line : work()) {
            if (line.rfind("qrv", 0) != 0) {
                out.push_back(line);
            }
        }
        return out;
    }
    static Lines rewritten(uint32_t unit) { // every link of an interface, node 20 without an entry before
        const std::string start = std::to_string(unit);
        return {"DEL " + start + "/1500 act=4 if=99",    "ADD " + start + "/1500 act=4 if=99",
                "DEL " + start + "/1501 act=0 hops=A,B", "ADD " + start + "/1501 act=0 hops=A,B",
                "ADD " + start + "/1502 act=0 hops=C,D"};
    }
    static Lines joinedLines(Lines first, const Lines &more) {
        first.insert(first.end(), more.begin(), more.end());
        return first;
    }
};

TEST_P(CardStart, InSteadyStateNothingIsRewritten) {
    receive(started());
    EXPECT_TRUE(rewrites().empty()) << "published: what a card lost is written at the lists' next event";
    EXPECT_EQ("add 0/0 del 0/0 rules 0/0", counted());
    second();
    EXPECT_TRUE(rewrites().empty());
    peerChanges(A); // the way to have the hop's entries rewritten
    second();
    EXPECT_EQ((Lines{"DEL 2/1501 act=0 hops=A,B", "ADD 2/1501 act=0 hops=A,B", "DEL 1/1501 act=0 hops=A,B",
                     "ADD 1/1501 act=0 hops=A,B"}),
              rewrites());
    EXPECT_EQ("1:0 2:0", statuses("wan", 20));
}

TEST_P(CardStart, WhileTheListIsQueuedEveryLinkIsRewrittenAndTheUpdateWritesAgain) {
    peer(A, false);
    clear();
    receive(started());
    EXPECT_EQ(joinedLines(rewritten(2), rewritten(1)), rewrites());
    EXPECT_EQ("add 6/0 del 4/0 rules 0/0", counted());
    EXPECT_EQ("wan", queued());
    EXPECT_EQ("1:1 2:1", statuses("wan", 20)) << "with nothing usable: published";
    EXPECT_EQ("best=-", marks("wan", 10).substr(0, 6));
    EXPECT_EQ("B", view(1, "wan", 10));
    EXPECT_EQ("inert", view(1, "wan", 20));

    second();
    // Node 10 chose B, a change; node 20 behind it is removed, and added with the choice saved for node 10
    // only where nothing of its own was saved since.
    EXPECT_EQ((Lines{"DEL 2/1501 act=0 hops=A,B", "ADD 2/1501 act=0 hops=A,B", "DEL 1/1501 act=0 hops=A,B",
                     "ADD 1/1501 act=0 hops=A,B", "DEL 2/1502 act=0 hops=C,D", "DEL 1/1502 act=0 hops=C,D"}),
              rewrites());
    EXPECT_EQ("1:0 2:0", statuses("wan", 20));
    EXPECT_EQ("1:1 2:1", statuses("wan", 5)) << "before the node that changed";
    EXPECT_EQ("", queued());
}

TEST_P(CardStart, AQueuedListWhoseChoiceIsGoneKeepsWhatTheStartWrote) {
    peer(A, false);
    peer(B, false);
    second();
    EXPECT_EQ("1:0 2:0", statuses("wan", 10));
    peer(C, true);
    peer(C, false); // queued, with nothing to choose
    clear();
    receive(started());
    EXPECT_EQ("1:1 2:1", statuses("wan", 10));
    (void)rewrites();
    second();
    EXPECT_TRUE(rewrites().empty()) << "none before, none now: published";
    EXPECT_EQ("1:1 2:1", statuses("wan", 10));
    EXPECT_EQ("1:1 2:1", statuses("wan", 20));
    EXPECT_EQ("inert", view(1, "wan", 10));
    EXPECT_EQ("inert", view(2, "wan", 20));
    peer(B, true); // the next event puts node 10 right
    second();
    EXPECT_EQ("best=B", marks("wan", 10).substr(0, 6));
    EXPECT_EQ("1:1 2:1", statuses("wan", 10));
    EXPECT_EQ("1:0 2:0", statuses("wan", 20));
}

TEST_P(CardStart, EntriesThatTheCardRefusesAreTriedAgainByTheUpdateOfTheQueuedList) {
    peer(A, false);
    clear();
    failingUnits_ = {1, 2};
    receive(started());
    EXPECT_EQ("add 0/6 del 4/0 rules 0/0", counted());
    EXPECT_EQ("1:2 2:2", statuses("wan", 5));
    EXPECT_EQ("1:2 2:2", statuses("wan", 10));
    EXPECT_TRUE(calls().empty());

    failingUnits_.clear();
    second();
    EXPECT_EQ("1:1 2:1", statuses("wan", 10));
    EXPECT_EQ("1:2 2:2", statuses("wan", 5)) << "a node that does not change is not tried again: published";
    EXPECT_EQ("out 99", view(1, "wan", 5));
    receive(started()); // not queued any more
    EXPECT_EQ("1:2 2:2", statuses("wan", 5));
    peer(A, true);
    receive(started()); // queued: now it is
    EXPECT_EQ("1:1 2:1", statuses("wan", 5));
}

TEST_P(CardStart, AStartInTheReadOfTheReportThatQueuesTheListIsTakenInOrder) {
    fake::deliver(joined({started(), down(A)}));
    peerIs(A, false);
    settle();
    EXPECT_TRUE(rewrites().empty()) << "not queued yet";
    second();
    clear();
    fake::deliver(joined({up(A), started()}));
    peerIs(A, true);
    settle();
    EXPECT_EQ(joinedLines(rewritten(2), rewritten(1)).size() + 2, rewrites().size())
        << "node 20 came into the device with node 10's choice";
}

TEST_P(CardStart, OnlyTheQueuedListIsRewritten) {
    haveNode("other", 10, 1701, 1);
    haveHops("other", 10, {D});
    ASSERT_EQ(PBR_OK, bind(3, "other"));
    peer(D, true);
    second();
    ASSERT_EQ("3:1", statuses("other", 10));
    haveNode("third", 10, 1801);
    ASSERT_EQ(PBR_OK, nodeSet("third", 10, PBR_NODE_OUT_IF_UNIT, 98));
    ASSERT_EQ(PBR_OK, bind(4, "third"));
    peer(D, true);
    EXPECT_EQ("wan,other", queued());
    peer(A, true);
    clear();
    receive(started());
    for (const std::string &line : rewrites()) {
        EXPECT_EQ(std::string::npos, line.find("1801")) << line;
    }
    EXPECT_EQ("4:1", statuses("third", 10));
}

INSTANTIATE_TEST_SUITE_P(Messages, CardStart, ::testing::Bool(),
                         [](const auto &test) { return test.param ? "Card" : "Slot"; });

} // namespace
