// Whether a rule matches a packet that is thought of: each condition at its edges, and packets that are not
// told whole.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "aclrule/acl_packet.h"

namespace {

using namespace aclrule;

AclAddress address(const std::string &text) {
    AclAddress bytes{};
    EXPECT_EQ(inet_pton(text.find(':') == std::string::npos ? AF_INET : AF_INET6, text.c_str(), bytes.data()), 1) << text;
    return bytes;
}

// From 10.1.2.3 port 1000 to 192.0.2.7 port 443, a SYN of 60 bytes.
AclPacket tcp() {
    AclPacket packet;
    packet.source = address("10.1.2.3");
    packet.destination = address("192.0.2.7");
    packet.protocol = 6;
    packet.sourcePort = 1000;
    packet.destinationPort = 443;
    packet.flags = 0x02;
    packet.length = 60;
    return packet;
}

AclPacket udp6() {
    AclPacket packet;
    packet.version = 6;
    packet.source = address("2001:db8::1");
    packet.destination = address("2001:db8:1::7");
    packet.protocol = 17;
    return packet;
}

AclMatch ask(const std::string &text, const AclPacket &packet, uint32_t aclNum = 5001) {
    std::string error;
    const auto rule = aclRuleParse(aclNum, text, &error);
    EXPECT_TRUE(rule) << text << ": " << error;
    return aclRuleMatch(aclNum, rule.value_or(AclRule{}), packet);
}

std::string why(const std::string &text, const AclPacket &packet, uint32_t aclNum = 5001) {
    const AclMatch match = ask(text, packet, aclNum);
    const char *pAnswer = match.answer == AclAnswer::Match ? "match" : match.answer == AclAnswer::Miss ? "miss" : "unknown";
    return match.why.empty() ? pAnswer : pAnswer + std::string(": ") + match.why;
}

TEST(AclRuleMatch, TheVersionIsThatOfTheAclsNumberOrOfTheRule) {
    EXPECT_EQ(why("permit ip", tcp()), "match");
    EXPECT_EQ(why("permit ip", udp6()), "match");
    EXPECT_EQ(why("permit ip", udp6(), 1501), "miss: it is for IPv4");
    EXPECT_EQ(why("permit ip", tcp(), 3501), "miss: it is for IPv6");
    EXPECT_EQ(why("permit ip from 0.0.0.0/0", udp6()), "miss: it is for IPv4");
    EXPECT_EQ(why("permit ip from ::/0", udp6()), "match");
}

TEST(AclRuleMatch, DenyMatchesAsPermitDoes) {
    EXPECT_EQ(why("deny tcp to any port 443", tcp()), "match");
    EXPECT_EQ(why("deny tcp to any port 80", tcp()), "miss: another destination port");
}

TEST(AclRuleMatch, AddressesAreComparedToTheLastBitOfTheirPrefix) {
    AclPacket packet = tcp();
    EXPECT_EQ(why("permit ip from 10.1.2.3", packet), "match");
    EXPECT_EQ(why("permit ip from 10.1.2.2/31", packet), "match");
    EXPECT_EQ(why("permit ip from 10.1.2.2", packet), "miss: another source");
    EXPECT_EQ(why("permit ip from any to 192.0.2.0/29", packet), "match");
    EXPECT_EQ(why("permit ip from any to 192.0.2.8/29", packet), "miss: another destination");
    packet = udp6();
    EXPECT_EQ(why("permit ip from 2001:db8::/127", packet), "match");
    EXPECT_EQ(why("permit ip from 2001:db8::2/127", packet), "miss: another source");
    EXPECT_EQ(why("permit ip from any to 2001:db8:1::/48", packet), "match");
    EXPECT_EQ(why("permit ip from any to 2001:db8:2::/48", packet), "miss: another destination");
}

TEST(AclRuleMatch, WildcardBitsMayBeAnything) {
    EXPECT_EQ(why("permit ip from 10.0.0.3 mask 0.255.255.0", tcp()), "match");
    EXPECT_EQ(why("permit ip from 10.0.0.2 mask 0.255.255.0", tcp()), "miss: another source");
    EXPECT_EQ(why("permit ip from 10.0.0.2 mask 0.255.255.1", tcp()), "match");
}

TEST(AclRuleMatch, PortRangesIncludeBothEnds) {
    AclPacket packet = tcp();
    for (const auto &[port, answer] : {std::pair{99, "miss: another destination port"}, std::pair{100, "match"},
                                       std::pair{200, "match"}, std::pair{201, "miss: another destination port"}}) {
        packet.destinationPort = static_cast<uint16_t>(port);
        EXPECT_EQ(why("permit tcp to any port 100-200", packet), answer) << port;
    }
    EXPECT_EQ(why("permit tcp from any port 1000", packet), "match");
    EXPECT_EQ(why("permit tcp from any port 1001", packet), "miss: another source port");
    packet.sourcePort = 65535;
    EXPECT_EQ(why("permit tcp from any port 65535", packet), "match");
    packet.sourcePort = 0;
    EXPECT_EQ(why("permit tcp from any port 0", packet), "match");
}

TEST(AclRuleMatch, ProtocolsDifferByTheirNumber) {
    EXPECT_EQ(why("permit 6", tcp()), "match");
    EXPECT_EQ(why("permit udp", tcp()), "miss: another protocol");
    EXPECT_EQ(why("permit udp", udp6()), "match");
    AclPacket packet = tcp();
    packet.protocol = 0;
    EXPECT_EQ(why("permit 0", packet), "match");
    packet.protocol = 255;
    EXPECT_EQ(why("permit 255", packet), "match");
}

TEST(AclRuleMatch, FlagsMustBeSetOrClearAsTheyAreNamed) {
    AclPacket packet = tcp();
    EXPECT_EQ(why("permit tcp flags syn,!ack", packet), "match");
    packet.flags = 0x12;
    EXPECT_EQ(why("permit tcp flags syn,!ack", packet), "miss: other TCP flags");
    EXPECT_EQ(why("permit tcp flags syn", packet), "match");
    EXPECT_EQ(why("permit tcp flags fin", packet), "miss: other TCP flags");
    packet.flags = 0;
    EXPECT_EQ(why("permit tcp flags !syn", packet), "match");
}

TEST(AclRuleMatch, EstablishedIsAckOrRst) {
    AclPacket packet = tcp();
    EXPECT_EQ(why("permit tcp established", packet), "miss: neither ack nor rst");
    for (const uint8_t flags : {0x10, 0x04, 0x14, 0x12}) {
        packet.flags = flags;
        EXPECT_EQ(why("permit tcp established", packet), "match") << int{flags};
    }
    EXPECT_EQ(why("permit tcp flags !syn established", packet), "miss: other TCP flags");
}

TEST(AclRuleMatch, IcmpTypeAndCode) {
    AclPacket packet = tcp();
    packet.protocol = 1;
    packet.icmpType = 3;
    packet.icmpCode = 4;
    EXPECT_EQ(why("permit icmp type unreachable", packet, 1501), "match");
    EXPECT_EQ(why("permit icmp type unreachable code 4", packet, 1501), "match");
    EXPECT_EQ(why("permit icmp type unreachable code 0", packet, 1501), "miss: another ICMP code");
    EXPECT_EQ(why("permit icmp type echo-request", packet, 1501), "miss: another ICMP type");
    packet.icmpType = 0;
    packet.icmpCode = 0;
    EXPECT_EQ(why("permit icmp type 0 code 0", packet, 1501), "match");
}

TEST(AclRuleMatch, DscpIsSixBitsAndPrecedenceItsUpperThree) {
    AclPacket packet = tcp();
    EXPECT_EQ(why("permit ip dscp 0", packet), "match");
    packet.dscp = 46;
    EXPECT_EQ(why("permit ip dscp ef", packet), "match");
    EXPECT_EQ(why("permit ip dscp 47", packet), "miss: another DSCP");
    EXPECT_EQ(why("permit ip precedence 5", packet), "match");
    packet.dscp = 39;
    EXPECT_EQ(why("permit ip precedence 5", packet), "miss: another precedence");
    EXPECT_EQ(why("permit ip precedence 4", packet), "match");
}

TEST(AclRuleMatch, LengthsIncludeBothEnds) {
    AclPacket packet = tcp();
    EXPECT_EQ(why("permit ip length 60", packet, 1501), "match");
    EXPECT_EQ(why("permit ip length 60-61", packet, 1501), "match");
    EXPECT_EQ(why("permit ip length 59-60", packet, 1501), "match");
    EXPECT_EQ(why("permit ip length 61-70", packet, 1501), "miss: another length");
    EXPECT_EQ(why("permit ip length 50-59", packet, 1501), "miss: another length");
}

TEST(AclRuleMatch, ALaterFragmentHasNoProtocolsHeader) {
    AclPacket packet = tcp();
    EXPECT_EQ(why("permit ip fragments", packet), "miss: it is for later fragments");
    packet.isLaterFragment = true;
    EXPECT_EQ(why("permit ip fragments", packet), "match");
    EXPECT_EQ(why("permit tcp", packet), "match");
    for (const char *pRule : {"permit tcp to any port 443", "permit tcp from any port 1000", "permit tcp flags syn",
                              "permit tcp established"}) {
        EXPECT_EQ(why(pRule, packet), "miss: a later fragment has no such header") << pRule;
    }
}

TEST(AclRuleMatch, SourceMac) {
    AclPacket packet = tcp();
    packet.sourceMac = AclMac{2, 0, 0x5e, 0, 0x53, 1};
    EXPECT_EQ(why("permit ip source-mac 02:00:5e:00:53:01", packet), "match");
    EXPECT_EQ(why("permit ip source-mac 02:00:5e:00:53:02", packet), "miss: another source MAC");
    packet.isEthernet = false;
    EXPECT_EQ(why("permit ip source-mac 02:00:5e:00:53:01", packet),
              "miss: it has no source MAC: it does not come in over Ethernet");
    packet.sourceMac.reset();
    EXPECT_EQ(why("permit ip source-mac 02:00:5e:00:53:01", packet),
              "miss: it has no source MAC: it does not come in over Ethernet");
    EXPECT_EQ(why("permit ip", packet), "match");
}

TEST(AclRuleMatch, WhatWasNotToldIsNamed) {
    AclPacket packet;
    packet.source = address("10.1.2.3");
    packet.destination = address("192.0.2.7");
    EXPECT_EQ(why("permit ip", packet), "match");
    EXPECT_EQ(why("permit tcp", packet), "unknown: it asks for the protocol");
    EXPECT_EQ(why("permit ip length 60", packet, 1501), "unknown: it asks for the length");
    EXPECT_EQ(why("permit ip source-mac 02:00:5e:00:53:01", packet), "unknown: it asks for the source MAC");
    packet.protocol = 6;
    EXPECT_EQ(why("permit tcp from any port 1", packet), "unknown: it asks for the source port");
    EXPECT_EQ(why("permit tcp to any port 1", packet), "unknown: it asks for the destination port");
    EXPECT_EQ(why("permit tcp established", packet), "unknown: it asks for the TCP flags");
    packet.protocol = 1;
    EXPECT_EQ(why("permit icmp type 3 code 1", packet, 1501), "unknown: it asks for the ICMP type");
    packet.icmpType = 3;
    EXPECT_EQ(why("permit icmp type 3 code 1", packet, 1501), "unknown: it asks for the ICMP code");
}

TEST(AclRuleMatch, ARuleThatMissesAnywayMissesWhateverWasNotTold) {
    AclPacket packet;
    packet.source = address("10.1.2.3");
    packet.destination = address("192.0.2.7");
    EXPECT_EQ(why("permit tcp from 10.2.0.0/16 to any port 80 established", packet), "miss: another source");
    packet.protocol = 17;
    EXPECT_EQ(why("permit tcp to any port 80", packet), "miss: another protocol");
    packet.sourcePort = 5;
    EXPECT_EQ(why("permit udp from any port 6 to any port 80", packet), "miss: another source port");
}

} // namespace
