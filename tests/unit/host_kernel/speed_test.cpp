// How much work a change is: messages to the kernel, and thread time, which is printed only.
#include "world.h"

#include <algorithm>
#include <ctime>

namespace kernel_test {
namespace {

using namespace host;

class SpeedTest : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        for (const char *pName : {"lan0", "up1"}) {
            cable(pName, far_, {}, {});
        }
        run("ip address add 192.0.2.254/24 dev up1");
        for (const char *pHop : {"192.0.2.1", "192.0.2.2"}) {
            world_.route(pHop, "up1");
        }
    }

    void nodes(uint32_t count, const std::string &hop) {
        for (uint32_t node = 1; node <= count; node++) {
            world_.nextHops("wan", "lan0", node, 1000 + node, {hop});
        }
    }

    // Time of our thread's work, ours and the kernel's for us: other work on the machine does not count.
    double storeMs() {
        const double begin = threadMs();
        store();
        return threadMs() - begin;
    }

    static double threadMs() {
        timespec now = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
    }

    void report(const char *pWhat, double ms) {
        RecordProperty(pWhat, std::to_string(ms));
        printf("[          ] %s: %.2f ms\n", pWhat, ms);
    }

    Net far_;
};

TEST_F(SpeedTest, ANextHopOfAHundredNodesIsAMessageOrTwoANode) {
    for (uint32_t node = 1; node <= 100; node++) {
        world_.acl(1000 + node, {"permit tcp from 10.1." + std::to_string(node) + ".0/24 to any port 443",
                                 "deny ip from 10.2.0.0/16", "permit udp from 10.3.0.0/16"});
    }
    nodes(100, "192.0.2.1");
    device();
    report("100 nodes, first installation", storeMs());
    quiet();
    std::vector<double> times, applies;
    const uint64_t before = device().counters().kernelMessages;
    for (int round = 0; round < 21; round++) {
        nodes(100, round % 2 == 0 ? "192.0.2.2" : "192.0.2.1");
        times.push_back(storeMs());
        applies.push_back(static_cast<double>(device().counters().lastApplyUs) / 1000);
        quiet();
    }
    const uint64_t messages = (device().counters().kernelMessages - before) / 21;
    std::sort(times.begin(), times.end());
    std::sort(applies.begin(), applies.end());
    report("100 nodes, one next hop changed, median", times[10]);
    report("100 nodes, one next hop changed, worst of 21", times[20]);
    report("100 nodes, of that telling the kernel, median", applies[10]);
    EXPECT_LE(messages, 2 * 100 + 10u);
    EXPECT_GE(messages, 1u);
}

TEST_F(SpeedTest, AChangeOfOneNodeDoesNotGrowWithOtherLists) {
    std::vector<std::string> rules;
    for (int i = 0; i < 2000; i++) {
        rules.push_back("permit tcp from 10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".0/24");
    }
    world_.acl(1501, rules);
    world_.acl(1502, {"permit ip from any"});
    world_.nextHops("big", "up1", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 10, 1502, {"192.0.2.1"});
    device();
    report("2,000 rules, first installation", storeMs());
    quiet();
    world_.nextHops("wan", "lan0", 10, 1502, {"192.0.2.2"});
    const uint64_t before = device().counters().kernelMessages;
    report("one node changed beside 2,000 rules", storeMs());
    EXPECT_EQ(device().counters().kernelMessages - before, 6u) << "next hop, two routes, rule; one action refilled";
}

} // namespace
} // namespace kernel_test
