// The match of each kind of rule as expressions, without a kernel.
#include "world.h"

#include <cstring>

#include "host/device/kernel/kernel_model.h"

namespace kernel_test {
namespace {

using namespace host;

class MatchExprsTest : public ::testing::Test {
protected:
    // The rule's line without counter, verdict and comment.
    std::string match(uint32_t acl, const std::string &text, int family) {
        World world;
        world.acl(acl, {text});
        ProgramNode node;
        node.aclNum = acl;
        node.rules = world.acls.at(acl);
        const std::vector<NftRule> rules = kernelMatchRules({"wan", 10, static_cast<uint8_t>(family), 0}, node);
        EXPECT_EQ(rules.size(), 1u);
        const std::string line = rules.empty() ? "" : nftRuleText(rules[0]);
        return line.substr(0, line.find("counter"));
    }
    std::string v4(const std::string &text) { return match(1501, text, 4); }
    std::string v6(const std::string &text) { return match(3001, text, 6); }
};

TEST_F(MatchExprsTest, FlagsAreMaskedAndCompared) {
    EXPECT_EQ(v4("permit tcp flags syn,!ack"), "meta l4proto ==06 th+0:3 th+13:1 &12^00 ==02 ");
    EXPECT_EQ(v6("permit tcp flags !fin,!rst"), "meta l4proto ==06 th+0:3 th+13:1 &05^00 ==00 ");
    EXPECT_EQ(v4("permit tcp established"), "meta l4proto ==06 th+0:3 th+13:1 &14^00 !=00 ");
    EXPECT_EQ(v4("permit tcp established flags cwr"),
              "meta l4proto ==06 th+0:3 th+13:1 &80^00 ==80 th+13:1 &14^00 !=00 ");
}

TEST_F(MatchExprsTest, TypesAndCodesAreComparedBehindTheProtocol) {
    EXPECT_EQ(v4("permit icmp type unreachable code 4"), "meta l4proto ==01 th+0:3 th+0:1 ==03 th+1:1 ==04 ");
    EXPECT_EQ(v6("permit icmp type unreachable"), "meta l4proto ==3a th+0:3 th+0:1 ==01 ");
}

TEST_F(MatchExprsTest, ClassesAreReadWhereTheVersionHasThem) {
    EXPECT_EQ(v4("permit ip dscp ef"), "meta nfproto ==02 nh+1:1 &fc^00 ==b8 ");
    EXPECT_EQ(v6("permit ip dscp ef"), "meta nfproto ==0a nh+0:2 &0fc0^0000 ==0b80 ");
    EXPECT_EQ(v4("permit ip precedence 5"), "meta nfproto ==02 nh+1:1 &e0^00 ==a0 ");
    EXPECT_EQ(v6("permit ip precedence 5"), "meta nfproto ==0a nh+0:2 &0e00^0000 ==0a00 ");
}

TEST_F(MatchExprsTest, FragmentsHaveAnOffset) {
    EXPECT_EQ(v4("permit udp fragments"), "meta nfproto ==02 nh+6:2 &1fff^0000 !=0000 meta l4proto ==11 ");
    EXPECT_EQ(v6("permit udp fragments"), "meta nfproto ==0a header44+2:2 &fff8^0000 !=0000 meta l4proto ==11 ");
}

TEST_F(MatchExprsTest, LengthsAreComparedInNetworkOrder) {
    EXPECT_EQ(v4("permit ip length 100-65535"), "meta length hton4 >=00000064 <=0000ffff ");
    EXPECT_EQ(v6("permit ip length 65536-65575"), "meta length hton4 >=00010000 <=00010027 ");
    EXPECT_EQ(v4("permit ip length 258"), "meta length " + nftRuleText({{nftCompare(0, nftWord(258))}, ""}) + " ");
}

TEST_F(MatchExprsTest, WildcardsMaskTheWholeAddress) {
    EXPECT_EQ(v4("permit ip from 10.1.0.5 mask 0.0.254.0"), "meta nfproto ==02 nh+12:4 &ffff01ff^00000000 ==0a010005 ");
    EXPECT_EQ(v6("permit ip to fd01::5 mask ::ff00"),
              "meta nfproto ==0a nh+24:16 &ffffffffffffffffffffffffffff00ff^00000000000000000000000000000000 "
              "==fd010000000000000000000000000005 ");
}

TEST_F(MatchExprsTest, AMacAddressIsAskedOfEthernetOnly) {
    const uint16_t ether = 1;
    std::vector<uint8_t> type(2);
    memcpy(type.data(), &ether, 2);
    EXPECT_EQ(v4("permit ip source-mac 02:00:5e:00:53:01"),
              "meta iiftype " + nftRuleText({{nftCompare(0, type)}, ""}) + " ll+6:6 ==02005e005301 ");
}

TEST_F(MatchExprsTest, RulesThatDifferInOneWordHaveOtherFingerprints) {
    const char *pTexts[] = {"permit tcp", "permit tcp established", "permit tcp flags ack", "permit tcp flags !ack",
                            "permit tcp flags rst", "permit ip dscp cs1", "permit ip precedence 1",
                            "permit ip length 100", "permit ip length 100-101", "permit ip fragments",
                            "permit icmp type 3", "permit icmp type 3 code 0", "permit icmp type 0",
                            "permit ip source-mac 02:00:5e:00:53:01", "permit ip from 10.0.0.0 mask 0.0.0.254",
                            "permit ip from 10.0.0.0 mask 0.0.0.253", "permit ip from 10.0.0.0/24", "permit ip"};
    std::set<uint64_t> seen;
    for (const char *pText : pTexts) {
        World world;
        world.acl(1501, {pText});
        ProgramNode node;
        node.aclNum = 1501;
        node.rules = world.acls.at(1501);
        EXPECT_TRUE(seen.insert(nftFingerprint(kernelMatchRules({"wan", 10, 4, 0}, node).at(0))).second) << pText;
    }
}

TEST_F(MatchExprsTest, FragmentsAreRefusedWhereThePacketsAreReassembled) {
    World world;
    world.acl(5001, {"permit ip", "deny ip from ::/0 fragments"});
    ProgramNode node;
    node.aclNum = 5001;
    node.rules = world.acls.at(5001);
    EXPECT_EQ(kernelDefragRefusal(node, 4), "");
    EXPECT_EQ(kernelDefragRefusal(node, 6),
              "ACL 5001 rule 20: fragments are reassembled before they are matched (host.defrag is on), so that this "
              "rule would never match");
    node.rules = nullptr;
    EXPECT_EQ(kernelDefragRefusal(node, 6), "");
}

} // namespace
} // namespace kernel_test
