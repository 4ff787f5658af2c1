// Our nftables table on the wire, what the kernel tells of it: see nft_codec.h. Called by the kernel plane and the
// kernel device.
//
// Attributes are read with their lengths checked, and only those that are needed. libnftnl's own readers are not
// used: they end the process at an attribute of another form than the library knows, and take an expression
// without a name for one.
#include "host/device/kernel/nft_codec.h"

#include <arpa/inet.h>
#include <cstring>
#include <functional>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <libnftnl/udata.h>

#include "host/device/kernel/kernel_rules.h"
#include "host/device/kernel/nft_set_codec.h"

namespace host {

namespace {

uint16_t nftType(uint16_t message) { return static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | message); }

// The table's name in the messages of each kind of object.
constexpr uint16_t OF_TABLE = NFTA_TABLE_NAME;
static_assert(int{OF_TABLE} == int{NFTA_CHAIN_TABLE} && int{OF_TABLE} == int{NFTA_RULE_TABLE} &&
              int{OF_TABLE} == int{NFTA_SET_TABLE} && int{OF_TABLE} == int{NFTA_SET_ELEM_LIST_TABLE});

NetlinkMessage request(uint16_t message, const char *pTable) {
    NetlinkMessage built(nftType(message), 0);
    nfgenmsg header = {};
    header.nfgen_family = NFPROTO_INET;
    header.version = NFNETLINK_V0;
    built.header(header);
    if (pTable != nullptr) {
        built.putString(OF_TABLE, pTable);
    }
    return built;
}

// The attributes of a message that tells of such an object of our table; none of another.
std::optional<NetlinkAttrs> ours(const nlmsghdr *pMessage, uint16_t kind) {
    const auto *pHeader = netlinkHeader<nfgenmsg>(pMessage);
    if (pHeader == nullptr || pMessage->nlmsg_type != nftType(kind) || pHeader->nfgen_family != NFPROTO_INET) {
        return std::nullopt;
    }
    const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
    return attrs.string(OF_TABLE) == KERNEL_TABLE ? std::optional(attrs) : std::nullopt;
}

// What is in a nest within a nest; empty when it is not there.
NetlinkAttrs nestOf(const NetlinkAttrs &attrs, uint16_t type) {
    const nlattr *pNest = attrs.get(type);
    return pNest == nullptr ? NetlinkAttrs("", 0) : NetlinkAttrs(pNest);
}

// ---- user data ----

// The first value of a kind in an object's user data: kind, length, bytes, one behind the other. Whoever made
// the object wrote the lengths, the kernel looks at none of it; what does not fit ends the reading. Empty: there
// is none.
std::string udataValue(const nlattr *pUserData, uint8_t kind) {
    if (pUserData == nullptr) {
        return {};
    }
    const auto *pAt = static_cast<const uint8_t *>(mnl_attr_get_payload(pUserData));
    for (uint32_t left = mnl_attr_get_payload_len(pUserData); left >= 2 && pAt[1] <= left - 2u;) {
        if (pAt[0] == kind) {
            return {reinterpret_cast<const char *>(pAt) + 2, pAt[1]};
        }
        left -= 2u + pAt[1];
        pAt += 2u + pAt[1];
    }
    return {};
}

// Up to its terminator.
std::string textOf(const std::string &value) { return value.substr(0, value.find('\0')); }

uint64_t fingerprintOf(const NetlinkAttrs &rule) {
    const std::string value = udataValue(rule.get(NFTA_RULE_USERDATA), NFT_UDATA_FINGERPRINT);
    uint64_t fingerprint = 0;
    if (value.size() == sizeof fingerprint) { // else it is not our rule
        memcpy(&fingerprint, value.data(), sizeof fingerprint);
    }
    return fingerprint;
}

std::string commentOf(const NetlinkAttrs &rule) {
    return textOf(udataValue(rule.get(NFTA_RULE_USERDATA), NFTNL_UDATA_RULE_COMMENT));
}

// ---- dumps ----

void tableTake(const nlmsghdr *pMessage, NftImage *pImage) {
    const auto table = ours(pMessage, NFT_MSG_NEWTABLE);
    if (!table) {
        return;
    }
    const std::string comment = textOf(udataValue(table->get(NFTA_TABLE_USERDATA), NFTNL_UDATA_TABLE_COMMENT));
    pImage->foreign = comment.rfind(NFT_OWNER, 0) != 0;
    pImage->stale = !pImage->foreign && comment != std::string(NFT_OWNER) + NFT_LAYOUT;
    pImage->table = !pImage->foreign && !pImage->stale;
}

// The base chain must be where it is meant to be, else the table is made anew.
bool isBaseAsMeant(const NetlinkAttrs &chain) {
    const NetlinkAttrs hook = nestOf(chain, NFTA_CHAIN_HOOK);
    return chain.string(NFTA_CHAIN_TYPE) == "filter" && hook.u32Be(NFTA_HOOK_HOOKNUM) == uint32_t{NF_INET_PRE_ROUTING} &&
           hook.u32Be(NFTA_HOOK_PRIORITY) == static_cast<uint32_t>(KERNEL_BASE_PRIORITY) &&
           chain.u32Be(NFTA_CHAIN_POLICY) == uint32_t{NF_ACCEPT};
}

void chainTake(const nlmsghdr *pMessage, NftImage *pImage) {
    const auto chain = ours(pMessage, NFT_MSG_NEWCHAIN);
    if (!chain) {
        return;
    }
    const std::string name = chain->string(NFTA_CHAIN_NAME);
    pImage->chains[name];
    if (name == KERNEL_BASE_CHAIN && !isBaseAsMeant(*chain)) {
        pImage->stale = true;
    }
}

void setTake(const nlmsghdr *pMessage, NftImage *pImage) {
    if (const auto set = ours(pMessage, NFT_MSG_NEWSET)) {
        pImage->sets.insert(set->string(NFTA_SET_NAME));
    }
}

using RuleVisitor = std::function<void(const std::string &chain, const NetlinkAttrs &rule)>;

NetlinkError rulesVisit(NetlinkSocket &socket, const RuleVisitor &visit, const std::string &chain = "") {
    NetlinkMessage message = request(NFT_MSG_GETRULE, KERNEL_TABLE);
    if (!chain.empty()) {
        message.putString(NFTA_RULE_CHAIN, chain);
    }
    return socket.dump(message, [&](const nlmsghdr *pMessage) {
        if (const auto rule = ours(pMessage, NFT_MSG_NEWRULE)) {
            visit(rule->string(NFTA_RULE_CHAIN), *rule);
        }
    }).error;
}

NftCount countOf(const NetlinkAttrs &rule) {
    NftCount count;
    netlinkVisit(rule.get(NFTA_RULE_EXPRESSIONS), [&](const nlattr *pExpression) {
        const NetlinkAttrs expression(pExpression);
        if (expression.string(NFTA_EXPR_NAME) == "counter") {
            const NetlinkAttrs data = nestOf(expression, NFTA_EXPR_DATA);
            count.packets = data.u64Be(NFTA_COUNTER_PACKETS).value_or(0);
            count.bytes = data.u64Be(NFTA_COUNTER_BYTES).value_or(0);
        }
    });
    return count;
}

std::string keyOf(const NetlinkAttrs &data) {
    const std::vector<uint8_t> bytes = data.bytes(NFTA_DATA_VALUE);
    return {bytes.begin(), bytes.end()};
}

NetlinkError elementsRead(NetlinkSocket &socket, const std::string &name, NftImage *pImage) {
    NetlinkMessage message = request(NFT_MSG_GETSETELEM, KERNEL_TABLE);
    message.putString(NFTA_SET_ELEM_LIST_SET, name);
    NftElements elements(name);
    const NetlinkError error = socket.dump(message, [&](const nlmsghdr *pMessage) {
        const auto list = ours(pMessage, NFT_MSG_NEWSETELEM);
        netlinkVisit(list ? list->get(NFTA_SET_ELEM_LIST_ELEMENTS) : nullptr, [&](const nlattr *pElement) {
            const NetlinkAttrs element(pElement);
            const NetlinkAttrs verdict = nestOf(nestOf(element, NFTA_SET_ELEM_DATA), NFTA_DATA_VERDICT);
            elements.take({keyOf(nestOf(element, NFTA_SET_ELEM_KEY)), keyOf(nestOf(element, NFTA_SET_ELEM_KEY_END)),
                           verdict.string(NFTA_VERDICT_CHAIN), verdict.u32Be(NFTA_VERDICT_CODE).value_or(0),
                           element.u32Be(NFTA_SET_ELEM_FLAGS).value_or(0)});
        });
    }).error;
    elements.finish(pImage);
    return error;
}

} // namespace

