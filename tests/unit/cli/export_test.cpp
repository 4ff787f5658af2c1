// Tests of cli/export.cpp: what is written is read back as the same policy, for random policies; what a
// file cannot say is told.
#include "cli/export.h"

#include <random>

#include <gtest/gtest.h>

#include "cli/numbers.h"
#include "cli/planner.h"
#include "cli/policy_file.h"
#include "schedule/schedule_text.h"

using namespace cli;
using schedule::localTimeRead;

namespace {

// Names of interfaces and their units, as a daemon would have them.
uint32_t unitOf(const std::string &name) { return 100 + static_cast<uint32_t>(std::stoul(name.substr(3))); }

struct Random {
    std::mt19937 engine;
    uint32_t below(uint32_t count) { return std::uniform_int_distribution<uint32_t>(0, count - 1)(engine); }
    bool chance() { return below(2) == 1; }
    template <typename Item> Item any(std::initializer_list<Item> items) {
        return items.begin()[below(static_cast<uint32_t>(items.size()))];
    }
    std::string address(int version) {
        return version == 4 ? "192.0.2." + std::to_string(1 + below(250)) : "2001:db8::" + std::to_string(1 + below(9000));
    }
};

Probe randomProbe(Random &random) {
    const int version = random.any({4, 6});
    Probe probe;
    probe.kind = random.any({"icmp", "tcp", "udp", "http"});
    probe.target = random.address(version);
    probe.port = probe.kind == "icmp" ? 0 : random.any({80u, 1u, 65535u});
    if (probe.kind == "http") {
        probe.path = random.any({"/", "/a?b=c#d", "/\"quoted\\{}[],: '"});
        probe.path.erase(std::remove(probe.path.begin(), probe.path.end(), ' '), probe.path.end());
        probe.host = random.any({"", "www.example.org", "[2001:db8::1]"});
    }
    probe.source = random.chance() ? random.address(version) : "";
    probe.interface = random.any({"", "eth0", "vlan.10", "-x"});
    probe.vrf = random.any({0u, 10u});
    probe.via = random.chance() ? random.address(version) : "";
    probe.intervalMs = random.any({50u, 1000u, 1500u, 120000u});
    probe.timeoutMs = 1 + random.below(probe.intervalMs);
    probe.downAfter = 1 + random.below(1000);
    probe.upAfter = 1 + random.below(1000);
    return probe;
}

Schedule randomRange(Random &random) {
    Schedule range;
    for (uint32_t count = random.below(4); count > 0; count--) {
        range.periods.push_back({static_cast<uint8_t>(1 + random.below(127)), random.below(86400), random.below(86401)});
    }
    const std::string start = random.any({"", "2027-01-01", "2027-06-30 23:59:59"});
    range.start = start.empty() ? std::nullopt : std::optional(localTimeRead(start));
    if (range.periods.empty() || random.chance()) {
        range.end = localTimeRead("2028-02-29 12:00");
    }
    return range;
}

std::string randomRule(Random &random, int version) {
    const std::string action = random.any({"permit ", "deny "});
    const std::string from = version == 4 ? "10.1.0.0/16" : "2001:db8::/32";
    return action + random.any({std::string("ip"), "ip from " + from + " to any", std::string("tcp to any port 443"),
                                "udp from " + from + " port 1-1024 to any"});
}

Node randomNode(Random &random, Policy &policy, uint32_t index, uint32_t &nextAcl) {
    Node node;
    node.index = index;
    const int version = random.any({4, 6});
    node.acl = (version == 4 ? 1001 : 3001) + nextAcl++;
    node.ipVersion = version;
    for (uint32_t rule = 1 + random.below(3); rule > 0; rule--) {
        policy.acls[node.acl][rule * 10] = aclRuleText(node.acl, randomRule(random, version));
    }
    const uint32_t what = random.below(3);
    if (what == 0) {
        node.outIfName = "eth" + std::to_string(random.below(9));
        node.outIfUnit = unitOf(node.outIfName);
    }
    for (uint32_t count = what == 1 ? 1 + random.below(4) : 0; count > 0; count--) {
        NextHop hop;
        // Numbers that are not consecutive, addresses that are not ordered.
        hop.index = static_cast<uint8_t>(node.nextHops.size() * 2 + 1 + random.below(2));
        hop.address = *addressRead(version == 4 ? "198.51.100." + std::to_string(count * 9) : "2001:db8:7::" + std::to_string(count));
        if (random.chance() && !policy.probes.empty()) {
            const std::string &name = std::next(policy.probes.begin(), random.below(static_cast<uint32_t>(policy.probes.size())))->first;
            hop.probeAdmin = name.substr(0, name.find('/'));
            hop.probeTest = name.substr(name.find('/') + 1);
        }
        node.nextHops.push_back(hop);
    }
    node.ecmp = what == 1 && random.chance() ? 1 : 0;
    node.vrf = random.any({0u, 10u, UINT32_MAX});
    node.priority = what == 2 ? random.any({1u, 5u, 15u}) : random.any({0u, 3u});
    if (random.chance() && !policy.timeRanges.empty()) {
        node.timeRange = std::next(policy.timeRanges.begin(), random.below(static_cast<uint32_t>(policy.timeRanges.size())))->first;
    }
    return node;
}

Policy randomPolicy(unsigned seed) {
    Random random{std::mt19937(seed)};
    Policy policy;
    uint32_t nextAcl = 0;
    for (uint32_t count = random.below(4); count > 0; count--) {
        policy.probes["ops/p" + std::to_string(count)] = randomProbe(random);
    }
    for (uint32_t count = random.below(3); count > 0; count--) {
        policy.timeRanges[count * 7] = randomRange(random);
    }
    for (uint32_t count = random.below(4); count > 0; count--) {
        const std::string name = random.any({"wan", "a:b", "#x", "-", "true", "~", "null", "{y}", "a,b", "\xc3\xa4", "'q'", "7"});
        List &list = policy.lists[name];
        list.name = name;
        for (uint32_t nodes = random.below(4); nodes > 0; nodes--) {
            if (list.nodes.count(nodes * 10) == 0) {
                list.nodes[nodes * 10] = randomNode(random, policy, nodes * 10, nextAcl);
            }
        }
    }
    if (random.chance()) {
        policy.acls[5001] = {};
    }
    for (uint32_t unit = 0; unit < random.below(4) && !policy.lists.empty(); unit++) {
        const std::string name = "eth" + std::to_string(unit);
        const auto list = std::next(policy.lists.begin(), random.below(static_cast<uint32_t>(policy.lists.size())));
        policy.bindings.push_back({name, unitOf(name), list->first});
    }
    return policy;
}

Policy readBack(const std::string &text) {
    PolicyFile file = policyFileRead("p.yaml", text);
    EXPECT_TRUE(file.problems.empty()) << (file.problems.empty() ? "" : file.problems[0]) << "\n" << text;
    for (Binding &binding : file.policy.bindings) {
        binding.unit = unitOf(binding.interface);
    }
    for (auto &[name, list] : file.policy.lists) {
        for (auto &[index, node] : list.nodes) {
            node.outIfUnit = node.outIfName.empty() ? 0 : unitOf(node.outIfName);
        }
    }
    return file.policy;
}

TEST(Export, RandomPoliciesAreReadBackAsTheyAre) {
    for (unsigned seed = 0; seed < 500; seed++) {
        SCOPED_TRACE(seed);
        const Policy policy = randomPolicy(seed);
        const Exported made = exportText(policy);
        const Plan plan = planMake(policy, readBack(made.text), {});
        ASSERT_TRUE(plan.lines.empty()) << plan.lines[0] << "\n" << made.text;
        ASSERT_TRUE(plan.steps.empty());
        ASSERT_TRUE(made.unsaid.empty()) << made.unsaid[0] << "\n" << made.text;
        ASSERT_EQ(made.text.find("\n# "), std::string::npos) << made.text; // nothing to remark
        ASSERT_EQ(exportText(readBack(made.text)).text, made.text);
    }
}

TEST(Export, IsAFileThatAnOperatorWouldWrite) {
    Policy policy;
    policy.acls[1501][10] = aclRuleText(1501, "permit tcp from 10.1.0.0/16 to any port 443");
    policy.acls[3501][10] = aclRuleText(3501, "permit ip from 2001:db8::/32 to any");
    policy.probes["ops/isp-a"] = {"icmp", "198.51.100.1"};
    policy.timeRanges[7] = Schedule{{{0x1f, 28800, 64800}}, {}, {}};
    policy.lists["wan"].name = "wan";
    Node node;
    node.index = 10;
    node.acl = 1501;
    node.ipVersion = 4;
    node.timeRange = 7;
    node.nextHops = {{1, *addressRead("192.0.2.1"), "ops", "isp-a", true}, {2, *addressRead("192.0.2.5"), "", "", true}};
    policy.lists["wan"].nodes[10] = node;
    policy.bindings.push_back({"lan0", 7, "wan"});
    EXPECT_EQ(exportText(policy).text, R"(acls:
  1501:
    10: permit tcp from 10.1.0.0/16 to any port 443
  3501:
    10: "permit ip from 2001:db8::/32 to any"
probes:
  ops/isp-a: {icmp: 198.51.100.1, interval: 1s, timeout: 500ms, down-after: 3, up-after: 1}
time-ranges:
  7: {days: mon-fri, from: "08:00", to: "18:00"}
lists:
  wan:
    10: {acl: 1501, next-hops: [{address: 192.0.2.1, probe: ops/isp-a}, 192.0.2.5], time-range: 7}
bindings:
  lan0: wan
)");
}

TEST(Export, NothingIsAFileToo) {
    EXPECT_EQ(exportText({}).text, "lists: {}\n");
}

// Everything else stays a file that can be applied, and the comments tell what is missing.
TEST(Export, WhatAFileCannotSayIsAComment) {
    Policy policy;
    policy.acls[2500][10] = aclRuleText(2500, "permit ip");
    policy.acls[1501][10] = aclRuleText(1501, "permit ip");
    policy.acls[1502][10] = aclRuleText(1502, "permit ip");
    policy.acls[1502][20] = {"permit something unheard of", std::nullopt};
    Node good, noAction, noRange;
    good.index = 10;
    good.acl = 1501;
    good.ipVersion = 4;
    good.priority = 5;
    noAction.index = 20;
    noRange = good;
    noRange.index = 30;
    noRange.acl = 1502;
    noRange.timeRange = 77;
    policy.lists["wan"] = {"wan", true, {{10, good}, {20, noAction}, {30, noRange}}};
    policy.lists["a b"] = {"a b", true, {{10, noAction}}};
    policy.lists["\xff\xfe"] = {"\xff\xfe", true, {}};
    policy.bindings = {{"eth0", 100, "wan"}, {"eth1", 101, "a b"}};

    const Exported made = exportText(policy);

    const Policy read = readBack(made.text);
    EXPECT_EQ(read.acls.size(), 2u);
    EXPECT_EQ(read.acls.at(1502).size(), 1u);
    ASSERT_EQ(read.lists.size(), 1u) << made.text;
    EXPECT_EQ(read.lists.at("wan").nodes.size(), 1u);
    EXPECT_EQ(read.bindings.size(), 1u);
    EXPECT_EQ(made.text.rfind("# This file does not say all that runs. It cannot say:\n#   \"??\": {} is no text", 0), 0u)
        << made.text;
    for (const char *pTold : {"# Applied where this runs, it would change:\n", "#   ACL 2500 can never be used", "#   - acl 2500\n", "#   - list a b\n",
                              "#     20: {}   # node wan/20: the node has no acl", "time range 77 is not defined"}) {
        EXPECT_NE(made.text.find(pTold), std::string::npos) << pTold << "\n" << made.text;
    }
    EXPECT_GE(made.unsaid.size(), 6u);
}

TEST(Export, PropertiesOfOtherManagementPlanesAreTold) {
    Policy policy;
    policy.acls[1501][10] = aclRuleText(1501, "permit ip");
    Node node;
    node.index = 10;
    node.acl = 1501;
    node.ipVersion = 4;
    node.priority = 5;
    node.forwardFlag = 2;
    policy.lists["wan"] = {"wan", false, {{10, node}}};
    const Exported made = exportText(policy);
    EXPECT_NE(made.text.find("list wan is not active"), std::string::npos) << made.text;
    EXPECT_NE(made.text.find("forward flag 2"), std::string::npos) << made.text;
}

} // namespace
