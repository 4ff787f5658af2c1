// The device on a real kernel, in a namespace of its own: what it installs, how little it changes, what
// it restores, and whom it leaves alone.
#include "world.h"

#include <algorithm>
#include <poll.h>

#include "host/device/kernel/nft_codec.h"

namespace kernel_test {
namespace {

using namespace host;
using std::chrono::milliseconds;

class ApplyTest : public KernelTest {
protected:
    void SetUp() override {
        KernelTest::SetUp();
        uplinks(far_, {"lan0", "lan1", "up1", "up2"});
        run("ip address add 2001:db8::fe/64 dev up1 nodad");
        world_.acl(1501, {"permit tcp from 10.1.0.0/16 to any port 443", "deny ip from 10.1.9.0/25"});
        world_.acl(1502, {"permit ip from any"});
        world_.acl(3001, {"permit udp from 2001:db8:1::/48 to any port 53-54"});
        world_.acl(5001, {"permit ip from any"});
        world_.route("192.0.2.1", "up1");
        world_.route("192.0.2.2", "up1");
        world_.route("198.51.100.1", "up2");
        world_.route("2001:db8::1", "up1");
        world_.route("2001:db8::2", "up1");
    }

    Net far_; // the other end of every cable

    void TearDown() override {
        if (device_) {
            expectKernelAsModelled();
        }
        KernelTest::TearDown();
    }

    // What the kernel holds is what one who starts now would find installed, nothing more or less.
    void expectKernelAsModelled() {
        quiet();
        const uint64_t repaired = device_->counters().driftRepaired;
        device_->readBack();
        EXPECT_EQ(device_->counters().driftRepaired, repaired);
    }

    uint64_t messages() { return device().counters().kernelMessages; }

    nlohmann::json shown(const std::string &list, uint32_t node, const std::string &ifName = "lan0") {
        const nlohmann::json all = device().show();
        for (const auto &entry : all["entries"]) {
            if (entry["list"] == list && entry["node"] == node && entry["interface"] == ifName) {
                return entry;
            }
        }
        return nullptr;
    }

    nlohmann::json nextHopObjects() {
        nlohmann::json ours = nlohmann::json::array();
        for (const auto &object : json("ip -N -j nexthop show")) {
            if (object["protocol"] == "206") {
                ours.push_back(object);
            }
        }
        return ours;
    }

    std::string routes(uint32_t table, int family = 4) {
        return run("ip -" + std::to_string(family) + " route show table " + std::to_string(table));
    }

    // The kernel notices a carrier on a thread of its own.
    void waitUp(const std::string &name) {
        const auto isUp = [&] { return world_.env().link(unitOf(name))->up; };
        for (int i = 0; i < 2000 && !isUp(); i++) {
            (void)poll(nullptr, 0, 1);
        }
        ASSERT_TRUE(isUp());
    }

    bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }
};

TEST_F(ApplyTest, NothingBoundInstallsNothing) {
    device();
    store();
    EXPECT_EQ(run("nft list ruleset"), "");
    EXPECT_TRUE(ourRules().empty());
    EXPECT_TRUE(nextHopObjects().empty());
}

TEST_F(ApplyTest, OneNextHopIsARuleATableAndANextHopObject) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"}, 5);
    device();
    store();
    const nlohmann::json rules = ourRules();
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_EQ(rules[0]["priority"], 15000);
    EXPECT_EQ(rules[0]["fwmark"], "0x100000");
    EXPECT_EQ(rules[0]["fwmask"], "0xfff00000");
    EXPECT_EQ(rules[0]["table"], "1000001");
    EXPECT_TRUE(has(routes(1000001), "default nhid 206000001 via 192.0.2.1 dev up1")) << routes(1000001);
    EXPECT_TRUE(has(routes(1000001), "throw default")) << routes(1000001);
    const nlohmann::json objects = nextHopObjects();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0]["gateway"], "192.0.2.1");
    EXPECT_EQ(objects[0]["flags"], nlohmann::json::array({"onlink"}));
    EXPECT_TRUE(shown("wan", 10)["installed"].get<bool>());
    EXPECT_EQ(shown("wan", 10)["error"], "");
}

