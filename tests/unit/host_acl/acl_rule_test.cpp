// The text form of ACL rules: what is taken, what is refused and with which words.
#include <gtest/gtest.h>

#include <random>

#include "host/acl/acl_rule.h"

namespace {

using namespace host;

constexpr uint32_t ACL_4 = 1501, ACL_6 = 3501, ACL_EITHER = 5001;

AclRule parsed(uint32_t aclNum, const std::string &text) {
    std::string error;
    const auto rule = aclRuleParse(aclNum, text, &error);
    EXPECT_TRUE(rule) << text << ": " << error;
    return rule.value_or(AclRule{});
}

std::string canonical(uint32_t aclNum, const std::string &text) {
    return aclRuleFormat(aclNum, parsed(aclNum, text));
}

std::string errorOf(uint32_t aclNum, const std::string &text) {
    std::string error;
    EXPECT_FALSE(aclRuleParse(aclNum, text, &error)) << text;
    return error;
}

TEST(AclVersion, FollowsTheNumber) {
    EXPECT_EQ(aclVersion(0), std::nullopt);
    EXPECT_EQ(aclVersion(1000), std::nullopt);
    EXPECT_EQ(aclVersion(1001), 4);
    EXPECT_EQ(aclVersion(2000), 4);
    EXPECT_EQ(aclVersion(2001), std::nullopt);
    EXPECT_EQ(aclVersion(3000), std::nullopt);
    EXPECT_EQ(aclVersion(3001), 6);
    EXPECT_EQ(aclVersion(4000), 6);
    EXPECT_EQ(aclVersion(4001), std::nullopt);
    EXPECT_EQ(aclVersion(5000), std::nullopt);
    EXPECT_EQ(aclVersion(5001), 0);
    EXPECT_EQ(aclVersion(0xFFFFFFFFu), 0);
}

TEST(AclRuleParse, TakesEveryPartIntoItsField) {
    const AclRule rule = parsed(ACL_4, "deny tcp from 10.1.0.0/16 port 1024-65535 to 192.0.2.7 port 443");
    EXPECT_FALSE(rule.permit);
    EXPECT_EQ(rule.version, 4);
    EXPECT_EQ(rule.protocol, 6);
    EXPECT_FALSE(rule.source.any);
    EXPECT_EQ(rule.source.length, 16);
    EXPECT_EQ(rule.source.address, (std::array<uint8_t, 16>{10, 1}));
    EXPECT_EQ(rule.destination.length, 32);
    EXPECT_EQ(rule.destination.address, (std::array<uint8_t, 16>{192, 0, 2, 7}));
    EXPECT_EQ(rule.sourcePorts, (AclPorts{1024, 65535, false}));
    EXPECT_EQ(rule.destinationPorts, (AclPorts{443, 443, false}));
}

TEST(AclRuleParse, WritesOneCanonicalText) {
    EXPECT_EQ(canonical(ACL_4, "permit tcp from 10.1.0.0/16 to any port 443"),
              "permit tcp from 10.1.0.0/16 to any port 443");
    EXPECT_EQ(canonical(ACL_4, "permit ip"), "permit ip from any to any");
    EXPECT_EQ(canonical(ACL_4, "deny udp from any port 53"), "deny udp from any port 53 to any");
    EXPECT_EQ(canonical(ACL_4, "deny ip to 10.0.0.1"), "deny ip from any to 10.0.0.1/32");
    EXPECT_EQ(canonical(ACL_4, "  permit\tip   from 0.0.0.0/0\t"), "permit ip from any to any");
    EXPECT_EQ(canonical(ACL_4, "permit 6 to any port 0-65535"), "permit tcp from any to any");
    EXPECT_EQ(canonical(ACL_4, "permit udp to any port 53-53"), "permit udp from any to any port 53");
    EXPECT_EQ(canonical(ACL_4, "permit 47"), "permit gre from any to any");
    EXPECT_EQ(canonical(ACL_4, "permit 143"), "permit 143 from any to any");
    EXPECT_EQ(canonical(ACL_6, "permit ip from 2001:DB8:0::/32 to ::1"),
              "permit ip from 2001:db8::/32 to ::1/128");
}

TEST(AclRuleParse, TakesEveryOptionIntoItsField) {
    const AclRule tcp = parsed(ACL_4, "permit tcp flags syn,!ack established dscp af21 length 40-100 source-mac "
                                      "02:00:5E:00:53:01");
    EXPECT_EQ(tcp.flagsSet, 0x02);
    EXPECT_EQ(tcp.flagsClear, 0x10);
    EXPECT_TRUE(tcp.established);
    EXPECT_EQ(tcp.dscp, 18);
    EXPECT_EQ(tcp.length, (AclLength{40, 100, false}));
    EXPECT_EQ(tcp.sourceMac, (AclMac{0x02, 0x00, 0x5e, 0x00, 0x53, 0x01}));
    const AclRule icmp = parsed(ACL_4, "permit icmp type unreachable code 4 precedence 7");
    EXPECT_EQ(icmp.icmpType, 3);
    EXPECT_EQ(icmp.icmpCode, 4);
    EXPECT_EQ(icmp.precedence, 7);
    EXPECT_TRUE(parsed(ACL_6, "permit udp fragments").fragments);
    EXPECT_EQ(parsed(ACL_6, "permit icmp type unreachable").icmpType, 1);
    EXPECT_EQ(parsed(ACL_4, "permit sctp from any port 1-2").sourcePorts, (AclPorts{1, 2, false}));
}

TEST(AclRuleParse, WritesOptionsInOneOrder) {
    EXPECT_EQ(canonical(ACL_4, "permit tcp source-mac 02:00:5E:00:53:01 length 64-64 dscp 46 established flags "
                               "!ack,syn"),
              "permit tcp from any to any flags syn,!ack established dscp ef length 64 source-mac 02:00:5e:00:53:01");
    EXPECT_EQ(canonical(ACL_4, "permit 1 type 8 code 0"), "permit icmp from any to any type echo-request code 0");
    EXPECT_EQ(canonical(ACL_6, "permit icmp type 2"), "permit icmp from any to any type packet-too-big");
    EXPECT_EQ(canonical(ACL_4, "permit icmp type 2"), "permit icmp from any to any type 2");
    EXPECT_EQ(canonical(ACL_4, "permit ip dscp 0"), "permit ip from any to any dscp cs0");
    EXPECT_EQ(canonical(ACL_4, "permit ip dscp 63 fragments"), "permit ip from any to any dscp 63 fragments");
    EXPECT_EQ(canonical(ACL_4, "permit ip length 20-65535"), "permit ip from any to any");
    EXPECT_EQ(canonical(ACL_EITHER, "permit ip length 20-65535"), "permit ip from any to any length 20-65535");
}

TEST(AclRuleParse, ReadsWildcardsBitByBit) {
    const AclRule rule = parsed(ACL_4, "permit ip from 10.1.0.5 mask 0.0.255.0");
    EXPECT_FALSE(rule.source.any);
    EXPECT_EQ(rule.source.length, 0);
    EXPECT_EQ(rule.source.wildcard, (AclAddress{0, 0, 255, 0}));
    EXPECT_EQ(aclPrefixMask(rule.source, 4), (AclAddress{255, 255, 0, 255}));
    EXPECT_EQ(canonical(ACL_4, "permit ip from 10.1.0.5 mask 0.0.255.0"),
              "permit ip from 10.1.0.5 mask 0.0.255.0 to any");
    EXPECT_EQ(canonical(ACL_4, "permit tcp to 10.0.0.1 mask 0.255.0.254 port 80"),
              "permit tcp from any to 10.0.0.1 mask 0.255.0.254 port 80");
    EXPECT_EQ(canonical(ACL_6, "permit ip to 2001:db8::5 mask ::ffff:0:0:0"),
              "permit ip from any to 2001:db8::5 mask ::ffff:0:0:0");
    // The ends of what can be written: a single bit at either side.
    EXPECT_EQ(canonical(ACL_4, "permit ip from 0.0.0.1 mask 128.0.0.0"),
              "permit ip from 0.0.0.1 mask 128.0.0.0 to any");
    EXPECT_EQ(canonical(ACL_4, "permit ip from 0.0.0.0 mask 255.255.255.254"),
              "permit ip from 0.0.0.0 mask 255.255.255.254 to any");
}

TEST(AclRuleParse, WritesWildcardsThatArePrefixesAsPrefixes) {
    EXPECT_EQ(canonical(ACL_4, "permit ip from 10.1.0.0 mask 0.0.255.255"), "permit ip from 10.1.0.0/16 to any");
    EXPECT_EQ(canonical(ACL_4, "permit ip from 10.1.0.0 mask 0.0.0.0"), "permit ip from 10.1.0.0/32 to any");
    EXPECT_EQ(canonical(ACL_4, "permit ip from 0.0.0.0 mask 255.255.255.255"), "permit ip from any to any");
    EXPECT_EQ(canonical(ACL_4, "permit ip from 128.0.0.0 mask 127.255.255.255"),
              "permit ip from 128.0.0.0/1 to any");
    EXPECT_EQ(canonical(ACL_6, "permit ip from 2001:db8:: mask ::ffff"), "permit ip from 2001:db8::/112 to any");
    EXPECT_EQ(parsed(ACL_EITHER, "permit ip from 0.0.0.0 mask 255.255.255.255").version, 4);
}

TEST(AclRuleParse, NamesOfProtocolsAreTheirNumbers) {
    const std::pair<const char *, int> names[] = {{"igmp", 2}, {"ipip", 4}, {"gre", 47}, {"esp", 50}, {"ah", 51},
                                                  {"ospf", 89}, {"pim", 103}, {"vrrp", 112}, {"sctp", 132},
                                                  {"udplite", 136}, {"dccp", 33}};
    for (const auto &[pName, number] : names) {
        const AclRule rule = parsed(ACL_EITHER, std::string("permit ") + pName);
        EXPECT_EQ(rule.protocol, number) << pName;
        EXPECT_EQ(rule.version, 0);
        EXPECT_EQ(aclRuleFormat(ACL_EITHER, rule), std::string("permit ") + pName + " from any to any");
    }
}

TEST(AclRuleParse, ReadsIcmpByTheVersion) {
    EXPECT_EQ(parsed(ACL_4, "permit icmp").protocol, 1);
    EXPECT_EQ(parsed(ACL_6, "permit icmp").protocol, 58);
    EXPECT_EQ(parsed(ACL_EITHER, "permit icmp from 10.0.0.0/8").protocol, 1);
    EXPECT_EQ(parsed(ACL_EITHER, "permit icmp to 2001:db8::/32").protocol, 58);
    EXPECT_EQ(canonical(ACL_4, "permit 1"), "permit icmp from any to any");
    EXPECT_EQ(canonical(ACL_4, "permit 58"), "permit 58 from any to any");
    EXPECT_EQ(canonical(ACL_6, "permit 1"), "permit 1 from any to any");
    EXPECT_EQ(canonical(ACL_EITHER, "permit 1"), "permit 1 from any to any");
}

TEST(AclRuleParse, LetsAddressesTellTheVersionWhereTheNumberDoesNot) {
    EXPECT_EQ(aclRuleVersion(ACL_EITHER, parsed(ACL_EITHER, "permit ip")), 0);
    EXPECT_EQ(aclRuleVersion(ACL_EITHER, parsed(ACL_EITHER, "permit ip to 10.0.0.0/8")), 4);
    EXPECT_EQ(aclRuleVersion(ACL_EITHER, parsed(ACL_EITHER, "permit ip from a00::/8")), 6);
    EXPECT_EQ(aclRuleVersion(ACL_4, parsed(ACL_4, "permit ip")), 4);
    EXPECT_EQ(aclRuleVersion(ACL_6, parsed(ACL_6, "permit ip")), 6);
}

TEST(AclRuleParse, KeepsTheVersionOfAllAddressesOfOneVersion) {
    EXPECT_EQ(canonical(ACL_EITHER, "permit ip from any to ::/0"), "permit ip from ::/0 to any");
    EXPECT_EQ(canonical(ACL_EITHER, "permit icmp from 0.0.0.0/0"), "permit icmp from 0.0.0.0/0 to any");
    EXPECT_EQ(canonical(ACL_EITHER, "permit ip from 0.0.0.0/0 to 10.0.0.0/8"),
              "permit ip from any to 10.0.0.0/8");
    EXPECT_NE(parsed(ACL_EITHER, "permit ip from 0.0.0.0/0"), parsed(ACL_EITHER, "permit ip"));
}

TEST(AclRuleParse, RefusesNumbersThatNoAclCanHave) {
    const std::string tail = " cannot be used: IPv4 ACLs are 1001 to 2000, IPv6 ACLs 3001 to 4000, ACLs of "
                             "either version 5001 and up";
    EXPECT_EQ(errorOf(0, "permit ip"), "ACL number 0" + tail);
    EXPECT_EQ(errorOf(2500, "permit ip"), "ACL number 2500" + tail);
}

struct Refusal {
    uint32_t aclNum;
    const char *text;
    const char *error;
};

class AclRuleRefused : public testing::TestWithParam<Refusal> {};

TEST_P(AclRuleRefused, NamesTheWordAndWhatIsAllowed) {
    EXPECT_EQ(errorOf(GetParam().aclNum, GetParam().text), GetParam().error);
}

#define EXPECT_PREFIX                                                                                        \
    "expected an IPv4 or IPv6 prefix such as 10.1.0.0/16 or 2001:db8::/32, an address, or any"
#define EXPECT_PROTOCOL                                                                                      \
    "expected ip, tcp, udp, icmp, another protocol's name such as gre, or a protocol number 0 to 255"
#define EXPECT_OPTION                                                                                        \
    "an option: flags, established, type, dscp, precedence, fragments, length or source-mac"
#define NEED_PORTS "ports need protocol tcp, udp, sctp, udplite or dccp, not "
#define EXPECT_FLAGS                                                                                         \
    "expected TCP flags separated by commas, each with ! when it must not be set: fin, syn, rst, psh, ack, "  \
    "urg, ece, cwr"
const Refusal REFUSALS[] = {
    {ACL_4, "", "the rule is empty: expected permit or deny"},
    {ACL_4, " \t ", "the rule is empty: expected permit or deny"},
    {ACL_4, "allow ip", "word 1 'allow': expected permit or deny"},
    {ACL_4, "PERMIT ip", "word 1 'PERMIT': expected permit or deny"},
    {ACL_4, "permit", "the rule ends after 'permit': " EXPECT_PROTOCOL},
    {ACL_4, "permit tpc", "word 2 'tpc': " EXPECT_PROTOCOL},
    {ACL_4, "permit 256", "word 2 '256': " EXPECT_PROTOCOL},
    {ACL_4, "permit -1", "word 2 '-1': " EXPECT_PROTOCOL},
    {ACL_4, "permit +6", "word 2 '+6': " EXPECT_PROTOCOL},
    {ACL_4, "permit 6x", "word 2 '6x': " EXPECT_PROTOCOL},
    {ACL_4, "permit 99999999999999999999", "word 2 '99999999999999999999': " EXPECT_PROTOCOL},
    {ACL_4, "permit tcp port 80", "word 3 'port': expected from, to, or " EXPECT_OPTION},
    {ACL_4, "permit ip 10.0.0.1", "word 3 '10.0.0.1': expected from, to, or " EXPECT_OPTION},
    {ACL_4, "permit ip from", "the rule ends after 'from': expected an address, a prefix or any"},
    {ACL_4, "permit ip from nowhere", "word 4 'nowhere': " EXPECT_PREFIX},
    {ACL_4, "permit ip from 10.0.0", "word 4 '10.0.0': " EXPECT_PREFIX},
    {ACL_4, "permit ip from /8", "word 4 '/8': " EXPECT_PREFIX},
    {ACL_4, "permit ip from any/0", "word 4 'any/0': " EXPECT_PREFIX},
    {ACL_4, "permit ip from 10.0.0.0/33", "word 4 '10.0.0.0/33': the prefix length must be a number 0 to 32"},
    {ACL_4, "permit ip from 10.0.0.0/", "word 4 '10.0.0.0/': the prefix length must be a number 0 to 32"},
    {ACL_4, "permit ip from 10.0.0.0/-1", "word 4 '10.0.0.0/-1': the prefix length must be a number 0 to 32"},
    {ACL_4, "permit ip from 10.0.0.0/8/8",
     "word 4 '10.0.0.0/8/8': the prefix length must be a number 0 to 32"},
    {ACL_6, "permit ip to ::/129", "word 4 '::/129': the prefix length must be a number 0 to 128"},
    {ACL_4, "permit ip from 10.1.2.3/16",
     "word 4 '10.1.2.3/16': bits beyond the prefix length are set: write 10.1.0.0/16 for the network or "
     "10.1.2.3/32 for the one address"},
    {ACL_4, "permit ip to 10.0.0.1/0",
     "word 4 '10.0.0.1/0': bits beyond the prefix length are set: write 0.0.0.0/0 for the network or "
     "10.0.0.1/32 for the one address"},
    {ACL_6, "permit ip from 2001:db8::1/33",
     "word 4 '2001:db8::1/33': bits beyond the prefix length are set: write 2001:db8::/33 for the network or "
     "2001:db8::1/128 for the one address"},
    {ACL_4, "permit ip from 2001:db8::/32",
     "word 4 '2001:db8::/32': this is IPv6 and ACL 1501 takes IPv4 only: IPv6 ACLs are numbered 3001 to "
     "4000, "
     "those of either version 5001 and up"},
    {ACL_6, "permit ip to 10.0.0.0/8",
     "word 4 '10.0.0.0/8': this is IPv4 and ACL 3501 takes IPv6 only: IPv4 ACLs are numbered 1001 to 2000, "
     "those of either version 5001 and up"},
    {ACL_EITHER, "permit ip from 10.0.0.0/8 to 2001:db8::/32",
     "word 6 '2001:db8::/32': this is IPv6 and the source is IPv4: one rule is of one version"},
    {ACL_EITHER, "permit ip from ::/0 to 10.0.0.0/8",
     "word 6 '10.0.0.0/8': this is IPv4 and the source is IPv6: one rule is of one version"},
    {ACL_EITHER, "permit icmp",
     "word 2 'icmp': ACL 5001 is of either IP version and no address tells which ICMP is meant: name an "
     "address "
     "(0.0.0.0/0 or ::/0 for all), or write protocol 1 (IPv4) or 58 (IPv6)"},
    {ACL_4, "permit icmp from any port 8", "word 5 'port': " NEED_PORTS "'icmp'"},
    {ACL_4, "permit ip to any port 80", "word 5 'port': " NEED_PORTS "'ip'"},
    {ACL_4, "permit 131 to any port 80", "word 5 'port': " NEED_PORTS "'131'"},
    {ACL_4, "permit tcp to any port", "the rule ends after 'port': expected a port N or a range N-M"},
    {ACL_4, "permit tcp to any port http",
     "word 6 'http': expected a port N or a range N-M, numbers 0 to 65535"},
    {ACL_4, "permit tcp to any port 65536",
     "word 6 '65536': expected a port N or a range N-M, numbers 0 to 65535"},
    {ACL_4, "permit tcp to any port 80-",
     "word 6 '80-': expected a port N or a range N-M, numbers 0 to 65535"},
    {ACL_4, "permit tcp to any port -80",
     "word 6 '-80': expected a port N or a range N-M, numbers 0 to 65535"},
    {ACL_4, "permit tcp to any port 80-90-99",
     "word 6 '80-90-99': expected a port N or a range N-M, numbers 0 to 65535"},
    {ACL_4, "permit tcp to any port 90-80", "word 6 '90-80': the range ends before it begins: write 80-90"},
    {ACL_4, "permit ip to any from any", "word 5 'from': from comes before to"},
    {ACL_4, "permit ip from any from any", "word 5 'from': this part was given already"},
    {ACL_4, "permit ip to any to any", "word 5 'to': this part was given already"},
    {ACL_4, "permit ip from any any", "word 5 'any': expected to, port N[-M] once behind an address, or " EXPECT_OPTION},
    {ACL_4, "permit tcp to any port 80 port 90",
     "word 7 'port': expected port N[-M] once behind an address, or " EXPECT_OPTION},
    {ACL_4, "permit ip to any log",
     "word 5 'log': expected port N[-M] once behind an address, or " EXPECT_OPTION},
    // wildcards
    {ACL_4, "permit ip from 10.0.0.0 mask", "the rule ends after 'mask': expected a wildcard such as 0.0.255.0"},
    {ACL_4, "permit ip from 10.0.0.0 mask 24",
     "word 6 '24': expected a wildcard of the address's IP version, such as 0.0.255.0: ones are bits that may be "
     "anything"},
    {ACL_4, "permit ip from 10.0.0.0 mask ::ff",
     "word 6 '::ff': expected a wildcard of the address's IP version, such as 0.0.255.0: ones are bits that may be "
     "anything"},
    {ACL_4, "permit ip from 10.1.0.0 mask 255.255.0.0",
     "word 6 '255.255.0.0': the address has bits set that the wildcard leaves out: write 0.0.0.0 mask 255.255.0.0 "
     "(ones of a wildcard are bits that may be anything)"},
    {ACL_6, "permit ip to 2001:db8::1 mask ::ff",
     "word 6 '::ff': the address has bits set that the wildcard leaves out: write 2001:db8:: mask ::ff (ones of a "
     "wildcard are bits that may be anything)"},
    {ACL_4, "permit ip from 10.0.0.0/8 mask 0.0.0.255",
     "word 5 'mask': mask stands behind an address without a prefix length"},
    {ACL_4, "permit ip from any mask 0.0.0.255",
     "word 5 'mask': mask stands behind an address without a prefix length"},
    // options
    {ACL_4, "permit tcp established from any", "word 4 'from': addresses come before the options"},
    {ACL_4, "permit tcp to any established port 80", "word 6 'port': expected " EXPECT_OPTION},
    {ACL_4, "permit tcp established established", "word 4 'established': this option was given already"},
    {ACL_4, "permit ip established", "word 3 'established': this option needs protocol tcp, not 'ip'"},
    {ACL_4, "permit udp flags syn", "word 3 'flags': this option needs protocol tcp, not 'udp'"},
    {ACL_4, "permit tcp flags", "the rule ends after 'flags': expected TCP flags such as syn,!ack"},
    {ACL_4, "permit tcp flags SYN", "word 4 'SYN': " EXPECT_FLAGS},
    {ACL_4, "permit tcp flags syn,", "word 4 'syn,': " EXPECT_FLAGS},
    {ACL_4, "permit tcp flags ,", "word 4 ',': " EXPECT_FLAGS},
    {ACL_4, "permit tcp flags !", "word 4 '!': " EXPECT_FLAGS},
    {ACL_4, "permit tcp flags !!syn", "word 4 '!!syn': " EXPECT_FLAGS},
    {ACL_4, "permit tcp flags syn,!syn", "word 4 'syn,!syn': a flag is named twice"},
    {ACL_4, "permit udp type 8", "word 3 'type': a type needs protocol icmp, which is 1 of IPv4"},
    {ACL_6, "permit 1 type 8", "word 3 'type': a type needs protocol icmp, which is 58 of IPv6"},
    {ACL_EITHER, "permit 1 type 8",
     "word 3 'type': a type needs protocol icmp and an address that tells the IP version (0.0.0.0/0 or ::/0 for all)"},
    {ACL_4, "permit icmp type 256",
     "word 4 '256': expected a type of IPv4's ICMP: a number 0 to 255, or echo-reply, unreachable, redirect, "
     "echo-request, router-advertisement, router-solicitation, time-exceeded, parameter-problem, "
     "timestamp-request, timestamp-reply"},
    {ACL_4, "permit icmp type packet-too-big",
     "word 4 'packet-too-big': expected a type of IPv4's ICMP: a number 0 to 255, or echo-reply, unreachable, "
     "redirect, echo-request, router-advertisement, router-solicitation, time-exceeded, parameter-problem, "
     "timestamp-request, timestamp-reply"},
    {ACL_4, "permit icmp code 0", "word 3 'code': code stands behind type N"},
    {ACL_4, "permit icmp type 3 code", "the rule ends after 'code': expected an ICMP code"},
    {ACL_4, "permit icmp type 3 code 256", "word 6 '256': expected an ICMP code, a number 0 to 255"},
    {ACL_4, "permit ip dscp 64",
     "word 4 '64': expected a DSCP: a number 0 to 63, cs0 to cs7, af11 to af43, ef, va or le"},
    {ACL_4, "permit ip precedence 8", "word 4 '8': expected a precedence, a number 0 to 7"},
    {ACL_4, "permit ip dscp ef precedence 5",
     "word 6 '5': dscp and precedence are of the same bits: give one of them"},
    {ACL_4, "permit ip length", "the rule ends after 'length': expected a length in bytes N or a range N-M"},
    {ACL_4, "permit ip length 19", "word 4 '19': an IPv4 packet has 20 to 65535 bytes with its IP header"},
    {ACL_4, "permit ip length 20-65536",
     "word 4 '20-65536': an IPv4 packet has 20 to 65535 bytes with its IP header"},
    {ACL_6, "permit ip length 39-100", "word 4 '39-100': an IPv6 packet has 40 to 65575 bytes with its IP header"},
    {ACL_EITHER, "permit ip length 65576",
     "word 4 '65576': expected a length in bytes N or a range N-M, numbers 0 to 65575"},
    {ACL_EITHER, "permit ip length 0-100", "word 4 '0-100': a packet has 20 to 65575 bytes with its IP header"},
    {ACL_4, "permit ip length 200-100", "word 4 '200-100': the range ends before it begins: write 100-200"},
    {ACL_4, "permit ip source-mac 02005e005301",
     "word 4 '02005e005301': expected a MAC address such as 02:00:5e:00:53:01"},
    {ACL_4, "permit ip source-mac 02:00:5e:00:53:0g",
     "word 4 '02:00:5e:00:53:0g': expected a MAC address such as 02:00:5e:00:53:01"},
    {ACL_4, "permit ip source-mac 02:00:5e:00:53:-1",
     "word 4 '02:00:5e:00:53:-1': expected a MAC address such as 02:00:5e:00:53:01"},
    {ACL_4, "permit ip source-mac 01:00:5e:00:53:01",
     "word 4 '01:00:5e:00:53:01': this is the MAC address of a group, which no packet has as its source"},
    {ACL_4, "permit tcp to any port 80 fragments",
     "fragments are matched without ports, flags, established and type: later fragments of a packet do not carry "
     "these"},
    {ACL_4, "permit tcp fragments established",
     "fragments are matched without ports, flags, established and type: later fragments of a packet do not carry "
     "these"},
};
INSTANTIATE_TEST_SUITE_P(Each, AclRuleRefused, testing::ValuesIn(REFUSALS));

TEST(AclRuleParse, RefusesAnAddressWithAZeroByte) {
    EXPECT_EQ(errorOf(ACL_4, std::string("permit ip from 10.0.0.1\0/32", 27)).substr(0, 7), "word 4 ");
}

TEST(AclRuleParse, RefusesLongTextsAndRepeatsOnlyTheBeginningOfLongWords) {
    EXPECT_EQ(errorOf(ACL_4, std::string(513, 'x')), "the rule has 513 characters, at most 512 are taken");
    EXPECT_EQ(errorOf(ACL_4, std::string(512, 'x')),
              "word 1 '" + std::string(64, 'x') + "...': expected permit or deny");
}

// A random rule that the number of its ACL allows.
class Maker {
public:
    uint32_t acl() {
        const uint32_t kinds[] = {1001, 2000, 3001, 4000, 5001, 4294967295u};
        return kinds[pick(6)];
    }

