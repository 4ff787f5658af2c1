// Long sequences in which any one platform call fails: each call by name, the 1st, 2nd, 3rd ... time, as often
// as the sequence makes it. Names come from the trace and from the fake's own sources, so that a platform call that
// is new is swept or named below as one that cannot fail.
//
// After the fault the sequence goes on, whatever was refused. Then nobody fails any more: everything is destroyed,
// nothing may be left, and the same sequence gives what it gives when nothing ever failed.
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <set>

#include "core/pbr_start.h"
#include "tests/scenario/events.h"
#include "tests/scenario/scene.h"
#include "tests/support/store_checker.h"

namespace {

using namespace events;

constexpr char C6[] = "2001:db8::3";
constexpr uint32_t CALLS_MOST = 60; // of one name in one sequence

// Calls of the daemon that have no failure, or none that their contract lets it see.
const std::set<std::string> CANNOT_FAIL = {
    "silMemPoolDestroy", // void
    "qrv_close",         // what else should be done with the descriptor
    "silTimerStart",     // its arguments are constants; were it refused, nothing would ask for the next update run
};

// The result that says failure.
int64_t failureOf(const std::string &name) {
    return name == "silMemPoolAlloc" || name == "silCreateMSem" || name == "qrvHwilScalarGet" ? 0 : -1;
}

class AnyFault : public Scene {
protected:
    using Sequence = std::function<void(AnyFault &)>;

    // ---- the sequences: results are not looked at, since what comes after a refusal is refused too ----

    void life() {
        for (const char *pAddress : {A, B, C6}) {
            peerIs(pAddress, true);
        }
        make("wan", 10, 1501, 1, {A, B});
        make("wan", 20, 3001, 2, {C6});
        bound(1, "wan");
        bound(2, "wan");
        second();
        peer(A, false);
        second();
        peer(B, false);
        second();
        peer(A, true);
        second();
        bound(2, "other"); // not there: refused
        make("other", 10, 1601, 1, {B});
        bound(2, "other");
        second();
        (void)unbind(1);
        (void)listSet("wan", PBR_ROW_DESTROY);
        make("wan", 10, 1501, 1, {B, A});
        bound(1, "wan");
        second();
        second();
    }

