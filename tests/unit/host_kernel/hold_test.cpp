// A change of several steps that the kernel sees as one: lists are held and released.
#include "world.h"

#include <cerrno>

namespace kernel_test {
namespace {

using namespace host;

class HoldTest : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        uplinks(far_, {"lan0", "lan1", "up1", "up2"});
        world_.acl(1501, {"permit tcp from any to any port 443"});
        world_.acl(1502, {"permit udp"});
        world_.acl(1503, {"permit ip"});
        world_.route("192.0.2.1", "up1");
        world_.route("198.51.100.1", "up2");
        world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
        world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1"});
        world_.nextHops("dmz", "lan1", 10, 1503, {"192.0.2.1"});
        device();
        store();
        quiet();
    }

    std::string table() { return run("nft -s list table inet policyroute"); } // without counters
    bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

    // The list leaves its interface and comes back with another second node.
    void change() {
        world_.unbind("wan", "lan0");
        store();
        world_.acl(1501, {"permit tcp from any to any port 80"});
        device().aclChanged(1501);
        world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
        world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"});
        EXPECT_EQ(device().add(unitOf("lan0"), 1501, nullptr), 0);
        EXPECT_EQ(device().add(unitOf("lan0"), 1502, nullptr), 0);
        store();
    }

    Net far_;
};

TEST_F(HoldTest, TheKernelSeesNothingOfAChangeUntilItsEnd) {
    const std::string before = table();
    device().hold({"wan"});
    change();
    EXPECT_EQ(table(), before);
    quiet();
    EXPECT_EQ(table(), before) << "reading back finds nothing to repair";

    EXPECT_TRUE(device().release().empty());
    EXPECT_TRUE(has(table(), "dport 80")) << table();
    EXPECT_FALSE(has(table(), "dport 443"));
    quiet();
    EXPECT_EQ(ourRules().size(), 2u);
}

TEST_F(HoldTest, ListsThatAreNotHeldFollowAtOnce) {
    device().hold({"wan"});
    world_.unbind("wan", "lan0");
    world_.unbind("dmz", "lan1");
    store();
    EXPECT_FALSE(has(table(), "dmz"));
    EXPECT_TRUE(has(table(), "match4/wan/10"));
    EXPECT_TRUE(device().release().empty());
    EXPECT_FALSE(device().show()["entries"].size() != 0);
}

TEST_F(HoldTest, AChangeOfRoutesDoesNotEndIt) {
    const std::string before = table();
    device().hold({"wan"});
    world_.unbind("wan", "lan0");
    store();
    device().worldChanged();
    EXPECT_EQ(device().settle(), "");
    EXPECT_EQ(table(), before);
}

TEST_F(HoldTest, AnEntryThatCannotBeExpressedIsRefusedAtOnceAndNamedAtTheEnd) {
    device().hold({"wan"});
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1"}, 9);
    store();
    EXPECT_EQ(device().add(unitOf("lan0"), 1502, nullptr), EOPNOTSUPP);
    const std::vector<Device::EntryError> errors = device().release();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].list, "wan");
    EXPECT_EQ(errors[0].nodeIndex, 20u);
    EXPECT_EQ(errors[0].ifUnit, unitOf("lan0"));
    EXPECT_TRUE(has(errors[0].error, "priority 9 cannot be set")) << errors[0].error;
}

TEST_F(HoldTest, ABindingTakesTheViewOnceAtItsEndHoweverManyNodesItHas) {
    device().hold({"wan"});
    world_.unbind("wan", "lan0");
    store();
    const int before = world_.takes;

    eightBound();
    EXPECT_EQ(world_.takes, before);
    store();
    EXPECT_EQ(world_.takes, before + 1);

    EXPECT_TRUE(device().release().empty());
    EXPECT_EQ(device().show()["entries"].size(), 9u) << "eight, and that of the other list";
}

TEST_F(HoldTest, WhatIsAddedOnOneInterfaceHoldsForTheNodeOnAllOfThem) {
    world_.nextHops("wan", "lan1", 20, 1502, {"192.0.2.1"});
    store();
    device().hold({"wan"});
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"});

    EXPECT_EQ(device().add(unitOf("lan0"), 1502, nullptr), 0);

    EXPECT_TRUE(device().release().empty());
    unsigned changed = 0;
    const nlohmann::json shown = device().show();
    for (const nlohmann::json &entry : shown["entries"]) {
        changed += entry["node"] == 20 && entry.dump().find("198.51.100.1") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(changed, 2u) << shown["entries"].dump(1);
}

TEST_F(HoldTest, OnTrialItTellsWhatItWouldRefuseAndTouchesNothing) {
    const std::string before = table();
    device().hold({"wan"});
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1"}, 9);
    world_.acl(1501, {"permit tcp from any to any port 80"});
    device().aclChanged(1501);
    store();
    const std::vector<Device::EntryError> errors = device().trial();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].nodeIndex, 20u);
    EXPECT_EQ(table(), before);

    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1"});
    world_.acl(1501, {"permit tcp from any to any port 443"});
    device().aclChanged(1501);
    store();
    EXPECT_TRUE(device().trial().empty());
    const uint64_t messages = device().counters().kernelMessages;
    EXPECT_TRUE(device().release().empty());
    EXPECT_EQ(device().counters().kernelMessages, messages);
    EXPECT_TRUE(device().trial().empty()) << "nothing is held";
}

TEST_F(HoldTest, OnTrialItTellsOfRulesThatReassemblyMakesVain) {
    world_.options.defrag = true;
    device_.reset();
    device();
    store();
    quiet();
    const std::string before = table();
    device().hold({"wan"});
    world_.acl(1501, {"permit udp fragments"});
    device().aclChanged(1501);
    const std::vector<Device::EntryError> errors = device().trial();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(has(errors[0].error, "would never match")) << errors[0].error;
    EXPECT_EQ(table(), before);
}

TEST_F(HoldTest, ANewListIsInstalledAtTheEnd) {
    device().hold({"lab"});
    world_.acl(5001, {"permit ip"});
    world_.nextHops("lab", "lan1", 10, 5001, {"198.51.100.1"});
    EXPECT_EQ(device().add(unitOf("lan1"), 5001, nullptr), 0);
    store();
    EXPECT_FALSE(has(table(), "lab"));
    const nlohmann::json shown = device().show();
    for (const auto &entry : shown["entries"]) {
        EXPECT_EQ(entry["installed"], entry["list"] != "lab") << entry;
    }
    EXPECT_TRUE(device().release().empty());
    EXPECT_TRUE(has(table(), "match4/lab/10"));
}

TEST_F(HoldTest, AHeldListThatChangesBackSendsNoMessage) {
    device().hold({"wan"});
    world_.unbind("wan", "lan0");
    store();
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1"});
    store();
    const uint64_t before = device().counters().kernelMessages;
    EXPECT_TRUE(device().release().empty());
    EXPECT_EQ(device().counters().kernelMessages, before);
}

} // namespace
} // namespace kernel_test
