// Tests of cli/planner.cpp: the steps of every kind of difference, played on a model that refuses what
// the daemon refuses, for all pairs of a family of policies and for all orders of bindings.
#include "cli/planner.h"

#include <algorithm>
#include <set>

#include <gtest/gtest.h>

#include "cli/numbers.h"
#include "schedule/schedule_text.h"

using namespace cli;

namespace {

Node node(uint32_t index, uint32_t acl, std::vector<std::string> hops) {
    Node made;
    made.index = index;
    made.acl = acl;
    made.ipVersion = 4;
    for (const std::string &hop : hops) {
        made.nextHops.push_back({static_cast<uint8_t>(made.nextHops.size() + 1), *addressRead(hop), "", "", true});
    }
    return made;
}

List list(const std::string &name, std::vector<Node> nodes) {
    List made{name, true, {}};
    for (const Node &each : nodes) {
        made.nodes[each.index] = each;
    }
    return made;
}

AclRules rules(const std::string &text) { return {{10, aclRuleText(1501, text)}}; }

Policy policy(std::vector<List> lists, std::vector<std::pair<uint32_t, std::string>> bound = {}) {
    Policy made;
    for (const List &each : lists) {
        made.lists[each.name] = each;
        for (const auto &[index, eachNode] : each.nodes) {
            made.acls[eachNode.acl] = rules("permit ip");
        }
    }
    for (const auto &[unit, name] : bound) {
        made.bindings.push_back({"if" + std::to_string(unit), unit, name});
    }
    return made;
}

// The daemon as far as it refuses: what is bound cannot be changed, an ACL serves one node and must
// exist, a list is bound to 15 interfaces at most.
struct Model {
    Policy now;

