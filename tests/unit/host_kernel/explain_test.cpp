// What is said of a packet is what happens to it: random packets against random policies, with real packets
// in both families; and what is said of packets that no policy concerns.
#include "packet_world.h"

#include <algorithm>
#include <cstdlib>
#include <random>

#include <nlohmann/json.hpp>

namespace kernel_test {
namespace {

using namespace host;
using Json = nlohmann::json;

constexpr int POLICIES = 25, PACKETS = 12; // of each family

// A packet, and the same one for the question.
struct Both {
    Packet real;
    PacketQuestion asked;
};

class ExplainTest : public PacketTest {
protected:
    void SetUp() override {
        PacketTest::SetUp();
        lanMac_ = macOf(lan_, "lan0-far");
    }

    uint32_t any(uint32_t count) { return static_cast<uint32_t>(random_() % count); }
    template <class Value> Value oneOf(const std::vector<Value> &values) { return values[any(static_cast<uint32_t>(values.size()))]; }

    // Everything from few values, so that rules and packets meet.
    std::string source() { return (v6() ? "fd01::" : "10.1.0.") + std::to_string(2 + any(6)); }
    std::string destination() { return (v6() ? "fd99::" : "203.0.113.") + std::to_string(10 + any(6)); }

    std::string end(bool isSource) {
        const std::string at = isSource ? source() : destination();
        switch (any(5)) {
        case 0: return at;
        case 1: return isSource ? (v6() ? "fd01::4/126" : "10.1.0.4/30") : (v6() ? "fd99::14/127" : "203.0.113.12/31");
        case 2: return isSource ? (v6() ? "fd01::1 mask ::fffe" : "10.1.0.1 mask 0.0.0.254")
                                : (v6() ? "fd99:: mask ::fffe" : "203.0.113.0 mask 0.0.0.254");
        default: return "any";
        }
    }

    std::string ports() { return any(3) != 0 ? "" : " port " + oneOf<std::string>({"100", "101-102", "0-100", "102-65535"}); }

    std::string rule() {
        const std::string protocol = oneOf<std::string>({"ip", "tcp", "udp", "icmp", "47", "sctp"});
        const bool hasPorts = protocol == "tcp" || protocol == "udp" || protocol == "sctp";
        const std::string from = end(true), to = end(false);
        const std::string head = std::string(any(3) == 0 ? "deny " : "permit ") + protocol;
        if (any(8) == 0) {
            return head + " from " + from + " to " + to + " fragments";
        }
        std::string text = head + " from " + from + (hasPorts ? ports() : "") + " to " + to + (hasPorts ? ports() : "");
        if (protocol == "tcp" && any(2) == 0) {
            text += oneOf<std::string>({" established", " flags syn", " flags syn,!ack", " flags !fin established"});
        }
        if (protocol == "icmp" && any(2) == 0) {
            text += oneOf<std::string>({" type 3", " type 3 code 1", " type echo-request", " type echo-reply code 0"});
        }
        if (any(5) == 0) {
            text += oneOf<std::string>({" dscp ef", " dscp 0", " precedence 5", " precedence 0"});
        }
        if (any(6) == 0) {
            text += oneOf<std::string>({" length 60-90", " length 84", " length 100-2000"});
        }
        return any(8) == 0 ? text + " source-mac 02:00:5e:00:53:01" : text;
    }

    // Rules of one form or two, so that maps come out of them: ranges or single values, with overlaps and denials.
    void formChoose() {
        form_.protocol = oneOf<std::string>({"ip", "tcp", "udp", "icmp"});
        form_.from = any(2) == 0;
        form_.to = any(2) == 0;
        form_.fromPort = any(2) == 0;
        form_.toPort = any(3) != 0;
        form_.isSingle = any(3) == 0;
        form_.more = any(6);
    }

