// nftables objects as values: see nft_value.h. Used by the rule compiler, the codec and tests.
#include "host/device/kernel/nft_value.h"

#include <cstdio>
#include <cstring>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

namespace host {

namespace {

class Fnv {
public:
    void bytes(const void *pData, size_t size) {
        const uint8_t *p = static_cast<const uint8_t *>(pData);
        for (size_t i = 0; i < size; i++) {
            value_ = (value_ ^ p[i]) * 1099511628211ULL;
        }
    }
    void word(uint32_t value) {
        const uint8_t image[4] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                                  static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
        bytes(image, sizeof image);
    }
    template <class Container> void sized(const Container &container) {
        word(static_cast<uint32_t>(container.size()));
        bytes(container.data(), container.size());
    }
    uint64_t value() const { return value_; }

private:
    uint64_t value_ = 14695981039346656037ULL;
};

std::string hex(const std::vector<uint8_t> &data) {
    std::string text;
    char pair[3];
    for (const uint8_t byte : data) {
        snprintf(pair, sizeof pair, "%02x", byte);
        text += pair;
    }
    return text;
}

std::string metaName(uint32_t key) {
    switch (key) {
    case NFT_META_NFPROTO: return "nfproto";
    case NFT_META_L4PROTO: return "l4proto";
    case NFT_META_MARK: return "mark";
    case NFT_META_IIFNAME: return "iifname";
    case NFT_META_IIFTYPE: return "iiftype";
    case NFT_META_LEN: return "length";
    default: return std::to_string(key);
    }
}

std::string compareName(uint32_t op) {
    static const char *const names[] = {"==", "!=", "<", "<=", ">", ">="};
    return op < 6 ? names[op] : "?";
}

std::string place(const NftExpr &expr) {
    const char *pBase = expr.a == NFT_PAYLOAD_LL_HEADER ? "ll" : expr.a == NFT_PAYLOAD_NETWORK_HEADER ? "nh" : "th";
    return std::string(pBase) + "+" + std::to_string(expr.b) + ":" + std::to_string(expr.c);
}

std::string verdictText(const NftExpr &expr) {
    switch (static_cast<int32_t>(expr.a)) {
    case NF_ACCEPT: return "accept";
    case NF_DROP: return "drop";
    case NFT_RETURN: return "return";
    case NFT_JUMP: return "jump " + expr.name;
    case NFT_GOTO: return "goto " + expr.name;
    default: return "verdict?";
    }
}

std::string exprText(const NftExpr &expr) {
    switch (expr.op) {
    case NftOp::MetaLoad: return "meta " + metaName(expr.a);
    case NftOp::MetaStore: return "set meta " + metaName(expr.a);
    case NftOp::PayloadLoad: return place(expr);
    case NftOp::PayloadStore:
        return "set " + place(expr) + (expr.d == 0 ? "" : " checksum+" + std::to_string(expr.d));
    case NftOp::HeaderLoad:
        return "header" + std::to_string(expr.a) + "+" + std::to_string(expr.b) + ":" + std::to_string(expr.c);
    case NftOp::Immediate: return "=" + hex(expr.data);
    case NftOp::ToNetwork: return "hton" + std::to_string(expr.a);
    case NftOp::Bitwise: return "&" + hex(expr.data) + "^" + hex(expr.data2);
    case NftOp::Compare: return compareName(expr.a) + hex(expr.data);
    case NftOp::FibType: return expr.a & NFTA_FIB_F_IIF ? "fib daddr . iif type" : "fib daddr type";
    case NftOp::Lookup: return "in @" + expr.name;
    case NftOp::VerdictMap: return "vmap @" + expr.name;
    case NftOp::TproxyPort: return "tproxy to port";
    case NftOp::Verdict: return verdictText(expr);
    case NftOp::Counter: return "counter";
    }
    return "?";
}

} // namespace

uint64_t nftFingerprint(const NftRule &rule) {
    Fnv fnv;
    for (const NftExpr &expr : rule.exprs) {
        const uint8_t op = static_cast<uint8_t>(expr.op);
        fnv.bytes(&op, 1);
        for (const uint32_t word : {expr.a, expr.b, expr.c, expr.d}) {
            fnv.word(word);
        }
        if (expr.reg != 0) {
            fnv.word(expr.reg);
        }
        fnv.sized(expr.data);
        fnv.sized(expr.data2);
        fnv.sized(expr.name);
    }
    fnv.sized(rule.comment);
    return fnv.value() == 0 ? 1 : fnv.value();
}

std::string nftRuleText(const NftRule &rule) {
    std::string text;
    for (const NftExpr &expr : rule.exprs) {
        text += (text.empty() ? "" : " ") + exprText(expr) + (expr.reg == 0 ? "" : "@" + std::to_string(expr.reg));
    }
    return rule.comment.empty() ? text : text + " # " + rule.comment;
}

NftExpr nftMetaLoad(uint32_t key) {
    NftExpr expr;
    expr.op = NftOp::MetaLoad;
    expr.a = key;
    return expr;
}

NftExpr nftCompare(uint32_t op, std::vector<uint8_t> data) {
    NftExpr expr;
    expr.op = NftOp::Compare;
    expr.a = op;
    expr.data = std::move(data);
    return expr;
}

NftExpr nftPayload(uint32_t base, uint32_t offset, uint32_t size) {
    NftExpr expr;
    expr.op = NftOp::PayloadLoad;
    expr.a = base;
    expr.b = offset;
    expr.c = size;
    return expr;
}

NftExpr nftHeader(uint32_t protocol, uint32_t offset, uint32_t size) {
    NftExpr expr = nftPayload(protocol, offset, size);
    expr.op = NftOp::HeaderLoad;
    return expr;
}

NftExpr nftBitwise(std::vector<uint8_t> mask, std::vector<uint8_t> flip) {
    NftExpr expr;
    expr.op = NftOp::Bitwise;
    expr.data = std::move(mask);
    expr.data2 = std::move(flip);
    return expr;
}

NftExpr nftVerdict(int32_t code, const std::string &chain) {
    NftExpr expr;
    expr.op = NftOp::Verdict;
    expr.a = static_cast<uint32_t>(code);
    expr.name = chain;
    return expr;
}

std::vector<uint8_t> nftWord(uint32_t value) {
    std::vector<uint8_t> bytes(sizeof value);
    memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

} // namespace host
