// User data that others put into our table: the kernel takes any bytes, their lengths are not to be believed.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include "host/device/kernel/nft_codec.h"
#include "tests/unit/host_kernel/world.h"

namespace {

using host::NetlinkMessage;
using host::NetlinkSocket;

NetlinkMessage framing(uint16_t type) {
    NetlinkMessage message(type, 0);
    nfgenmsg header = {};
    header.res_id = htons(NFNL_SUBSYS_NFTABLES);
    message.header(header);
    return message;
}

// Adds a rule that does nothing to our table's chain c.
void ruleAdd(NetlinkSocket &socket, const std::string &userData) {
    NetlinkMessage rule(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND);
    nfgenmsg header = {};
    header.nfgen_family = NFPROTO_INET;
    rule.header(header);
    rule.putString(NFTA_RULE_TABLE, "policyroute").putString(NFTA_RULE_CHAIN, "c");
    rule.nestEnd(rule.nestStart(NFTA_RULE_EXPRESSIONS));
    rule.put(NFTA_RULE_USERDATA, userData.data(), userData.size());
    std::vector<NetlinkMessage> batch;
    batch.push_back(framing(NFNL_MSG_BATCH_BEGIN));
    batch.push_back(rule);
    batch.push_back(framing(NFNL_MSG_BATCH_END));
    const host::NetlinkBatchResult result = socket.batch(batch);
    ASSERT_TRUE(result.failed.empty()) << result.failed[0].text;
}

TEST(UserData, OfARuleThatIsNotOursIsReadWithinItsBounds) {
    const kernel_test::Net net;
    net.run("nft 'add table inet policyroute { comment \"policyroute: layout 2\"; }; add chain inet policyroute c'");
    net.in([] {
        NetlinkSocket socket(NETLINK_NETFILTER);
        ruleAdd(socket, std::string("\x40\x08", 2));              // a fingerprint without its bytes
        ruleAdd(socket, std::string("\x00\xff" "ab", 4));         // a comment longer than all
        ruleAdd(socket, std::string("\x07", 1));                  // half a head
        ruleAdd(socket, std::string("\x07\x00\x00\x02ok", 6));    // nothing of kind 7, then a whole comment
        ruleAdd(socket, std::string("\x40\x08" "12345678", 10)); // a fingerprint

        host::NftImage image;
        std::map<std::string, host::NftChainCounts> counts;
        EXPECT_EQ(host::nftRead(socket, &image), "");
        EXPECT_EQ(host::nftCountsRead(socket, "", &counts), "");

        ASSERT_EQ(image.chains["c"].size(), 5u);
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(image.chains["c"][i], 0u) << i;
        }
        EXPECT_NE(image.chains["c"][4], 0u);
        std::vector<std::string> comments;
        for (const auto &[comment, count] : counts["c"]) {
            comments.push_back(comment);
        }
        EXPECT_EQ(comments, (std::vector<std::string>{"", "", "", "ok", ""}));
    });
}

} // namespace