TEST_F(ApplyTest, TheTableReadsWellInNft) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"}, 5);
    world_.nextHops("wan", "lan0", 20, 3001, {"2001:db8::1"});
    device();
    store();
    const std::string text = nft();
    for (const char *pPart : {
             "comment \"policyroute: layout 2\"", "type filter hook prerouting priority mangle - 1; policy accept;",
             "meta nfproto ipv4 iifname vmap @interfaces4", "\"lan0\" : goto in4/lan0", "fib daddr type @local-types accept",
             "elements = { local,", "jump match4/wan/10",
             "ip saddr 10.1.0.0/16 tcp dport 443 counter packets 0 bytes 0 goto do4/wan/10 comment \"acl 1501 rule 10\"",
             "ip saddr 10.1.9.0/25 counter packets 0 bytes 0 return comment \"acl 1501 rule 20\"",
             "ip6 saddr 2001:db8:1::/48 udp dport 53-54 counter packets 0 bytes 0 goto do6/wan/20"}) {
        EXPECT_TRUE(has(text, pPart)) << pPart << "\nin\n" << text;
    }
}

TEST_F(ApplyTest, ASetIsAGroup) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1", "198.51.100.1"});
    world_.nextHops("wan", "lan0", 20, 3001, {"2001:db8::1", "2001:db8::2"});
    device();
    store();
    EXPECT_TRUE(has(routes(1000001), "nhid 206400001")) << routes(1000001);
    EXPECT_TRUE(has(routes(1000001, 6), "nhid 206500001")) << routes(1000001, 6);
    EXPECT_EQ(nextHopObjects().size(), 6u);
}

TEST_F(ApplyTest, AnOutInterfaceIsANextHopObjectWithoutGateway) {
    world_.outIf("wan", "lan0", 10, 5001, "up2");
    device();
    store();
    EXPECT_EQ(ourRules(4).size(), 1u);
    EXPECT_EQ(ourRules(6).size(), 1u);
    EXPECT_TRUE(has(routes(1000001), "default nhid 206000001 dev up2")) << routes(1000001);
    EXPECT_TRUE(has(routes(1000001, 6), "dev up2")) << routes(1000001, 6);
}

TEST_F(ApplyTest, PriorityOnlyNeedsNoRoute) {
    world_.kind("wan", "lan0", 10, 1501, PBR_REDIRECT_PRIORITY_ONLY, 3);
    device();
    store();
    EXPECT_TRUE(ourRules().empty());
    EXPECT_TRUE(has(nft(), "0x60")) << nft();
}

TEST_F(ApplyTest, TheSamePolicyAgainSendsNoMessage) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1", "198.51.100.1"});
    world_.outIf("wan", "lan0", 20, 1502, "up2");
    device();
    store();
    const uint64_t before = messages();
    world_.mark("wan");
    store();
    EXPECT_EQ(device().add(unitOf("lan0"), 1501, nullptr), 0);
    EXPECT_EQ(device().del(unitOf("lan0"), 4711, nullptr), 0);
    EXPECT_EQ(device().settle(), "");
    device().worldChanged();
    quiet();
    EXPECT_EQ(messages(), before);
}

TEST_F(ApplyTest, ADecisionThatExistsCostsOneRule) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"});
    device();
    store();
    quiet();
    const uint64_t before = messages();
    world_.nextHops("wan", "lan0", 10, 1501, {"198.51.100.1"});
    store();
    EXPECT_EQ(messages(), before + 2) << "flush and refill of one action chain";
    quiet();
    EXPECT_EQ(ourRules().size(), 1u);
    EXPECT_EQ(nextHopObjects().size(), 1u);
}

TEST_F(ApplyTest, ANewDecisionIsRoutableBeforePacketsSeeItAndAnOldOneGoesLater) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    quiet();
    world_.nextHops("wan", "lan0", 10, 1501, {"198.51.100.1"});
    store();
    EXPECT_EQ(ourRules().size(), 2u) << "a packet may be between its mark and its look-up";
    quiet();
    ASSERT_EQ(ourRules().size(), 1u);
    EXPECT_EQ(ourRules()[0]["table"], "1000002");
    EXPECT_EQ(routes(1000002).empty(), false);
    EXPECT_FALSE(router_->succeeds("ip route show table 1000001 | grep ."));
}