std::string nftRead(NetlinkSocket &socket, NftImage *pImage) {
    *pImage = {};
    NetlinkMessage tables = request(NFT_MSG_GETTABLE, nullptr);
    NetlinkError error = socket.dump(tables, [&](const nlmsghdr *p) { tableTake(p, pImage); }).error;
    if (error || !(pImage->table || pImage->stale)) {
        return netlinkErrorText("cannot read nftables tables", error);
    }
    NetlinkMessage chains = request(NFT_MSG_GETCHAIN, KERNEL_TABLE);
    error = socket.dump(chains, [&](const nlmsghdr *p) { chainTake(p, pImage); }).error;
    if (!error) {
        error = rulesVisit(socket, [&](const std::string &chain, const NetlinkAttrs &rule) {
            pImage->chains[chain].push_back(fingerprintOf(rule));
        });
    }
    NetlinkMessage sets = request(NFT_MSG_GETSET, KERNEL_TABLE);
    if (!error) {
        error = socket.dump(sets, [&](const nlmsghdr *p) { setTake(p, pImage); }).error;
    }
    for (const std::string &name : pImage->sets) {
        error = error ? error : elementsRead(socket, name, pImage);
    }
    if (pImage->stale) {
        pImage->table = false;
    }
    return netlinkErrorText("cannot read table inet policyroute", error);
}