    AclRule rule(uint32_t aclNum) {
        const int ofNumber = aclVersion(aclNum).value_or(0);
        AclRule made;
        made.version = static_cast<uint8_t>(ofNumber != 0      ? ofNumber
                                            : pick(3) * 2 == 0 ? 0
                                                               : 4 + 2 * pick(2));
        made.permit = pick(2) == 0;
        const int16_t protocols[] = {-1, 0, 1, 6, 6, 17, 47, 58, 132, 255};
        made.protocol = protocols[pick(10)];
        if (made.version != 0) {
            made.source = prefix(made.version);
            made.destination = prefix(made.version);
        }
        made.fragments = pick(5) == 0;
        if (!made.fragments) {
            header(made);
        }
        if (pick(4) == 0) {
            made.dscp = static_cast<int8_t>(pick(64));
        } else if (pick(4) == 0) {
            made.precedence = static_cast<int8_t>(pick(8));
        }
        if (pick(4) == 0) {
            const uint32_t least = made.version == 6 ? 40 : 20, most = made.version == 4 ? 65535 : 65575;
            const uint32_t a = least + pick(most - least + 1), b = pick(2) == 0 ? a : least + pick(most - least + 1);
            made.length = {std::min(a, b), std::max(a, b), false};
        }
        if (pick(4) == 0) {
            made.sourceMac.emplace();
            for (uint8_t &byte : *made.sourceMac) {
                byte = static_cast<uint8_t>(pick(256));
            }
            (*made.sourceMac)[0] &= 0xfe;
        }
        return made;
    }

private:
    uint32_t pick(uint32_t count) { return static_cast<uint32_t>(random() % count); }