TEST_F(ApplyTest, TwoListsDoNotDisturbEachOther) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("dmz", "lan1", 10, 1502, {"198.51.100.1"});
    device();
    store();
    world_.unbind("dmz", "lan1");
    store();
    quiet();
    EXPECT_FALSE(has(nft(), "dmz"));
    EXPECT_TRUE(has(nft(), "match4/wan/10"));
    EXPECT_EQ(ourRules().size(), 1u);
}

TEST_F(ApplyTest, OneListOnTwoInterfacesSharesItsChains) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    const uint64_t before = messages();
    world_.nextHops("wan", "lan1", 10, 1501, {"192.0.2.1"});
    store();
    EXPECT_EQ(messages(), before + 4);
    world_.unbind("wan", "lan0");
    store();
    EXPECT_FALSE(has(nft(), "lan0"));
    EXPECT_TRUE(has(nft(), "\"lan1\" : goto in4/lan1"));
}

TEST_F(ApplyTest, TheLastUnbindingLeavesNothing) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1", "198.51.100.1"});
    world_.nextHops("wan", "lan0", 20, 3001, {"2001:db8::1"});
    device();
    store();
    world_.unbind("wan", "lan0");
    store();
    quiet();
    EXPECT_EQ(run("nft list ruleset"), "");
    EXPECT_TRUE(ourRules(4).empty());
    EXPECT_TRUE(ourRules(6).empty());
    EXPECT_TRUE(nextHopObjects().empty());
    EXPECT_EQ(run("ip -j route show table all proto 206"), "[]\n");
}

TEST_F(ApplyTest, ABindingIsToldLinkByLinkBeforeTheViewListsIt) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"});
    auto hooks = world_.hooks();
    bool isListed = false; // the interface joins the list's chain at the end of the binding
    hooks.take = [&, take = hooks.take](DesiredState &state, bool all) {
        return isListed ? take(state, all) : std::vector<std::string>{};
    };
    device_ = std::make_unique<KernelDevice>(hooks);
    ASSERT_EQ(device_->start(), "");
    EXPECT_EQ(device_->add(unitOf("lan0"), 1501, nullptr), 0);
    EXPECT_TRUE(has(nft(), "match4/wan/10"));
    EXPECT_EQ(device_->add(unitOf("lan0"), 1502, nullptr), 0);
    EXPECT_TRUE(has(nft(), "match4/wan/10")) << "the first link stays";
    const uint64_t before = messages();
    isListed = true;
    store();
    EXPECT_EQ(messages(), before);
}

TEST_F(ApplyTest, AnAddMovesAllLinksOfItsNode) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan1", 10, 1501, {"192.0.2.1"});
    device();
    store();
    world_.nextHops("wan", "lan0", 10, 1501, {"198.51.100.1"});
    world_.nextHops("wan", "lan1", 10, 1501, {"198.51.100.1"});
    world_.marked.clear();
    EXPECT_EQ(device().add(unitOf("lan0"), 1501, nullptr), 0);
    const uint64_t before = messages();
    EXPECT_EQ(device().add(unitOf("lan1"), 1501, nullptr), 0);
    EXPECT_EQ(messages(), before);
    EXPECT_FALSE(has(nft(), "match4/wan/10/1")) << nft();
}

TEST_F(ApplyTest, ARunOverWhatTheKernelHoldsTakesTheViewOnceAtItsEnd) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"192.0.2.1"});
    device();
    store();
    world_.mark("wan");
    const int before = world_.takes;
    EXPECT_EQ(device().add(unitOf("lan0"), 1501, nullptr), 0);
    EXPECT_EQ(device().add(unitOf("lan0"), 1502, nullptr), 0);
    EXPECT_EQ(world_.takes, before);
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"});
    EXPECT_EQ(device().add(unitOf("lan0"), 1501, nullptr), 0);
    EXPECT_EQ(world_.takes, before);
    EXPECT_EQ(device().add(unitOf("lan0"), 1502, nullptr), 0);
    EXPECT_EQ(world_.takes, before + 1) << "what differs is taken at once";
    EXPECT_TRUE(shown("wan", 20)["installed"].get<bool>());
}

