// Our nftables table on the wire: see nft_codec.h. Called by the kernel plane; calls libnftnl.
//
// Every libnftnl object lives in a unique pointer; expressions and elements handed over to a rule or a
// set belong to it. Registers: NFT_REG_1 (16 bytes) for every value.
#include "host/device/kernel/nft_codec.h"

#include <arpa/inet.h>
#include <cstring>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <memory>

#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <libnftnl/udata.h>

#include "host/device/kernel/kernel_rules.h"

namespace host {

namespace {

constexpr size_t MESSAGE_BYTES = 16384;   // no message of ours comes near
constexpr uint8_t UDATA_FINGERPRINT = 64; // our own number among a rule's user data
constexpr uint32_t DATATYPE_FIB_ADDR = 38, DATATYPE_IFNAME = 41; // how nft prints the keys
constexpr uint32_t DATATYPE_HOST_ENDIAN = 1;
constexpr uint32_t VERDICT_BYTES = 4; // size of a verdict to the kernel: it takes no other notice

struct Deleter {
    void operator()(nftnl_table *p) const { nftnl_table_free(p); }
    void operator()(nftnl_chain *p) const { nftnl_chain_free(p); }
    void operator()(nftnl_rule *p) const { nftnl_rule_free(p); }
    void operator()(nftnl_set *p) const { nftnl_set_free(p); }
    void operator()(nftnl_udata_buf *p) const { nftnl_udata_buf_free(p); }
};
using Table = std::unique_ptr<nftnl_table, Deleter>;
using Chain = std::unique_ptr<nftnl_chain, Deleter>;
using Rule = std::unique_ptr<nftnl_rule, Deleter>;
using Set = std::unique_ptr<nftnl_set, Deleter>;
using Udata = std::unique_ptr<nftnl_udata_buf, Deleter>;

uint16_t nftType(uint16_t message) { return static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | message); }

// ---- expressions ----

nftnl_expr *metaExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("meta");
    nftnl_expr_set_u32(p, NFTNL_EXPR_META_KEY, expr.a);
    nftnl_expr_set_u32(p, expr.op == NftOp::MetaLoad ? NFTNL_EXPR_META_DREG : NFTNL_EXPR_META_SREG, NFT_REG_1);
    return p;
}

nftnl_expr *payloadExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("payload");
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_BASE, expr.a);
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_OFFSET, expr.b);
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_LEN, expr.c);
    if (expr.op == NftOp::PayloadLoad) {
        nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_DREG, NFT_REG_1);
        return p;
    }
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_SREG, NFT_REG_1);
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_CSUM_TYPE, expr.d == 0 ? NFT_PAYLOAD_CSUM_NONE : NFT_PAYLOAD_CSUM_INET);
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_CSUM_OFFSET, expr.d);
    return p;
}

nftnl_expr *headerExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("exthdr");
    nftnl_expr_set_u32(p, NFTNL_EXPR_EXTHDR_DREG, NFT_REG_1);
    nftnl_expr_set_u32(p, NFTNL_EXPR_EXTHDR_OP, NFT_EXTHDR_OP_IPV6);
    nftnl_expr_set_u8(p, NFTNL_EXPR_EXTHDR_TYPE, static_cast<uint8_t>(expr.a));
    nftnl_expr_set_u32(p, NFTNL_EXPR_EXTHDR_OFFSET, expr.b);
    nftnl_expr_set_u32(p, NFTNL_EXPR_EXTHDR_LEN, expr.c);
    return p;
}

nftnl_expr *immediateExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("immediate");
    nftnl_expr_set_u32(p, NFTNL_EXPR_IMM_DREG, NFT_REG_1);
    nftnl_expr_set(p, NFTNL_EXPR_IMM_DATA, expr.data.data(), static_cast<uint32_t>(expr.data.size()));
    return p;
}