    // What needs the protocol's own header.
    void header(AclRule &made) {
        if (made.protocol == 6 || made.protocol == 17 || made.protocol == 132) {
            made.sourcePorts = ports();
            made.destinationPorts = ports();
        }
        if (made.protocol == 6) {
            made.flagsSet = static_cast<uint8_t>(pick(2) * pick(256));
            made.flagsClear = static_cast<uint8_t>(pick(2) * pick(256) & ~made.flagsSet);
            made.established = pick(3) == 0;
        }
        const bool isIcmp = (made.version == 4 && made.protocol == 1) || (made.version == 6 && made.protocol == 58);
        if (isIcmp && pick(3) != 0) {
            made.icmpType = static_cast<int16_t>(pick(256));
            made.icmpCode = static_cast<int16_t>(pick(3) == 0 ? pick(256) : -1);
        }
    }

    // Bits chosen one by one; where they happen to be those of a prefix the rule says so.
    AclPrefix wildcard(uint32_t bits) {
        AclPrefix made;
        made.any = false;
        for (uint32_t bit = 0; bit < bits; bit++) {
            const auto place = static_cast<uint8_t>(0x80u >> bit % 8);
            const bool isCompared = bit == bits - 1 || pick(2) == 0; // never ones at the end only
            made.wildcard[bit / 8] |= isCompared ? 0 : place;
            made.address[bit / 8] |= isCompared && pick(2) == 0 ? place : 0;
        }
        if (made.wildcard == AclAddress{}) {
            made.length = static_cast<uint8_t>(bits);
        }
        return made;
    }