TEST_F(ApplyTest, ARefusedEntryFailsItsAddAndBlocksNoOther) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"}, 9);
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"});
    device();
    EXPECT_NE(device().add(unitOf("lan0"), 1501, nullptr), 0);
    EXPECT_EQ(device().add(unitOf("lan0"), 1502, nullptr), 0);
    EXPECT_TRUE(has(shown("wan", 10)["error"], "priority 9 cannot be set"));
    EXPECT_FALSE(shown("wan", 10)["installed"].get<bool>());
    EXPECT_TRUE(shown("wan", 20)["installed"].get<bool>());
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"}, 1);
    EXPECT_EQ(device().add(unitOf("lan0"), 1501, nullptr), 0);
}

TEST_F(ApplyTest, ARouteThatTheKernelRefusesFailsItsEntriesAndBlocksNoOther) {
    world_.route("192.0.2.254", "up1"); // our own address is no gateway
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.254"}, 3);
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"});
    device();
    EXPECT_NE(device().add(unitOf("lan0"), 1501, nullptr), 0);
    EXPECT_EQ(device().add(unitOf("lan0"), 1502, nullptr), 0);
    EXPECT_TRUE(has(shown("wan", 10)["error"], "the kernel refused the route")) << shown("wan", 10);
    EXPECT_TRUE(shown("wan", 20)["installed"].get<bool>());
    EXPECT_EQ(shown("wan", 10)["decisions"], nlohmann::json::array({0})) << "routed as usual meanwhile";
    EXPECT_NE(device().settle(), "");
    run("ip address del 192.0.2.254/24 dev up1");
    run("ip address add 192.0.2.253/24 dev up1");
    EXPECT_EQ(device().add(unitOf("lan0"), 1501, nullptr), 0) << "the daemon's retry";
    EXPECT_EQ(device().settle(), "");
}

TEST_F(ApplyTest, AChangedAclIsInstalledAtOnce) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    world_.acl(1501, {"permit udp from 10.7.0.0/16"});
    device().aclChanged(1501);
    EXPECT_TRUE(has(nft(), "ip saddr 10.7.0.0/16 meta l4proto udp")) << nft();
    EXPECT_FALSE(has(nft(), "10.1.0.0"));
    const uint64_t before = messages();
    device().aclChanged(1502);
    EXPECT_EQ(messages(), before);
}

TEST_F(ApplyTest, AnAclThatIsGoneMatchesNothing) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    world_.acls.erase(1501);
    device().aclChanged(1501);
    EXPECT_FALSE(has(nft(), "10.1.0.0"));
    EXPECT_EQ(shown("wan", 10)["reason"], "ACL 1501 does not exist");
}

TEST_F(ApplyTest, ARouteChangeMovesTheNextHop) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    world_.route("192.0.2.1", "up2", "198.51.100.1");
    device().worldChanged();
    quiet();
    EXPECT_TRUE(has(routes(1000002), "via 198.51.100.1 dev up2")) << routes(1000002);
    world_.noRoute("192.0.2.1");
    device().worldChanged();
    quiet();
    EXPECT_TRUE(ourRules().empty());
    EXPECT_TRUE(has(shown("wan", 10)["reason"], "no route to next hop 192.0.2.1"));
}

TEST_F(ApplyTest, WhatALinkTookWithItComesBackWithTheLink) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1", "198.51.100.1"});
    world_.outIf("wan", "lan0", 20, 1502, "up1");
    device();
    store();
    quiet();
    run("ip link set up1 down");
    EXPECT_FALSE(has(run("ip nexthop"), "dev up1")) << "the kernel dropped them without a word";
    run("ip link set up1 up");
    EXPECT_FALSE(has(run("ip nexthop"), "dev up1"));
    world_.loop.advance(milliseconds(10)); // the link's notifications
    EXPECT_TRUE(has(run("ip nexthop"), "via 192.0.2.1 dev up1")) << run("ip nexthop");
    EXPECT_TRUE(has(run("ip nexthop show id 206400001"), "206000001/206000002"));
    EXPECT_EQ(device().counters().driftRepaired, 0u) << "the link took them, nobody else";
}

