// Who makes the kernel track connections: see surroundings.h. Called by the kernel device on the event thread.
//
// The kernel tracks in a network namespace as long as some rule needs it; a rule that does is known by its
// expressions, those of iptables by their match or target. Legacy iptables has no rules here and is not seen.
#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nf_tables_compat.h>
#include <linux/netfilter/nfnetlink.h>
#include <set>

#include "host/device/kernel/kernel_rules.h"
#include "host/device/kernel/surroundings.h"

namespace host {

namespace {

// Of one rule, which asks for connections, or for whole packets as they do.
bool isTracking(const NetlinkAttrs &expression) {
    static const std::set<std::string> expressions = {"ct", "nat", "masq", "redir", "connlimit", "synproxy", "tproxy", "flow_offload"};
    static const std::set<std::string> extensions = {"conntrack", "state", "connmark", "connbytes", "connlimit", "connlabel",
                                                     "helper", "cluster", "CT", "CONNMARK", "CONNSECMARK", "MASQUERADE",
                                                     "SNAT", "DNAT", "REDIRECT", "NETMAP", "TPROXY", "SYNPROXY"};
    const std::string name = expression.string(NFTA_EXPR_NAME);
    if (expressions.count(name) != 0) {
        return true;
    }
    const nlattr *pData = expression.get(NFTA_EXPR_DATA);
    if (pData == nullptr || (name != "match" && name != "target")) {
        return false;
    }
    static_assert(int{NFTA_MATCH_NAME} == int{NFTA_TARGET_NAME});
    return extensions.count(NetlinkAttrs(pData).string(NFTA_MATCH_NAME)) != 0;
}

void ruleTake(const nlmsghdr *pMessage, Surroundings *pAround) {
    const auto *pHeader = netlinkHeader<nfgenmsg>(pMessage);
    if (pHeader == nullptr || NFNL_MSG_TYPE(pMessage->nlmsg_type) != NFT_MSG_NEWRULE) {
        return;
    }
    const uint8_t family = pHeader->nfgen_family;
    const bool isOf[2] = {family == NFPROTO_INET || family == NFPROTO_IPV4, family == NFPROTO_INET || family == NFPROTO_IPV6};
    const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
    const std::string table = attrs.string(NFTA_RULE_TABLE);
    const nlattr *pExpressions = attrs.get(NFTA_RULE_EXPRESSIONS);
    if ((!isOf[0] && !isOf[1]) || pExpressions == nullptr || (family == NFPROTO_INET && table == KERNEL_TABLE)) {
        return;
    }
    netlinkVisit(pExpressions, [&](const nlattr *pExpression) {
        if (!isTracking(NetlinkAttrs(pExpression))) {
            return;
        }
        for (const int i : {0, 1}) {
            const char *pFamily = family == NFPROTO_INET ? "inet " : family == NFPROTO_IPV4 ? "ip " : "ip6 ";
            pAround->tracker[i] = isOf[i] && pAround->tracker[i].empty() ? pFamily + table : pAround->tracker[i];
        }
    });
}

} // namespace

std::string surroundingsTrackersRead(NetlinkSocket &nft, Surroundings *pAround) {
    NetlinkMessage message(static_cast<uint16_t>((NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_GETRULE), 0);
    nfgenmsg header = {};
    header.nfgen_family = NFPROTO_UNSPEC;
    header.version = NFNETLINK_V0;
    message.header(header);
    const NetlinkError error = nft.dump(message, [&](const nlmsghdr *p) { ruleTake(p, pAround); }).error;
    return netlinkErrorText("cannot read nftables rules", error);
}

} // namespace host
