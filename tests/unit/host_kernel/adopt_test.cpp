// What a device does with what an earlier run left in the kernel.
#include "world.h"

namespace kernel_test {
namespace {

using namespace host;
using std::chrono::milliseconds;

class AdoptTest : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        uplinks(far_, {"lan0", "up1", "up2"});
        world_.acl(1501, {"permit tcp from 10.1.0.0/16"});
        world_.acl(1502, {"permit ip from any"});
        world_.route("192.0.2.1", "up1");
        world_.route("198.51.100.1", "up2");
        world_.nextHops("wan", "lan0", 10, 1501, {"198.51.100.1"});
        world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1", "198.51.100.1"});
        device();
        store();
        quiet();
        left_ = everything();
    }

    std::string everything() {
        return (router_->succeeds("nft list table inet policyroute") ? nft() : "") + run("ip rule") +
               run("ip route show table all proto 206") + run("ip nexthop");
    }

    Net far_;
    std::string left_;
};

TEST_F(AdoptTest, TheEndOfTheProcessLeavesEverythingInPlace) {
    device_.reset();
    EXPECT_EQ(everything(), left_);
    EXPECT_NE(left_.find("match4/wan/20"), std::string::npos);
}

TEST_F(AdoptTest, NothingChangesWhileItIsHeld) {
    world_.undetermined = true;
    world_.kind("wan", "lan0", 10, 1501, PBR_REDIRECT_INERT);
    restart();
    store();
    EXPECT_TRUE(device().isHeld());
    EXPECT_EQ(device().add(unitOf("lan0"), 1502, nullptr), 0);
    device().aclChanged(1501);
    device().worldChanged();
    world_.loop.advance(milliseconds(9000));
    EXPECT_EQ(everything(), left_);
    EXPECT_EQ(device().counters().kernelMessages, 0u);
    EXPECT_EQ(device().show()["state"], "held");
}

TEST_F(AdoptTest, WhileHeldAnAddIsAnsweredByWhatCanBeExpressed) {
    world_.nextHops("wan", "lan0", 10, 1501, {"198.51.100.1"}, 12);
    restart();
    EXPECT_NE(device().add(unitOf("lan0"), 1501, nullptr), 0);
    EXPECT_EQ(device().add(unitOf("lan0"), 1502, nullptr), 0);
}

TEST_F(AdoptTest, WhileHeldABindingTakesTheViewOnceAtItsEndAndIsInstalledAfterIt) {
    world_.unbind("wan", "lan0");
    restart();
    store();
    const int before = world_.takes;

    eightBound();
    EXPECT_EQ(world_.takes, before);
    store();
    EXPECT_EQ(device().show()["entries"].size(), 8u);

    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(2000));
    EXPECT_FALSE(device().isHeld());
    const nlohmann::json shown = device().show();
    for (const nlohmann::json &entry : shown["entries"]) {
        EXPECT_TRUE(entry["installed"]) << entry.dump();
    }
}

TEST_F(AdoptTest, TheSamePolicyAgainSendsNoMessage) {
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(2000));
    EXPECT_FALSE(device().isHeld());
    EXPECT_EQ(everything(), left_);
    EXPECT_EQ(device().counters().kernelMessages, 0u);
}

TEST_F(AdoptTest, WithoutSettleTheHoldEndsByItself) {
    world_.unbind("wan", "lan0");
    restart();
    store();
    world_.loop.advance(milliseconds(9900));
    EXPECT_TRUE(device().isHeld());
    world_.loop.advance(milliseconds(600));
    EXPECT_FALSE(device().isHeld());
    quiet();
    EXPECT_EQ(run("nft list ruleset"), "");
    EXPECT_TRUE(ourRules().empty());
    EXPECT_EQ(run("ip nexthop"), "");
}

TEST_F(AdoptTest, PeersThatStayUnknownDoNotHoldForEver) {
    world_.undetermined = true;
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(4900));
    EXPECT_TRUE(device().isHeld());
    world_.loop.advance(milliseconds(300));
    EXPECT_FALSE(device().isHeld());
}

TEST_F(AdoptTest, PeersThatBecomeKnownEndTheHoldAMomentLater) {
    world_.undetermined = true;
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(1000));
    world_.undetermined = false;
    world_.loop.advance(milliseconds(150));
    EXPECT_TRUE(device().isHeld());
    world_.loop.advance(milliseconds(200));
    EXPECT_FALSE(device().isHeld());
}

TEST_F(AdoptTest, WhatIsNoLongerWantedIsRemovedAndTheRestKeepsItsIds) {
    world_.unbind("wan", "lan0");
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1", "198.51.100.1"});
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(2000));
    EXPECT_EQ(nft().find("match4/wan/10"), std::string::npos);
    ASSERT_EQ(ourRules().size(), 1u);
    EXPECT_EQ(ourRules()[0]["table"], "1000002");
    EXPECT_NE(run("ip nexthop").find("id 206400002 group 206000001/206000002"), std::string::npos) << run("ip nexthop");
}

TEST_F(AdoptTest, ANextHopThatTheKernelDroppedMeanwhileIsMadeAgain) {
    device_.reset();
    run("ip nexthop del id 206000001");
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(2000));
    const nlohmann::json shown = device().show();
    for (const auto &entry : shown["entries"]) {
        EXPECT_TRUE(entry["installed"].get<bool>()) << entry;
    }
    EXPECT_NE(run("ip nexthop").find("via 198.51.100.1"), std::string::npos);
    EXPECT_EQ(ourRules().size(), 2u);
}

TEST_F(AdoptTest, ATableThatLostItsRoutesIsMadeWholeAgain) {
    device_.reset();
    run("ip nexthop flush");
    run("ip rule del pref 15000");
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(2000));
    EXPECT_EQ(ourRules().size(), 2u);
    const nlohmann::json shown = device().show();
    for (const auto &decision : shown["decisions"]) {
        EXPECT_TRUE(decision["installed"].get<bool>()) << decision;
    }
}

TEST_F(AdoptTest, AnIdThatSomebodyTookMeanwhileIsExchanged) {
    run("ip nexthop flush");
    run("ip nexthop add id 206000001 via 192.0.2.9 dev up1");
    world_.loop.advance(milliseconds(10));
    EXPECT_NE(run("ip nexthop").find("id 206000001 via 192.0.2.9"), std::string::npos);
    const nlohmann::json shown = device().show();
    for (const auto &decision : shown["decisions"]) {
        EXPECT_TRUE(decision["installed"].get<bool>()) << decision;
    }
}

} // namespace
} // namespace kernel_test