TEST_F(ApplyTest, WhileALinkIsDownItsTrafficIsRoutedAsUsual) {
    world_.outIf("wan", "lan0", 20, 1502, "up1");
    device();
    store();
    run("ip link set up1 down");
    device().worldChanged();
    EXPECT_EQ(shown("wan", 20)["reason"], "out-interface up1 is down");
    EXPECT_EQ(shown("wan", 20)["error"], "");
    run("ip link set up1 up");
    waitUp("up1");
    device().worldChanged();
    EXPECT_EQ(shown("wan", 20)["reason"], "");
    EXPECT_EQ(shown("wan", 20)["decisions"][0].get<int>() > 0, true);
}

TEST_F(ApplyTest, ARecreatedInterfaceIsSteeredByItsName) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    run("ip link set lan0 name lan9");
    device().worldChanged();
    EXPECT_TRUE(has(nft(), "\"lan9\" : goto in4/lan9"));
    EXPECT_FALSE(has(nft(), "lan0"));
}

TEST_F(ApplyTest, WhenSomebodyFlushesOursItIsRestored) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"}, 5);
    world_.nextHops("wan", "lan0", 20, 3001, {"2001:db8::1", "2001:db8::2"});
    device();
    store();
    quiet();
    const std::string whole = nft();
    for (const char *pDamage : {"nft flush ruleset", "nft flush chain inet policyroute match4/wan/10",
                                "nft add rule inet policyroute prerouting drop", "nft add chain inet policyroute mine",
                                "nft delete element inet policyroute interfaces4 '{ \"lan0\" }'",
                                "nft delete table inet policyroute"}) {
        run(pDamage);
        EXPECT_NE(router_->succeeds("nft list table inet policyroute") ? nft() : "", whole) << pDamage;
        world_.loop.advance(milliseconds(10));
        EXPECT_EQ(nft(), whole) << pDamage;
    }
    for (const char *pDamage : {"ip rule flush protocol 206", "ip nexthop flush", "ip route del default table 1000001 metric 1",
                                "ip -6 route del default table 1000001 metric 1", "ip -6 rule del pref 15000"}) {
        run(pDamage);
        world_.loop.advance(milliseconds(10));
        EXPECT_EQ(ourRules(4).size(), 1u) << pDamage;
        EXPECT_EQ(ourRules(6).size(), 1u) << pDamage;
        EXPECT_EQ(nextHopObjects().size(), 4u) << pDamage;
        EXPECT_TRUE(has(routes(1000001), "via 192.0.2.1")) << pDamage;
        EXPECT_TRUE(has(routes(1000001, 6), "2001:db8::2")) << pDamage << routes(1000001, 6);
    }
    EXPECT_GE(device().counters().driftRepaired, 10u);
}

TEST_F(ApplyTest, OurOwnChangesAreNotTakenForOthers) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    quiet();
    world_.nextHops("wan", "lan0", 10, 1501, {"198.51.100.1"});
    store();
    quiet();
    EXPECT_EQ(device().counters().driftRepaired, 0u);
    EXPECT_FALSE(world_.loop.hasTimers());
}

TEST_F(ApplyTest, WhatBelongsToOthersIsNeverTouched) {
    run("nft add table inet mine");
    run("nft add chain inet mine c '{ type filter hook prerouting priority -150; }'");
    run("nft add rule inet mine c meta mark set 7");
    run("ip rule add pref 15000 fwmark 9 table 77");
    run("ip rule add pref 16000 fwmark 10 table 1000002");
    run("ip route add default via 192.0.2.9 dev up1 table 1000003");
    run("ip nexthop add id 206000001 via 192.0.2.8 dev up1");
    run("ip route add 203.0.113.0/24 via 192.0.2.9 dev up1");
    const std::string rules = run("ip rule show | grep -v 206"), theirs = run("nft list table inet mine");
    const std::string main = run("ip route show"), other = run("ip route show table 1000003");
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    world_.nextHops("wan", "lan0", 20, 1502, {"198.51.100.1"});
    device();
    store();
    quiet();
    ASSERT_EQ(ourRules().size(), 2u);
    EXPECT_EQ(ourRules()[0]["table"], "1000004") << "ids whose preference or table is in use are passed over";
    EXPECT_EQ(ourRules()[0]["priority"], 15003);
    EXPECT_TRUE(has(routes(1000004), "nhid 206000002")) << routes(1000004);
    EXPECT_EQ(device().flush(), "");
    EXPECT_EQ(run("ip rule show | grep -v 206"), rules);
    EXPECT_EQ(run("nft list table inet mine"), theirs);
    EXPECT_EQ(run("ip route show"), main);
    EXPECT_EQ(run("ip route show table 1000003"), other);
    EXPECT_TRUE(has(run("ip nexthop"), "id 206000001 via 192.0.2.8"));
}

