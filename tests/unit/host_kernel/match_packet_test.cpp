// Every kind of match with real packets: what must match takes the policy's uplink, what misses by a bit
// takes the routing table's.
#include "packet_world.h"

namespace kernel_test {
namespace {

using namespace host;

constexpr uint8_t FIN = 0x01, SYN = 0x02, RST = 0x04, ACK = 0x10, URG = 0x20, CWR = 0x80;

class MatchTest : public PacketTest {
protected:
    void rules(const std::vector<std::string> &texts) {
        world_.acl(acl(), texts);
        if (world_.view.lists.empty()) {
            world_.nextHops("wan", "lan0", 10, acl(), {hop2()});
            device();
            store();
        } else {
            device().aclChanged(acl());
        }
        ASSERT_EQ(device().show()["entries"][0]["error"], "");
    }

    Packet packet(uint8_t protocol, std::vector<uint8_t> payload) const {
        Packet made;
        made.version = GetParam();
        made.protocol = protocol;
        made.payload = std::move(payload);
        return made;
    }
    Packet tcp(uint8_t flags) const { return packet(6, tcpPayload(flags)); }
    Packet icmp(uint8_t type, uint8_t code = 0) const { return packet(v6() ? 58 : 1, icmpPayload(type, code)); }
    Packet marked(uint8_t tos) const {
        Packet made = packet(17, portsPayload(1, 2));
        made.tos = tos;
        return made;
    }
    Packet sized(size_t bytes) const { return packet(17, portsPayload(1, 2, bytes - (v6() ? 40 : 20))); }
    Packet between(const std::string &source, const std::string &destination) const {
        Packet made = packet(17, portsPayload(1, 2));
        made.source = source;
        made.destination = destination;
        return made;
    }
    Packet fragment(uint16_t offset, bool more, uint32_t id, uint16_t port = 5000) const {
        Packet made = packet(17, offset == 0 ? portsPayload(1, port, 64) : std::vector<uint8_t>(64, 0x88));
        made.offset = offset;
        made.more = more;
        made.id = id;
        return made;
    }