nftnl_expr *toNetworkExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("byteorder");
    nftnl_expr_set_u32(p, NFTNL_EXPR_BYTEORDER_SREG, NFT_REG_1);
    nftnl_expr_set_u32(p, NFTNL_EXPR_BYTEORDER_DREG, NFT_REG_1);
    nftnl_expr_set_u32(p, NFTNL_EXPR_BYTEORDER_OP, NFT_BYTEORDER_HTON);
    nftnl_expr_set_u32(p, NFTNL_EXPR_BYTEORDER_LEN, expr.a);
    nftnl_expr_set_u32(p, NFTNL_EXPR_BYTEORDER_SIZE, expr.a);
    return p;
}

nftnl_expr *tproxyExpr() {
    nftnl_expr *p = nftnl_expr_alloc("tproxy");
    nftnl_expr_set_u32(p, NFTNL_EXPR_TPROXY_FAMILY, NFPROTO_UNSPEC); // both
    nftnl_expr_set_u32(p, NFTNL_EXPR_TPROXY_REG_PORT, NFT_REG_1);
    return p;
}

nftnl_expr *bitwiseExpr(const NftExpr &expr) {
    const uint32_t size = static_cast<uint32_t>(expr.data.size());
    nftnl_expr *p = nftnl_expr_alloc("bitwise");
    nftnl_expr_set_u32(p, NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
    nftnl_expr_set_u32(p, NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
    nftnl_expr_set_u32(p, NFTNL_EXPR_BITWISE_OP, NFT_BITWISE_BOOL);
    nftnl_expr_set_u32(p, NFTNL_EXPR_BITWISE_LEN, size);
    nftnl_expr_set(p, NFTNL_EXPR_BITWISE_MASK, expr.data.data(), size);
    nftnl_expr_set(p, NFTNL_EXPR_BITWISE_XOR, expr.data2.data(), size);
    return p;
}

nftnl_expr *compareExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("cmp");
    nftnl_expr_set_u32(p, NFTNL_EXPR_CMP_SREG, NFT_REG_1);
    nftnl_expr_set_u32(p, NFTNL_EXPR_CMP_OP, expr.a);
    nftnl_expr_set(p, NFTNL_EXPR_CMP_DATA, expr.data.data(), static_cast<uint32_t>(expr.data.size()));
    return p;
}

nftnl_expr *fibExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("fib");
    nftnl_expr_set_u32(p, NFTNL_EXPR_FIB_DREG, NFT_REG_1);
    nftnl_expr_set_u32(p, NFTNL_EXPR_FIB_RESULT, NFT_FIB_RESULT_ADDRTYPE);
    nftnl_expr_set_u32(p, NFTNL_EXPR_FIB_FLAGS, expr.a);
    return p;
}

nftnl_expr *lookupExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("lookup");
    nftnl_expr_set_u32(p, NFTNL_EXPR_LOOKUP_SREG, NFT_REG_1);
    nftnl_expr_set_str(p, NFTNL_EXPR_LOOKUP_SET, expr.name.c_str());
    if (expr.op == NftOp::VerdictMap) {
        nftnl_expr_set_u32(p, NFTNL_EXPR_LOOKUP_DREG, NFT_REG_VERDICT);
    }
    return p;
}

nftnl_expr *verdictExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("immediate");
    nftnl_expr_set_u32(p, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
    nftnl_expr_set_u32(p, NFTNL_EXPR_IMM_VERDICT, expr.a);
    if (!expr.name.empty()) {
        nftnl_expr_set_str(p, NFTNL_EXPR_IMM_CHAIN, expr.name.c_str());
    }
    return p;
}