TEST_F(ApplyTest, ATableOfOthersUnderOurNameIsRefusedAndLeftAlone) {
    run("nft add table inet policyroute");
    KernelDevice other(world_.hooks());
    EXPECT_TRUE(has(other.start(), "a table inet policyroute exists that is not ours"));
    EXPECT_TRUE(router_->succeeds("nft list table inet policyroute"));
}

TEST_F(ApplyTest, OptionsThatCannotWorkAreRefused) {
    world_.options.markMask = 0;
    KernelDevice other(world_.hooks());
    EXPECT_EQ(other.start(), "kernel device: host.mark-mask must be one unbroken run of bits");
}

TEST_F(ApplyTest, AFlushRemovesEverythingOfOursUntilThePolicyChanges) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1", "198.51.100.1"});
    world_.nextHops("wan", "lan0", 20, 3001, {"2001:db8::1"});
    device();
    store();
    quiet();
    EXPECT_EQ(device().flush(), "");
    quiet();
    EXPECT_EQ(run("nft list ruleset"), "");
    EXPECT_TRUE(ourRules(4).empty());
    EXPECT_TRUE(ourRules(6).empty());
    EXPECT_TRUE(nextHopObjects().empty());
    EXPECT_EQ(run("ip route show table all proto 206"), "");
    EXPECT_EQ(device().show()["state"], "flushed");
    EXPECT_FALSE(shown("wan", 10)["installed"].get<bool>());
    world_.nextHops("wan", "lan0", 30, 1502, {"192.0.2.2"});
    store();
    EXPECT_TRUE(has(nft(), "match4/wan/10"));
    EXPECT_EQ(ourRules().size(), 2u);
}

TEST_F(ApplyTest, AFlushAlsoRemovesWhatAnEarlierRunLeft) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    restart();
    EXPECT_TRUE(device().isHeld());
    EXPECT_EQ(device().flush(), "");
    EXPECT_EQ(run("nft list ruleset"), "");
    EXPECT_TRUE(ourRules().empty());
    EXPECT_TRUE(nextHopObjects().empty());
}

TEST_F(ApplyTest, ManyRulesGoInOneTransaction) {
    std::vector<std::string> rules;
    for (int i = 0; i < 4000; i++) {
        rules.push_back("permit tcp from 10." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ".0/24 to any port 443");
    }
    world_.acl(1501, rules);
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    EXPECT_EQ(device().counters().applies, 2u) << "one for the routes, one for the rules";
    EXPECT_EQ(run("nft list table inet policyroute | grep -c 'chain rule4/wan/10/'"), "4000\n");
}

TEST_F(ApplyTest, MarksCanBeMovedByOptionsAndTheOldOnesAreCleared) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    quiet();
    world_.options = {0x0000ff00, 12000, 5000};
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(1000));
    ASSERT_EQ(ourRules().size(), 1u);
    EXPECT_EQ(ourRules()[0]["fwmark"], "0x100");
    EXPECT_EQ(ourRules()[0]["priority"], 12000);
    EXPECT_EQ(ourRules()[0]["table"], "5001");
    EXPECT_TRUE(routes(5001).size() > 0);
}

TEST_F(ApplyTest, ATableOfAnotherLayoutIsReplacedInOneTransaction) {
    world_.nextHops("wan", "lan0", 10, 1501, {"192.0.2.1"});
    device();
    store();
    run("nft delete table inet policyroute");
    run("nft 'add table inet policyroute { comment \"policyroute: layout 0\"; }'");
    run("nft 'add chain inet policyroute prerouting { type filter hook prerouting priority 5; }'");
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(1000));
    EXPECT_TRUE(has(nft(), "layout 2"));
    EXPECT_TRUE(has(nft(), "priority mangle - 1"));
}

} // namespace
} // namespace kernel_test
