// nftables objects as values: expressions, rules, their fingerprints and a readable text.
//
// The compiler makes these, the codec turns them into netlink messages. A rule is installed with its
// fingerprint as user data, so that what the kernel holds is compared by our own numbers (the kernel
// hands rules back in other words than it was given). Pure: no kernel, no libraries.
#ifndef HOST_DEVICE_KERNEL_NFT_VALUE_H
#define HOST_DEVICE_KERNEL_NFT_VALUE_H

#include <compare>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace host {

enum class NftOp : uint8_t {
    MetaLoad,     // a = NFT_META_*: into the register
    MetaStore,    // a = NFT_META_*: from the register
    PayloadLoad,  // a = NFT_PAYLOAD_* base, b = offset, c = bytes
    PayloadStore, // the same, and d = offset of the IPv4 header checksum that follows the change, 0 none
    HeaderLoad,   // IPv6 extension header: a = its protocol number, b = offset, c = bytes; leaves the rule without it
    Immediate,    // data into the register
    ToNetwork,    // a = bytes: the register's number from machine order to network order
    Bitwise,      // register = (register & data) ^ data2, both of one size
    Compare,      // a = NFT_CMP_*, data: leaves the rule when it does not hold
    FibType,      // kind of the destination address into the register; a = NFTA_FIB_F_* flags
    Lookup,       // name = set: leaves the rule unless the register is a member
    VerdictMap,   // name = map: the verdict found under the register
    TproxyPort,   // redirection to the port in the register: makes the kernel reassemble fragments
    Verdict,      // a = NF_ACCEPT, NFT_RETURN, NFT_JUMP, NFT_GOTO as a two's complement word; name = chain
    Counter,
};

// One register serves every expression; a key of several fields takes the words behind it, too.
struct NftExpr {
    NftOp op = NftOp::Counter;
    uint32_t a = 0, b = 0, c = 0, d = 0;
    uint32_t reg = 0;           // words from the register's begin
    std::vector<uint8_t> data;  // bytes as the packet or the kernel's register holds them
    std::vector<uint8_t> data2;
    std::string name;
    bool operator==(const NftExpr &) const = default;
};

struct NftRule {
    std::vector<NftExpr> exprs;
    std::string comment; // at most 127 characters; shown by `nft list`
    bool operator==(const NftRule &) const = default;
};

// What a rule counted. No part of a rule: equal rules have equal fingerprints whatever they counted.
struct NftCount {
    uint64_t packets = 0;
    uint64_t bytes = 0;
    bool operator==(const NftCount &) const = default;
};

// A number that differs when rules differ (64-bit FNV-1a of everything in it); never 0. Lock: none
uint64_t nftFingerprint(const NftRule &rule);

// One line a rule, for tests and logs. Lock: none
std::string nftRuleText(const NftRule &rule);

// Before the chain of an element from which packets come back.
inline constexpr const char *NFT_JUMP_TO = "jump ";

// An element of a map or set: set name and the key's bytes (of ranges: first and last).
using NftElementKey = std::pair<std::string, std::string>;

// What the kernel holds, or should hold, of our table.
struct NftImage {
    bool table = false;     // the table exists, is ours and has the present layout
    bool foreign = false;   // a table of that name exists and is not ours
    bool stale = false;     // it is ours, of another layout: it must be made anew
    std::set<std::string> sets;
    std::map<std::string, std::vector<uint64_t>> chains; // name -> fingerprints; 0: not our rule
    std::map<NftElementKey, std::string> elements;       // -> chain gone to, or NFT_JUMP_TO and it; empty for plain sets
    bool operator==(const NftImage &) const = default;
};

// Helpers of the rule builders.
NftExpr nftMetaLoad(uint32_t key);
NftExpr nftCompare(uint32_t op, std::vector<uint8_t> data);
NftExpr nftPayload(uint32_t base, uint32_t offset, uint32_t size);
NftExpr nftHeader(uint32_t protocol, uint32_t offset, uint32_t size);
NftExpr nftBitwise(std::vector<uint8_t> mask, std::vector<uint8_t> flip);
NftExpr nftVerdict(int32_t code, const std::string &chain = "");
std::vector<uint8_t> nftWord(uint32_t value); // machine order, as registers hold kernel numbers

} // namespace host

#endif