    std::string formedRule() {
        const bool hasPorts = form_.protocol == "tcp" || form_.protocol == "udp";
        const auto address = [&](bool isSource) {
            const std::string at = isSource ? source() : destination();
            if (form_.isSingle) {
                return at;
            }
            return oneOf<std::string>({at, isSource ? (v6() ? "fd01::4/126" : "10.1.0.4/30") : (v6() ? "fd99::10/125" : "203.0.113.8/29"),
                                       isSource ? (v6() ? "fd01::/64" : "10.1.0.0/16") : (v6() ? "fd99::14/127" : "203.0.113.12/31")});
        };
        const auto port = [&] {
            const uint32_t first = 99 + any(5);
            return " port " + std::to_string(first) + (form_.isSingle || any(2) == 0 ? "" : "-" + std::to_string(first + any(4)));
        };
        std::string text = std::string(any(4) == 0 ? "deny " : "permit ") + form_.protocol + " from " + (form_.from ? address(true) : "any") +
                           (form_.fromPort && hasPorts ? port() : "") + " to " + (form_.to ? address(false) : "any") +
                           (form_.toPort && hasPorts ? port() : "");
        text += form_.protocol == "icmp" ? oneOf<std::string>({" type 3 code 0", " type 3 code 1", " type 8 code 0", " type 128 code 2"}) : "";
        switch (form_.more) {
        case 0: return text + oneOf<std::string>({" dscp ef", " dscp 0", " precedence 5", " precedence 0"});
        case 1: return text + oneOf<std::string>({" length 60-70", " length 84", " length 65-2000"});
        case 2: return text + oneOf<std::string>({" source-mac 02:00:5e:00:53:01", " source-mac 02:00:5e:00:53:02"});
        default: return text;
        }
    }

    void formedPolicy() {
        world_.unbind("wan", "lan0");
        formChoose();
        const uint32_t nodes = 4 + any(12);
        for (uint32_t node = 1; node <= nodes; node++) {
            std::vector<std::string> rules;
            for (uint32_t i = 1 + any(3); i > 0; i--) {
                rules.push_back(any(12) == 0 ? rule() : formedRule());
            }
            world_.acl(acl(10 + node), rules);
            world_.nextHops("wan", "lan0", node, acl(10 + node), {any(2) == 0 ? hop1() : hop2()});
        }
        store();
    }

    // What each rule counted, by node and rule number, as the kernel says.
    std::map<std::pair<uint32_t, uint32_t>, uint64_t> countedByRule() {
        std::map<std::pair<uint32_t, uint32_t>, uint64_t> counts;
        const Json counters = device().policyCounters()["counters"];
        for (const Json &node : counters) {
            for (const Json &rule : node["rules"]) {
                counts[{node["node"].get<uint32_t>(), rule["rule"].get<uint32_t>()}] += rule["packets"].get<uint64_t>();
            }
        }
        return counts;
    }

    void policy() {
        for (uint32_t node = 10; node <= 40; node += 10) {
            const uint32_t number = oneOf<uint32_t>({acl(node), 5000 + node});
            std::vector<std::string> rules(1 + any(4));
            std::generate(rules.begin(), rules.end(), [this] { return rule(); });
            if (number > 5000) { // an ACL of either version must tell the version of its ICMP and lengths
                std::erase_if(rules, [&](const std::string &text) {
                    return text.find("icmp") != std::string::npos || text.find("length") != std::string::npos;
                });
            }
            world_.acl(number, rules);
            switch (any(6)) {
            case 0: world_.kind("wan", "lan0", node, number, PBR_REDIRECT_INERT, 0, v6() ? 2 : 1); break;
            case 1: world_.kind("wan", "lan0", node, number, PBR_REDIRECT_ABSENT); break;
            case 2: world_.nextHops("wan", "lan0", node, number, {hop1()}); break;
            default: world_.nextHops("wan", "lan0", node, number, {hop2()});
            }
        }
        store();
    }

