// Whether the device notices that kernel, store and itself do not agree, without repairing first.
#include "world.h"

namespace kernel_test {
namespace {

using namespace host;

class CheckTest : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        cable("lan0", far_, {"10.1.0.1/16", "fd01::1/64"}, {});
        cable("up1", far_, {"192.0.2.254/24", "fd02::fe/64"}, {});
        world_.acl(1501, {"permit udp from any to any port 5000"});
        world_.acl(3501, {"permit udp from any to any port 5000"});
        world_.route("192.0.2.1", "up1");
        world_.route("fd02::1", "up1");
        world_.route("0.0.0.0", "up1", "192.0.2.1");
        world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
        world_.nextHops("wan", "lan0", 20, 3501, {"fd02::1"});
    }

    // The answer of a check; the store gets its turn when the device asks for it.
    nlohmann::json checked() {
        if (!device_) {
            start();
        }
        nlohmann::json answer;
        asked_ = 0;
        device_->check([&](nlohmann::json given) { answer = std::move(given); });
        EXPECT_EQ(asked_, 1);
        EXPECT_TRUE(answer.is_null()) << "before the store had its turn";
        device_->storeCompare();
        world_.loop.runPosts();
        return answer;
    }

    void start() {
        KernelDeviceHooks hooks = world_.hooks();
        hooks.askStore = [this] { asked_++; };
        hooks.now = [this] { return now_; };
        device_ = std::make_unique<KernelDevice>(std::move(hooks));
        ASSERT_EQ(device_->start(), "");
        world_.loop.runPosts();
        device_->storeChanged();
    }

    static std::string textsOf(const nlohmann::json &notices) {
        std::string texts;
        for (const nlohmann::json &notice : notices) {
            texts += notice["code"].get<std::string>() + ": " + notice["text"].get<std::string>() + "\n";
        }
        return texts;
    }

    Net far_;
    int asked_ = 0;
    std::chrono::steady_clock::time_point now_{};
};

TEST_F(CheckTest, APolicyThatIsInstalledAgreesInAllThreePlaces) {
    const nlohmann::json answer = checked();
    EXPECT_EQ(textsOf(answer["differences"]), "");
    EXPECT_EQ(answer["entries"], 2);
    EXPECT_EQ(answer["interfaces"], 1);
    EXPECT_EQ(answer["repairs"], 0);
    EXPECT_EQ(answer["compared"], true);
}

TEST_F(CheckTest, NothingBoundAgreesToo) {
    world_.view.lists.clear();
    const nlohmann::json answer = checked();
    EXPECT_EQ(textsOf(answer["differences"]), "");
    EXPECT_EQ(answer["entries"], 0);
}

TEST_F(CheckTest, WhatSomebodyRemovedIsNamedBeforeItIsRepaired) {
    start();
    quiet();
    run("ip rule del pref 15000");
    EXPECT_NE(textsOf(checked()["differences"]).find("IPv4 rule 15000 is missing"), std::string::npos);
    EXPECT_EQ(ourRules(4).size(), 0u) << "a check repairs nothing by itself";
    quiet();
    EXPECT_EQ(ourRules(4).size(), 1u);
    const nlohmann::json answer = checked();
    EXPECT_EQ(textsOf(answer["differences"]), "");
    EXPECT_EQ(answer["repairs"], 1);
}

TEST_F(CheckTest, EachKindOfObjectThatIsMissingIsNamed) {
    start();
    const std::pair<const char *, const char *> damages[] = {
        {"nft flush chain inet policyroute do4/wan/10", "chain do4/wan/10 holds other rules"},
        {"nft add chain inet policyroute strange", "chain strange should not be there"},
        {"nft delete table inet policyroute", "table inet policyroute is missing"},
        {"ip -6 route del default table 1000001 metric 1", "the IPv6 default route of table 1000001 with metric 1 is missing"},
        {"ip nexthop del id 206000001", "next hop 206000001 (via 192.0.2.1) is missing"},
        {"nft add rule inet policyroute prerouting accept", "chain prerouting holds other rules"}};
    for (const auto &[pCommand, pText] : damages) {
        quiet();
        ASSERT_EQ(textsOf(checked()["differences"]), "") << "before " << pCommand;
        run(pCommand);
        EXPECT_NE(textsOf(checked()["differences"]).find(pText), std::string::npos)
            << pCommand << "\n" << textsOf(checked()["differences"]);
    }
}

