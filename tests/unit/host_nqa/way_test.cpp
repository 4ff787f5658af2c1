// Packets of probes leave through the next hop that they guard, or by their VRF's table, or not at all.
#include <gtest/gtest.h>

#include "host/event/event_loop.h"
#include "tests/unit/host_nqa/probes.h"

namespace {

using namespace host;
using namespace probes;
using lab::inNamespace;
using lab::run;
using nlohmann::json;

std::string shown(const std::string &command) {
    FILE *pPipe = popen(command.c_str(), "r");
    std::string text;
    char bytes[4096];
    for (size_t got = 0; (got = fread(bytes, 1, sizeof bytes, pPipe)) > 0;) {
        text.append(bytes, got);
    }
    pclose(pPipe);
    return text;
}

size_t ruleCount() {
    const std::string text = shown("ip rule show; ip -6 rule show");
    size_t count = 0;
    for (size_t at = text.find("proto 207"); at != std::string::npos; at = text.find("proto 207", at + 1)) {
        count++;
    }
    return count;
}

TEST(NqaWay, EveryKindLeavesThroughTheNextHopThatItGuards) {
    inNamespace([] {
        Uplinks net;
        Server tcp4(&net.far, Server::Tcp, "192.0.2.10", 8000), tcp6(&net.far, Server::Tcp, "2001:db8:ffff::10", 8000);
        Server udp(&net.far, Server::UdpEcho, "192.0.2.10", 7);
        Server http(&net.far, Server::Tcp, "192.0.2.10", 80, "HTTP/1.1 200 OK\r\n\r\n");
        start();
        const json rows[] = {{{"kind", "icmp"}, {"target", "192.0.2.10"}, {"via", "198.51.100.1"}},
                             {{"kind", "icmp"}, {"target", "2001:db8:ffff::10"}, {"via", "2001:db8:a::1"}},
                             {{"kind", "tcp"}, {"target", "192.0.2.10"}, {"port", 8000}, {"via", "198.51.100.1"}},
                             {{"kind", "tcp"}, {"target", "2001:db8:ffff::10"}, {"port", 8000}, {"via", "2001:db8:a::1"}},
                             {{"kind", "udp"}, {"target", "192.0.2.10"}, {"port", 7}, {"via", "198.51.100.1"}},
                             {{"kind", "http"}, {"target", "192.0.2.10"}, {"via", "198.51.100.1"}}};
        for (const json &row : rows) {
            (void)net.leftBy("upa");
            (void)net.leftBy("upb");
            set("way", quick(row));
            expect("way", NqaState::Passing);
            EXPECT_GT(net.leftBy("upa"), 0u) << row;
            EXPECT_EQ(net.leftBy("upb"), 0u) << row;
            EXPECT_TRUE(del("way"));
        }
        EXPECT_EQ(udp.received(), "198.51.100.2"); // the source that goes with the way
        EXPECT_EQ(ruleCount(), 0u) << shown("ip rule");
        EXPECT_EQ(shown("ip route show table all proto 207; ip -6 route show table all proto 207"), "");
    });
}

TEST(NqaWay, WhatLiesBehindTheNextHopDecidesAndNotTheRoutingTable) {
    inNamespace([] {
        Uplinks net;
        net.far.inside([] { // upa's next hop is alive, but leads nowhere
            run("nft 'add table inet cut; add chain inet cut in { type filter hook input priority 0; }'");
            run("nft add rule inet cut in iifname fara ip daddr 192.0.2.10 drop");
        });
        start();
        set("table", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}}));
        set("via", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"via", "198.51.100.1"}}));
        set("near", quick({{"kind", "icmp"}, {"target", "198.51.100.1"}, {"via", "198.51.100.1"}}));

        expect("table", NqaState::Passing);
        expect("near", NqaState::Passing);
        expect("via", NqaState::Failing);
        net.far.inside([] { run("nft delete table inet cut"); });
        expect("via", NqaState::Passing);
    });
}

