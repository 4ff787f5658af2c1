// The question that pbrctl explain asks, and the words for the answer.
#include <gtest/gtest.h>

#include "cli/errors.h"
#include "cli/explain.h"

namespace {

using namespace cli;
using nlohmann::json;

ExplainOptions options() {
    ExplainOptions made;
    made.interface = "lan0";
    made.source = "10.1.0.2";
    made.destination = "203.0.113.7";
    return made;
}

TEST(ExplainRequest, TellsWhatWasGivenAndNothingElse) {
    EXPECT_EQ(explainRequest(options(), 7), (json{{"unit", 7}, {"source", "10.1.0.2"}, {"destination", "203.0.113.7"}}));
    ExplainOptions full = options();
    full.protocol = "tcp";
    full.sourcePort = 0;
    full.destinationPort = 443;
    full.flags = "syn,ack";
    full.dscp = "ef";
    full.length = 60;
    full.sourceMac = "02:00:5e:00:53:01";
    full.fragment = true;
    full.mark = "0x300000";
    EXPECT_EQ(explainRequest(full, 7),
              (json{{"unit", 7}, {"source", "10.1.0.2"}, {"destination", "203.0.113.7"}, {"protocol", 6},
                    {"sourcePort", 0}, {"destinationPort", 443}, {"flags", 0x12}, {"dscp", 46}, {"length", 60},
                    {"sourceMac", "02:00:5e:00:53:01"}, {"fragment", true}, {"mark", 0x300000}}));
}

TEST(ExplainRequest, AnIcmpTypeMakesItIcmpOfTheAddresses) {
    ExplainOptions made = options();
    made.type = "echo-request";
    EXPECT_EQ(explainRequest(made, 7)["protocol"], 1);
    EXPECT_EQ(explainRequest(made, 7)["type"], 8);
    made.source = "2001:db8::1";
    EXPECT_EQ(explainRequest(made, 7)["protocol"], 58);
    EXPECT_EQ(explainRequest(made, 7)["type"], 128);
    made.protocol = "icmp";
    EXPECT_EQ(explainRequest(made, 7)["protocol"], 58);
}

TEST(ExplainRequest, RefusesWhatIsNoName) {
    ExplainOptions made = options();
    made.protocol = "tpc";
    EXPECT_THROW((void)explainRequest(made, 7), Usage);
    made = options();
    made.flags = "syn,ak";
    EXPECT_THROW((void)explainRequest(made, 7), Usage);
    made.flags = "none";
    EXPECT_EQ(explainRequest(made, 7)["flags"], 0);
    made.dscp = "fe";
    EXPECT_THROW((void)explainRequest(made, 7), Usage);
}

json policyAnswer() {
    return {{"verdict", "policy"}, {"list", "wan"}, {"node", 10}, {"acl", 1501}, {"rule", 20},
            {"ruleText", "permit ip from any to any"}, {"action", "next-hops"}, {"priority", 0}, {"why", ""},
            {"table", 1000001}, {"notes", json::array()},
            {"paths", {{{"interface", "up2"}, {"gateway", "198.51.100.1"}, {"weight", 1}}}},
            {"hops", {{{"index", 1}, {"address", "192.0.2.1"}, {"why", "unreachable: no answer"}},
                      {{"index", 2}, {"address", "198.51.100.1"}, {"why", ""}}}},
            {"nodes", {{{"list", "wan"}, {"node", 10}, {"acl", 1501}, {"outcome", "matched"}, {"why", ""},
                        {"rules", {{{"rule", 10}, {"text", "deny tcp from any to any"}, {"answer", "miss"}, {"why", "another protocol"}},
                                   {{"rule", 20}, {"text", "permit ip from any to any"}, {"answer", "match"}, {"why", ""}}}}}}}};
}

TEST(ExplainText, TellsWhetherItIsDroppedWhileNothingIsUsable) {
    json answer = policyAnswer();
    answer["paths"] = json::array();
    answer["action"] = "inert";
    answer["why"] = "no usable next hop";
    EXPECT_NE(explainText(answer, false).find("\nrouted as usual: no usable next hop\n"), std::string::npos);
    answer["dropping"] = true;
    EXPECT_NE(explainText(answer, false).find("\ndropped: no usable next hop\n"), std::string::npos);
}

TEST(ExplainText, NamesNodeRuleWayAndWhyNotTheOthers) {
    EXPECT_EQ(explainText(policyAnswer(), false),
              "list wan node 10: ACL 1501 rule 20: permit ip from any to any\n"
              "sent to 198.51.100.1 out of up2 (table 1000001)\n"
              "next hop 1 192.0.2.1: not used: unreachable: no answer\n"
              "next hop 2 198.51.100.1: used\n");
    const std::string rules = "list wan node 10 (ACL 1501): matched\n"
                              "  rule 10 deny tcp from any to any: miss: another protocol\n"
                              "  rule 20 permit ip from any to any: match\n"
                              "list wan node 10: ";
    EXPECT_EQ(explainText(policyAnswer(), true).substr(0, rules.size()), rules);
}

TEST(ExplainText, SaysWhyAPacketIsRoutedAsUsual) {
    json answer = policyAnswer();
    answer["paths"] = json::array();
    answer["hops"] = json::array();
    answer["why"] = "no usable next hop";
    EXPECT_EQ(explainText(answer, false), "list wan node 10: ACL 1501 rule 20: permit ip from any to any\n"
                                          "routed as usual: no usable next hop\n");
    answer = {{"verdict", "normal"}, {"why", "no node matches it"}, {"nodes", json::array()}, {"notes", {"so it is"}}};
    EXPECT_EQ(explainText(answer, false), "routed as usual: no node matches it\nnote: so it is\n");
    answer["verdict"] = "not policy";
    EXPECT_EQ(explainText(answer, false), "not policy, routed as usual: no node matches it\nnote: so it is\n");
    answer = {{"verdict", "unknown"}, {"why", "ACL 1501 rule 10: it asks for the protocol"}, {"nodes", json::array()}};
    EXPECT_EQ(explainText(answer, false), "it cannot be told: ACL 1501 rule 10: it asks for the protocol: give it too\n");
}

TEST(CostText, TellsStepsReasonsAndHowManyMoreThereAre) {
    const json map = {{"kind", "map of ranges"}, {"fields", {"saddr"}}, {"rules", 3}, {"elements", 5}, {"reason", ""}, {"first", json::array()}};
    const json row = {{"kind", "rules compared one by one"}, {"fields", json::array()}, {"rules", 2}, {"elements", 0}, {"reason", "why"},
                      {"first", {{{"node", 7}, {"rule", 5}, {"text", "permit ip from any"}}}}};
    json cost = {{"interface", "lan0"}, {"ipVersion", 4}, {"lists", {"wan"}}, {"flat", true}, {"why", ""}, {"mostLookUps", 1},
                 {"mostRules", 2}, {"steps", {map, row}}, {"routingRules", {{"decisions", 20}, {"steered", 9}, {"unsteered", 3}}}};
    EXPECT_EQ(costText({{"costs", {cost}}}),
              "lan0, IPv4, list wan: at most 1 look-up and 2 rules one by one\n"
              "  map of ranges (saddr): 3 rules in 5 elements\n"
              "  one by one: 2 rules: why\n"
              "    node 7 rule 5: permit ip from any\n"
              "    and 1 more\n"
              "  decisions: 20; at most 9 routing rules for a packet that is steered, 3 for any other of this IP version, on any interface\n");
    cost["flat"] = false;
    cost["why"] = "the kernel refused the maps: no";
    EXPECT_NE(costText({{"costs", {cost}}}).find("  no maps: the kernel refused the maps: no\n  one by one: 3 rules\n"), std::string::npos);
    EXPECT_EQ(costText({{"costs", json::array()}}), "no list is bound to an interface\n");
}

} // namespace
