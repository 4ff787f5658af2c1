// Our nftables table on the wire, the changes: see nft_codec.h. Called by the kernel plane; calls libnftnl.
//
// Every libnftnl object lives in a unique pointer; expressions and elements handed over to a rule or a
// set belong to it. Registers: NFT_REG_1 (16 bytes) for every value but the later fields of a key.
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
#include "host/device/kernel/nft_set_codec.h"

namespace host {

namespace {

constexpr size_t MESSAGE_BYTES = 16384;   // no message of ours comes near

struct Deleter {
    void operator()(nftnl_table *p) const { nftnl_table_free(p); }
    void operator()(nftnl_chain *p) const { nftnl_chain_free(p); }
    void operator()(nftnl_rule *p) const { nftnl_rule_free(p); }
    void operator()(nftnl_udata_buf *p) const { nftnl_udata_buf_free(p); }
};
using Table = std::unique_ptr<nftnl_table, Deleter>;
using Chain = std::unique_ptr<nftnl_chain, Deleter>;
using Rule = std::unique_ptr<nftnl_rule, Deleter>;
using Udata = std::unique_ptr<nftnl_udata_buf, Deleter>;

// NFT_REG_1 by its own number, what lies behind it by the number of its word.
uint32_t registerOf(const NftExpr &expr) { return expr.reg == 0 ? uint32_t{NFT_REG_1} : NFT_REG32_00 + expr.reg; }

// ---- expressions ----

nftnl_expr *metaExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("meta");
    nftnl_expr_set_u32(p, NFTNL_EXPR_META_KEY, expr.a);
    nftnl_expr_set_u32(p, expr.op == NftOp::MetaLoad ? NFTNL_EXPR_META_DREG : NFTNL_EXPR_META_SREG, registerOf(expr));
    return p;
}

nftnl_expr *payloadExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("payload");
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_BASE, expr.a);
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_OFFSET, expr.b);
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_LEN, expr.c);
    if (expr.op == NftOp::PayloadLoad) {
        nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_DREG, registerOf(expr));
        return p;
    }
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_SREG, registerOf(expr));
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_CSUM_TYPE, expr.d == 0 ? NFT_PAYLOAD_CSUM_NONE : NFT_PAYLOAD_CSUM_INET);
    nftnl_expr_set_u32(p, NFTNL_EXPR_PAYLOAD_CSUM_OFFSET, expr.d);
    return p;
}

nftnl_expr *headerExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("exthdr");
    nftnl_expr_set_u32(p, NFTNL_EXPR_EXTHDR_DREG, registerOf(expr));
    nftnl_expr_set_u32(p, NFTNL_EXPR_EXTHDR_OP, NFT_EXTHDR_OP_IPV6);
    nftnl_expr_set_u8(p, NFTNL_EXPR_EXTHDR_TYPE, static_cast<uint8_t>(expr.a));
    nftnl_expr_set_u32(p, NFTNL_EXPR_EXTHDR_OFFSET, expr.b);
    nftnl_expr_set_u32(p, NFTNL_EXPR_EXTHDR_LEN, expr.c);
    return p;
}

nftnl_expr *immediateExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("immediate");
    nftnl_expr_set_u32(p, NFTNL_EXPR_IMM_DREG, registerOf(expr));
    nftnl_expr_set(p, NFTNL_EXPR_IMM_DATA, expr.data.data(), static_cast<uint32_t>(expr.data.size()));
    return p;
}

nftnl_expr *toNetworkExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("byteorder");
    nftnl_expr_set_u32(p, NFTNL_EXPR_BYTEORDER_SREG, registerOf(expr));
    nftnl_expr_set_u32(p, NFTNL_EXPR_BYTEORDER_DREG, registerOf(expr));
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
    nftnl_expr_set_u32(p, NFTNL_EXPR_BITWISE_SREG, registerOf(expr));
    nftnl_expr_set_u32(p, NFTNL_EXPR_BITWISE_DREG, registerOf(expr));
    nftnl_expr_set_u32(p, NFTNL_EXPR_BITWISE_OP, NFT_BITWISE_BOOL);
    nftnl_expr_set_u32(p, NFTNL_EXPR_BITWISE_LEN, size);
    nftnl_expr_set(p, NFTNL_EXPR_BITWISE_MASK, expr.data.data(), size);
    nftnl_expr_set(p, NFTNL_EXPR_BITWISE_XOR, expr.data2.data(), size);
    return p;
}

nftnl_expr *compareExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("cmp");
    nftnl_expr_set_u32(p, NFTNL_EXPR_CMP_SREG, registerOf(expr));
    nftnl_expr_set_u32(p, NFTNL_EXPR_CMP_OP, expr.a);
    nftnl_expr_set(p, NFTNL_EXPR_CMP_DATA, expr.data.data(), static_cast<uint32_t>(expr.data.size()));
    return p;
}

nftnl_expr *fibExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("fib");
    nftnl_expr_set_u32(p, NFTNL_EXPR_FIB_DREG, registerOf(expr));
    nftnl_expr_set_u32(p, NFTNL_EXPR_FIB_RESULT, NFT_FIB_RESULT_ADDRTYPE);
    nftnl_expr_set_u32(p, NFTNL_EXPR_FIB_FLAGS, expr.a);
    return p;
}

nftnl_expr *lookupExpr(const NftExpr &expr) {
    nftnl_expr *p = nftnl_expr_alloc("lookup");
    nftnl_expr_set_u32(p, NFTNL_EXPR_LOOKUP_SREG, registerOf(expr));
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
    nftnl_udata_put(buffer.get(), NFT_UDATA_FINGERPRINT, sizeof fingerprint, &fingerprint);
    nftnl_rule_set_data(pRule, NFTNL_RULE_USERDATA, nftnl_udata_buf_data(buffer.get()),
                        nftnl_udata_buf_len(buffer.get()));
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
    const NftSet set = nftSetBuild(name, socket_.nextSeq());
    add(NFT_MSG_NEWSET, NLM_F_CREATE | NLM_F_EXCL,
        [&](nlmsghdr *p) { nftnl_set_nlmsg_build_payload(p, set.get()); });
}

void NftBatch::setDel(const std::string &name) {
    const NftSet set(nftnl_set_alloc());
    nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, KERNEL_TABLE);
    nftnl_set_set_str(set.get(), NFTNL_SET_NAME, name.c_str());
    add(NFT_MSG_DELSET, 0, [&](nlmsghdr *p) { nftnl_set_nlmsg_build_payload(p, set.get()); });
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

void NftBatch::element(uint16_t type, uint16_t flags, const NftElementKey &key, const std::string *pTarget) {
    const NftSet set = nftElementBuild(key, pTarget);
    add(type, flags, [&](nlmsghdr *p) { nftnl_set_elems_nlmsg_build_payload(p, set.get()); });
}

void NftBatch::elementAdd(const NftElementKey &key, const std::string &target) {
    element(NFT_MSG_NEWSETELEM, NLM_F_CREATE | NLM_F_EXCL, key, &target);
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

} // namespace host