TEST(NqaWay, FailsWithTheReasonWhenTheNextHopCannotBeFoundAndComesBack) {
    inNamespace([] {
        Uplinks net;
        run("ip route replace 192.0.2.0/24 via 203.0.113.1; ip route del default");
        start();
        set("way", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"via", "198.51.100.1"}}));
        expect("way", NqaState::Passing);
        (void)net.leftBy("upb");

        run("ip link set upa down");
        expect("way", NqaState::Failing);
        EXPECT_TRUE(lab::eventually([] { return get("way").error == "no route to next hop 198.51.100.1"; })) << get("way").error;
        run("ip link set upa up");
        expect("way", NqaState::Passing);

        run("ip addr del 198.51.100.2/24 dev upa");
        expect("way", NqaState::Failing);
        EXPECT_EQ(net.leftBy("upb"), 0u); // never by another way
        run("ip addr add 198.51.100.2/24 dev upa");
        expect("way", NqaState::Passing);

        net.far.inside([] { run("ip link set fara down"); });
        expect("way", NqaState::Failing);
        EXPECT_TRUE(lab::eventually([] { return get("way").error == "interface upa to next hop 198.51.100.1 is down"; })) << get("way").error;
        net.far.inside([] { run("ip link set fara up"); });
        expect("way", NqaState::Passing);
        EXPECT_EQ(net.leftBy("upb"), 0u);
    });
}

TEST(NqaWay, ANextHopOnAGivenInterfaceNeedsNoRoute) {
    inNamespace([] {
        Uplinks net;
        net.far.inside([] { run("ip -6 addr add fe80::a/64 dev fara"); });
        start();
        set("way", quick({{"kind", "icmp"}, {"target", "2001:db8:ffff::10"}, {"via", "fe80::a"}, {"interface", "upa"}}));
        expect("way", NqaState::Passing);
        EXPECT_GT(net.leftBy("upa"), 0u);
        EXPECT_EQ(net.leftBy("upb"), 0u);
    });
}

TEST(NqaWay, ANextHopBehindAGatewayIsReachedThroughIt) {
    inNamespace([] {
        Uplinks net;
        run("ip route add 198.18.0.1/32 via 198.51.100.1");
        run("ip route add 198.18.0.2/32 via inet6 2001:db8:a::1");
        start();
        for (const char *pVia : {"198.18.0.1", "198.18.0.2"}) {
            (void)net.leftBy("upa");
            set("way", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"via", pVia}}));
            expect("way", NqaState::Passing);
            EXPECT_GT(net.leftBy("upa"), 0u) << pVia;
            EXPECT_EQ(net.leftBy("upb"), 0u) << pVia;
        }
    });
}

TEST(NqaWay, AVrfsTableRoutesAndNoOtherWhenItHasNoWay) {
    inNamespace([] {
        Uplinks net;
        Server tcp(&net.far, Server::Tcp, "192.0.2.10", 8000);
        run("ip route add 192.0.2.0/24 via 198.51.100.1 table 77");
        run("ip -6 route add 2001:db8:ffff::/64 via 2001:db8:a::1 table 77");
        start({"host.vrf.red=77"});
        set("icmp", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"vrf", 77}}));
        set("icmp6", quick({{"kind", "icmp"}, {"target", "2001:db8:ffff::10"}, {"vrf", 77}}));
        set("tcp", quick({{"kind", "tcp"}, {"target", "192.0.2.10"}, {"port", 8000}, {"vrf", 77}}));
        for (const char *pTest : {"icmp", "icmp6", "tcp"}) {
            expect(pTest, NqaState::Passing);
        }
        EXPECT_GT(net.leftBy("upa"), 0u);
        EXPECT_EQ(net.leftBy("upb"), 0u);

        run("ip route del 192.0.2.0/24 table 77");
        run("ip -6 route del 2001:db8:ffff::/64 table 77");
        for (const char *pTest : {"icmp", "icmp6", "tcp"}) {
            expect(pTest, NqaState::Failing);
            EXPECT_EQ(get(pTest).error, "no route") << pTest;
        }
        EXPECT_EQ(net.leftBy("upb"), 0u);
    });
}

TEST(NqaWay, ANextHopIsFoundInItsVrf) {
    inNamespace([] {
        Uplinks net;
        run("ip addr del 198.51.100.2/24 dev upa; ip addr add 198.51.100.2/32 dev upa");
        net.far.inside([] { run("ip route replace 198.51.100.2/32 dev fara"); });
        run("ip route add 198.51.100.0/24 dev upa src 198.51.100.2 table 77");
        start();
        set("way", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"vrf", 77}, {"via", "198.51.100.1"}}));
        set("other", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"vrf", 78}, {"via", "198.51.100.1"}}));
        expect("way", NqaState::Passing);
        EXPECT_GT(net.leftBy("upa"), 0u);
        EXPECT_EQ(net.leftBy("upb"), 0u);
        expect("other", NqaState::Failing);
        EXPECT_EQ(get("other").error, "no route to next hop 198.51.100.1 in VRF 78");
    });
}

