// Tests of cli/acl_text.cpp: rules are compared by what they match.
#include "cli/acl_text.h"

#include <gtest/gtest.h>

using namespace cli;

namespace {

AclRule rule(uint32_t acl, const std::string &text) {
    std::string error;
    const auto read = aclRuleRead(acl, text, error);
    EXPECT_TRUE(read) << text << ": " << error;
    return read.value_or(AclRule());
}

std::string refusal(uint32_t acl, const std::string &text) {
    std::string error;
    EXPECT_FALSE(aclRuleRead(acl, text, error)) << text;
    return error;
}

TEST(AclText, DifferentSpellingsOfOneRuleAreEqual) {
    const AclRule expected = rule(1501, "permit tcp from any to any port 443");
    for (const char *pText : {"permit tcp to any port 443", "permit  6 from 0.0.0.0/0 to any port 443-443",
                              "permit tcp from any port 0-65535 to 0.0.0.0/0 port 443"}) {
        EXPECT_EQ(rule(1501, pText), expected) << pText;
    }
    EXPECT_EQ(rule(1501, "permit icmp"), rule(1501, "permit 1"));
    EXPECT_EQ(rule(3501, "permit icmp"), rule(3501, "permit 58"));
    EXPECT_EQ(rule(5001, "permit icmp to 10.0.0.1"), rule(5001, "permit 1 to 10.0.0.1/32"));
    EXPECT_EQ(rule(3501, "permit ip to 2001:DB8:0::/32"), rule(3501, "permit ip to 2001:db8::/32"));
    EXPECT_EQ(rule(1501, "permit ip from 10.1.0.0 mask 0.0.255.255"), rule(1501, "permit ip from 10.1.0.0/16"));
    EXPECT_EQ(rule(1501, "permit tcp established flags !ack,syn"),
              rule(1501, "permit 6 from any to any flags syn,!ack established"));
    EXPECT_EQ(rule(1501, "permit ip dscp ef"), rule(1501, "permit ip dscp 46"));
}

TEST(AclText, DifferentRulesDiffer) {
    const char *pTexts[] = {"permit ip", "deny ip", "permit tcp", "permit udp", "permit 0",
                            "permit tcp from any port 80", "permit tcp to any port 80", "permit tcp to any port 80-81",
                            "permit ip from 10.0.0.0/8", "permit ip from 10.0.0.0/9", "permit ip to 10.0.0.0/8",
                            "permit ip from 10.0.0.0 mask 0.0.0.254", "permit ip from 10.0.0.0 mask 0.0.0.253",
                            "permit tcp established", "permit tcp flags ack", "permit tcp flags !ack",
                            "permit icmp type 3", "permit icmp type 3 code 0", "permit ip dscp cs5",
                            "permit ip precedence 5", "permit ip fragments", "permit ip length 100",
                            "permit ip length 100-101", "permit ip source-mac 02:00:5e:00:53:01"};
    for (const char *pLeft : pTexts) {
        for (const char *pRight : pTexts) {
            EXPECT_EQ(rule(1501, pLeft) == rule(1501, pRight), pLeft == pRight) << pLeft << " | " << pRight;
        }
    }
    EXPECT_NE(rule(5001, "permit ip from 0.0.0.0/0"), rule(5001, "permit ip from ::/0"));
    EXPECT_NE(rule(5001, "permit ip from 0.0.0.0/0"), rule(5001, "permit ip"));
}

TEST(AclText, RefusalsNameTheWordThatIsWrong) {
    const std::pair<const char *, const char *> cases[] = {
        {"", "expected permit or deny"},
        {"allow ip", "'allow'"},
        {"permit", "ends after 'permit'"},
        {"permit stcp", "'stcp': expected ip"},
        {"permit 256", "'256': expected ip"},
        {"permit ip from", "ends after 'from'"},
        {"permit ip from 10.1.0.0/33", "0 to 32"},
        {"permit ip from 10.1.2.3/16", "beyond the prefix length"},
        {"permit ip from 10.1.2", "'10.1.2': expected an IPv4 or IPv6 prefix"},
        {"permit ip from 2001:db8::/32", "ACL 1501 takes IPv4 only"},
        {"permit ip to any port 80", "ports need"},
        {"permit tcp to any port 80-70", "'80-70'"},
        {"permit tcp to any port 65536", "'65536'"},
        {"permit tcp to any port", "ends after 'port'"},
        {"permit tcp to any from any", "from comes before to"},
        {"permit tcp log", "'log': expected from, to, or an option"}};
    for (const auto &[pText, pExpected] : cases) {
        EXPECT_NE(refusal(1501, pText).find(pExpected), std::string::npos) << pText << ": " << refusal(1501, pText);
    }
    EXPECT_NE(refusal(3501, "permit ip from 10.0.0.0/8").find("IPv6"), std::string::npos);
    EXPECT_NE(refusal(5001, "permit ip from 10.0.0.0/8 to ::1").find("this is IPv6 and the source is IPv4"), std::string::npos);
    EXPECT_NE(refusal(5001, "permit icmp").find("either IP version"), std::string::npos);
}

TEST(AclText, VersionFollowsTheNumber) {
    EXPECT_EQ(aclVersionOf(1000), std::nullopt);
    EXPECT_EQ(aclVersionOf(1001), 4);
    EXPECT_EQ(aclVersionOf(2000), 4);
    EXPECT_EQ(aclVersionOf(2001), std::nullopt);
    EXPECT_EQ(aclVersionOf(3000), std::nullopt);
    EXPECT_EQ(aclVersionOf(3001), 6);
    EXPECT_EQ(aclVersionOf(4000), 6);
    EXPECT_EQ(aclVersionOf(4001), std::nullopt);
    EXPECT_EQ(aclVersionOf(5000), std::nullopt);
    EXPECT_EQ(aclVersionOf(5001), 0);
    EXPECT_EQ(aclVersionOf(UINT32_MAX), 0);
}

TEST(AclText, AnUnreadableTextOfTheDaemonEqualsItselfOnly) {
    EXPECT_EQ(aclRuleText(1501, "something new"), aclRuleText(1501, "something new"));
    EXPECT_FALSE(aclRuleText(1501, "something new") == aclRuleText(1501, "permit ip"));
}

} // namespace