nftnl_expr *exprOf(const NftExpr &expr) {
    switch (expr.op) {
    case NftOp::MetaLoad:
    case NftOp::MetaStore: return metaExpr(expr);
    case NftOp::PayloadLoad:
    case NftOp::PayloadStore: return payloadExpr(expr);
    case NftOp::HeaderLoad: return headerExpr(expr);
    case NftOp::Immediate: return immediateExpr(expr);
    case NftOp::ToNetwork: return toNetworkExpr(expr);
    case NftOp::Bitwise: return bitwiseExpr(expr);
    case NftOp::Compare: return compareExpr(expr);
    case NftOp::FibType: return fibExpr(expr);
    case NftOp::Lookup:
    case NftOp::VerdictMap: return lookupExpr(expr);
    case NftOp::TproxyPort: return tproxyExpr();
    case NftOp::Verdict: return verdictExpr(expr);
    case NftOp::Counter: return nftnl_expr_alloc("counter");
    }
    return nullptr;
}

// ---- user data ----

void ruleUdataSet(nftnl_rule *pRule, const NftRule &rule) {
    Udata buffer(nftnl_udata_buf_alloc(NFT_USERDATA_MAXLEN));
    if (!rule.comment.empty()) {
        nftnl_udata_put_strz(buffer.get(), NFTNL_UDATA_RULE_COMMENT, rule.comment.c_str());
    }
    const uint64_t fingerprint = nftFingerprint(rule);
    nftnl_udata_put(buffer.get(), UDATA_FINGERPRINT, sizeof fingerprint, &fingerprint);
    nftnl_rule_set_data(pRule, NFTNL_RULE_USERDATA, nftnl_udata_buf_data(buffer.get()),
                        nftnl_udata_buf_len(buffer.get()));
}

// The first value of a kind in an object's user data: kind, length, bytes, one behind the other. Whoever made
// the object wrote the lengths, the kernel looks at none of it, and libnftnl's own reader believes them; here
// what does not fit ends the reading. Empty: there is none.
std::string udataValue(const void *pData, uint32_t len, uint8_t kind) {
    const auto *pAt = static_cast<const uint8_t *>(pData);
    for (uint32_t left = pAt == nullptr ? 0 : len; left >= 2 && pAt[1] <= left - 2u;) {
        if (pAt[0] == kind) {
            return {reinterpret_cast<const char *>(pAt) + 2, pAt[1]};
        }
        left -= 2u + pAt[1];
        pAt += 2u + pAt[1];
    }
    return {};
}

std::string ruleUdata(const nftnl_rule *pRule, uint8_t kind) {
    uint32_t len = 0;
    const void *pData = nftnl_rule_get_data(pRule, NFTNL_RULE_USERDATA, &len);
    return udataValue(pData, len, kind);
}

// Up to its terminator.
std::string textOf(const std::string &value) { return value.substr(0, value.find('\0')); }

uint64_t fingerprintOf(const nftnl_rule *pRule) {
    const std::string value = ruleUdata(pRule, UDATA_FINGERPRINT);
    uint64_t fingerprint = 0;
    if (value.size() == sizeof fingerprint) { // else it is not our rule
        memcpy(&fingerprint, value.data(), sizeof fingerprint);
    }
    return fingerprint;
}

std::string commentOf(const nftnl_rule *pRule) { return textOf(ruleUdata(pRule, NFTNL_UDATA_RULE_COMMENT)); }

// ---- dumps ----

NetlinkMessage request(uint16_t message, const char *pTable, uint16_t tableAttr) {
    NetlinkMessage built(nftType(message), 0);
    nfgenmsg header = {};
    header.nfgen_family = NFPROTO_INET;
    header.version = NFNETLINK_V0;
    built.header(header);
    if (pTable != nullptr) {
        built.putString(tableAttr, pTable);
    }
    return built;
}

// A name that the kernel told; empty: it told none.
std::string nameOf(const char *pName) { return pName == nullptr ? "" : pName; }

bool isOurs(const char *pTable) { return pTable != nullptr && strcmp(pTable, KERNEL_TABLE) == 0; }

