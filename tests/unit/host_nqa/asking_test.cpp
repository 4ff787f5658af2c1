// Every kind of probe against real servers, up and down, in private namespaces.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include "tests/unit/host_nqa/probes.h"

namespace {

using namespace host;
using namespace probes;
using lab::inNamespace;
using nlohmann::json;

TEST(NqaAsking, IcmpPassesAndFailsInBothFamilies) {
    inNamespace([] {
        Uplinks net;
        start();
        set("v4", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}}));
        set("v6", quick({{"kind", "icmp"}, {"target", "2001:db8:ffff::10"}}));
        expect("v4", NqaState::Passing);
        expect("v6", NqaState::Passing);

        net.far.inside([] {
            lab::run("nft 'add table inet cut; add chain inet cut in { type filter hook input priority 0; }'");
            lab::run("nft add rule inet cut in icmp type echo-request drop");
            lab::run("nft add rule inet cut in icmpv6 type echo-request drop");
        });
        expect("v4", NqaState::Failing);
        expect("v6", NqaState::Failing);
        EXPECT_EQ(get("v4").error, "no answer in 40 ms");

        net.far.inside([] { lab::run("nft delete table inet cut"); });
        expect("v4", NqaState::Passing);
        expect("v6", NqaState::Passing);
        const NqaProbe probe = get("v4");
        EXPECT_GT(probe.statistics.received, 0u);
        EXPECT_GE(probe.statistics.lost, 2u);
        EXPECT_GT(probe.statistics.leastUs, 0u);
        EXPECT_LE(probe.statistics.leastUs, probe.statistics.mostUs);
        EXPECT_LT(probe.statistics.mostUs, 1000000u);
    });
}

TEST(NqaAsking, IcmpTellsWhatRoutersSay) {
    inNamespace([] {
        Uplinks net;
        net.far.inside([] {
            lab::sysctl("ipv4/ip_forward", "1");
            lab::sysctl("ipv6/conf/all/forwarding", "1");
            lab::sysctl("ipv4/icmp_ratelimit", "0");
            lab::sysctl("ipv6/icmp/ratelimit", "0");
            lab::run("ip route add unreachable 192.0.2.66/32");
            lab::run("ip -6 route add unreachable 2001:db8:ffff::66/128");
        });
        start();
        set("v4", quick({{"kind", "icmp"}, {"target", "192.0.2.66"}}));
        set("v6", quick({{"kind", "icmp"}, {"target", "2001:db8:ffff::66"}}));
        set("good", quick({{"kind", "icmp"}, {"target", "192.0.2.10"}}));

        expect("v4", NqaState::Failing);
        expect("v6", NqaState::Failing);
        expect("good", NqaState::Passing); // errors of others do not become its own
        EXPECT_TRUE(lab::eventually([] { return get("v4").error == "host unreachable, says 203.0.113.1"; })) << get("v4").error;
        EXPECT_TRUE(lab::eventually([] { return get("v6").error.find("says 2001:db8:b::1") != std::string::npos; })) << get("v6").error;
        ASSERT_TRUE(lab::eventually([] { return get("good").statistics.sent > 20; }));
        EXPECT_EQ(get("good").statistics.lost, 0u) << get("good").error;
    });
}

TEST(NqaAsking, TcpTellsOpenPortsFromClosedOnes) {
    inNamespace([] {
        Uplinks net;
        start();
        set("tcp", quick({{"kind", "tcp"}, {"target", "2001:db8:ffff::10"}, {"port", 8000}}));
        expect("tcp", NqaState::Failing);
        EXPECT_EQ(get("tcp").error, "connection refused");

        {
            Server server(&net.far, Server::Tcp, "2001:db8:ffff::10", 8000);
            expect("tcp", NqaState::Passing);
        }
        expect("tcp", NqaState::Failing);
    });
}

