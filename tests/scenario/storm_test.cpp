// Ten thousand peer reports at once: nothing is lost, the update waits until they are read, and then the
// device is what the last reports say.
#include <random>

#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"

namespace {

using namespace events;

constexpr uint32_t REPORTS = 10000;
constexpr uint32_t REPORT_BYTES = 48;
constexpr uint32_t REPORTS_A_READ = 3840 / REPORT_BYTES; // as many as fit into one read
class Storm : public Scene {
protected:
    // "one" takes the first of A, B, C; "set" spreads over B, C, D.
    void SetUp() override {
        checkedPasses_ = 16;
        Scene::SetUp();
        haveNode("one", 10, 1501, 1);
        haveHops("one", 10, {A, B, C});
        haveNode("set", 10, 1502, 1);
        ASSERT_EQ(PBR_OK, nodeSet("set", 10, PBR_NODE_IS_ECMP, 1));
        haveHops("set", 10, {B, C, D});
        ASSERT_EQ(PBR_OK, bind(1, "one"));
        ASSERT_EQ(PBR_OK, bind(2, "one"));
        ASSERT_EQ(PBR_OK, bind(3, "set"));
        peer(A, true);
        second();
        ASSERT_EQ("", queued());
        (void)work();
        (void)counted();
    }

    // Reports of peers that are used and of some that are not, the last of each used one as told.
    std::vector<Bytes> reports(bool isAUp, bool isBUp, bool isCUp, bool isDUp) {
        std::mt19937 random(1);
        std::vector<Bytes> all;
        for (uint32_t i = 0; i < REPORTS - 4; i++) {
            const std::string address = "10.0.0." + std::to_string(1 + random() % 6);
            all.push_back(random() % 2 == 0 ? up(address) : down(address));
        }
        const std::pair<const char *, bool> last[] = {{A, isAUp}, {B, isBUp}, {C, isCUp}, {D, isDUp}};
        for (const auto &[pAddress, isPeerUp] : last) {
            all.push_back(isPeerUp ? up(pAddress) : down(pAddress));
            peerIs(pAddress, isPeerUp);
        }
        return all;
    }

    // As many passes of the loop as there are reads, a timer due before every `duePasses`th of them.
    void passes(uint32_t reads, uint32_t duePasses) {
        for (uint32_t i = 0; i < reads && !HasFailure(); i++) {
            if (i % duePasses == 0 && i + 1 != reads) { // not at the last read: the update would run
                fake::advanceMs(1000);
            }
            pass();
        }
        EXPECT_EQ(0u, fake::pendingBytes());
    }
};

TEST_F(Storm, EveryReportIsTakenOneReadAPassAndNothingIsWrittenWhileBytesWait) {
    for (const Bytes &one : reports(false, true, true, false)) {
        fake::deliver(one);
    }
    ASSERT_EQ(REPORTS * REPORT_BYTES, fake::pendingBytes());

    fake::advanceMs(1000);
    pass();
    EXPECT_EQ((Lines{"qrv_recvfrom(3, 3840)", "qrv_ioctl(3, 0x4004667f)", "silTimerStart(timer1, 1000)"}),
              fake::takeCalls());
    pass();
    EXPECT_EQ(Lines{"qrv_recvfrom(3, 3840)"}, fake::takeCalls());
    passes(REPORTS - 2, 100);

    EXPECT_TRUE(work().empty()) << "also the timers that were due meanwhile";
    EXPECT_EQ("add 0/0 del 0/0 rules 0/0", counted());
    EXPECT_EQ("set,one", queued()); // D's last report concerns the set alone
    settle();
    EXPECT_EQ("B", view(1, "one", 10));
    EXPECT_EQ("BC", view(3, "set", 10));

    second();
    EXPECT_EQ((Lines{"ADD 3/1502 act=8 hops=B,C", "DEL 2/1501 act=0 hops=A,B,C", "ADD 2/1501 act=0 hops=A,B,C",
                     "DEL 1/1501 act=0 hops=A,B,C", "ADD 1/1501 act=0 hops=A,B,C"}),
              work());
    EXPECT_EQ("best=B cur=000 last=000 hw=111 add=000 del=222", marks("one", 10));
    EXPECT_EQ("1:1 2:1", statuses("one", 10));
    EXPECT_EQ("3:1", statuses("set", 10));
    EXPECT_EQ("", queued());
}

TEST_F(Storm, ReportsThatComeManyToAReadAreAllTaken) {
    Bytes read;
    uint32_t reads = 0;
    for (const Bytes &one : reports(true, false, false, true)) {
        read.insert(read.end(), one.begin(), one.end());
        if (read.size() == REPORTS_A_READ * REPORT_BYTES) {
            fake::deliver(read);
            read.clear();
            reads++;
        }
    }
    ASSERT_TRUE(read.empty());

    ASSERT_EQ(REPORTS / REPORTS_A_READ, reads);
    passes(reads, 10);
    EXPECT_TRUE(work().empty());
    settle();
    EXPECT_EQ("A", view(1, "one", 10));
    EXPECT_EQ("A", view(2, "one", 10));
    EXPECT_EQ("D", view(3, "set", 10));

    second();
    EXPECT_EQ(Lines{"ADD 3/1502 act=0 hops=D"}, work()) << "A was the choice before: nothing changes for it";
    EXPECT_EQ("best=A cur=100 last=000 hw=100 add=000 del=222", marks("one", 10));
    EXPECT_EQ("", queued());
}

TEST_F(Storm, TheTimerOfThePassThatReadsTheLastReportRunsTheUpdate) {
    fake::deliver(down(A));
    fake::deliver(up(B));
    fake::advanceMs(1000);
    pass();
    EXPECT_TRUE(work().empty());
    fake::advanceMs(1000);
    pass();
    peerIs(A, false);
    peerIs(B, true);
    EXPECT_EQ((Lines{"ADD 3/1502 act=0 hops=B", "DEL 2/1501 act=0 hops=A,B,C", "ADD 2/1501 act=0 hops=A,B,C",
                     "DEL 1/1501 act=0 hops=A,B,C", "ADD 1/1501 act=0 hops=A,B,C"}),
              work());
}

TEST_F(Storm, ReportsThatArriveWhileTheUpdateWritesStopItBeforeTheNextList) {
    fake::answerWith("aclIfSetApi", [](const std::string &line) {
        if (line.find("acl=1502") != std::string::npos) {
            fake::deliver(down(C)); // while the set is written
        }
        return 0;
    });
    fake::deliver(joined({down(A), up(C)}));
    pass();
    EXPECT_EQ("set,one", queued());
    fake::advanceMs(1000);
    pass();
    EXPECT_EQ(Lines{"ADD 3/1502 act=0 hops=C"}, work());
    EXPECT_EQ("one", queued());

    settle(); // C went down again: nothing is left for "one"
    EXPECT_EQ("set,one", queued());
    second();
    EXPECT_EQ((Lines{"DEL 2/1501 act=0 hops=A,B,C", "DEL 1/1501 act=0 hops=A,B,C"}), work())
        << "the set's last member is missed by the calls";
    EXPECT_EQ("inert", view(1, "one", 10));
    EXPECT_EQ("inert", view(3, "set", 10));
}

} // namespace
