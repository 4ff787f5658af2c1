// The kernel takes next hops and routes along with a link that goes down, and refuses new ones while it is: before
// the services have told the device. That is nobody's fault, and it ends with the link.
#include "world.h"

namespace kernel_test {
namespace {

class LinkTest : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        uplinks(far_, {"lan0", "up1", "up2"});
        for (uint32_t acl : {1501, 1502, 1503}) {
            world_.acl(acl, {"permit ip from any"});
        }
        world_.route("192.0.2.1", "up1");
        world_.route("198.51.100.1", "up2");
        // What the services know: they have not heard of anything.
        for (const char *pName : {"lan0", "up1", "up2"}) {
            world_.fakeLinks[unitOf(pName)] = {unitOf(pName), pName, true};
        }
    }

    nlohmann::json node(uint32_t number) {
        const nlohmann::json shown = device().show();
        for (const auto &entry : shown["entries"]) {
            if (entry["node"] == number) {
                return entry;
            }
        }
        return nullptr;
    }

    bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

    Net far_;
};

TEST_F(LinkTest, WhatTheKernelRefusesBecauseItsLinkIsDownIsNoErrorOfTheNode) {
    run("ip link set up1 down");
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1", "198.51.100.1"}); // its group lacks a member
    world_.nextHops("wan", "lan0", 30, 1503, {"198.51.100.1"});
    device();
    store();
    for (uint32_t number : {10, 20}) {
        EXPECT_EQ(node(number)["error"], "") << number;
        EXPECT_TRUE(has(node(number)["reason"], "a link is down: ")) << node(number);
    }
    EXPECT_EQ(node(30)["reason"], "");
    EXPECT_EQ(device().add(unitOf("lan0"), 1501, nullptr), 0) << "the daemon need not try again by itself";
    EXPECT_EQ(device().counters().refusals, 0u);
    EXPECT_FALSE(has(run("ip route show table 1000001"), "nhid"));

    run("ip link set up1 up");
    device().worldChanged();
    EXPECT_EQ(node(10)["reason"], "");
    EXPECT_TRUE(has(run("ip nexthop"), "via 192.0.2.1 dev up1"));
    EXPECT_TRUE(has(run("ip route show table 1000002"), "via 198.51.100.1 dev up2")) << run("ip route show table all");
}

TEST_F(LinkTest, AGroupOverANextHopThatTheKernelTookUnnoticedWaitsForItsLink) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    quiet();
    run("ip link set up1 down"); // and nothing was read since
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1", "198.51.100.1"});
    world_.nextHops("wan", "lan0", 30, 1503, {"198.51.100.1"});
    store();
    EXPECT_EQ(node(20)["error"], "");
    EXPECT_TRUE(has(node(20)["reason"], "a link is down: ")) << node(20);
    EXPECT_EQ(node(30)["reason"], "");
    EXPECT_EQ(device().counters().refusals, 0u);
}

TEST_F(LinkTest, AChangeThatEndsWhileALinkIsDownIsNotRefused) {
    device();
    device().hold({"wan"});
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    run("ip link set up1 down");
    store();
    EXPECT_TRUE(device().release().empty());
    EXPECT_TRUE(has(node(10)["reason"], "a link is down: "));
}

TEST_F(LinkTest, AnotherReasonStaysARefusal) {
    world_.route("127.0.0.1", "up1");
    world_.nextHops("wan", "lan0", 10, 1501, {"127.0.0.1"}); // is no gateway anywhere
    device();
    store();
    EXPECT_TRUE(has(node(10)["error"], "the kernel refused the route: ")) << node(10);
    EXPECT_EQ(device().counters().refusals, 1u);
}

TEST_F(LinkTest, WhatALinkTookAlongIsNotSaidToBeRepaired) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    quiet();
    run("ip link set up1 down");
    device().readBack(); // the routes are read before the link's message
    EXPECT_EQ(device().counters().driftRepaired, 0u);
    EXPECT_TRUE(has(node(10)["reason"], "a link is down: "));
}

TEST_F(LinkTest, WhatOthersRemoveBesideIsRepairedAndSaid) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"});
    device();
    store();
    quiet();
    run("ip link set up1 down");
    run("ip nexthop del id 206000002");
    device().readBack();
    EXPECT_EQ(device().counters().driftRepaired, 1u);
    EXPECT_TRUE(has(run("ip nexthop"), "via 198.51.100.1 dev up2"));

    run("ip rule del pref 15000"); // rules do not go with a link
    run("ip link set up1 up");
    run("ip link set up1 down");
    device().readBack();
    EXPECT_EQ(device().counters().driftRepaired, 1u) << "the decision waits for its link already";
    run("ip link set up1 up");
    device().worldChanged();
    EXPECT_TRUE(has(run("ip rule"), "15000:"));
    quiet();
    run("ip rule del pref 15000");
    run("ip link set up1 down");
    device().readBack();
    EXPECT_EQ(device().counters().driftRepaired, 2u);
}

} // namespace
} // namespace kernel_test
