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
    EXPECT_EQ(canonical(ACL_4, "permit 47"), "permit 47 from any to any");
    EXPECT_EQ(canonical(ACL_6, "permit ip from 2001:DB8:0::/32 to ::1"),
              "permit ip from 2001:db8::/32 to ::1/128");
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
#define EXPECT_PROTOCOL "expected ip, tcp, udp, icmp or a protocol number 0 to 255"
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
    {ACL_4, "permit tcp port 80", "word 3 'port': expected from or to"},
    {ACL_4, "permit ip 10.0.0.1", "word 3 '10.0.0.1': expected from or to"},
    {ACL_4, "permit ip from", "the rule ends after 'from': expected a prefix or any"},
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
    {ACL_4, "permit icmp from any port 8", "word 5 'port': ports need protocol tcp or udp, not 'icmp'"},
    {ACL_4, "permit ip to any port 80", "word 5 'port': ports need protocol tcp or udp, not 'ip'"},
    {ACL_4, "permit 132 to any port 80", "word 5 'port': ports need protocol tcp or udp, not '132'"},
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
    {ACL_4, "permit ip from any any", "word 5 'any': expected to, or port N[-M] once behind an address"},
    {ACL_4, "permit tcp to any port 80 port 90",
     "word 7 'port': expected the end of the rule, or port N[-M] once behind an address"},
    {ACL_4, "permit ip to any log",
     "word 5 'log': expected the end of the rule, or port N[-M] once behind an address"},
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
        const int16_t protocols[] = {-1, 0, 1, 6, 17, 47, 58, 255};
        made.protocol = protocols[pick(8)];
        if (made.version != 0) {
            made.source = prefix(made.version);
            made.destination = prefix(made.version);
        }
        if (made.protocol == 6 || made.protocol == 17) {
            made.sourcePorts = ports();
            made.destinationPorts = ports();
        }
        return made;
    }

private:
    uint32_t pick(uint32_t count) { return static_cast<uint32_t>(random() % count); }

    AclPrefix prefix(int version) {
        AclPrefix made;
        const uint32_t bits = version == 4 ? 32 : 128;
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