    size_t uses(const std::string &name) const {
        return static_cast<size_t>(std::count_if(now.bindings.begin(), now.bindings.end(),
                                                 [&name](const Binding &each) { return each.list == name; }));
    }
    std::vector<Binding>::iterator binding(uint32_t unit) {
        return std::find_if(now.bindings.begin(), now.bindings.end(),
                            [unit](const Binding &each) { return each.unit == unit; });
    }
    bool aclInUse(uint32_t acl) const {
        for (const auto &[name, each] : now.lists) {
            for (const auto &[index, eachNode] : each.nodes) {
                if (eachNode.acl == acl) {
                    return true;
                }
            }
        }
        return false;
    }
    // What a node refers to is always there.
    void expectProbesAndRangesOfNodes() const {
        for (const auto &[name, each] : now.lists) {
            for (const auto &[index, eachNode] : each.nodes) {
                EXPECT_TRUE(!eachNode.timeRange || now.timeRanges.count(*eachNode.timeRange) != 0);
                for (const NextHop &hop : eachNode.nextHops) {
                    EXPECT_TRUE(probeNameOf(hop).empty() || now.probes.count(probeNameOf(hop)) != 0);
                }
            }
        }
    }
    void doStep(const Step &step) {
        SCOPED_TRACE(stepText(step));
        switch (step.kind) {
        case StepKind::ProbesPut:
            ASSERT_TRUE(now.probes == step.probesBefore);
            now.probes = step.probes;
            expectProbesAndRangesOfNodes();
            break;
        case StepKind::OtherwisePut:
            ASSERT_TRUE(now.otherwiseDrop == step.dropsBefore);
            now.otherwiseDrop = step.drops;
            break;
        case StepKind::RangesPut:
            ASSERT_TRUE(now.timeRanges == step.rangesBefore);
            now.timeRanges = step.ranges;
            expectProbesAndRangesOfNodes();
            break;
        case StepKind::AclPut:
            ASSERT_EQ(now.acls.count(step.acl) != 0, step.aclWasThere);
            now.acls[step.acl] = step.rules;
            break;
        case StepKind::AclRemove:
            ASSERT_TRUE(now.acls.count(step.acl) != 0 && !aclInUse(step.acl));
            now.acls.erase(step.acl);
            break;
        case StepKind::Unbind:
            ASSERT_NE(binding(step.binding.unit), now.bindings.end());
            ASSERT_EQ(binding(step.binding.unit)->list, step.binding.list);
            now.bindings.erase(binding(step.binding.unit));
            break;
        case StepKind::Rebind:
            ASSERT_NE(binding(step.binding.unit), now.bindings.end());
            ASSERT_EQ(binding(step.binding.unit)->list, step.fromList);
            now.bindings.erase(binding(step.binding.unit));
            bind(step.binding);
            break;
        case StepKind::Bind: bind(step.binding); break;
        case StepKind::NodeRemove:
            ASSERT_EQ(uses(step.list), 0u);
            ASSERT_EQ(now.lists.at(step.list).nodes.erase(step.node.index), 1u);
            break;
        case StepKind::NodeMake:
            ASSERT_EQ(uses(step.list), 0u);
            ASSERT_TRUE(now.lists.count(step.list) != 0 && now.acls.count(step.node.acl) != 0);
            ASSERT_FALSE(aclInUse(step.node.acl));
            ASSERT_TRUE(now.lists[step.list].nodes.insert({step.node.index, step.node}).second);
            expectProbesAndRangesOfNodes();
            break;
        case StepKind::ListRemove:
            ASSERT_EQ(uses(step.list), 0u);
            ASSERT_TRUE(now.lists.at(step.list).nodes.empty());
            now.lists.erase(step.list);
            break;
        case StepKind::ListMake:
            ASSERT_TRUE(now.lists.insert({step.list, {step.list, true, {}}}).second);
            break;
        }
    }
    void bind(const Binding &wanted) {
        ASSERT_EQ(binding(wanted.unit), now.bindings.end());
        ASSERT_EQ(now.lists.count(wanted.list), 1u);
        ASSERT_LT(uses(wanted.list), MAX_BOUND);
        now.bindings.push_back(wanted);
    }
};

bool samePolicy(const Policy &left, const Policy &right) {
    std::map<uint32_t, std::string> leftBound, rightBound;
    for (const Binding &each : left.bindings) {
        leftBound[each.unit] = each.list;
    }
    for (const Binding &each : right.bindings) {
        rightBound[each.unit] = each.list;
    }
    return planMake(left, right, {}).steps.empty() && leftBound == rightBound && left.acls == right.acls &&
           left.probes == right.probes && left.timeRanges == right.timeRanges &&
           left.lists.size() == right.lists.size();
}

// Plays the plan, then for every n the first n steps and their undoing.
void expectPlanWorks(const Policy &from, const Policy &to) {
    const Plan plan = planMake(from, to, {});
    Model model{from};
    for (const Step &step : plan.steps) {
        model.doStep(step);
    }
    EXPECT_TRUE(samePolicy(model.now, to));
    EXPECT_EQ(plan.steps.empty(), plan.lines.empty());
    for (size_t count = 0; count <= plan.steps.size(); count++) {
        SCOPED_TRACE("undo after " + std::to_string(count));
        Model undone{from};
        for (size_t i = 0; i < count; i++) {
            undone.doStep(plan.steps[i]);
        }
        for (size_t i = count; i > 0; i--) {
            undone.doStep(stepUndo(plan.steps[i - 1]));
        }
        EXPECT_TRUE(samePolicy(undone.now, from));
    }
}

std::vector<StepKind> kinds(const Plan &plan) {
    std::vector<StepKind> found;
    for (const Step &step : plan.steps) {
        found.push_back(step.kind);
    }
    return found;
}

std::vector<Policy> family() {
    const Node a = node(10, 1501, {"192.0.2.1"}), a2 = node(10, 1501, {"192.0.2.2"});
    const Node b = node(20, 1502, {"192.0.2.1"}), swapped = node(10, 1502, {"192.0.2.1"});
    const Node swapped2 = node(20, 1501, {"192.0.2.1"});
    std::vector<Policy> policies = {
        policy({}),
        policy({list("a", {})}),
        policy({list("a", {a})}),
        policy({list("a", {a})}, {{1, "a"}}),
        policy({list("a", {a})}, {{1, "a"}, {2, "a"}}),
        policy({list("a", {a2})}, {{1, "a"}}),
        policy({list("a", {a, b})}, {{1, "a"}}),
        policy({list("a", {swapped, swapped2})}, {{1, "a"}}),
        policy({list("a", {a}), list("b", {b})}, {{1, "a"}, {2, "b"}}),
        policy({list("a", {a}), list("b", {b})}, {{1, "b"}, {2, "a"}}),
        policy({list("a", {b}), list("b", {a})}, {{1, "a"}, {2, "b"}}),
        policy({list("b", {a})}, {{1, "b"}}),
        policy({list("b", {b})}, {{1, "b"}, {3, "b"}}),
    };
    Policy otherRules = policies[3];
    otherRules.acls[1501] = rules("permit tcp");
    policies.push_back(otherRules);
    Policy moreAcls = policies[8];
    moreAcls.acls[1999] = rules("deny ip");
    policies.push_back(moreAcls);
    // Probes and ranges that nodes refer to come, change and go with them.
    Policy watched = policies[3];
    watched.probes["ops/a"] = {"icmp", "192.0.2.1"};
    watched.timeRanges[7] = Schedule{{{0x1f, 0, 3600}}, {}, {}};
    NextHop &hop = watched.lists["a"].nodes[10].nextHops[0];
    hop.probeAdmin = "ops";
    hop.probeTest = "a";
    watched.lists["a"].nodes[10].timeRange = 7;
    policies.push_back(watched);
    watched.probes["ops/a"].intervalMs = 50;
    watched.timeRanges[7].periods[0].to = 7200;
    policies.push_back(watched);
    watched.probes["ops/b"] = watched.probes["ops/a"];
    watched.timeRanges[8] = watched.timeRanges[7];
    watched.probes.erase("ops/a");
    watched.timeRanges.erase(7);
    watched.lists["a"].nodes[10].nextHops[0].probeTest = "b";
    watched.lists["a"].nodes[10].timeRange = 8;
    policies.push_back(watched);
    return policies;
}

TEST(Planner, EveryPairOfPoliciesHasAPlanThatTheDaemonAcceptsAndThatCanBeUndoneAnywhere) {
    const std::vector<Policy> policies = family();
    for (size_t from = 0; from < policies.size(); from++) {
        for (size_t to = 0; to < policies.size(); to++) {
            SCOPED_TRACE("policy " + std::to_string(from) + " to " + std::to_string(to));
            expectPlanWorks(policies[from], policies[to]);
        }
    }
}

TEST(Planner, AnEqualStateNeedsNothing) {
    for (const Policy &each : family()) {
        const Plan plan = planMake(each, each, {});
        EXPECT_TRUE(plan.steps.empty());
        EXPECT_TRUE(plan.lines.empty());
    }
}

TEST(Planner, NumbersOfNextHopsAndSpellingOfRulesDoNotMatter) {
    Policy running = policy({list("a", {node(10, 1501, {"192.0.2.1", "192.0.2.2"})})}, {{1, "a"}});
    Policy wanted = running;
    running.lists["a"].nodes[10].nextHops[0].index = 2;
    running.lists["a"].nodes[10].nextHops[1].index = 5;
    running.acls[1501] = rules("permit ip from any to any");
    EXPECT_TRUE(planMake(running, wanted, {}).steps.empty());
}

TEST(Planner, OrderOfNextHopsMatters) {
    const Policy running = policy({list("a", {node(10, 1501, {"192.0.2.1", "192.0.2.2"})})});
    const Policy wanted = policy({list("a", {node(10, 1501, {"192.0.2.2", "192.0.2.1"})})});
    EXPECT_EQ(kinds(planMake(running, wanted, {})), (std::vector{StepKind::NodeRemove, StepKind::NodeMake}));
}

TEST(Planner, EveryPropertyOfANodeIsADifference) {
    const Node same = node(10, 1501, {"192.0.2.1"});
    const auto differs = [&same](auto change) {
        Node other = same;
        change(other);
        EXPECT_FALSE(nodeEquals(same, other));
        EXPECT_FALSE(nodeEquals(other, same));
    };
    EXPECT_TRUE(nodeEquals(same, same));
    differs([](Node &other) { other.acl = 1502; });
    differs([](Node &other) { other.ipVersion = 0; });
    differs([](Node &other) { other.priority = 1; });
    differs([](Node &other) { other.outIfUnit = 7; });
    differs([](Node &other) { other.ecmp = 1; });
    differs([](Node &other) { other.vrf = 1; });
    differs([](Node &other) { other.timeRange = 7; });
    differs([](Node &other) { other.matchValue1 = 1; });
    differs([](Node &other) { other.matchValue2 = 1; });
    differs([](Node &other) { other.field7 = 1; });
    differs([](Node &other) { other.forwardFlag = 2; });
    differs([](Node &other) { other.nextHops[0].probeAdmin = "a"; });
    differs([](Node &other) { other.nextHops[0].address[3] = 2; });
}

TEST(Planner, ActivationOfANextHopMattersToItsProbeOnly) {
    Node left = node(10, 1501, {"192.0.2.1"}), right = left;
    right.nextHops[0].active = false;
    EXPECT_TRUE(nodeEquals(left, right));
    left.nextHops[0].probeAdmin = right.nextHops[0].probeAdmin = "a";
    left.nextHops[0].probeTest = right.nextHops[0].probeTest = "b";
    EXPECT_FALSE(nodeEquals(left, right));
}

TEST(Planner, AChangedListIsTakenOffAndPutBackAndOthersAreLeft) {
    const Node a = node(10, 1501, {"192.0.2.1"}), b = node(10, 1502, {"192.0.2.1"});
    const Policy running = policy({list("a", {a}), list("b", {b})}, {{1, "a"}, {2, "b"}, {3, "a"}});
    const Policy wanted = policy({list("a", {node(10, 1501, {"192.0.2.9"})}), list("b", {b})},
                                 {{1, "a"}, {2, "b"}, {3, "a"}});
    const Plan plan = planMake(running, wanted, {});
    EXPECT_EQ(kinds(plan), (std::vector{StepKind::Unbind, StepKind::Unbind, StepKind::NodeRemove, StepKind::NodeMake,
                                        StepKind::Bind, StepKind::Bind}));
    ASSERT_EQ(plan.lines.size(), 2u);
    EXPECT_EQ(plan.lines[0], "~ list a (bound to if1, if3)");
    EXPECT_EQ(plan.lines[1], "    ~ node 10: acl 1501, next hop 192.0.2.1 -> acl 1501, next hop 192.0.2.9");
}

TEST(Planner, AnInterfaceGoesFromOneUnchangedListToAnotherWithoutAGap) {
    const std::vector<List> lists = {list("a", {node(10, 1501, {"192.0.2.1"})}),
                                     list("b", {node(10, 1502, {"192.0.2.2"})})};
    const Plan plan = planMake(policy(lists, {{1, "a"}}), policy(lists, {{1, "b"}}), {});
    EXPECT_EQ(kinds(plan), (std::vector{StepKind::Rebind}));
    EXPECT_EQ(plan.lines, (std::vector<std::string>{"~ binding if1: a -> b"}));
}

TEST(Planner, TwoFullListsCanSwapTheirInterfaces) {
    const std::vector<List> lists = {list("a", {node(10, 1501, {"192.0.2.1"})}),
                                     list("b", {node(10, 1502, {"192.0.2.2"})})};
    std::vector<std::pair<uint32_t, std::string>> now, then;
    for (uint32_t unit = 1; unit <= 30; unit++) {
        now.push_back({unit, unit <= 15 ? "a" : "b"});
        then.push_back({unit, unit <= 15 ? "b" : "a"});
    }
    expectPlanWorks(policy(lists, now), policy(lists, then));
}

TEST(Planner, OrderOfBindingsInTheFileDoesNotMatter) {
    const std::vector<List> lists = {list("a", {node(10, 1501, {"192.0.2.1"})}),
                                     list("b", {node(10, 1502, {"192.0.2.2"})})};
    std::vector<std::pair<uint32_t, std::string>> then = {{1, "b"}, {2, "a"}, {3, "b"}, {4, "a"}};
    const Policy running = policy(lists, {{1, "a"}, {2, "b"}, {3, "a"}});
    const std::vector<std::string> expected = planMake(running, policy(lists, then), {}).lines;
    do {
        EXPECT_EQ(planMake(running, policy(lists, then), {}).lines, expected);
        expectPlanWorks(running, policy(lists, then));
    } while (std::next_permutation(then.begin(), then.end()));
}

TEST(Planner, AnAclOfAChangedListChangesWhileTheListIsOffAndAnotherBefore) {
    Policy running = policy({list("a", {node(10, 1501, {"192.0.2.1"})}), list("b", {node(10, 1502, {"192.0.2.1"})})},
                            {{1, "a"}, {2, "b"}});
    Policy wanted = policy({list("a", {node(10, 1501, {"192.0.2.2"})}), list("b", {node(10, 1502, {"192.0.2.1"})})},
                           {{1, "a"}, {2, "b"}});
    wanted.acls[1501] = wanted.acls[1502] = rules("permit tcp");
    const Plan plan = planMake(running, wanted, {});
    EXPECT_EQ(kinds(plan), (std::vector{StepKind::AclPut, StepKind::Unbind, StepKind::NodeRemove, StepKind::AclPut,
                                        StepKind::NodeMake, StepKind::Bind}));
    EXPECT_EQ(plan.steps[0].acl, 1502u);
    EXPECT_EQ(plan.steps[3].acl, 1501u);
}

TEST(Planner, BoundListsOfWhichSomethingChangesAreHeld) {
    const List a = list("a", {node(10, 1501, {"192.0.2.1"})}), b = list("b", {node(10, 1502, {"192.0.2.1"})});
    Policy running = policy({a, b}, {{1, "a"}});
    running.probes["ops/a"] = {"icmp", "192.0.2.1"};
    running.timeRanges[7] = Schedule{{{}}, {}, {}};
    running.lists["a"].nodes[10].nextHops[0].probeAdmin = "ops";
    running.lists["a"].nodes[10].nextHops[0].probeTest = "a";
    running.lists["a"].nodes[10].timeRange = 7;
    using Held = std::set<std::string>;
    const auto held = [&running](auto change) {
        Policy wanted = running;
        change(wanted);
        return planMake(running, wanted, {}).held;
    };
    EXPECT_EQ(held([](Policy &) {}), Held{});
    EXPECT_EQ(held([](Policy &then) { then.lists["a"].nodes[10].vrf = 3; }), Held{"a"});
    EXPECT_EQ(held([](Policy &then) { then.acls[1501] = rules("permit tcp"); }), Held{"a"});
    EXPECT_EQ(held([](Policy &then) { then.probes["ops/a"].downAfter = 9; }), Held{"a"});
    EXPECT_EQ(held([](Policy &then) { then.timeRanges[7].end = schedule::localTimeRead("2030-01-01"); }), Held{"a"});
    EXPECT_EQ(held([](Policy &then) { then.bindings[0].list = "b"; }), (Held{"a", "b"}));
    EXPECT_EQ(held([](Policy &then) { then.bindings.clear(); }), Held{"a"});
    EXPECT_EQ(held([](Policy &then) { then.bindings.push_back({"if2", 2, "b"}); }), Held{"b"});
    EXPECT_EQ(held([](Policy &then) { then.lists["b"].nodes[10].vrf = 3; }), Held{});
    EXPECT_EQ(held([](Policy &then) { then.acls[1502] = rules("permit tcp"); }), Held{});
    EXPECT_EQ(held([](Policy &then) { then.probes["ops/b"] = {"icmp", "192.0.2.9"}; }), Held{});
}

TEST(Planner, OnlyProbesWithoutAResultOfBoundListsAreWaitedFor) {
    Policy running = policy({list("a", {node(10, 1501, {"192.0.2.1"})})}, {{1, "a"}});
    running.probes["ops/a"] = {"icmp", "192.0.2.1"};
    Policy wanted = running;
    wanted.probes["ops/b"] = wanted.probes["ops/c"] = wanted.probes["ops/a"];
    NextHop &hop = wanted.lists["a"].nodes[10].nextHops[0];
    hop.probeAdmin = "ops";
    hop.probeTest = "a";
    EXPECT_TRUE(planMake(running, wanted, {}).newProbes.empty());
    hop.probeTest = "b";
    EXPECT_EQ(planMake(running, wanted, {}).newProbes, std::set<std::string>{"ops/b"});
    wanted.bindings.clear();
    EXPECT_TRUE(planMake(running, wanted, {}).newProbes.empty());
}

TEST(Planner, ProbesAndTimeRangesHaveLinesOfTheirOwn) {
    Policy running, wanted;
    running.probes["ops/a"] = running.probes["ops/b"] = {"icmp", "192.0.2.1"};
    wanted.probes["ops/b"] = wanted.probes["ops/c"] = {"tcp", "192.0.2.1", 80};
    running.timeRanges[6] = running.timeRanges[7] = Schedule{{{0x1f, 0, 3600}}, {}, {}};
    wanted.timeRanges[7] = wanted.timeRanges[8] = Schedule{{}, schedule::localTimeRead("2030-01-01"), {}};
    const std::string icmp = "icmp 192.0.2.1, interval 1s, timeout 500ms, down-after 3, up-after 1";
    const std::string tcp = "tcp 192.0.2.1, port 80, interval 1s, timeout 500ms, down-after 3, up-after 1";
    EXPECT_EQ(planMake(running, wanted, {}).lines,
              (std::vector<std::string>{"- probe ops/a", "~ probe ops/b: " + icmp + " -> " + tcp, "+ probe ops/c: " + tcp,
                                        "- time-range 6",
                                        "~ time-range 7: mon-fri 00:00-01:00 -> from 2030-01-01 00:00",
                                        "+ time-range 8: from 2030-01-01 00:00"}));
}

TEST(Planner, ARefusalIsPlacedWhereItsTextSays) {
    Step step;
    step.kind = StepKind::ProbesPut;
    step.probes["ops/a"] = step.probes["ops/ab"] = {};
    EXPECT_EQ(stepPlaces(step, "probe ops/ab: no")[0], "probe ops/ab");
    EXPECT_EQ(stepPlaces(step, "no")[1], "probes");
    step.kind = StepKind::RangesPut;
    EXPECT_EQ(stepPlaces(step, "time range 17: no")[0], "time-range 17");
    step.kind = StepKind::AclPut;
    step.acl = 1501;
    EXPECT_EQ(stepPlaces(step, "ACL 1501 rule 20: no"),
              (std::vector<std::string>{"acl 1501 rule 20", "acl 1501", "acls"}));
    EXPECT_EQ(aclPlaces("ACL 3501 rule 7: no")[0], "acl 3501 rule 7");
    EXPECT_EQ(aclPlaces("no")[2], "acls");
}

TEST(Planner, TheLimitsOfTheDaemonAreCheckedBefore) {
    const Policy wanted = policy({list("a", {node(10, 1501, {"192.0.2.1", "192.0.2.2"})}),
                                  list("b", {node(10, 1502, {"192.0.2.1", "192.0.2.2"})})});
    EXPECT_TRUE(planMake({}, wanted, {2, 2}).problems.empty());
    ASSERT_EQ(planMake({}, wanted, {1, 2}).problems.size(), 1u);
    EXPECT_EQ(planMake({}, wanted, {1, 2}).problems[0].text,
              "the policy has 2 lists, the daemon holds 1: raise policyroute.maxlistnum and restart the daemon");
    EXPECT_EQ(planMake({}, wanted, {2, 1}).problems.size(), 1u);
    EXPECT_EQ(planMake({}, wanted, {2, 0}).problems.size(), 2u);
}

TEST(Planner, TheFirstBindingForWhichThereIsNoRecordIsNamed) {
    const Policy wanted = policy({list("a", {})}, {{3, "a"}, {2, "a"}, {5, "a"}});
    EXPECT_TRUE(planMake({}, wanted, {9, 9, 3}).problems.empty());
    const std::vector<PlanProblem> problems = planMake({}, wanted, {9, 9, 2}).problems;
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].places, (std::vector<std::string>{"binding " + wanted.bindings[2].interface, "bindings"}));
    EXPECT_EQ(problems[0].text,
              "the policy has 3 interfaces, the daemon holds 2: raise policyroute.maxifnum and restart the daemon");
}

