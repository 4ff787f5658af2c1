// The mirror of the kernel's routing tables, against the kernel.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "host/event/event_loop.h"
#include "host/fib/fib.h"
#include "host/option/option.h"
#include "lab.h"

namespace {

// "DEV", "DEV via GATEWAY" or "none".
std::string way(const std::string &to, uint32_t vrfid = 0) {
    const auto egress = host::fibLookup(vrfid, lab::versionOf(to), lab::address(to));
    char name[IF_NAMESIZE] = "?";
    if (!egress || if_indextoname(egress->ifIndex, name) == nullptr) {
        return "none";
    }
    char gateway[INET6_ADDRSTRLEN] = "";
    if (egress->hasGateway) {
        inet_ntop(egress->gatewayVersion == 4 ? AF_INET : AF_INET6, egress->gateway.data(), gateway,
                  sizeof(gateway));
    }
    return std::string(name) + (egress->hasGateway ? std::string(" via ") + gateway : "");
}

#define EXPECT_WAY(expected, ...)                                                                    \
    EXPECT_TRUE(lab::eventually([&] { return way(__VA_ARGS__) == (expected); })) << way(__VA_ARGS__)

// Two uplinks a0 and b0 with both versions, then the mirror.
struct Uplinks {
    lab::Namespace far;
    Uplinks() {
        lab::lay(far, {"a0", "a1", {"10.1.0.1/24", "2001:db8:a::1/64"}, {"10.1.0.2/24", "2001:db8:a::2/64"}});
        lab::lay(far, {"b0", "b1", {"10.2.0.1/24", "2001:db8:b::1/64"}, {"10.2.0.2/24", "2001:db8:b::2/64"}});
    }
};

void start() {
    ASSERT_EQ(host::fibStart(), "");
}

TEST(Fib, RoutesPresentAtTheStartAreFound) {
    lab::inNamespace([] {
        Uplinks uplinks;
        lab::run("ip route add default via 10.1.0.2");
        lab::run("ip route add 192.0.2.0/24 via 10.2.0.2");
        lab::run("ip -6 route add default via 2001:db8:a::2");
        start();
        EXPECT_EQ(way("10.1.0.77"), "a0");
        EXPECT_EQ(way("192.0.2.9"), "b0 via 10.2.0.2");
        EXPECT_EQ(way("8.8.8.8"), "a0 via 10.1.0.2");
        EXPECT_EQ(way("2001:db8:b::99"), "b0");
        EXPECT_EQ(way("2001:db8:ffff::1"), "a0 via 2001:db8:a::2");
        EXPECT_EQ(way("8.8.8.8", 10), "none");
    });
}

TEST(Fib, RouteChangesAreFollowed) {
    lab::inNamespace([] {
        Uplinks uplinks;
        start();
        EXPECT_EQ(way("192.0.2.1"), "none");
        lab::run("ip route add 192.0.2.0/24 via 10.1.0.2");
        EXPECT_WAY("a0 via 10.1.0.2", "192.0.2.1");
        lab::run("ip route replace 192.0.2.0/24 via 10.2.0.2");
        EXPECT_WAY("b0 via 10.2.0.2", "192.0.2.1");
        lab::run("ip route add unreachable 192.0.2.1");
        EXPECT_WAY("none", "192.0.2.1");
        EXPECT_EQ(way("192.0.2.2"), "b0 via 10.2.0.2");
        lab::run("ip route del unreachable 192.0.2.1");
        EXPECT_WAY("b0 via 10.2.0.2", "192.0.2.1");
        lab::run("ip route del 192.0.2.0/24");
        EXPECT_WAY("none", "192.0.2.1");
    });
}

TEST(Fib, Ipv6RouteChangesAreFollowedLegByLeg) {
    lab::inNamespace([] {
        Uplinks uplinks;
        start();
        lab::run("ip -6 route add 2001:db8:1::/48 via 2001:db8:a::2");
        EXPECT_WAY("a0 via 2001:db8:a::2", "2001:db8:1::1");
        lab::run("ip -6 route append 2001:db8:1::/48 via 2001:db8:b::2");
        lab::run("ip -6 route del 2001:db8:1::/48 via 2001:db8:a::2");
        EXPECT_WAY("b0 via 2001:db8:b::2", "2001:db8:1::1");
        lab::run("ip -6 route replace 2001:db8:1::/48 via 2001:db8:a::2");
        EXPECT_WAY("a0 via 2001:db8:a::2", "2001:db8:1::1");
        lab::run("ip -6 route del 2001:db8:1::/48");
        EXPECT_WAY("none", "2001:db8:1::1");
    });
}

TEST(Fib, AVrfIsItsOwnTable) {
    lab::inNamespace([] {
        Uplinks uplinks;
        lab::run("ip route add default via 10.1.0.2");
        lab::run("ip route add 10.2.0.0/24 dev b0 table 1010");
        start();
        lab::run("ip route add default via 10.2.0.2 table 1010");
        EXPECT_WAY("b0 via 10.2.0.2", "8.8.8.8", 1010);
        EXPECT_EQ(way("8.8.8.8"), "a0 via 10.1.0.2");
        EXPECT_EQ(way("10.2.0.9", 1010), "b0");
        EXPECT_EQ(way("10.1.0.9", 1010), "b0 via 10.2.0.2") << "the main table's network is not its own";
        lab::run("ip route flush table 1010");
        EXPECT_WAY("none", "8.8.8.8", 1010);
        EXPECT_EQ(way("8.8.8.8"), "a0 via 10.1.0.2");
    });
}

TEST(Fib, VrfIdsAreTableNumbersAndZeroIsTheMainTable) {
    ASSERT_EQ(host::optionLoad({"host.vrf.blue=1010"}, "/dev/null"), "");
    EXPECT_EQ(host::fibTableOfVrf(0), 254u);
    EXPECT_EQ(host::fibTableOfVrf(1010), 1010u);
    EXPECT_EQ(host::fibTableOfVrf(77), 77u);
}

TEST(Fib, RoutesThatVanishWithALinkAreGoneAndComeBackWithIt) {
    lab::inNamespace([] {
        Uplinks uplinks;
        lab::run("ip route add default via 10.1.0.2 metric 10");
        lab::run("ip route add default via 10.2.0.2 metric 20");
        start();
        for (int flap = 0; flap < 3; ++flap) {
            lab::run("ip link set a0 down");
            EXPECT_WAY("b0 via 10.2.0.2", "8.8.8.8");
            EXPECT_WAY("none", "10.1.0.5"); // its network is there, behind the link
            lab::run("ip link set a0 up && ip route replace default via 10.1.0.2 metric 10");
            EXPECT_WAY("a0 via 10.1.0.2", "8.8.8.8");
            EXPECT_WAY("a0", "10.1.0.5");
        }
    });
}

// A default route of both versions through the link that stays.
void defaultThroughB() {
    lab::run("ip route add default via 10.2.0.2");
    lab::run("ip -6 route add default via 2001:db8:b::2");
}

TEST(Fib, ANetworkWhoseLinkIsSetDownIsNotBehindAnotherRoute) {
    lab::inNamespace([] {
        Uplinks uplinks;
        defaultThroughB();
        start();
        lab::run("ip link set a0 down");
        EXPECT_WAY("none", "10.1.0.5");
        EXPECT_WAY("none", "2001:db8:a::5");
        EXPECT_EQ(way("10.1.1.5"), "b0 via 10.2.0.2"); // only what was on the link
        EXPECT_EQ(way("2001:db8:a:1::5"), "b0 via 2001:db8:b::2");
        lab::run("ip link set a0 up");
        EXPECT_WAY("a0", "10.1.0.5");
        EXPECT_EQ(way("2001:db8:a::5"), "none"); // its address is not back yet
        lab::run("ip -6 addr add 2001:db8:a::1/64 dev a0 nodad");
        EXPECT_WAY("a0", "2001:db8:a::5");
    });
}

TEST(Fib, ANetworkOfAVrfsTableStaysItsLinksToo) {
    lab::inNamespace([] {
        Uplinks uplinks;
        lab::run("ip route add 10.1.0.0/24 dev a0 table 10");
        lab::run("ip route add default via 10.2.0.2 table 10");
        lab::run("ip -6 route add 2001:db8:a::/64 dev a0 table 10");
        lab::run("ip -6 route add default via 2001:db8:b::2 table 10");
        start();
        lab::run("ip link set a0 down");
        EXPECT_WAY("none", "10.1.0.5", 10);
        EXPECT_WAY("none", "2001:db8:a::5", 10);
    });
}

TEST(Fib, ARouteToTheVeryNetworkCountsWhileItsLinkIsDown) {
    lab::inNamespace([] {
        Uplinks uplinks;
        defaultThroughB();
        start();
        lab::run("ip link set a0 down");
        EXPECT_WAY("none", "10.1.0.5");
        lab::run("ip route add 10.1.0.0/24 via 10.2.0.7");
        EXPECT_WAY("b0 via 10.2.0.7", "10.1.0.5");
        lab::run("ip -6 route add 2001:db8:a::5/128 via 2001:db8:b::7");
        EXPECT_WAY("b0 via 2001:db8:b::7", "2001:db8:a::5");
        EXPECT_EQ(way("2001:db8:a::6"), "none");
    });
}

TEST(Fib, AWayThroughALinkIsNoNetworkOfTheLink) {
    lab::inNamespace([] {
        Uplinks uplinks;
        defaultThroughB();
        lab::run("ip route add 0.0.0.0/1 dev a0");
        lab::run("ip -6 route add 2000::/3 dev a0");
        start();
        EXPECT_EQ(way("8.8.8.8"), "a0");
        lab::run("ip link set a0 down");
        EXPECT_WAY("b0 via 10.2.0.2", "8.8.8.8");
        EXPECT_WAY("b0 via 2001:db8:b::2", "2001:db9::1");
    });
}

TEST(Fib, ALinkThatIsGoneOrLosesItsAddressHoldsNoNetwork) {
    lab::inNamespace([] {
        Uplinks uplinks;
        defaultThroughB();
        start();
        lab::run("ip link set a0 down");
        EXPECT_WAY("none", "10.1.0.5");
        lab::run("ip addr del 10.1.0.1/24 dev a0");
        EXPECT_WAY("b0 via 10.2.0.2", "10.1.0.5");
        EXPECT_EQ(way("2001:db8:a::5"), "none");
        lab::run("ip link del a0");
        EXPECT_WAY("b0 via 2001:db8:b::2", "2001:db8:a::5");
    });
}

TEST(Fib, TheAddressesOfALinkThatIsDownAtTheStartAreItsNetworks) {
    lab::inNamespace([] {
        Uplinks uplinks;
        defaultThroughB();
        lab::run("ip link set a0 down");
        start();
        EXPECT_EQ(way("10.1.0.5"), "none");
        lab::run("ip addr add 10.7.0.1/24 dev a0");
        EXPECT_WAY("none", "10.7.0.5");
    });
}

TEST(Fib, WithoutWaysViaGatewaysOnlyConnectedNetworksAreReached) {
    lab::inNamespace([] {
        ASSERT_EQ(host::optionLoad({"host.next-hop-via-gateway=off"}, "/dev/null"), "");
        Uplinks uplinks;
        defaultThroughB();
        start();
        EXPECT_EQ(way("8.8.8.8"), "none");
        EXPECT_EQ(way("2001:db9::1"), "none");
        EXPECT_EQ(way("10.1.0.5"), "a0");
        EXPECT_EQ(way("2001:db8:b::5"), "b0");
    });
}

TEST(Fib, OfSeveralLegsTheFirstOneWithCarrierCounts) {
    lab::inNamespace([] {
        Uplinks uplinks;
        lab::run("ip route add default nexthop via 10.1.0.2 nexthop via 10.2.0.2");
        start();
        EXPECT_EQ(way("8.8.8.8"), "a0 via 10.1.0.2");
        uplinks.far.inside([] { lab::run("ip link set a1 down"); });
        EXPECT_WAY("b0 via 10.2.0.2", "8.8.8.8");
        uplinks.far.inside([] { lab::run("ip link set a1 up"); });
        EXPECT_WAY("a0 via 10.1.0.2", "8.8.8.8");
    });
}

TEST(Fib, NexthopObjectsAreResolvedAndFollowed) {
    lab::inNamespace([] {
        Uplinks uplinks;
        lab::run("ip nexthop add id 1 via 10.1.0.2 dev a0");
        lab::run("ip nexthop add id 2 via 10.2.0.2 dev b0");
        lab::run("ip nexthop add id 10 group 1/2");
        lab::run("ip route add 192.0.2.0/24 nhid 1");
        lab::run("ip route add 198.51.100.0/24 nhid 10");
        start();
        EXPECT_EQ(way("192.0.2.1"), "a0 via 10.1.0.2");
        EXPECT_EQ(way("198.51.100.1"), "a0 via 10.1.0.2");
        lab::run("ip nexthop replace id 1 via 10.2.0.7 dev b0");
        EXPECT_WAY("b0 via 10.2.0.7", "192.0.2.1");
        EXPECT_WAY("b0 via 10.2.0.7", "198.51.100.1");
        lab::run("ip nexthop del id 1"); // its IPv4 routes vanish without a word
        EXPECT_WAY("none", "192.0.2.1");
        EXPECT_WAY("b0 via 10.2.0.2", "198.51.100.1");
    });
}

TEST(Fib, AnIpv4RouteMayLeadToAnIpv6Gateway) {
    lab::inNamespace([] {
        Uplinks uplinks;
        start();
        lab::run("ip route add 192.0.2.0/24 via inet6 2001:db8:b::2 dev b0");
        EXPECT_WAY("b0 via 2001:db8:b::2", "192.0.2.1");
    });
}

TEST(Fib, OurOwnRoutesAreLeftOut) {
    lab::inNamespace([] {
        Uplinks uplinks;
        lab::run("ip route add 192.0.2.0/24 via 10.1.0.2 proto 206");
        lab::run("ip nexthop add id 1 via 10.1.0.2 dev a0 protocol 206");
        start();
        EXPECT_EQ(way("192.0.2.1"), "none");
        lab::run("ip route add 198.51.100.0/24 via 10.1.0.2 proto 206");
        lab::run("ip route add 203.0.113.0/24 via 10.2.0.2");
        EXPECT_WAY("b0 via 10.2.0.2", "203.0.113.1");
        EXPECT_EQ(way("198.51.100.1"), "none");
    });
}

TEST(Fib, RoutesThatPreferredAVanishedAddressAreGone) {
    lab::inNamespace([] {
        Uplinks uplinks;
        lab::run("ip addr add 10.99.0.1/32 dev lo");
        lab::run("ip route add 192.0.2.0/24 via 10.1.0.2 src 10.99.0.1");
        start();
        EXPECT_EQ(way("192.0.2.1"), "a0 via 10.1.0.2");
        lab::run("ip addr del 10.99.0.1/32 dev lo");
        EXPECT_WAY("none", "192.0.2.1");
    });
}

TEST(Fib, ABurstOfChangesIsToldInFewCalls) {
    lab::inNamespace([] {
        Uplinks uplinks;
        start();
        std::atomic<int> calls{0};
        std::atomic<bool> onThread{true};
        host::fibOnChange([&] {
            ++calls;
            onThread = onThread && host::hostEventLoop().onThread();
        });
        lab::run("for i in $(seq 1 250); do echo route add 192.0.2.$i via 10.1.0.2; done | ip -batch -");
        EXPECT_WAY("a0 via 10.1.0.2", "192.0.2.250");
        EXPECT_TRUE(lab::eventually([&] { return calls > 0; }));
        EXPECT_LT(calls, 60);
        EXPECT_TRUE(onThread);
    });
}

TEST(Fib, RoutesAreRightAfterNotificationsWereLost) {
    lab::inNamespace([] {
        Uplinks uplinks;
        start();
        lab::whileEventThreadWaits([] {
            lab::run("for i in $(seq 0 199); do for j in $(seq 0 199); do echo route add 172.16.$i.$j via 10.1.0.2; done; done | ip -batch -");
            lab::run("ip route add 192.0.2.0/24 via 10.2.0.2");
        });
        EXPECT_WAY("b0 via 10.2.0.2", "192.0.2.1");
        EXPECT_WAY("a0 via 10.1.0.2", "172.16.199.199");
        EXPECT_GE(host::fibCounters().resyncs, 1u);
        lab::run("ip route del 172.16.3.3");
        EXPECT_WAY("none", "172.16.3.3");
    });
}

// First line that a command prints.
std::string firstLine(const std::string &command) {
    FILE *pPipe = popen(command.c_str(), "r");
    char line[512] = "";
    (void)!std::fgets(line, sizeof(line), pPipe);
    (void)pclose(pPipe);
    return line;
}

// Adds, replaces, appends and deletes over few prefixes and metrics, so that they collide; some fail.
std::string randomChanges(int count) {
    static const char *const verbs[] = {"add", "replace", "append", "del"};
    static const char *const gateways[] = {"10.1.0.2", "10.2.0.2", "2001:db8:a::2", "2001:db8:b::2"};
    uint32_t random = 12345;
    std::string batch;
    for (int done = 0; done < count; ++done) {
        random = random * 1103515245u + 12345u;
        const uint32_t bits = random >> 8;
        const std::string net = std::to_string(bits >> 2 & 3);
        const bool six = (bits & 1) != 0;
        batch += std::string("route ") + verbs[bits >> 4 & 3] + (six ? " 2001:db8:" : " 192.0.") + net +
                 (six ? "::/48" : ".0/24") + " via " + gateways[(six ? 2 : 0) + (bits >> 1 & 1)] + " metric " +
                 std::to_string(10 + (bits >> 6 & 1)) + "\n";
    }
    return batch;
}

TEST(Fib, EveryRouteIsRightAfterManyRandomChanges) {
    lab::inNamespace([] {
        Uplinks uplinks;
        start();
        FILE *pPipe = popen("ip -force -batch - 2>/dev/null >/dev/null", "w");
        ASSERT_NE(pPipe, nullptr);
        std::fputs(randomChanges(2000).c_str(), pPipe);
        (void)pclose(pPipe);
        for (int net = 0; net < 4; ++net) {
            for (bool six : {false, true}) {
                const std::string to = six ? "2001:db8:" + std::to_string(net) + "::1" : "192.0." + std::to_string(net) + ".1";
                const std::string kernel = firstLine("ip -o route get " + to + " 2>/dev/null");
                const std::string legs = firstLine(std::string("ip ") + (six ? "-6" : "-4") + " route list match " + to + " | grep nexthop");
                const std::string expected = kernel.find("dev a0") != std::string::npos   ? "a0 via"
                                             : kernel.find("dev b0") != std::string::npos ? "b0 via"
                                                                                          : "none";
                // With several legs the kernel takes any; the mirror names the first.
                EXPECT_TRUE(lab::eventually([&] {
                    return legs.empty() ? way(to).substr(0, expected.size()) == expected : way(to) != "none";
                })) << to << ": " << way(to) << ", kernel: " << kernel;
            }
        }
    });
}

} // namespace