TEST(NqaWay, ProbesOfOneNextHopShareOneWayAndTheLastOneTakesItAway) {
    inNamespace([] {
        Uplinks net;
        start();
        const json members = quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"via", "198.51.100.1"}});
        set("a", members);
        set("b", members);
        json third = members;
        third["target"] = "198.51.100.1";
        set("a", third); // asks something else on the same way
        EXPECT_EQ(ruleCount(), 2u);
        EXPECT_EQ(get("a").way->mark, 0xfff00000u);
        EXPECT_EQ(get("b").way->mark, 0xfff00000u);

        EXPECT_TRUE(del("b"));
        EXPECT_EQ(ruleCount(), 2u);
        expect("a", NqaState::Passing);
        replaceAll({});

        EXPECT_EQ(ruleCount(), 0u);
    });
}

TEST(NqaWay, NumbersThatOthersUseArePassedOver) {
    inNamespace([] {
        Uplinks net;
        run("ip rule add pref 19094 lookup 99");                        // of the first way
        run("ip route add 10.9.0.0/16 dev upa table 1004094");          // of the second
        run("ip -6 rule add pref 19093 lookup 99");                     // another family
        start();
        set("way", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"via", "198.51.100.1"}}));
        expect("way", NqaState::Passing);
        EXPECT_EQ(get("way").way->preference, 19092u);
        EXPECT_EQ(get("way").way->table, 1004093u);
    });
}

TEST(NqaWay, WithoutAFreeMarkAProbeFailsAndSaysSo) {
    inNamespace([] {
        Uplinks net;
        start({"host.mark-mask=0x80000000"});
        set("a", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"via", "198.51.100.1"}}));
        set("b", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"via", "203.0.113.1"}}));
        expect("a", NqaState::Passing);
        expect("b", NqaState::Failing);
        EXPECT_EQ(get("b").error, "no packet mark is left for its way (host.mark-mask, host.rule-preference)");

        EXPECT_TRUE(del("a"));
        run("ip link set upa down"); // a look at the ways gives it the one that is free now
        expect("b", NqaState::Passing);
    });
}

TEST(NqaWay, WhatOthersTakeAwayIsPutBack) {
    inNamespace([] {
        Uplinks net;
        start();
        set("way", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}, {"via", "198.51.100.1"}}));
        expect("way", NqaState::Passing);
        const std::string before = shown("ip rule show; ip route show table 1004095");

        for (const char *pCommand : {"ip rule del pref 19094", "ip rule del pref 19094; ip rule del pref 19094",
                                     "ip route flush table 1004095"}) {
            run(pCommand);
            EXPECT_TRUE(lab::eventually([&] { return shown("ip rule show; ip route show table 1004095") == before; }))
                << pCommand << "\n" << before << "\n" << shown("ip rule show; ip route show table 1004095");
        }
        expect("way", NqaState::Passing);
        ASSERT_TRUE(lab::eventually([] { return get("way").state == NqaState::Passing; }));
    });
}

TEST(NqaWay, RemainsOfAnEarlierRunAreRemovedAndOthersAreNot) {
    inNamespace([] {
        Uplinks net;
        run("ip rule add pref 19094 fwmark 0xfff00000/0xfff00000 lookup 1004095 protocol 207");
        run("ip rule add pref 19094 fwmark 0xfff00000/0xfff00000 unreachable protocol 207");
        run("ip -6 rule add pref 18000 fwmark 0x1/0x1 lookup 77 protocol 207");
        run("ip route add default via 198.51.100.1 table 1004095 proto 207");
        run("ip -6 route add default via 2001:db8:a::1 table 1004093 proto 207"); // its rule is gone
        run("ip rule add pref 400 fwmark 0x55 lookup 99 protocol 206");
        run("ip rule add pref 401 fwmark 0x55 lookup 99");
        start();
        EXPECT_TRUE(lab::eventually([] { return ruleCount() == 0 &&
            shown("ip route show table all proto 207; ip -6 route show table all proto 207").empty(); }))
            << shown("ip rule; ip -6 rule");
        const std::string left = shown("ip rule show");
        EXPECT_NE(left.find("400:"), std::string::npos);
        EXPECT_NE(left.find("401:"), std::string::npos);
    });
}

} // namespace