void tableTake(const nlmsghdr *pMessage, NftImage *pImage) {
    Table table(nftnl_table_alloc());
    if (nftnl_table_nlmsg_parse(pMessage, table.get()) < 0 ||
        !isOurs(nftnl_table_get_str(table.get(), NFTNL_TABLE_NAME)) ||
        nftnl_table_get_u32(table.get(), NFTNL_TABLE_FAMILY) != NFPROTO_INET) {
        return;
    }
    uint32_t len = 0;
    const void *pData = nftnl_table_get_data(table.get(), NFTNL_TABLE_USERDATA, &len);
    const std::string comment = textOf(udataValue(pData, len, NFTNL_UDATA_TABLE_COMMENT));
    pImage->foreign = comment.rfind(NFT_OWNER, 0) != 0;
    pImage->stale = !pImage->foreign && comment != std::string(NFT_OWNER) + NFT_LAYOUT;
    pImage->table = !pImage->foreign && !pImage->stale;
}

// The base chain must be where it is meant to be, else the table is made anew.
bool isBaseAsMeant(const nftnl_chain *pChain) {
    const char *pType = nftnl_chain_get_str(pChain, NFTNL_CHAIN_TYPE);
    return nftnl_chain_is_set(pChain, NFTNL_CHAIN_HOOKNUM) && pType != nullptr && strcmp(pType, "filter") == 0 &&
           nftnl_chain_get_u32(pChain, NFTNL_CHAIN_HOOKNUM) == NF_INET_PRE_ROUTING &&
           nftnl_chain_get_s32(pChain, NFTNL_CHAIN_PRIO) == KERNEL_BASE_PRIORITY &&
           nftnl_chain_get_u32(pChain, NFTNL_CHAIN_POLICY) == NF_ACCEPT;
}

void chainTake(const nlmsghdr *pMessage, NftImage *pImage) {
    Chain chain(nftnl_chain_alloc());
    if (nftnl_chain_nlmsg_parse(pMessage, chain.get()) < 0 ||
        !isOurs(nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_TABLE))) {
        return;
    }
    const std::string name = nameOf(nftnl_chain_get_str(chain.get(), NFTNL_CHAIN_NAME));
    pImage->chains[name];
    if (name == KERNEL_BASE_CHAIN && !isBaseAsMeant(chain.get())) {
        pImage->stale = true;
    }
}

void setTake(const nlmsghdr *pMessage, NftImage *pImage) {
    Set set(nftnl_set_alloc());
    if (nftnl_set_nlmsg_parse(pMessage, set.get()) == 0 && isOurs(nftnl_set_get_str(set.get(), NFTNL_SET_TABLE))) {
        pImage->sets.insert(nameOf(nftnl_set_get_str(set.get(), NFTNL_SET_NAME)));
    }
}

using RuleVisitor = std::function<void(const std::string &chain, nftnl_rule *pRule)>;

NetlinkError rulesVisit(NetlinkSocket &socket, const RuleVisitor &visit, const std::string &chain = "") {
    NetlinkMessage message = request(NFT_MSG_GETRULE, KERNEL_TABLE, NFTA_RULE_TABLE);
    if (!chain.empty()) {
        message.putString(NFTA_RULE_CHAIN, chain);
    }
    return socket.dump(message, [&](const nlmsghdr *pMessage) {
        Rule rule(nftnl_rule_alloc());
        if (nftnl_rule_nlmsg_parse(pMessage, rule.get()) == 0 &&
            isOurs(nftnl_rule_get_str(rule.get(), NFTNL_RULE_TABLE))) {
            visit(nameOf(nftnl_rule_get_str(rule.get(), NFTNL_RULE_CHAIN)), rule.get());
        }
    }).error;
}

struct ElementContext {
    NftImage *pImage;
    std::string set;
};

int elementTake(nftnl_set_elem *pElement, void *pData) {
    auto *pContext = static_cast<ElementContext *>(pData);
    uint32_t len = 0;
    const auto *pKey = static_cast<const char *>(nftnl_set_elem_get(pElement, NFTNL_SET_ELEM_KEY, &len));
    const char *pChain = nftnl_set_elem_get_str(pElement, NFTNL_SET_ELEM_CHAIN);
    pContext->pImage->elements[{pContext->set, std::string(pKey, len)}] = pChain == nullptr ? "" : pChain;
    return 0;
}