    void takes(const Packet &packet, const char *pWhat) { EXPECT_EQ(uplinkOf(packet), 2) << pWhat; }
    void leaves(const Packet &packet, const char *pWhat) { EXPECT_EQ(uplinkOf(packet), 1) << pWhat; }
};

TEST_P(MatchTest, FlagsMustBeSetOrClearAsTheyAreNamed) {
    rules({"permit tcp flags syn,!ack"});
    takes(tcp(SYN), "syn");
    takes(tcp(SYN | CWR | URG), "others do not matter");
    leaves(tcp(SYN | ACK), "syn and ack");
    leaves(tcp(ACK), "ack");
    leaves(tcp(0), "none");
    leaves(packet(17, tcpPayload(SYN)), "the same bytes in UDP");
    rules({"permit tcp flags !fin,!rst"});
    takes(tcp(ACK), "ack");
    takes(tcp(0), "none");
    leaves(tcp(FIN | ACK), "fin");
    leaves(tcp(RST), "rst");
}

TEST_P(MatchTest, EstablishedIsAckOrRst) {
    rules({"permit tcp established"});
    takes(tcp(ACK), "ack");
    takes(tcp(RST), "rst");
    takes(tcp(SYN | ACK), "syn and ack");
    leaves(tcp(SYN), "syn");
    leaves(tcp(FIN | URG), "neither");
    rules({"permit tcp flags !syn established"});
    takes(tcp(ACK), "both hold");
    leaves(tcp(SYN | ACK), "one does not");
    leaves(tcp(FIN), "the other does not");
}

TEST_P(MatchTest, IcmpTypeAndCode) {
    const uint8_t echo = v6() ? 128 : 8, reply = v6() ? 129 : 0, unreachable = v6() ? 1 : 3;
    rules({"permit icmp type echo-request"});
    takes(icmp(echo), "echo request");
    takes(icmp(echo, 5), "any code");
    leaves(icmp(reply), "echo reply");
    leaves(packet(17, icmpPayload(echo, 0)), "the same bytes in UDP");
    rules({"permit icmp type unreachable code 4"});
    takes(icmp(unreachable, 4), "its code");
    leaves(icmp(unreachable, 3), "another code");
    leaves(icmp(unreachable, 0), "code 0");
    leaves(icmp(reply, 4), "another type");
    rules({"permit icmp type unreachable code 0"});
    takes(icmp(unreachable, 0), "code 0 is a code");
    leaves(icmp(unreachable, 1), "another code");
}

TEST_P(MatchTest, DscpIsSixBitsAndPrecedenceThree) {
    rules({"permit ip dscp ef"});
    takes(marked(0xb8), "ef");
    takes(marked(0xbb), "ECN does not matter");
    leaves(marked(0xb4), "one less");
    leaves(marked(0xbc), "one more");
    leaves(marked(0x38), "without its highest bit");
    leaves(marked(0), "none");
    rules({"permit ip dscp cs0"});
    takes(marked(0x03), "zero is a DSCP");
    leaves(marked(0x04), "le");
    rules({"permit ip precedence 5"});
    takes(marked(0xa0), "its least");
    takes(marked(0xbf), "its greatest");
    leaves(marked(0x9f), "below");
    leaves(marked(0xc0), "above");
}

TEST_P(MatchTest, LengthIsThatOfThePacketWithItsIpHeader) {
    rules({"permit udp length 100-200"});
    leaves(sized(99), "one less");
    takes(sized(100), "the least");
    takes(sized(150), "between");
    takes(sized(200), "the most");
    leaves(sized(201), "one more");
    leaves(sized(356), "100 in the last byte"); // 0x164
    rules({"permit udp length 258"});
    takes(sized(258), "that length");
    leaves(sized(257), "one less");
    leaves(sized(259), "one more");
    leaves(sized(513), "its bytes the other way round"); // 0x0201
}

TEST_P(MatchTest, SourceMac) {
    rules({"permit udp source-mac 02:00:5e:00:53:01"});
    Packet made = packet(17, portsPayload(1, 2));
    leaves(made, "the sender's own");
    made.sourceMac = {0x02, 0x00, 0x5e, 0x00, 0x53, 0x01};
    takes(made, "that address");
    made.sourceMac[5] = 0x02;
    leaves(made, "its last bit");
    made.sourceMac = {0x03, 0x00, 0x5e, 0x00, 0x53, 0x01};
    made.sourceMac[0] = 0x06;
    leaves(made, "its first byte");
}

TEST_P(MatchTest, WildcardsCompareBitByBit) {
    if (v6()) {
        rules({"permit udp from fd01::5 mask ::fffe:0:0:0 to any"});
        takes(between("fd01::5", server()), "none of the open bits");
        takes(between("fd01::2:0:0:5", server()), "one open bit");
        takes(between("fd01::fffe:0:0:5", server()), "all open bits");
        leaves(between("fd01::1:0:0:5", server()), "a bit that is compared, in the middle");
        leaves(between("fd01::4", server()), "the last bit");
        leaves(between("fd02:0:0:0:2::5", server()), "the front");
        return;
    }
    rules({"permit udp from 10.1.0.5 mask 0.0.254.0 to any"});
    takes(between("10.1.0.5", server()), "none of the open bits");
    takes(between("10.1.2.5", server()), "one open bit");
    takes(between("10.1.254.5", server()), "all open bits");
    leaves(between("10.1.1.5", server()), "a bit that is compared, in the middle");
    leaves(between("10.1.2.4", server()), "the last bit");
    leaves(between("10.3.2.5", server()), "the front");
    rules({"permit udp to 203.0.113.7 mask 0.0.0.8"});
    takes(between("10.1.0.2", server()), "the destination");
    rules({"permit udp to 203.0.113.6 mask 0.0.0.8"});
    leaves(between("10.1.0.2", server()), "a bit of the destination");
}

TEST_P(MatchTest, EveryProtocolWithPortsHasThem) {
    const std::pair<const char *, uint8_t> protocols[] = {
        {"tcp", 6}, {"udp", 17}, {"dccp", 33}, {"sctp", 132}, {"udplite", 136}};
    for (const auto &[pName, number] : protocols) {
        rules({std::string("permit ") + pName + " from any port 1000-1999 to any port 80"});
        const auto made = [&, protocol = number](uint16_t source, uint16_t destination) {
            return packet(protocol, portsPayload(source, destination, 40));
        };
        takes(made(1000, 80), pName);
        takes(made(1999, 80), pName);
        leaves(made(999, 80), pName);
        leaves(made(2000, 80), pName);
        leaves(made(1500, 81), pName);
        Packet other = made(1500, 80);
        other.protocol = number == 17 ? 6 : 17;
        leaves(other, pName);
    }
}

TEST_P(MatchTest, NamedProtocolsAreTheirNumbers) {
    rules({"permit gre", "permit esp"});
    takes(packet(47, std::vector<uint8_t>(40)), "gre");
    takes(packet(50, std::vector<uint8_t>(40, 7)), "esp");
    leaves(packet(46, std::vector<uint8_t>(40)), "46");
    leaves(packet(89, std::vector<uint8_t>(40)), "ospf");
}

TEST_P(MatchTest, FragmentsAreTheLaterOnesOnly) {
    rules({"permit udp fragments"});
    leaves(fragment(0, false, 1), "a whole packet");
    leaves(fragment(0, true, 2), "a first fragment");
    takes(fragment(64, true, 2), "a middle fragment");
    takes(fragment(128, false, 2), "the last fragment");
    takes(fragment(32768, true, 3), "the highest bit of the offset");
    Packet other = fragment(64, false, 4);
    other.protocol = 132;
    leaves(other, "a later fragment of another protocol");
}

TEST_P(MatchTest, LaterFragmentsHaveNoPortsFlagsAndTypes) {
    rules({"permit udp to any port 34952"}); // 0x8888, the bytes of a later fragment
    takes(packet(17, portsPayload(1, 34952)), "a whole packet");
    leaves(fragment(64, true, 1), "a later fragment with the same bytes");
    rules({"deny udp to any port 34952", "permit udp"});
    takes(fragment(64, true, 2), "nor does a deny rule match it");
    rules({v6() ? "permit icmp type 96" : "permit icmp type 136"}); // 96: the IPv6 header's first byte
    Packet later = fragment(64, true, 3);
    later.protocol = v6() ? 58 : 1;
    leaves(later, "a type");
    rules({"permit tcp flags psh,!syn,!urg"});
    later.protocol = 6;
    leaves(later, "flags");
    rules({"permit udp to any port 0"}); // the IPv6 header's flow label
    leaves(fragment(64, true, 4), "the headers before it");
    rules({"permit udp from any port 24576"});
    leaves(fragment(64, true, 5), "the headers before it");
}

TEST_P(MatchTest, DeniedPacketsGoOnToTheNextNodeWithEveryMatch) {
    world_.acl(acl(2), {"permit ip"});
    world_.acl(acl(1), {"deny tcp established", "deny ip dscp ef", "deny udp length 100", "permit ip"});
    world_.nextHops("wan", "lan0", 10, acl(1), {hop1()});
    world_.nextHops("wan", "lan0", 20, acl(2), {hop2()});
    device();
    store();
    leaves(tcp(SYN), "permitted by the first node");
    takes(tcp(ACK), "denied: flags");
    takes(marked(0xb8), "denied: class");
    takes(sized(100), "denied: length");
    leaves(sized(101), "permitted by the first node");
}

TEST_P(MatchTest, AllOfARulesMatchesMustHold) {
    rules({"permit udp from any port 7 to any port 9 dscp af11 length 60-80 source-mac 02:00:5e:00:53:01"});
    Packet made = packet(17, portsPayload(7, 9, 30));
    made.tos = 0x28;
    made.sourceMac = {0x02, 0x00, 0x5e, 0x00, 0x53, 0x01};
    made.payload.resize(v6() ? 30 : 50);
    takes(made, "all hold");
    Packet other = made;
    other.tos = 0x30;
    leaves(other, "class");
    other = made;
    other.payload.resize(100);
    leaves(other, "length");
    other = made;
    other.sourceMac = {};
    leaves(other, "MAC");
    other = made;
    other.payload[3] = 8;
    leaves(other, "port");
}

TEST_P(MatchTest, InAnAclOfBothVersionsARuleMatchesBoth) {
    world_.acl(5001, {"permit ip dscp ef", "permit tcp established", "permit ip length 500"});
    world_.nextHops("wan", "lan0", 10, 5001, {hop2()});
    device();
    store();
    takes(marked(0xb8), "class");
    leaves(marked(0xb0), "another class");
    takes(tcp(RST), "established");
    leaves(tcp(SYN), "not established");
    takes(sized(500), "length");
    leaves(sized(499), "another length");
}

TEST_P(MatchTest, TheKernelShowsRulesThatItsToolReadsBack) {
    rules({"permit tcp from any port 1-2 to any port 3 flags syn,!ack established dscp ef length 40-100 source-mac "
           "02:00:5e:00:53:01",
           "permit icmp type 3 code 1 precedence 2", "permit udp fragments length 77"});
    const std::string listed = nft();
    for (const char *pWords : {"ether saddr 02:00:5e:00:53:01", "meta length 40-100", "dscp ef", "tcp sport 1-2",
                               "tcp dport 3", "tcp flags", "meta length 77"}) {
        EXPECT_NE(listed.find(pWords), std::string::npos) << pWords << " in " << listed;
    }
    run("nft -s list table inet policyroute > /tmp/policyroute-listed.$$ && nft -c -f /tmp/policyroute-listed.$$; "
        "status=$?; rm /tmp/policyroute-listed.$$; exit $status");
}

TEST_P(MatchTest, WhatIsReadBackIsWhatWasInstalled) {
    rules({"permit tcp flags syn,!ack established dscp ef length 40-100 source-mac 02:00:5e:00:53:01",
           "permit icmp type 3 code 1 precedence 2", "permit udp fragments length 77"});
    quiet();
    const uint64_t applies = device().counters().applies;
    restart();
    store();
    EXPECT_EQ(device().settle(), "");
    world_.loop.advance(milliseconds(1000));
    EXPECT_FALSE(device().isHeld());
    EXPECT_EQ(device().counters().driftRepaired, 0u);
    EXPECT_EQ(device().counters().applies, 0u) << "an adopted policy is taken over as it is, once it was " << applies;
    EXPECT_EQ(uplinkOf(tcp(SYN)), 1);
}

INSTANTIATE_TEST_SUITE_P(Families, MatchTest, ::testing::Values(4, 6),
                         [](const auto &family) { return "Ipv" + std::to_string(family.param); });

class MatchIpv6Test : public MatchTest {};

TEST_P(MatchIpv6Test, ExtensionHeadersAreSteppedOver) {
    rules({"permit udp to any port 5000"});
    Packet made = packet(17, portsPayload(1, 5000));
    made.hasOptionHeader = true;
    takes(made, "behind destination options");
    made.payload = portsPayload(1, 5001);
    leaves(made, "another port there");
}

INSTANTIATE_TEST_SUITE_P(Family, MatchIpv6Test, ::testing::Values(6));

} // namespace
} // namespace kernel_test