TEST_F(CheckTest, AnEntryThatTheKernelRefusesIsListed) {
    world_.kind("wan", "lan0", 10, 1501, PBR_REDIRECT_PRIORITY_ONLY, 12);
    const std::string texts = textsOf(checked()["differences"]);
    EXPECT_NE(texts.find("refused: list wan node 10 on lan0: priority 12 cannot be set"), std::string::npos) << texts;
}

TEST_F(CheckTest, AStoreThatChangedWithoutAMarkIsToldAndThenFollowed) {
    start();
    world_.nextHops("wan", "lan0", 30, 1502, {"192.0.2.1"});
    world_.marked.clear();
    const std::string texts = textsOf(checked()["differences"]);
    EXPECT_NE(texts.find("store: list wan: the device did not follow"), std::string::npos) << texts;
    EXPECT_EQ(textsOf(checked()["differences"]), "");
}

TEST_F(CheckTest, AStoreThatNeverGetsItsTurnIsADifference) {
    start();
    nlohmann::json answer;
    device_->check([&](nlohmann::json given) { answer = std::move(given); });
    world_.loop.advance(STORE_WAIT_MS - std::chrono::milliseconds(1));
    EXPECT_TRUE(answer.is_null());
    world_.loop.advance(std::chrono::milliseconds(1));
    EXPECT_EQ(answer["differences"][0]["code"], "store");
}

TEST_F(CheckTest, APolicyOfAnEarlierRunIsToldAsHeld) {
    start();
    KernelDeviceHooks hooks = world_.hooks();
    device_ = std::make_unique<KernelDevice>(std::move(hooks));
    ASSERT_EQ(device_->start(), "");
    nlohmann::json answer;
    device_->check([&](nlohmann::json given) { answer = std::move(given); });
    device_->storeCompare();
    world_.loop.runPosts();
    EXPECT_EQ(answer["differences"][0]["code"], "held");
}

TEST_F(CheckTest, ForwardingThatIsOffIsWarnedOfAsTheKernelHasIt) {
    router_->sysctl("ipv4/ip_forward", "0");
    router_->sysctl("ipv6/conf/all/forwarding", "0");
    const std::string off = textsOf(checked()["warnings"]);
    EXPECT_NE(off.find("this machine forwards no IPv4 packets"), std::string::npos) << off;
    EXPECT_NE(off.find("this machine forwards no IPv6 packets"), std::string::npos) << off;
    router_->sysctl("ipv4/ip_forward", "1");
    router_->sysctl("ipv6/conf/all/forwarding", "1");
    EXPECT_EQ(textsOf(checked()["warnings"]), "");
    router_->sysctl("ipv4/conf/lan0/forwarding", "0");
    const std::string one = textsOf(checked()["warnings"]);
    EXPECT_EQ(one, "forwarding-off: IPv4 packets that come in through lan0 are not forwarded\n");
}

TEST_F(CheckTest, AStrictReversePathFilterIsWarnedOfWhereAnswersComeAnotherWay) {
    router_->sysctl("ipv4/conf/all/rp_filter", "0");
    router_->sysctl("ipv4/conf/up1/rp_filter", "1");
    EXPECT_EQ(textsOf(checked()["warnings"]), "") << "the routing table leads back there";
    cable("up2", far_, {"198.51.100.254/24"}, {});
    world_.route("0.0.0.0", "up2", "198.51.100.1");
    const std::string texts = textsOf(checked()["warnings"]);
    EXPECT_NE(texts.find("reverse-path: answers that come in through up1"), std::string::npos) << texts;
    router_->sysctl("ipv4/conf/all/rp_filter", "2");
    EXPECT_EQ(textsOf(checked()["warnings"]), "") << "the greater value counts, and 2 is loose";
}

TEST_F(CheckTest, MarksThatAreReflectedAreWarnedOf) {
    router_->sysctl("ipv6/fwmark_reflect", "1");
    const std::string one = textsOf(checked()["warnings"]);
    EXPECT_EQ(one.find("errors-steered: ICMP errors of this machine for steered IPv6 packets leave by the policy's way"), 0u)
        << one;
    router_->sysctl("ipv4/fwmark_reflect", "1");
    const std::string both = textsOf(checked()["warnings"]);
    EXPECT_NE(both.find("steered IPv4 packets"), std::string::npos) << both;
    router_->sysctl("ipv4/fwmark_reflect", "0");
    router_->sysctl("ipv6/fwmark_reflect", "0");
    EXPECT_EQ(textsOf(checked()["warnings"]), "");
}