NetlinkError elementsRead(NetlinkSocket &socket, const std::string &name, NftImage *pImage) {
    NetlinkMessage message = request(NFT_MSG_GETSETELEM, KERNEL_TABLE, NFTA_SET_ELEM_LIST_TABLE);
    message.putString(NFTA_SET_ELEM_LIST_SET, name);
    ElementContext context{pImage, name};
    return socket.dump(message, [&](const nlmsghdr *pMessage) {
        Set set(nftnl_set_alloc());
        if (nftnl_set_elems_nlmsg_parse(pMessage, set.get()) == 0) {
            nftnl_set_elem_foreach(set.get(), elementTake, &context);
        }
    }).error;
}

NftCount countOf(nftnl_rule *pRule) {
    NftCount count;
    nftnl_expr_foreach(pRule, [](nftnl_expr *pExpr, void *pData) {
        const char *pName = nftnl_expr_get_str(pExpr, NFTNL_EXPR_NAME);
        if (pName != nullptr && strcmp(pName, "counter") == 0) {
            auto *pCount = static_cast<NftCount *>(pData);
            pCount->packets = nftnl_expr_get_u64(pExpr, NFTNL_EXPR_CTR_PACKETS);
            pCount->bytes = nftnl_expr_get_u64(pExpr, NFTNL_EXPR_CTR_BYTES);
        }
        return 0;
    }, &count);
    return count;
}

} // namespace

// ---- batch ----

NftBatch::NftBatch(NetlinkSocket &socket) : socket_(socket) {
    char buffer[64] = {};
    nlmsghdr *pMessage = nftnl_batch_begin(buffer, socket_.nextSeq());
    bytes_.assign(buffer, buffer + pMessage->nlmsg_len);
}

template <class Build> void NftBatch::add(uint16_t type, uint16_t flags, Build build) {
    alignas(nlmsghdr) char room[MESSAGE_BYTES]; // libmnl clears what it pads
    const uint32_t seq = socket_.nextSeq();
    nlmsghdr *pMessage = nftnl_nlmsg_build_hdr(room, type, NFPROTO_INET, flags, seq);
    build(pMessage);
    bytes_.insert(bytes_.end(), room, room + MNL_ALIGN(pMessage->nlmsg_len));
    if (!owner_.empty()) {
        owners_.emplace(seq, owner_);
    }
    count_++;
}

void NftBatch::tableAdd() {
    Table table(nftnl_table_alloc());
    nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, KERNEL_TABLE);
    Udata buffer(nftnl_udata_buf_alloc(NFT_USERDATA_MAXLEN));
    const std::string comment = std::string(NFT_OWNER) + NFT_LAYOUT;
    nftnl_udata_put_strz(buffer.get(), NFTNL_UDATA_TABLE_COMMENT, comment.c_str());
    nftnl_table_set_data(table.get(), NFTNL_TABLE_USERDATA, nftnl_udata_buf_data(buffer.get()),
                         nftnl_udata_buf_len(buffer.get()));
    add(NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL,
        [&](nlmsghdr *p) { nftnl_table_nlmsg_build_payload(p, table.get()); });
}

void NftBatch::tableDel() {
    Table table(nftnl_table_alloc());
    nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, KERNEL_TABLE);
    add(NFT_MSG_DELTABLE, 0, [&](nlmsghdr *p) { nftnl_table_nlmsg_build_payload(p, table.get()); });
}