TEST(NqaAsking, UdpWantsTheSameBytesBack) {
    inNamespace([] {
        Uplinks net;
        start();
        set("udp", quick({{"kind", "udp"}, {"target", "192.0.2.10"}, {"port", 7}}));
        expect("udp", NqaState::Failing);
        EXPECT_EQ(get("udp").error, "connection refused");
        {
            Server server(&net.far, Server::UdpEcho, "192.0.2.10", 7);
            expect("udp", NqaState::Passing);
        }
        Server server(&net.far, Server::UdpWrong, "192.0.2.10", 7);
        expect("udp", NqaState::Failing);
        EXPECT_TRUE(lab::eventually([] { return get("udp").error == "other bytes came back than were sent"; })) << get("udp").error;
    });
}

TEST(NqaAsking, HttpPassesWithAGoodStatusOnly) {
    inNamespace([] {
        Uplinks net;
        start();
        const json members = quick({{"kind", "http"}, {"target", "192.0.2.10"}, {"port", 8080}, {"path", "/health?a=1"}});
        const std::tuple<const char *, NqaState, const char *> rows[] = {
            {"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", NqaState::Passing, ""},
            {"HTTP/1.0 302 Found\r\n\r\n", NqaState::Passing, ""},
            {"HTTP/1.1 503 Service Unavailable\r\n\r\n", NqaState::Failing, "HTTP status 503"},
            {"HTTP/1.1 404 Not Found\r\n\r\n", NqaState::Failing, "HTTP status 404"},
            {"SSH-2.0-x\r\n", NqaState::Failing, "the answer is no HTTP"},
            {"HTTP/1.1", NqaState::Failing, "the connection was closed without an HTTP status"},
        };
        for (const auto &[pAnswer, state, pError] : rows) {
            Server server(&net.far, Server::Tcp, "192.0.2.10", 8080, pAnswer);
            set("http", members);
            expect("http", state);
            if (state == NqaState::Failing) {
                EXPECT_EQ(get("http").error, pError) << pAnswer;
            }
            EXPECT_EQ(server.received().substr(0, 55), "GET /health?a=1 HTTP/1.1\r\nHost: 192.0.2.10:8080\r\nUser-A") << pAnswer;
            EXPECT_TRUE(del("http"));
        }
    });
}

TEST(NqaAsking, AskFromTheSourceAndOutOfTheInterfaceThatAreGiven) {
    inNamespace([] {
        Uplinks net;
        lab::run("ip addr add 203.0.113.77/32 dev lo");
        net.far.inside([] { lab::run("ip route add 203.0.113.77/32 via 203.0.113.2"); });
        Server server(&net.far, Server::UdpEcho, "0.0.0.0", 7);
        start();
        set("source", quick({{"kind", "udp"}, {"target", "203.0.113.1"}, {"port", 7}, {"source", "203.0.113.77"}}));
        expect("source", NqaState::Passing);
        EXPECT_EQ(server.received(), "203.0.113.77");

        set("icmp", quick({{"kind", "icmp"}, {"target", "203.0.113.1"}, {"source", "203.0.113.77"}}));
        expect("icmp", NqaState::Passing);
        for (const char *pKind : {"icmp", "udp"}) {
            json members = quick({{"kind", pKind}, {"target", "203.0.113.1"}, {"source", "203.0.113.99"}});
            if (members["kind"] == "udp") {
                members["port"] = 7;
            }
            set("nobody", members);
            expect("nobody", NqaState::Failing);
            EXPECT_EQ(get("nobody").error, "the source address cannot be used here") << pKind;
        }
        set("missing", quick({{"kind", "icmp"}, {"target", "203.0.113.1"}, {"interface", "nonesuch"}}));
        expect("missing", NqaState::Failing);
        EXPECT_EQ(get("missing").error, "no interface nonesuch");

        EXPECT_TRUE(del("source") && del("icmp") && del("nobody") && del("missing"));
        Server behind(&net.far, Server::UdpEcho, "192.0.2.10", 9);
        lab::run("ip route add 192.0.2.0/24 via 198.51.100.1 dev upa metric 900");
        lab::run("ip route add 192.0.2.0/24 via 203.0.113.1 dev upb metric 100");
        for (const char *pKind : {"icmp", "udp"}) {
            (void)net.leftBy("upa");
            (void)net.leftBy("upb");
            json members = quick({{"kind", pKind}, {"target", "192.0.2.10"}, {"interface", "upa"}});
            if (members["kind"] == "udp") {
                members["port"] = 9;
            }
            set("out", members);
            expect("out", NqaState::Passing);
            EXPECT_GT(net.leftBy("upa"), 0u);
            EXPECT_EQ(net.leftBy("upb"), 0u);
            EXPECT_TRUE(del("out"));
        }
    });
}