    Both packet() {
        Both both;
        Packet &real = both.real;
        aclrule::AclPacket &asked = both.asked.packet;
        real.version = asked.version = GetParam();
        real.source = source();
        real.destination = destination();
        real.protocol = oneOf<uint8_t>({6, 17, static_cast<uint8_t>(v6() ? 58 : 1), 47, 132});
        real.tos = oneOf<uint8_t>({0, 0, 0xb8, 0xa0, 0x1c});
        const uint16_t from = static_cast<uint16_t>(99 + any(5)), to = static_cast<uint16_t>(99 + any(5));
        const uint8_t flags = oneOf<uint8_t>({0x02, 0x12, 0x10, 0x04, 0x11, 0});
        const uint8_t type = oneOf<uint8_t>({3, 8, 0, 128, 129}), code = static_cast<uint8_t>(any(3));
        if (real.protocol == 6) {
            real.payload = tcpPayload(flags, from, to);
            asked.flags = flags;
        } else if (real.protocol == 1 || real.protocol == 58) {
            real.payload = icmpPayload(type, code);
            asked.icmpType = type;
            asked.icmpCode = code;
        } else {
            real.payload = portsPayload(from, to, oneOf<size_t>({24, 40, 64, 200}));
        }
        if (real.protocol == 6 || real.protocol == 17 || real.protocol == 132) {
            asked.sourcePort = from;
            asked.destinationPort = to;
        }
        if (any(6) == 0) {
            real.offset = 1480;
            real.id = 1000 + any(100000);
            asked.isLaterFragment = true;
        }
        if (any(3) == 0) {
            real.sourceMac = {0x02, 0x00, 0x5e, 0x00, 0x53, 0x01};
        }
        asked.source = address(real.source);
        asked.destination = address(real.destination);
        asked.protocol = real.protocol;
        asked.dscp = real.tos >> 2;
        asked.sourceMac = real.sourceMac == AclMac{} ? lanMac_ : real.sourceMac;
        asked.length = static_cast<uint32_t>(packetBytes(real).size());
        both.asked.ifUnit = unitOf("lan0");
        return both;
    }

    // Packets that each node's permit rules counted, as the kernel says.
    std::map<uint32_t, uint64_t> counted() {
        std::map<uint32_t, uint64_t> byNode;
        const Json entries = device().show()["entries"];
        for (const Json &entry : entries) {
            byNode[entry["node"].get<uint32_t>()] += entry["packets"].get<uint64_t>();
        }
        return byNode;
    }

    static int uplinkSaid(const Json &said) {
        const bool isSteered = said["verdict"] == "policy" && !said["paths"].empty();
        return isSteered && said["paths"][0]["interface"] == "up2" ? 2 : 1;
    }