    AclPrefix prefix(int version) {
        const uint32_t bits = version == 4 ? 32 : 128;
        if (pick(4) == 0) {
            return wildcard(bits);
        }
        AclPrefix made;
        made.length = static_cast<uint8_t>(pick(4) == 0 ? 0 : 1 + pick(bits));
        made.any = made.length == 0;
        for (uint32_t bit = 0; bit < made.length; bit++) {
            made.address[bit / 8] |= static_cast<uint8_t>(pick(2) << (7 - bit % 8));
        }
        return made;
    }

    AclPorts ports() {
        if (pick(3) == 0) {
            return {};
        }
        const auto a = static_cast<uint16_t>(pick(65536)), b = static_cast<uint16_t>(pick(65536));
        const AclPorts made{std::min(a, b), pick(2) == 0 ? std::min(a, b) : std::max(a, b), false};
        return made.first == 0 && made.last == 65535 ? AclPorts{} : made;
    }

    std::mt19937 random{20240607};
};

TEST(AclRuleFormat, ParsesBackToTheSameRule) {
    Maker make;
    for (int i = 0; i < 5000; i++) {
        const uint32_t aclNum = make.acl();
        const AclRule rule = make.rule(aclNum);
        const std::string text = aclRuleFormat(aclNum, rule);
        std::string error;
        const auto again = aclRuleParse(aclNum, text, &error);
        ASSERT_TRUE(again) << text << ": " << error;
        ASSERT_EQ(*again, rule) << text;
        ASSERT_EQ(aclRuleFormat(aclNum, *again), text);
    }
}

// Whatever is cut out of a good rule or put into it: a rule or an error text, never neither.
TEST(AclRuleParse, AnswersDamagedTextsWithARuleOrAnError) {
    Maker make;
    std::mt19937 random{7};
    for (int i = 0; i < 5000; i++) {
        const uint32_t aclNum = make.acl();
        std::string text = aclRuleFormat(aclNum, make.rule(aclNum));
        text.erase(random() % text.size(), random() % 5);
        text.insert(random() % (text.size() + 1), 1, static_cast<char>(random() % 256));
        std::string error;
        const auto rule = aclRuleParse(aclNum, text, &error);
        ASSERT_EQ(rule.has_value(), error.empty()) << text;
        if (rule) {
            ASSERT_EQ(aclRuleParse(aclNum, aclRuleFormat(aclNum, *rule), &error), rule) << text;
        }
    }
}

} // namespace