TEST(NqaAsking, LinkLocalTargetsAreAskedOnTheirInterface) {
    inNamespace([] {
        Uplinks net;
        net.far.inside([] { lab::run("ip -6 addr add fe80::a/64 dev fara"); });
        Server server(&net.far, Server::Tcp, "::", 8000);
        start();
        set("icmp", quick({{"kind", "icmp"}, {"target", "fe80::a"}, {"interface", "upa"}}));
        set("tcp", quick({{"kind", "tcp"}, {"target", "fe80::a"}, {"interface", "upa"}, {"port", 8000}}));
        set("wrong", quick({{"kind", "icmp"}, {"target", "fe80::a"}, {"interface", "upb"}}));
        expect("icmp", NqaState::Passing);
        expect("tcp", NqaState::Passing);
        expect("wrong", NqaState::Failing);
    });
}

TEST(NqaAsking, SocketsAreBoundedAndWhoGetsNoneSaysSo) {
    inNamespace([] {
        Uplinks net;
        net.far.inside([] {
            lab::run("nft 'add table inet cut; add chain inet cut in { type filter hook input priority 0; }'");
            lab::run("nft add rule inet cut in tcp dport 8000 drop");
        });
        start();
        const rlimit few = {60, 60}; // half of it for probes
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        std::map<std::string, json> wanted;
        for (int i = 0; i < 100; i++) {
            wanted["t" + std::to_string(i)] = {{"kind", "tcp"}, {"target", "192.0.2.10"}, {"port", 8000}, {"intervalMs", 500}};
        }
        wanted["icmp"] = quick({{"kind", "icmp"}, {"target", "192.0.2.10"}});
        replaceAll(wanted);
        EXPECT_TRUE(lab::eventually([] {
            size_t refused = 0;
            for (const NqaProbe &probe : all()) {
                refused += probe.error == "too many probes wait for answers: 30 sockets are open (RLIMIT_NOFILE)" ? 1 : 0;
            }
            return refused > 20;
        }));
        expect("icmp", NqaState::Passing); // needs no socket of its own
    });
}

TEST(NqaAsking, TwoThousandProbesRunOnOneThread) {
    inNamespace([] {
        Uplinks net;
        net.far.inside([] {
            for (int i = 1; i <= 8; i++) {
                lab::run("ip addr add 192.0.2." + std::to_string(100 + i) + "/32 dev lo");
            }
            lab::sysctl("ipv4/icmp_ratelimit", "0");
        });
        start();
        std::map<std::string, json> wanted;
        for (int i = 0; i < 2000; i++) {
            wanted["n" + std::to_string(i)] = {{"kind", "icmp"}, {"target", "192.0.2." + std::to_string(101 + i % 8)}, {"timeoutMs", 1000}};
        }
        const auto countAbove = [](uint64_t received) {
            size_t count = 0;
            for (const NqaProbe &probe : all()) {
                count += probe.statistics.received >= received && probe.state == NqaState::Passing ? 1 : 0;
            }
            return count;
        };

        EXPECT_EQ(replaceAll(wanted).made, 2000u);

        EXPECT_TRUE(lab::eventually([&] { return countAbove(3) == 2000; }, lab::milliseconds(20000))) << countAbove(3);
        uint64_t sent = 0, received = 0;
        for (const NqaProbe &probe : all()) {
            sent += probe.statistics.sent;
            received += probe.statistics.received;
        }
        EXPECT_GT(static_cast<double>(received), static_cast<double>(sent) * 0.95) << received << " of " << sent;
    });
}

} // namespace