std::string nftCounters(NetlinkSocket &socket, std::map<std::string, std::vector<uint64_t>> *pCounters) {
    const NetlinkError error = rulesVisit(socket, [&](const std::string &chain, const NetlinkAttrs &rule) {
        (*pCounters)[chain].push_back(countOf(rule).packets);
    });
    return netlinkErrorText("cannot read the rules' counters", error);
}

std::string nftCountsRead(NetlinkSocket &socket, const std::string &chain,
                          std::map<std::string, NftChainCounts> *pCounts) {
    const auto take = [&](const std::string &name, const NetlinkAttrs &rule) {
        (*pCounts)[name].emplace_back(commentOf(rule), countOf(rule));
    };
    const NetlinkError error = rulesVisit(socket, take, chain);
    return error.code == ENOENT ? "" : netlinkErrorText("cannot read the rules' counters", error);
}

bool nftIsOfOurTable(const nlmsghdr *pMessage) {
    if (NFNL_SUBSYS_ID(pMessage->nlmsg_type) != NFNL_SUBSYS_NFTABLES) {
        return false;
    }
    const uint16_t type = NFNL_MSG_TYPE(pMessage->nlmsg_type);
    const bool isNamed = type <= NFT_MSG_DELSETELEM && type != NFT_MSG_GETTABLE;
    return isNamed && NetlinkAttrs(pMessage, sizeof(nfgenmsg)).string(OF_TABLE) == KERNEL_TABLE;
}

} // namespace host