    struct {
        std::string protocol;
        bool from = false, to = false, fromPort = false, toPort = false, isSingle = false;
        uint32_t more = 0;
    } form_;
    std::mt19937 random_{getenv("PBR_SEED") == nullptr ? 20240611u : static_cast<uint32_t>(atoi(getenv("PBR_SEED")))};
    AclMac lanMac_{};
};

TEST_P(ExplainTest, WhatIsSaidOfRandomPacketsHappensToThem) {
    device();
    std::map<std::string, int> verdicts;
    for (int made = 0; made < POLICIES; made++) {
        policy();
        for (int sent = 0; sent < PACKETS; sent++) {
            const Both both = packet();
            const Json said = device().explain(both.asked);
            std::map<uint32_t, uint64_t> expected = counted();
            if (said["verdict"] == "policy") {
                expected[said["node"].get<uint32_t>()]++;
            }
            const int uplink = uplinkOf(both.real);
            ASSERT_NE(said["verdict"], "unknown") << said.dump(1);
            ASSERT_EQ(uplink, uplinkSaid(said)) << said.dump(1) << nft();
            ASSERT_EQ(counted(), expected) << said.dump(1) << nft();
            verdicts[said["verdict"].get<std::string>() + std::to_string(uplink)]++;
        }
    }
    EXPECT_GT(verdicts["policy2"], 30);
    EXPECT_GT(verdicts["policy1"], 30);
    EXPECT_GT(verdicts["normal1"], 30);
}

TEST_P(ExplainTest, WhatIsSaidHappensWhereRulesAreLookedUpInMaps) {
    world_.options.mapFrom = 2;
    device();
    std::map<std::string, int> verdicts, maps;
    for (int made = 0; made < 2 * POLICIES; made++) {
        formedPolicy();
        quiet();
        ASSERT_EQ(device().counters().driftRepaired, 0u) << "what is read back is what was told";
        const std::string table = nft();
        for (const char *pKind : {"/hash.", "/range.", "/ranges."}) {
            maps[pKind] += table.find(pKind) != std::string::npos;
        }
        for (int sent = 0; sent < PACKETS; sent++) {
            const Both both = packet();
            const Json said = device().explain(both.asked);
            auto expected = countedByRule();
            for (const Json &node : said["nodes"]) {
                if (node["outcome"] == "matched" || node["outcome"] == "denied") {
                    expected[{node["node"].get<uint32_t>(), node["rules"].back()["rule"].get<uint32_t>()}]++;
                }
            }
            const int uplink = uplinkOf(both.real);
            ASSERT_NE(said["verdict"], "unknown") << said.dump(1);
            ASSERT_EQ(uplink, uplinkSaid(said)) << said.dump(1) << table;
            ASSERT_EQ(countedByRule(), expected) << said.dump(1) << table;
            verdicts[said["verdict"].get<std::string>() + std::to_string(uplink)]++;
        }
    }
    for (const char *pKind : {"/hash.", "/range.", "/ranges."}) {
        EXPECT_GT(maps[pKind], 1) << pKind;
    }
    EXPECT_GT(verdicts["policy2"], 15);
    EXPECT_GT(verdicts["policy1"], 15);
    EXPECT_GT(verdicts["normal1"], 15);
}

TEST_P(ExplainTest, TellsTheRuleThatDecidesAndWhyTheOthersDoNot) {
    world_.nextHops("wan", "lan0", 10, acl(1), {hop1()});
    world_.kind("wan", "lan0", 15, acl(1), PBR_REDIRECT_ABSENT);
    world_.nextHops("wan", "lan0", 20, acl(2), {hop2()});
    device();
    store();
    Both both = packet();
    both.asked.packet.isLaterFragment = false;
    both.asked.packet.protocol = 17;
    both.asked.packet.destinationPort = 6000;
    const Json said = device().explain(both.asked);
    EXPECT_EQ(said["verdict"], "policy");
    EXPECT_EQ(said["node"], 20);
    EXPECT_EQ(said["rule"], 10);
    EXPECT_EQ(said["paths"], Json::array({{{"interface", "up2"}, {"gateway", hop2()}, {"weight", 1}}}));
    ASSERT_EQ(said["nodes"].size(), 3u);
    EXPECT_EQ(said["nodes"][0]["outcome"], "denied");
    EXPECT_EQ(said["nodes"][1]["outcome"], "left out");
    EXPECT_EQ(said["nodes"][2]["outcome"], "matched");
    both.asked.packet.destinationPort = 6001;
    const Json other = device().explain(both.asked);
    EXPECT_EQ(other["nodes"][0]["rules"][0]["why"], "another destination port");
    EXPECT_EQ(other["node"], 10);
    EXPECT_EQ(other["rule"], 20);
}

TEST_P(ExplainTest, SaysWhichPacketsNoPolicyConcerns) {
    world_.acl(5001, {"permit ip from any"});
    world_.nextHops("wan", "lan0", 10, 5001, {hop2()});
    device();
    store();
    Both both = packet();
    EXPECT_EQ(device().explain(both.asked)["verdict"], "policy");
    const auto whyOf = [&](const PacketQuestion &question) {
        const Json said = device().explain(question);
        EXPECT_EQ(said["verdict"], "not policy");
        return said["why"].get<std::string>();
    };
    PacketQuestion question = both.asked;
    question.packet.destination = address(routerAddress());
    EXPECT_EQ(whyOf(question), "its destination is an address of this machine");
    question.packet.destination = address(v6() ? "ff02::1" : "224.0.0.1");
    EXPECT_EQ(whyOf(question), "its destination is a multicast address");
    question = both.asked;
    question.mark = 0x00300000;
    EXPECT_EQ(whyOf(question), "it carries a mark in our field already");
    question.mark = 0x0000ffff;
    EXPECT_EQ(device().explain(question)["verdict"], "policy") << "bits of others";
    question = both.asked;
    question.ifUnit = unitOf("up1");
    EXPECT_EQ(whyOf(question), "no list is bound to the interface");
}

TEST_P(ExplainTest, SaysWhyADecidingNodeRoutesAsUsual) {
    world_.acl(5001, {"permit ip from any"});
    world_.nextHops("wan", "lan0", 10, 5001, {hop2()});
    world_.noRoute(hop2());
    device();
    store();
    const Json said = device().explain(packet().asked);
    EXPECT_EQ(said["verdict"], "policy");
    EXPECT_EQ(said["paths"], Json::array());
    EXPECT_EQ(said["why"], "no route to next hop " + hop2());
}

INSTANTIATE_TEST_SUITE_P(Families, ExplainTest, ::testing::Values(4, 6),
                         [](const auto &family) { return "Ipv" + std::to_string(family.param); });

} // namespace
} // namespace kernel_test