    void reports() {
        for (const char *pAddress : {A, B}) {
            peerIs(pAddress, true);
        }
        make("wan", 10, 1501, 1, {A, B});
        (void)hopText("wan", 10, 1, PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops");
        (void)hopText("wan", 10, 1, PBR_NEXT_HOP_NQA_TEST_NAME, "isp");
        (void)hopSet("wan", 10, 1, PBR_ROW_ACTIVE);
        make("wan", 20, 1502, 1, {B});
        (void)nodeSet("wan", 20, PBR_NODE_TIME_RANGE_ID, 7);
        bound(1, "wan");
        second();
        receive(probe("ops", "isp", 1));
        second();
        range(7, true);
        second();
        receive(ruleAdded(1501, 3));
        receive(ruleRemoved(1501, 3));
        receive(memberAdded(1, 5));
        receive(memberRemoved(1, 5));
        peerChanges(A);
        second();
        receive(probe("ops", "isp", 2));
        second();
        range(7, false);
        second();
        receive(cardStarted());
        receive(slotStarted());
        receive(portReset(1));
        bound(1, "wan");
        receive(interfaceGone(1));
        bound(1, "wan");
        receive(aclRemoved(1502));
        (void)unbind(1);
        (void)nodeSet("wan", 20, PBR_NODE_TIME_RANGE_ID, PBR_TIME_RANGE_NONE);
        (void)nodeSet("wan", 20, PBR_NODE_TIME_RANGE_ID, 8); // left bound by the destroyed list: published
        // The same picture in the end, whatever was refused on the way.
        (void)listSet("wan", PBR_ROW_DESTROY);
        make("wan", 10, 1501, 1, {A, B});
        bound(1, "wan");
        second();
        second();
    }

    void ecmpAndOut() {
        for (const char *pAddress : {A, B}) {
            peerIs(pAddress, true);
        }
        make("wan", 10, 1501, 1, {A, B});
        (void)nodeSet("wan", 10, PBR_NODE_IS_ECMP, 1);
        (void)listSet("out", PBR_ROW_CREATED);
        (void)nodeSet("out", 5, PBR_NODE_STATUS, PBR_ROW_CREATED);
        (void)nodeSet("out", 5, PBR_NODE_ACL_NUM, 1700);
        (void)nodeSet("out", 5, PBR_NODE_OUT_IF_UNIT, 99);
        bound(1, "wan");
        bound(2, "out");
        second();
        peer(B, false);
        second();
        peer(B, true);
        second();
        bound(2, "wan");
        bound(1, "out");
        second();
        second();
    }

    // ---- the sweep ----

    void make(const char *pList, uint32_t index, uint32_t acl, uint32_t ipVer, std::vector<std::string> addresses) {
        (void)listSet(pList, PBR_ROW_CREATED);
        (void)nodeSet(pList, index, PBR_NODE_STATUS, PBR_ROW_CREATED);
        (void)nodeSet(pList, index, PBR_NODE_ACL_NUM, acl);
        (void)nodeSet(pList, index, PBR_NODE_IP_VERSION, ipVer);
        uint8_t hop = 0;
        for (const std::string &address : addresses) {
            (void)hopSet(pList, index, ++hop, PBR_ROW_CREATED);
            (void)hopAddress(pList, index, hop, address);
            (void)hopSet(pList, index, hop, PBR_ROW_ACTIVE);
        }
    }

    void bound(uint32_t unit, const char *pList) {
        (void)ifSet(unit, PBR_IF_CREATE);
        (void)ifList(unit, pList);
    }

    // Result: whether all went.
    bool destroyAll() {
        bool isAll = true;
        for (const uint32_t unit : {1u, 2u}) {
            (void)unbind(unit);
        }
        for (const char *pList : {"wan", "other", "out"}) {
            isAll = listSet(pList, PBR_ROW_DESTROY) == PBR_OK && isAll;
        }
        second();
        return isAll;
    }

    std::string picture() {
        std::string all;
        for (const auto &[list, entries] : mirror().lists()) {
            for (const auto &[link, what] : entries) {
                all += list + "/" + std::to_string(link.second) + " on " + std::to_string(link.first) + ": " + what + "\n";
            }
        }
        for (const auto &[entry, what] : calls()) {
            all += "device " + std::to_string(entry.first) + "/" + std::to_string(entry.second) + " " + what + "\n";
        }
        return all;
    }

    static std::string nameOf(const std::string &line) { return line.substr(0, line.find('(')); }

    // How often each call is made in a sequence; silMemPoolAlloc is not recorded, and asked for by number.
    std::map<std::string, uint32_t> counted(const Sequence &sequence) {
        std::map<std::string, uint32_t> counts;
        fake::watch([&](const std::string &line) {
            if (line.compare(0, 6, "debug ") != 0 && line.compare(0, 4, "log ") != 0) {
                counts[nameOf(line)]++;
            }
        });
        sequence(*this);
        fake::watch(nullptr);
        return counts;
    }

    void faultSet(const std::string &call, uint32_t nth) {
        if (call == "hrdScalarSetApi") { // this world answers it itself
            failingDetection_ = nth;
        } else {
            fake::answerNth(call, nth, failureOf(call));
        }
    }

    // The n-th call of any kind that can fail, by the fake's own count. Result: the call's name, "" when none was left.
    std::string runWithNth(const Sequence &sequence, uint32_t nth) {
        allowed_ = STORE_ALLOW_COUNTS | STORE_ALLOW_LEAKS; // a binding without room stops half-way: published
        fake::failNth(nth);
        sequence(*this);
        const std::string call = fake::faultCall();
        fake::failNth(0);
        checkStore(call == "silMemPoolAlloc" ? allowed_ : 0);
        return call;
    }

    // mayStick: a binding stopped half-way and its list counts as used until the next start, or a peer could not be
    // released and is watched in vain: published, both.
    // Everything goes, nothing is left, and what never failed comes.
    void expectHealed(const Sequence &sequence, const std::string &expected, const std::string &where, bool mayStick = false) {
        SCOPED_TRACE(where);
        const bool isStuck = !destroyAll();
        EXPECT_TRUE(!isStuck || mayStick) << "a list stays in use";
        if (isStuck) {
            return;
        }
        for (const char *pPool : {"pbr_list", "pbr_node", "pbr_nexthop", "pbr_if", "pbr_if_node", "pbr_nqa"}) {
            EXPECT_EQ(0u, fake::slotsTaken(pPool)) << pPool;
        }
        EXPECT_TRUE(mirror().lists().empty());
        for (const char *pAddress : {A, B, C6}) {
            EXPECT_TRUE(!isPeerRegistered(pAddress) || mayStick) << pAddress;
        }
        failingDetection_ = 0;
        allowed_ = 0;
        sequence(*this);
        EXPECT_EQ(expected, picture());
        destroyAll();
    }

};

// The calls that failed in any of the sweeps.
std::set<std::string> &callsHit() {
    static std::set<std::string> all;
    return all;
}

class EachSequence : public AnyFault, public ::testing::WithParamInterface<uint32_t> {
protected:
    Sequence sequence() const {
        constexpr void (EachSequence::*all[])() = {&EachSequence::life, &EachSequence::reports, &EachSequence::ecmpAndOut};
        const auto pRun = all[GetParam()];
        return [pRun](AnyFault &one) { (static_cast<EachSequence &>(one).*pRun)(); };
    }
    void again() {
        TearDown();
        SetUp();
    }
};

TEST_P(EachSequence, HealsAfterAnyCallThatCanFailHasFailedOnce) {
    sequence()(*this);
    const std::string expected = picture();
    EXPECT_NE("", expected);
    uint32_t nth = 0;
    for (std::string call = "first"; !call.empty() && !HasFailure();) {
        again();
        call = runWithNth(sequence(), ++nth);
        callsHit().insert(call);
        expectHealed(sequence(), expected, call + " as call " + std::to_string(nth), call == "silMemPoolAlloc");
    }
    EXPECT_LT(40u, nth);
}

TEST_P(EachSequence, HealsAfterEachCallByNameHasFailedEachTime) {
    const std::map<std::string, uint32_t> counts = counted(sequence());
    const std::string expected = picture();
    for (const auto &[call, count] : counts) {
        for (uint32_t nth = 1; nth <= std::min(count, CALLS_MOST) && CANNOT_FAIL.count(call) == 0 && !HasFailure(); nth++) {
            again();
            faultSet(call, nth);
            sequence()(*this);
            expectHealed(sequence(), expected, call + " time " + std::to_string(nth), call == "hrdScalarSetApi");
        }
    }
}

class StartFault : public EachSequence {};

TEST_P(StartFault, AStartThatFailedIsTriedAgain) {
    sequence()(*this);
    const std::string expected = picture();
    for (uint32_t nth = 1; !HasFailure(); nth++) {
        fake::reset();
        fake::failNth(nth);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const uint32_t result = pbrInit(0, 0, 0);
        (void)testing::internal::GetCapturedStdout();
        (void)testing::internal::GetCapturedStderr();
        callsHit().insert(fake::faultCall());
        if (!fake::faultHit()) {
            EXPECT_EQ(PBR_OK, result);
            SetUp();
            return;
        }
        EXPECT_EQ(0u, fake::semCount()) << fake::faultCall();
        EXPECT_TRUE(fake::tasks().empty()) << fake::faultCall();
        SetUp();
        sequence()(*this);
        EXPECT_EQ(expected, picture()) << fake::faultCall();
    }
}

INSTANTIATE_TEST_SUITE_P(Starts, StartFault, ::testing::Values(0u));
INSTANTIATE_TEST_SUITE_P(Sequences, EachSequence, ::testing::Range(0u, 3u));

// Whatever the fake can make fail is made to fail above: a new call is either in a sequence or stops here.
class NoCallForgotten : public ::testing::TestWithParam<uint32_t> {}; // with a parameter: run behind those above

TEST_P(NoCallForgotten, EveryCallThatTheFakeCanMakeFailWasSwept) {
    if (callsHit().empty()) {
        GTEST_SKIP() << "the sweeps were not run";
    }
    std::set<std::string> known;
    const std::regex name("allible\\(\\s*\"(\\w+)\"");
    for (const auto &entry : std::filesystem::directory_iterator(POLICYROUTE_SOURCE_DIR "/tests/fake")) {
        std::ifstream file(entry.path());
        const std::string text((std::istreambuf_iterator<char>(file)), {});
        for (auto found = std::sregex_iterator(text.begin(), text.end(), name); found != std::sregex_iterator(); ++found) {
            known.insert((*found)[1]);
        }
    }
    EXPECT_LT(10u, known.size());
    for (const std::string &call : known) {
        EXPECT_EQ(1u, callsHit().count(call)) << call << " never failed in a sequence: add one that makes it";
    }
}

INSTANTIATE_TEST_SUITE_P(Last, NoCallForgotten, ::testing::Values(0u));

} // namespace
