// What a plan looks like: which policies are flat, and what spoils it.
#include <gtest/gtest.h>

#include "linear.h"

namespace classify_test {
namespace {

using namespace host;

// Rules in words, each with its node's place.
class Policy {
public:
    explicit Policy(int family = 4) : family_(family) {}

    Policy &node(const std::vector<std::string> &texts) {
        for (const std::string &text : texts) {
            std::string error;
            const auto rule = aclrule::aclRuleParse(family_ == 6 ? 3001 : 1501, text, &error);
            EXPECT_TRUE(rule) << text << ": " << error;
            rules.push_back({nodes_, rule.value_or(aclrule::AclRule{})});
        }
        nodes_++;
        return *this;
    }

    ClassPlan plan(size_t mapFrom = 4) const { return classPlan(rules, family_, {mapFrom}); }

    std::vector<ClassRule> rules;

private:
    const int family_;
    uint32_t nodes_ = 0;
};

std::vector<std::string> kinds(const ClassPlan &plan) {
    std::vector<std::string> found;
    for (const auto &section : plan.sections) {
        for (const ClassStep &step : section) {
            found.push_back(classStepText(step.kind));
        }
    }
    return found;
}

using Kinds = std::vector<std::string>;

std::string host(uint32_t i) { return "10." + std::to_string(i >> 16) + "." + std::to_string(i >> 8 & 255) + "." + std::to_string(i & 255); }

TEST(Plan, OfThousandsOfSingleAddressesIsOneMap) {
    Policy policy;
    for (uint32_t i = 0; i < 10000; i++) {
        policy.node({"permit ip from " + host(i)});
    }

    const ClassPlan plan = policy.plan();

    EXPECT_EQ(kinds(plan), Kinds{"map of single keys"});
    EXPECT_EQ(plan.sections[0][0].cells.size(), 10000u);
}

TEST(Plan, OfTwoFormsThatDoNotMeetIsTwoMapsHoweverTheyAreMixed) {
    Policy policy;
    for (uint32_t i = 0; i < 5000; i++) {
        policy.node({"permit tcp from " + host(i) + " to any port 80", "permit icmp from " + host(i)});
    }

    const ClassPlan plan = policy.plan();

    EXPECT_EQ(kinds(plan), (Kinds{"map of single keys", "map of single keys"}));
}

TEST(Plan, AsksInItsGuardWhatAllRulesHaveInCommon) {
    Policy policy;
    for (uint32_t i = 1; i <= 20; i++) {
        policy.node({"permit tcp from 10.1.0.0/16 to any port " + std::to_string(i)});
    }

    const ClassPlan plan = policy.plan();

    ASSERT_EQ(kinds(plan), Kinds{"map of single keys"});
    EXPECT_EQ(plan.sections[0][0].fields, std::vector<ClassField>{ClassField::DestinationPort});
    EXPECT_EQ(plan.sections[0][0].guard.protocol, 6);
    EXPECT_EQ(plan.sections[0][0].guard.source.length, 16);
}

TEST(Plan, SplitsPrefixesThatLieOnOneAnother) {
    const ClassPlan plan = Policy()
                               .node({"permit ip from 10.1.1.0/24"})
                               .node({"permit ip from 10.1.0.0/16"})
                               .node({"permit ip from 10.0.0.0/8"})
                               .node({"permit ip from 10.1.2.0/24"}) // never reached
                               .plan();

    ASSERT_EQ(kinds(plan), Kinds{"map of ranges"});
    EXPECT_EQ(plan.sections[0][0].cells.size(), 5u);
}

TEST(Plan, ResolvesDenyRulesOfOneFormInsideTheMap) {
    const ClassPlan plan = Policy()
                               .node({"deny ip from 10.1.1.1", "permit ip from 10.1.1.0/24"})
                               .node({"deny ip from 10.1.1.1", "permit ip from 10.1.0.0/16"})
                               .node({"permit ip from 10.0.0.0/8"})
                               .plan();

    ASSERT_EQ(kinds(plan), Kinds{"map of ranges"});
    EXPECT_EQ(plan.sections[0][0].cells[3].rules, (std::vector<uint32_t>{0, 2, 4}));
}

TEST(Plan, EndsASectionWhereADenyRuleMustPassOverAStepOfItsNode) {
    Policy policy;
    for (uint32_t i = 0; i < 10; i++) {
        policy.node({"deny ip from " + host(i) + " to 192.0.2.1", "permit tcp from " + host(i) + " to any port 80-" + std::to_string(90 + i)});
    }
    policy.node({"permit ip from 10.0.0.0/24"});

    const ClassPlan plan = policy.plan();

    ASSERT_EQ(plan.sections.size(), 2u) << "the last node may match what is denied";
    EXPECT_EQ(kinds(plan), (Kinds{"map of single keys", "map of several ranges", "rules compared one by one"}))
        << "the nodes do not meet one another";
    EXPECT_TRUE(plan.leaves[0]);
}

TEST(Plan, ComparesOneByOneWhatNoMapCanHold) {
    const ClassPlan plan = Policy()
                               .node({"permit tcp from any to any flags syn,!ack"})
                               .node({"permit ip from 10.0.0.1 mask 0.0.255.0"})
                               .node({"permit ip from any"})
                               .plan(2);

    EXPECT_EQ(plan.maps, 0u);
    EXPECT_EQ(plan.sections[0][0].reason, "too few rules of its form stand together");
}

TEST(Plan, MakesAMapOfRulesThatShareTheirFlags) {
    Policy policy;
    for (uint32_t i = 0; i < 10; i++) {
        policy.node({"permit tcp from " + host(i) + " established"});
    }

    const ClassPlan plan = policy.plan();

    ASSERT_EQ(kinds(plan), Kinds{"map of single keys"});
    EXPECT_TRUE(plan.sections[0][0].guard.established);
}

TEST(Plan, AsksAWideRuleBehindTheMapThatItWouldShatter) {
    Policy policy;
    for (uint32_t i = 0; i < 1000; i++) {
        policy.node({"permit ip from " + host(i * 7) + "/32 to 172.16." + std::to_string(i % 200) + ".0/24"});
    }
    policy.node({"permit ip from 10.0.0.0/8 to 172.16.0.0/12"});

    const ClassPlan plan = policy.plan();

    EXPECT_EQ(kinds(plan), (Kinds{"map of several ranges", "rules compared one by one"}));
    EXPECT_EQ(plan.sections[0][1].rules, std::vector<uint32_t>{1000});
}

TEST(Plan, DoesNotAskAWideRuleBehindADenyRuleOfItsNode) {
    Policy policy;
    for (uint32_t i = 0; i < 100; i++) {
        policy.node({"permit ip from " + host(i * 8) + "/31 to 172.16." + std::to_string(i) + ".0/24"});
    }
    policy.node({"deny ip from 10.99.0.0/24 to 172.16.99.0/24", "permit ip from 10.0.0.0/8 to 172.16.0.0/12"});
    aclrule::AclPacket packet;
    packet.source = {10, 99, 0, 1};
    packet.destination = {172, 16, 99, 1};

    const ClassPlan plan = policy.plan();

    EXPECT_EQ(planWay(plan, policy.rules, packet), linearWay(policy.rules, packet));
    EXPECT_EQ(kinds(plan), Kinds{"rules compared one by one"});
}

TEST(Plan, GivesUpAMapThatWouldGrowWithoutBound) {
    Policy policy;
    for (uint32_t i = 0; i < 60; i++) { // stripes across stripes
        policy.node({i % 2 == 0 ? "permit udp from 10.0.0.0/8 port " + std::to_string(i * 10) + "-" + std::to_string(i * 10 + 5) + " to any port 1-65000"
                                : "permit udp from 10.0.0.0/8 port 1-65000 to any port " + std::to_string(i * 10) + "-" + std::to_string(i * 10 + 5)});
    }

    const ClassPlan plan = policy.plan();

    for (const auto &section : plan.sections) {
        for (const ClassStep &step : section) {
            EXPECT_LE(step.cells.size(), step.rules.size() * 8 + 16);
        }
    }
}

TEST(Plan, OfNoRulesHasNoSteps) { EXPECT_TRUE(Policy().plan().sections.empty()); }

TEST(Plan, MakesNoMapsWhenToldSo) {
    Policy policy;
    for (uint32_t i = 0; i < 100; i++) {
        policy.node({"permit ip from " + host(i)});
    }

    EXPECT_EQ(policy.plan(0).maps, 0u);
}

} // namespace
} // namespace classify_test