TEST_F(CheckTest, RulesOfOthersThatMeetOursAreWarnedOf) {
    world_.defaultTables.insert(254);
    run("ip rule add pref 20000 fwmark 0x00300000/0x00f00000 lookup 77");
    run("ip rule add pref 20001 fwmark 0x5/0xff lookup 77");
    run("ip rule add pref 900 lookup main suppress_prefixlength 0");
    run("ip rule add pref 901 from 10.0.0.0/8 lookup main");
    run("ip rule add pref 902 iif up1 lookup main");
    const std::string texts = textsOf(checked()["warnings"]);
    EXPECT_EQ(texts, "mark-overlap: IPv4 rule 20000 of another program looks at mark bits 0xf00000, which are ours "
                     "(host.mark-mask 0xfff00000)\n");
    run("ip rule add pref 14000 lookup 77"); // leads nowhere: asked and passed
    EXPECT_EQ(textsOf(checked()["warnings"]), texts);
    world_.defaultTables.insert(77);
    EXPECT_NE(textsOf(checked()["warnings"]).find("rule-before: IPv4 rule 14000"), std::string::npos);
    run("ip rule add pref 903 iif lan0 lookup main");
    EXPECT_NE(textsOf(checked()["warnings"]).find("rule-before: IPv4 rule 903 of another program takes every packet from lan0"),
              std::string::npos);
    run("ip -6 rule add pref 14001 unreachable");
    const std::string more = textsOf(checked()["warnings"]);
    EXPECT_NE(more.find("rule-before: IPv6 rule 14001 of another program takes every packet"), std::string::npos) << more;
}

TEST_F(CheckTest, ANextHopWhoseInterfaceIsDownAndThatIsReachedElsewhereIsWarnedOf) {
    start();
    cable("up2", far_, {"198.51.100.254/24"}, {});
    run("ip link set up1 down");
    world_.route("192.0.2.1", "up2", "198.51.100.1");
    device_->worldChanged();
    const std::string texts = textsOf(checked()["warnings"]);
    EXPECT_NE(texts.find("next-hop-elsewhere: list wan node 10: next hop 192.0.2.1 belongs to up1, which is down; its "
                         "packets leave through up2 now"),
              std::string::npos) << texts;
}

TEST_F(CheckTest, AProgramThatRemovesOurObjectsAgainAndAgainIsWarnedOf) {
    start();
    for (uint32_t i = 0; i <= SURROUNDINGS_REPAIRS_MOST; i++) {
        EXPECT_EQ(textsOf(checked()["warnings"]), "");
        now_ += std::chrono::seconds(10);
        run("nft delete table inet policyroute");
        quiet();
    }
    EXPECT_NE(textsOf(checked()["warnings"]).find("repaired-often"), std::string::npos);
    now_ += std::chrono::seconds(60);
    EXPECT_EQ(textsOf(checked()["warnings"]), "");
}

TEST_F(CheckTest, RulesWithFragmentsNeverMatchWhereAnotherProgramTracksConnections) {
    world_.acl(1501, {"permit udp from any to any port 5000", "permit udp from any to any fragments"});
    EXPECT_EQ(textsOf(checked()["warnings"]), "");
    EXPECT_EQ(device_->show()["defrag"], "off");
    run("nft 'add table ip6 six; add chain ip6 six c; add rule ip6 six c ct state new'");
    EXPECT_EQ(textsOf(checked()["warnings"]), "") << "IPv6 only";
    run("nft 'add table ip others; add chain ip others c; add rule ip others c counter accept'");
    EXPECT_EQ(textsOf(checked()["warnings"]), "") << "tracks nothing";
    run("nft 'add rule ip others c ct state established accept'");
    EXPECT_EQ(textsOf(checked()["warnings"]),
              "never-fragments: list wan node 10: ACL 1501 rule 20 asks for fragments and never matches: nftables table ip "
              "others tracks connections, for which the kernel puts fragments together first\n");
    run("nft delete table ip others");
    EXPECT_EQ(textsOf(checked()["warnings"]), "");
    run("nft 'add table inet nat; add chain inet nat p { type nat hook postrouting priority 100; }; "
        "add rule inet nat p oifname up1 masquerade'");
    EXPECT_NE(textsOf(checked()["warnings"]).find("nftables table inet nat"), std::string::npos);
}

TEST_F(CheckTest, WhereFragmentsArePutTogetherByUsTheDeviceSaysSo) {
    world_.options.defrag = true;
    run("nft 'add table ip others; add chain ip others c; add rule ip others c ct state established accept'");
    EXPECT_EQ(textsOf(checked()["warnings"]), "");
    EXPECT_EQ(device_->show()["defrag"], "on");
}

// ---- judging alone ----

