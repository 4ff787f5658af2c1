// What the compiler of images makes of rules.
#include <gtest/gtest.h>

#include "host/device/ebpf/ebpf_image.h"

namespace ebpf_test {
namespace {

using namespace host;

// Rules of ACL 1501, a node each.
EbpfImage imageOf(const std::vector<std::string> &texts) {
    std::vector<EbpfRule> rules;
    for (const std::string &text : texts) {
        std::string error;
        const auto rule = aclrule::aclRuleParse(1501, text, &error);
        EXPECT_TRUE(rule) << error;
        const auto at = static_cast<uint32_t>(rules.size());
        rules.push_back({*rule, at, at, at});
    }
    return ebpfImage(rules, 4);
}

TEST(EbpfImage, RulesThatAskForTheSameBitsShareATuple) {
    const EbpfImage image = imageOf({"permit udp from 10.0.0.1 to any port 53", "permit udp from 10.0.0.2 to any port 99",
                                     "permit udp from 10.0.0.0/24 to any port 99"});
    EXPECT_EQ(image.policy.count, 2u);
    EXPECT_EQ(image.policy.tuples[1].least, 2u);
    EXPECT_EQ(image.entries.size(), 3u);
    EXPECT_EQ(image.taken, 3u);
}

TEST(EbpfImage, RangesOfOneKeyStandBehindEachOther) {
    const EbpfImage image = imageOf({"permit udp from any to any port 10-20", "permit udp from any to any port 15-300"});
    ASSERT_EQ(image.entries.size(), 1u);
    EXPECT_EQ(image.entries[0].second.hits[0].last[EBPF_DESTINATION_PORT], 20);
    EXPECT_EQ(image.entries[0].second.hits[1].first[EBPF_DESTINATION_PORT], 15);
    EXPECT_EQ(image.entries[0].second.hits[2].rank, uint32_t{EBPF_NO_RANK});
}

TEST(EbpfImage, RangesBeyondAKeysRoomBecomePrefixes) {
    std::vector<std::string> texts;
    for (int i = 0; i < static_cast<int>(EBPF_HITS) + 1; i++) {
        texts.push_back("permit udp from any to any port " + std::to_string(64 * i) + "-" + std::to_string(64 * i + 63));
    }
    const EbpfImage image = imageOf(texts);
    EXPECT_EQ(image.taken, texts.size());
    EXPECT_EQ(image.policy.count, 2u);
    EXPECT_EQ(image.entries.size(), 2u);
}

TEST(EbpfImage, BehindAPermitRuleOfTheSameKeyNoneIsKept) {
    const EbpfImage image = imageOf({"deny ip from 10.0.0.1 to any", "permit ip from 10.0.0.1 to any", "permit ip from 10.0.0.1 to any"});
    ASSERT_EQ(image.entries.size(), 1u);
    EXPECT_EQ(image.entries[0].second.hits[0].next, 1u);
    EXPECT_EQ(image.entries[0].second.hits[1].next, 0u);
    EXPECT_EQ(image.entries[0].second.hits[2].rank, uint32_t{EBPF_NO_RANK});
}

TEST(EbpfImage, BehindAPermitRuleThatADenyRuleOfItsNodeMayPassOverTheOthersAreKept) {
    std::vector<EbpfRule> rules = {{{}, 0, 0, 0}, {{}, 0, 1, 0}, {{}, 1, 2, 1}};
    rules[0].rule.permit = false;
    rules[0].rule.protocol = 17;
    const EbpfImage image = ebpfImage(rules, 4);
    ASSERT_EQ(image.entries.size(), 2u);
    EXPECT_EQ(image.entries[1].second.hits[0].rank, 1u);
    EXPECT_EQ(image.entries[1].second.hits[1].rank, 2u);
}

TEST(EbpfImage, TheFirstRuleWithoutRoomEndsIt) {
    std::vector<std::string> texts(size_t{EBPF_HITS} + 1, "deny ip from 10.0.0.1 to any");
    texts.push_back("permit ip from 10.0.0.2 to any");
    const EbpfImage image = imageOf(texts);
    EXPECT_EQ(image.taken, size_t{EBPF_HITS});
    EXPECT_EQ(image.reason, "more than 8 rules ask for the very same");
    EXPECT_EQ(image.policy.count, 1u);
}

TEST(EbpfImage, AMaskTooManyLeavesNothingOfItsRule) {
    std::vector<std::string> texts;
    for (int i = 0; i <= static_cast<int>(EBPF_TUPLES); i++) {
        texts.push_back("permit ip from 10.0.0.0/" + std::to_string(8 + i % 8) + " to 12.0.0.0/" + std::to_string(8 + i / 8));
    }
    const EbpfImage image = imageOf(texts);
    EXPECT_EQ(image.taken, size_t{EBPF_TUPLES});
    EXPECT_EQ(image.entries.size(), size_t{EBPF_TUPLES});
    EXPECT_EQ(image.policy.count, uint32_t{EBPF_TUPLES});
    EXPECT_NE(image.reason.find("different sets of bits"), std::string::npos);
}

} // namespace
} // namespace ebpf_test