void NftBatch::setAdd(const std::string &name) {
    const bool isMap = name != KERNEL_LOCAL_SET;
    Set set(nftnl_set_alloc());
    nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, KERNEL_TABLE);
    nftnl_set_set_str(set.get(), NFTNL_SET_NAME, name.c_str());
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, socket_.nextSeq()); // any number of its own in the batch
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, isMap ? DATATYPE_IFNAME : DATATYPE_FIB_ADDR);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, isMap ? 16 : 4);
    if (isMap) {
        nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_MAP);
        nftnl_set_set_u32(set.get(), NFTNL_SET_DATA_TYPE, NFT_DATA_VERDICT);
        nftnl_set_set_u32(set.get(), NFTNL_SET_DATA_LEN, VERDICT_BYTES);
    }
    Udata buffer(nftnl_udata_buf_alloc(NFT_USERDATA_MAXLEN));
    nftnl_udata_put_u32(buffer.get(), NFTNL_UDATA_SET_KEYBYTEORDER, DATATYPE_HOST_ENDIAN);
    nftnl_set_set_data(set.get(), NFTNL_SET_USERDATA, nftnl_udata_buf_data(buffer.get()),
                       nftnl_udata_buf_len(buffer.get()));
    add(NFT_MSG_NEWSET, NLM_F_CREATE | NLM_F_EXCL,
        [&](nlmsghdr *p) { nftnl_set_nlmsg_build_payload(p, set.get()); });
}

void NftBatch::chainAdd(const std::string &name) {
    Chain chain(nftnl_chain_alloc());
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, KERNEL_TABLE);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name.c_str());
    if (name == KERNEL_BASE_CHAIN) {
        nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter");
        nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, NF_INET_PRE_ROUTING);
        nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, KERNEL_BASE_PRIORITY);
        nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    }
    add(NFT_MSG_NEWCHAIN, NLM_F_CREATE | NLM_F_EXCL,
        [&](nlmsghdr *p) { nftnl_chain_nlmsg_build_payload(p, chain.get()); });
}

void NftBatch::chainDel(const std::string &name) {
    Chain chain(nftnl_chain_alloc());
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, KERNEL_TABLE);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name.c_str());
    add(NFT_MSG_DELCHAIN, 0, [&](nlmsghdr *p) { nftnl_chain_nlmsg_build_payload(p, chain.get()); });
}

void NftBatch::chainFlush(const std::string &name) {
    Rule rule(nftnl_rule_alloc());
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, KERNEL_TABLE);
    nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, name.c_str());
    add(NFT_MSG_DELRULE, 0, [&](nlmsghdr *p) { nftnl_rule_nlmsg_build_payload(p, rule.get()); });
}

void NftBatch::ruleAdd(const std::string &chain, const NftRule &rule, const NftCount &from) {
    Rule built(nftnl_rule_alloc());
    nftnl_rule_set_str(built.get(), NFTNL_RULE_TABLE, KERNEL_TABLE);
    nftnl_rule_set_str(built.get(), NFTNL_RULE_CHAIN, chain.c_str());
    ruleUdataSet(built.get(), rule);
    for (const NftExpr &expr : rule.exprs) {
        nftnl_expr *pExpr = exprOf(expr);
        if (expr.op == NftOp::Counter && from.packets != 0) {
            nftnl_expr_set_u64(pExpr, NFTNL_EXPR_CTR_PACKETS, from.packets);
            nftnl_expr_set_u64(pExpr, NFTNL_EXPR_CTR_BYTES, from.bytes);
        }
        nftnl_rule_add_expr(built.get(), pExpr);
    }
    add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND,
        [&](nlmsghdr *p) { nftnl_rule_nlmsg_build_payload(p, built.get()); });
}