Surroundings healthy() {
    Surroundings around;
    around.bound = {{"lan0", {true, true}, 1}};
    around.uplinks = {{"up1", 0, false}};
    around.forwarding4 = around.forwarding6 = 1;
    around.rpFilterAll = 0;
    around.markMask = 0xfff00000;
    around.lastPreference[0] = around.lastPreference[1] = 15003;
    return around;
}

std::vector<std::string> codesOf(const Surroundings &around) {
    std::vector<std::string> codes;
    for (const DeviceNotice &notice : surroundingsJudge(around)) {
        EXPECT_FALSE(notice.advice.empty()) << notice.text;
        codes.push_back(notice.code);
    }
    return codes;
}

TEST(SurroundingsTest, WhereNothingIsWrongNothingIsSaid) { EXPECT_EQ(codesOf(healthy()), std::vector<std::string>{}); }

TEST(SurroundingsTest, TheReversePathFilterIsTheGreaterOfTwoValues) {
    for (const int all : {0, 1, 2}) {
        for (const int own : {0, 1, 2}) {
            Surroundings around = healthy();
            around.rpFilterAll = all;
            around.uplinks[0].rpFilter = own;
            EXPECT_EQ(codesOf(around).size(), std::max(all, own) == 1 ? 1u : 0u) << all << own;
            around.uplinks[0].isDefaultWay = true;
            EXPECT_EQ(codesOf(around).size(), 0u);
        }
    }
}

TEST(SurroundingsTest, ForwardingMattersOnlyToFamiliesThatAreSteered) {
    Surroundings around = healthy();
    around.forwarding6 = 0;
    EXPECT_EQ(codesOf(around), std::vector<std::string>{"forwarding-off"});
    around.bound[0].families[1] = false;
    EXPECT_EQ(codesOf(around), std::vector<std::string>{});
    around.forwarding4 = std::nullopt;
    EXPECT_EQ(codesOf(around), std::vector<std::string>{}) << "what cannot be read is not called off";
}

TEST(SurroundingsTest, ReflectedMarksMatterOnlyToFamiliesThatAreSteered) {
    Surroundings around = healthy();
    around.reflect4 = around.reflect6 = 0;
    EXPECT_EQ(codesOf(around), std::vector<std::string>{});
    around.reflect4 = around.reflect6 = 1;
    EXPECT_EQ(codesOf(around), (std::vector<std::string>{"errors-steered", "errors-steered"}));
    around.bound[0].families[0] = false;
    EXPECT_EQ(codesOf(around), std::vector<std::string>{"errors-steered"});
    around.reflect6 = std::nullopt;
    EXPECT_EQ(codesOf(around), std::vector<std::string>{}) << "what cannot be read is not called on";
}

TEST(SurroundingsTest, OnlyARuleBeforeOursTakesPacketsFromUs) {
    Surroundings around = healthy();
    around.rules = {{4, 15002, 0, 0, 254, true, ""}, {4, 15003, 0, 0, 254, true, ""}, {6, 1, 0, 0, 254, false, ""},
                    {4, 5, 0, 0, 254, true, "other0"}};
    EXPECT_EQ(codesOf(around), std::vector<std::string>{"rule-before"});
    around.lastPreference[0] = 0;
    EXPECT_EQ(codesOf(around), std::vector<std::string>{}) << "we have no rule that could be missed";
}

TEST(SurroundingsTest, ARuleAmongOursCostsTimeWhereGotosWouldLeadPastIt) {
    Surroundings around = healthy();
    around.firstPreference[0] = 15000;
    around.rules = {{4, 14999, 9, 15, 77, false, ""}, {4, 15000, 9, 15, 77, false, ""}, {4, 15002, 9, 15, 77, false, ""},
                    {4, 15003, 9, 15, 77, false, ""}, {6, 15001, 9, 15, 77, false, ""}};
    EXPECT_EQ(codesOf(around), (std::vector<std::string>{"rule-among", "rule-among"}));
    around.firstPreference[0] = 0;
    EXPECT_EQ(codesOf(around), std::vector<std::string>{});
}

TEST(SurroundingsTest, ARemoteNextHopOfAWorkingNetworkIsInOrder) {
    Surroundings around = healthy();
    around.addresses = {{7, "up2", false, 4, address("198.51.100.254"), 24}};
    around.hops = {{"wan", 10, 4, address("192.0.2.1"), true, "up1"}, {"wan", 20, 4, address("198.51.100.1"), false, "up2"}};
    EXPECT_EQ(codesOf(around), std::vector<std::string>{});
    around.hops[1].hasGateway = true;
    around.hops[1].ifName = "up1";
    EXPECT_EQ(codesOf(around), std::vector<std::string>{"next-hop-elsewhere"});
}

} // namespace
} // namespace kernel_test
