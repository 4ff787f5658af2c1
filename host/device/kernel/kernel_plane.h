// The kernel plane: makes the kernel equal to the kernel model, by differences, and reads it back.
//
// Order of a change: next-hop objects, groups, routes and rules of new decisions, then the rules that lead
// packets over those of other decisions (rule_tree.h); then one nftables
// transaction that lets packets see them; what no packet uses any more is removed later (collect), so
// that a packet between its mark and its look-up still finds its table. Not for several threads at
// once: the kernel device locks. Reading (snapshotRead) uses sockets given by the caller and may run
// beside everything else.
#ifndef HOST_DEVICE_KERNEL_KERNEL_PLANE_H
#define HOST_DEVICE_KERNEL_KERNEL_PLANE_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/device/kernel/kernel_model.h"
#include "host/device/kernel/nft_codec.h"
#include "host/device/kernel/nft_value.h"
#include "host/device/kernel/rt_codec.h"
#include "host/netlink/netlink_socket.h"

namespace host {

struct KernelSnapshot {
    NftImage nft;
    RtImage rt;
};

// The two sockets that everything goes through.
struct KernelSockets {
    NetlinkSocket nft;
    NetlinkSocket rt;
    KernelSockets(); // throws std::system_error
};

// Reads what the kernel holds of ours. Result: empty, or why it cannot be read.
std::string snapshotRead(KernelSockets &sockets, KernelSnapshot *pSnapshot);

// A chain (empty: none in particular) and the kernel's words.
using NftRefusal = std::pair<std::string, std::string>;

struct KernelCounters {
    uint64_t applies = 0;        // times that something was changed in the kernel
    uint64_t kernelMessages = 0; // netlink messages sent for changes
    uint64_t driftRepaired = 0;  // read-backs that found another state than ours
    uint64_t refusals = 0;       // nodes and decisions that the kernel refused; not those whose link is down
    uint64_t lastApplyUs = 0;    // duration of the latest change, microseconds
};

class KernelPlane {
public:
    explicit KernelPlane(const KernelOptions &options);

    // Opens the sockets and reads what is there; decisions of an earlier run are taken over.
    // Result: empty, or why the kernel cannot be used.
    std::string open();

    // Whether an earlier run left anything.
    bool isAdopted() const { return isAdopted_; }

    KernelModel &model() { return model_; }
    const KernelModel &model() const { return model_; }

    // Makes the kernel equal to the model where they may differ. What the kernel refuses is left out,
    // told in the status of the entries concerned, and the rest is done. Result: empty, or a text when
    // the kernel took nothing for a reason that concerns no single entry.
    std::string apply();

    // Lets decisions that the kernel refused, and their users, be tried again with the next apply.
    void retryRefused();
    bool hasRefused() const;

    // Removes routing objects that no packet uses any more. Result: empty, or what remains and why.
    std::string collect();
    bool isCollectDue() const { return isCollectDue_; }

    // Compares what was read (null: not read) with what should be installed; takes it as the truth when
    // they differ, so that the next apply and collect repair. linksLost: interfaces that were down since the
    // latest call; the kernel takes their next hops and routes along. Result: true when there was another difference.
    bool reconcile(const NftImage *pNft, const RtImage *pRt, const std::set<uint32_t> &linksLost = {});

    // What the kernel holds otherwise than it should: a line each, none when all is as installed. What
    // merely waits to be collected is no difference. Changes nothing.
    std::vector<std::string> differences(const KernelSnapshot &snapshot) const;

    // The same of what reconcile took as the truth, before the next apply: " (IPv4 rule 15001 is missing, and 2
    // more)"; empty: nothing that differences has words for.
    std::string driftText() const;

    // With how many routing rules of ours packets of a family are compared now, at most: those without a mark, and
    // those of decisions until they find their table.
    struct RuleCost {
        size_t decisions = 0, unsteered = 0, steered = 0;
    };
    RuleCost ruleCost(uint8_t family) const;

    // Lets all counters of rules begin at 0. Result: empty, or why not.
    std::string countsClear();

    // Removes everything of ours. Result: empty, or what remains and why.
    std::string flush();

    const KernelSnapshot &installed() const { return installed_; }
    const KernelCounters &counters() const { return counters_; }
    bool isDefragOn() const { return options_.defrag; } // after open
    const std::set<uint32_t> ports() const; // of our sockets: their changes are our own

private:
    struct RtStep {
        NetlinkMessage message;
        DecisionKey owner;
        uint32_t ifIndex; // that a next hop leads out of; 0: no next hop
        std::function<void(RtImage &)> done; // what the image is after it
        bool isOptional = false; // of a standby: the decision goes without it
    };
    void defragProbe();
    std::set<DecisionKey> decisionsSend();
    void decisionsInstall();
    void waysLeave(const std::set<DecisionKey> &pending);
    void stepsFor(const DecisionKey &key, std::set<uint32_t> &planned, std::vector<RtStep> &steps) const;
    std::vector<NetlinkError> stepsAnswer(const std::vector<RtStep> &steps);
    void stepsSend(std::vector<RtStep> &steps);
    void treePlan(const std::set<RtRule> &rules);
    bool treeSend();
    std::vector<std::string> stepsDo(const std::vector<RtStep> &steps);
    void decisionRefuse(const DecisionKey &key, const std::string &text, const std::map<uint32_t, std::string> &linksDown);
    std::string nftApply();
    std::vector<NftRefusal> nftSend(const std::vector<NftChange> &changes, bool isCounting = true);
    std::map<std::string, NftChainCounts> countsRead(const std::vector<NftChange> &changes) const;
    bool nodesRefuse(const std::vector<NftRefusal> &refusals);
    std::string resync();
    void decisionsMark();
    void junkSteps(const RtImage &wanted, std::vector<RtStep> &steps) const;
    bool isTaken(uint8_t family, uint32_t preference, uint32_t table);

    KernelOptions options_;
    std::unique_ptr<KernelSockets> sockets_;
    KernelModel model_;
    KernelSnapshot installed_;
    KernelCounters counters_;
    bool isAdopted_ = false;
    bool isCollectDue_ = false;
    std::vector<RtRule> tree_; // rules among those of decisions (rule_tree.h), as planned last
    bool isTreeDue_ = true;    // they may have to be others
};

} // namespace host

#endif
