// The store of ACLs: changes and what they report, snapshots, users.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "host/acl/acl_store.h"
#include "tests/unit/host_acl/host_environment.h"

namespace {

using namespace host;
using Change = AclChange;
using Changes = AclStore::Changes;

using hosttest::rule;

const AclRule WEB = rule(1501, "permit tcp to any port 80");
const AclRule DNS = rule(1501, "permit udp to any port 53");

TEST(AclStore, HoldsNothingAtFirst) {
    AclStore store;
    EXPECT_EQ(store.snapshot(1501), nullptr);
    EXPECT_TRUE(store.rows().empty());
}

TEST(AclStore, CreatesAnEmptyAclOnce) {
    AclStore store;
    EXPECT_TRUE(store.create(1501));
    store.ruleSet(1501, 10, WEB);
    EXPECT_FALSE(store.create(1501));
    EXPECT_EQ(store.snapshot(1501)->size(), 1u);
}

TEST(AclStore, KeepsRulesInAscendingOrderOfTheirNumbers) {
    AclStore store;
    store.ruleSet(1501, 30, WEB);
    store.ruleSet(1501, 10, DNS);
    store.ruleSet(1501, 20, WEB);
    std::vector<uint32_t> order;
    for (const auto &[number, each] : *store.snapshot(1501)) {
        order.push_back(number);
    }
    EXPECT_EQ(order, (std::vector<uint32_t>{10, 20, 30}));
}

TEST(AclStore, ReportsANewRuleAReplacedRuleAndNoChange) {
    AclStore store;
    EXPECT_EQ(store.ruleSet(1501, 10, WEB), (Changes{{Change::RULE_NEW, 1501, 10}}));
    EXPECT_EQ(store.ruleSet(1501, 10, WEB), Changes{});
    EXPECT_EQ(store.ruleSet(1501, 10, DNS),
              (Changes{{Change::RULE_GONE, 1501, 10}, {Change::RULE_NEW, 1501, 10}}));
}

TEST(AclStore, RemovesOneRuleAndRefusesAnAbsentOne) {
    AclStore store;
    store.ruleSet(1501, 10, WEB);
    EXPECT_EQ(store.ruleDel(1501, 20), std::nullopt);
    EXPECT_EQ(store.ruleDel(1502, 10), std::nullopt);
    EXPECT_EQ(store.ruleDel(1501, 10), (Changes{{Change::RULE_GONE, 1501, 10}}));
    ASSERT_NE(store.snapshot(1501), nullptr);
    EXPECT_TRUE(store.snapshot(1501)->empty());
}

TEST(AclStore, DestroysAnAclAsAWhole) {
    AclStore store;
    store.ruleSet(1501, 10, WEB);
    EXPECT_EQ(store.destroy(1501), (Changes{{Change::ACL_GONE, 1501, 0}}));
    EXPECT_EQ(store.snapshot(1501), nullptr);
    EXPECT_EQ(store.destroy(1501), std::nullopt);
}

TEST(AclStore, ReplacesTheRulesOfOneAclAndLeavesOthersAlone) {
    AclStore store;
    store.ruleSet(1501, 10, WEB);
    store.ruleSet(1501, 20, WEB);
    store.ruleSet(1502, 10, DNS);
    const Changes changes = store.replace({{1501, {{20, WEB}, {30, DNS}}}}, false);
    EXPECT_EQ(changes, (Changes{{Change::RULE_GONE, 1501, 10}, {Change::RULE_NEW, 1501, 30}}));
    EXPECT_EQ(*store.snapshot(1501), (AclRules{{20, WEB}, {30, DNS}}));
    EXPECT_EQ(*store.snapshot(1502), (AclRules{{10, DNS}}));
}

TEST(AclStore, ReplacingAllDestroysTheAclsThatAreNotNamed) {
    AclStore store;
    store.ruleSet(1501, 10, WEB);
    store.ruleSet(1502, 10, DNS);
    const Changes changes = store.replace({{1503, {{5, WEB}}}, {1502, {{10, DNS}}}}, true);
    EXPECT_EQ(changes, (Changes{{Change::ACL_GONE, 1501, 0}, {Change::RULE_NEW, 1503, 5}}));
    EXPECT_EQ(store.rows().size(), 2u);
}

TEST(AclStore, ASnapshotDoesNotChangeUnderItsReader) {
    AclStore store;
    store.ruleSet(1501, 10, WEB);
    const auto before = store.snapshot(1501);
    store.ruleSet(1501, 20, DNS);
    store.destroy(1501);
    EXPECT_EQ(*before, (AclRules{{10, WEB}}));
}

TEST(AclStore, CountsUsersAlsoWhileTheAclIsMissing) {
    AclStore store;
    EXPECT_EQ(store.usersAdd(1501, 1), 1);
    EXPECT_EQ(store.usersAdd(1501, 1), 2);
    store.create(1501);
    store.destroy(1501);
    store.create(1501);
    EXPECT_EQ(store.users(1501), 2);
    EXPECT_EQ(store.rows().at(0).users, 2);
}

TEST(AclStore, TheUserCountNeverGoesBelowZero) {
    AclStore store;
    EXPECT_EQ(store.usersAdd(1501, -1), 0);
    EXPECT_EQ(store.usersAdd(1501, 1), 1);
    EXPECT_EQ(store.usersAdd(1501, -1), 0);
    EXPECT_EQ(store.users(1501), 0);
}

// Two ACLs that are always replaced together: whoever reads the first and then the second sees the second
// at least as new, and each ACL whole.
TEST(AclStore, ReadersSeeAReplacementWholeOrNotAtAll) {
    AclStore store;
    const AclRules even = {{2, WEB}, {4, WEB}}, odd = {{1, DNS}, {3, DNS}, {5, DNS}};
    store.replace({{1501, even}}, true);
    std::atomic<bool> isDone{false};
    std::thread writer([&] {
        for (int i = 0; i < 2000; i++) {
            store.replace({{1501, i % 2 == 0 ? odd : even}}, true);
        }
        isDone = true;
    });
    while (!isDone) {
        const auto seen = store.snapshot(1501);
        ASSERT_TRUE(*seen == even || *seen == odd);
        const auto rows = store.rows();
        ASSERT_EQ(rows.size(), 1u);
    }
    writer.join();
}

} // namespace
