// The rules of our nftables table: see kernel_rules.h. Used by the kernel model.
#include "host/device/kernel/kernel_rules.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <netinet/in.h> // before the kernel's headers, which then leave out what it has

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include "host/device/kernel/kernel_match.h"

namespace host {

namespace {

constexpr uint32_t HIGHEST_PREFERENCE = 32765; // one before the main table's rule
constexpr uint32_t HIGHEST_ID = 65535;
constexpr uint32_t L3MDEV_PREFERENCE = 1000;   // rule of the VRF devices' own tables
constexpr size_t COMMENT_CHARACTERS = 120;

bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

std::string nodeLabel(const NodeKey &key) {
    std::string label = kernelNameEncode(key.list) + "/" + std::to_string(key.nodeIndex);
    return key.variant == 0 ? label : label + "/" + std::to_string(key.variant);
}

NftRule ruleOf(std::vector<NftExpr> exprs, std::string comment) {
    return {std::move(exprs), comment.substr(0, COMMENT_CHARACTERS)};
}

NftExpr fibType(uint32_t flags) {
    NftExpr expr;
    expr.op = NftOp::FibType;
    expr.a = flags;
    return expr;
}

NftExpr named(NftOp op, const std::string &name) {
    NftExpr expr;
    expr.op = op;
    expr.name = name;
    return expr;
}

NftExpr counter() { return {}; }

NftRule dispatch(int family) {
    return ruleOf({nftMetaLoad(NFT_META_NFPROTO),
                   nftCompare(NFT_CMP_EQ, {static_cast<uint8_t>(family == 6 ? NFPROTO_IPV6 : NFPROTO_IPV4)}),
                   nftMetaLoad(NFT_META_IIFNAME), named(NftOp::VerdictMap, kernelInterfaceMap(family))},
                  "");
}

NftRule skipLocal(uint32_t flags) {
    return ruleOf({fibType(flags), named(NftOp::Lookup, KERNEL_LOCAL_SET), nftVerdict(NF_ACCEPT)}, "");
}

// The top three bits of the TOS byte or traffic class; two bytes are written because checksums are
// computed over words that begin at even offsets.
void precedenceSet(std::vector<NftExpr> &exprs, int family, uint8_t precedence) {
    const std::vector<uint8_t> keep = family == 6 ? std::vector<uint8_t>{0xf1, 0xff}
                                                  : std::vector<uint8_t>{0xff, 0x1f};
    const std::vector<uint8_t> set = family == 6
        ? std::vector<uint8_t>{static_cast<uint8_t>(precedence << 1), 0}
        : std::vector<uint8_t>{0, static_cast<uint8_t>(precedence << 5)};
    NftExpr store = nftPayload(NFT_PAYLOAD_NETWORK_HEADER, 0, 2);
    exprs.push_back(store);
    exprs.push_back(nftBitwise(keep, set));
    store.op = NftOp::PayloadStore;
    store.d = family == 6 ? 0 : 10;
    exprs.push_back(store);
}

void markSet(std::vector<NftExpr> &exprs, uint32_t id, const KernelOptions &options) {
    exprs.push_back(nftMetaLoad(NFT_META_MARK));
    exprs.push_back(nftBitwise(nftWord(~options.markMask), nftWord(id << kernelMarkShift(options))));
    NftExpr store = nftMetaLoad(NFT_META_MARK);
    store.op = NftOp::MetaStore;
    exprs.push_back(store);
}

} // namespace

uint32_t kernelMarkShift(const KernelOptions &options) {
    return static_cast<uint32_t>(std::countr_zero(options.markMask));
}

uint32_t kernelMarkLimit(const KernelOptions &options) {
    if (options.markMask == 0 || options.rulePreference > HIGHEST_PREFERENCE) {
        return 0;
    }
    const uint32_t byMark = options.markMask >> kernelMarkShift(options);
    const uint32_t byPreference = HIGHEST_PREFERENCE - options.rulePreference + 1;
    return std::min({byMark, byPreference, HIGHEST_ID});
}

std::string kernelOptionsRefusal(const KernelOptions &options) {
    const uint32_t run = options.markMask == 0 ? 0 : options.markMask >> kernelMarkShift(options);
    if (run == 0 || (run & (run + 1)) != 0) {
        return "host.mark-mask must be one unbroken run of bits";
    }
    if (options.rulePreference == 0 || options.rulePreference > HIGHEST_PREFERENCE) {
        return "host.rule-preference must be 1 to 32765";
    }
    if (options.tableBase < 256 || options.tableBase > UINT32_MAX - HIGHEST_ID - 1) {
        return "host.table-base must be 256 to 4294901759";
    }
    return "";
}

std::string kernelNameEncode(const std::string &bytes) {
    std::string name;
    char code[4];
    for (const char c : bytes) {
        if (isPlain(c)) {
            name += c;
        } else {
            snprintf(code, sizeof code, ".%02x", static_cast<uint8_t>(c));
            name += code;
        }
    }
    return name;
}

std::string kernelInterfaceMap(int family) { return family == 6 ? "interfaces6" : "interfaces4"; }

std::string kernelInterfaceChain(int family, const std::string &ifName) {
    return "in" + std::to_string(family) + "/" + kernelNameEncode(ifName);
}

std::string kernelMatchChain(const NodeKey &key) {
    return "match" + std::to_string(key.family) + "/" + nodeLabel(key);
}

std::string kernelActionChain(const NodeKey &key) {
    return "do" + std::to_string(key.family) + "/" + nodeLabel(key);
}

std::string kernelInterfaceKey(const std::string &ifName) {
    std::string key = ifName.substr(0, 15);
    key.resize(16, '\0');
    return key;
}

std::vector<NftRule> kernelDefragRules() {
    NftExpr port, redirect;
    port.op = NftOp::Immediate;
    port.data = {0, 1};
    redirect.op = NftOp::TproxyPort;
    return {ruleOf({nftMetaLoad(NFT_META_L4PROTO), nftCompare(NFT_CMP_EQ, {IPPROTO_TCP}), port, redirect},
                   "never reached: makes the kernel reassemble fragments")};
}

std::string kernelDefragRefusal(const ProgramNode &node, int family) {
    if (!node.rules) {
        return "";
    }
    for (const auto &[number, rule] : programRules(node.aclNum, *node.rules, family)) {
        if (rule.fragments) {
            return "ACL " + std::to_string(node.aclNum) + " rule " + std::to_string(number) +
                   ": fragments are reassembled before they are matched (host.defrag is on), so that this rule "
                   "would never match";
        }
    }
    return "";
}

std::vector<NftRule> kernelBaseRules(const KernelOptions &options) {
    std::vector<NftRule> rules;
    rules.push_back(ruleOf({nftMetaLoad(NFT_META_MARK), nftBitwise(nftWord(options.markMask), nftWord(0)),
                            nftCompare(NFT_CMP_NEQ, nftWord(0)), nftVerdict(NF_ACCEPT)},
                           "already steered"));
    rules.push_back(dispatch(4));
    rules.push_back(dispatch(6));
    return rules;
}

std::vector<NftRule> kernelInterfaceRules(const std::vector<NodeKey> &nodes, const KernelOptions &options,
                                          const std::string &flat) {
    std::vector<NftRule> rules;
    rules.push_back(skipLocal(NFTA_FIB_F_DADDR));
    if (options.rulePreference < L3MDEV_PREFERENCE) {
        // Our rules then stand before the VRF devices' one, so that their addresses are not yet safe.
        rules.push_back(skipLocal(NFTA_FIB_F_DADDR | NFTA_FIB_F_IIF));
    }
    if (!flat.empty()) {
        rules.push_back(ruleOf({nftVerdict(NFT_GOTO, flat)}, ""));
        return rules;
    }
    for (const NodeKey &node : nodes) {
        rules.push_back(ruleOf({nftVerdict(NFT_JUMP, kernelMatchChain(node))}, ""));
    }
    return rules;
}

std::vector<NftRule> kernelMatchRules(const NodeKey &key, const ProgramNode &node) {
    std::vector<NftRule> rules;
    if (!node.rules) {
        return rules;
    }
    for (const auto &[number, rule] : programRules(node.aclNum, *node.rules, key.family)) {
        std::vector<NftExpr> exprs = kernelMatchExprs(rule, key.family);
        exprs.push_back(counter());
        exprs.push_back(rule.permit ? nftVerdict(NFT_GOTO, kernelActionChain(key)) : nftVerdict(NFT_RETURN));
        rules.push_back(ruleOf(std::move(exprs),
                               "acl " + std::to_string(node.aclNum) + " rule " + std::to_string(number)));
    }
    return rules;
}

std::vector<NftRule> kernelActionRules(const NodeKey &key, uint32_t id, uint8_t precedence,
                                       const KernelOptions &options, bool drop) {
    std::vector<NftExpr> exprs;
    exprs.push_back(counter());
    if (id == 0 && drop) {
        exprs.push_back(nftVerdict(NF_DROP));
        return {ruleOf(std::move(exprs), "nothing usable")};
    }
    if (precedence != 0) {
        precedenceSet(exprs, key.family, precedence);
    }
    if (id != 0) {
        markSet(exprs, id, options);
    }
    exprs.push_back(nftVerdict(NF_ACCEPT));
    return {ruleOf(std::move(exprs), id == 0 ? "" : "table " + std::to_string(options.tableBase + id))};
}

} // namespace host