void NftBatch::element(uint16_t type, uint16_t flags, const NftElementKey &key, const std::string *pChain) {
    Set set(nftnl_set_alloc());
    nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, KERNEL_TABLE);
    nftnl_set_set_str(set.get(), NFTNL_SET_NAME, key.first.c_str());
    nftnl_set_elem *pElement = nftnl_set_elem_alloc();
    nftnl_set_elem_set(pElement, NFTNL_SET_ELEM_KEY, key.second.data(), static_cast<uint32_t>(key.second.size()));
    if (pChain != nullptr && !pChain->empty()) {
        nftnl_set_elem_set_u32(pElement, NFTNL_SET_ELEM_VERDICT, static_cast<uint32_t>(NFT_GOTO));
        nftnl_set_elem_set_str(pElement, NFTNL_SET_ELEM_CHAIN, pChain->c_str());
    }
    nftnl_set_elem_add(set.get(), pElement);
    add(type, flags, [&](nlmsghdr *p) { nftnl_set_elems_nlmsg_build_payload(p, set.get()); });
}

void NftBatch::elementAdd(const NftElementKey &key, const std::string &chain) {
    element(NFT_MSG_NEWSETELEM, NLM_F_CREATE | NLM_F_EXCL, key, &chain);
}

void NftBatch::elementDel(const NftElementKey &key) { element(NFT_MSG_DELSETELEM, 0, key, nullptr); }

NetlinkBatchResult NftBatch::send() {
    char buffer[64] = {};
    nlmsghdr *pMessage = nftnl_batch_end(buffer, socket_.nextSeq());
    bytes_.insert(bytes_.end(), buffer, buffer + pMessage->nlmsg_len);
    return socket_.batch(bytes_.data(), bytes_.size());
}

const std::string *NftBatch::ownerOf(uint32_t seq) const {
    auto it = owners_.find(seq);
    return it == owners_.end() ? nullptr : &it->second;
}

// ---- reading ----

std::string nftRead(NetlinkSocket &socket, NftImage *pImage) {
    *pImage = {};
    NetlinkMessage tables = request(NFT_MSG_GETTABLE, nullptr, 0);
    NetlinkError error = socket.dump(tables, [&](const nlmsghdr *p) { tableTake(p, pImage); }).error;
    if (error || !(pImage->table || pImage->stale)) {
        return netlinkErrorText("cannot read nftables tables", error);
    }
    NetlinkMessage chains = request(NFT_MSG_GETCHAIN, KERNEL_TABLE, NFTA_CHAIN_TABLE);
    error = socket.dump(chains, [&](const nlmsghdr *p) { chainTake(p, pImage); }).error;
    if (!error) {
        error = rulesVisit(socket, [&](const std::string &chain, nftnl_rule *pRule) {
            pImage->chains[chain].push_back(fingerprintOf(pRule));
        });
    }
    NetlinkMessage sets = request(NFT_MSG_GETSET, KERNEL_TABLE, NFTA_SET_TABLE);
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
    const NetlinkError error = rulesVisit(socket, [&](const std::string &chain, nftnl_rule *pRule) {
        (*pCounters)[chain].push_back(countOf(pRule).packets);
    });
    return netlinkErrorText("cannot read the rules' counters", error);
}

std::string nftCountsRead(NetlinkSocket &socket, const std::string &chain,
                          std::map<std::string, NftChainCounts> *pCounts) {
    const auto take = [&](const std::string &name, nftnl_rule *pRule) {
        (*pCounts)[name].emplace_back(commentOf(pRule), countOf(pRule));
    };
    const NetlinkError error = rulesVisit(socket, take, chain);
    return error.code == ENOENT ? "" : netlinkErrorText("cannot read the rules' counters", error);
}

bool nftIsOfOurTable(const nlmsghdr *pMessage) {
    if (NFNL_SUBSYS_ID(pMessage->nlmsg_type) != NFNL_SUBSYS_NFTABLES) {
        return false;
    }
    // In all of these the table's name is attribute 1.
    const uint16_t type = NFNL_MSG_TYPE(pMessage->nlmsg_type);
    const bool isNamed = type <= NFT_MSG_DELSETELEM && type != NFT_MSG_GETTABLE;
    return isNamed && NetlinkAttrs(pMessage, sizeof(nfgenmsg)).string(NFTA_TABLE_NAME) == KERNEL_TABLE;
}

} // namespace host
