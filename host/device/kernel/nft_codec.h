// Our nftables table on the wire: values to netlink batches, over libnftnl, and dumps to values (nft_codec_read.cpp).
//
// A batch is one transaction of the kernel: all of it takes effect for packets at one instant, or
// nothing of it. Used by the kernel plane only.
#ifndef HOST_DEVICE_KERNEL_NFT_CODEC_H
#define HOST_DEVICE_KERNEL_NFT_CODEC_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/device/kernel/nft_value.h"
#include "host/netlink/netlink_socket.h"

namespace host {

// The table's comment: whose it is, and the layout of what is in it. A table of ours with another
// layout is made anew, in one transaction.
inline constexpr const char *NFT_OWNER = "policyroute: ";
inline constexpr const char *NFT_LAYOUT = "layout 2";
inline constexpr uint8_t NFT_UDATA_FINGERPRINT = 64; // our own number among a rule's user data

class NftBatch {
public:
    explicit NftBatch(NetlinkSocket &socket);

    // What the following changes are for: the key under which a failure is told.
    void ownerSet(const std::string &owner) { owner_ = owner; }

    void tableAdd();
    void tableDel();
    void setAdd(const std::string &name); // one that nftSetBuild knows
    void setDel(const std::string &name); // with its elements
    void chainAdd(const std::string &name);
    void chainDel(const std::string &name);
    void chainFlush(const std::string &name);
    void ruleAdd(const std::string &chain, const NftRule &rule, const NftCount &from = {}); // from: counts on from
    void elementAdd(const NftElementKey &key, const std::string &target); // as NftImage has it
    void elementDel(const NftElementKey &key);

    bool empty() const { return count_ == 0; }
    uint32_t count() const { return count_; }

    // Sends all as one transaction; once. Failures name messages by sequence number: see ownerOf.
    NetlinkBatchResult send();

    // The owner under which a message was added; null for the frame of the batch.
    const std::string *ownerOf(uint32_t seq) const;

private:
    template <class Build> void add(uint16_t type, uint16_t flags, Build build);
    void element(uint16_t type, uint16_t flags, const NftElementKey &key, const std::string *pTarget);

    NetlinkSocket &socket_;
    std::vector<char> bytes_;
    std::map<uint32_t, std::string> owners_;
    std::string owner_;
    uint32_t count_ = 0;
};

// Reads what the kernel holds under our table's name. Result: empty, or why it cannot be read.
std::string nftRead(NetlinkSocket &socket, NftImage *pImage);

// Packets that each rule of ours counted: chain -> counters in rule order (0 for rules without).
std::string nftCounters(NetlinkSocket &socket, std::map<std::string, std::vector<uint64_t>> *pCounters);

// The counts of our rules, by chain and, in the rules' order, each under its rule's comment. chain: of this
// one only; empty: of all. A chain that is not there has none.
using NftChainCounts = std::vector<std::pair<std::string, NftCount>>;
std::string nftCountsRead(NetlinkSocket &socket, const std::string &chain,
                          std::map<std::string, NftChainCounts> *pCounts);

// Whether a notification tells of our table. Lock: none
bool nftIsOfOurTable(const nlmsghdr *pMessage);

} // namespace host

#endif