TEST(Planner, ARecordWithoutAListTakesTheRoomOfABindingUnlessItIsTheSameInterface) {
    const Policy wanted = policy({list("a", {})}, {{2, "a"}, {3, "a"}});
    EXPECT_TRUE(planMake({}, wanted, {9, 9, 2, {3}}).problems.empty());
    const std::vector<PlanProblem> problems = planMake({}, wanted, {9, 9, 2, {7}}).problems;
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].places[0], "binding " + wanted.bindings[1].interface);
    EXPECT_NE(problems[0].text.find("3 interfaces (1 of them without a list)"), std::string::npos) << problems[0].text;
}

TEST(Planner, LinesTellAclsListsNodesAndBindings) {
    Policy running = policy({list("old", {node(10, 1502, {"192.0.2.1"})})}, {{2, "old"}});
    running.acls[1501] = {{10, aclRuleText(1501, "permit tcp")}, {20, aclRuleText(1501, "deny ip")}};
    Policy wanted = policy({list("wan", {node(10, 1501, {"192.0.2.1"})})}, {{1, "wan"}});
    wanted.acls[1501] = {{10, aclRuleText(1501, "permit udp")}, {20, aclRuleText(1501, "deny ip")}};
    EXPECT_EQ(planMake(running, wanted, {}).lines,
              (std::vector<std::string>{"~ acl 1501", "    - 10 permit tcp", "    + 10 permit udp", "- acl 1502",
                                        "- list old", "    - node 10: acl 1502, next hop 192.0.2.1", "+ list wan",
                                        "    + node 10: acl 1501, next hop 192.0.2.1", "- binding if2: old",
                                        "+ binding if1: wan"}));
}

} // namespace
