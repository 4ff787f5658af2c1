// The ingress stage: compiles the policies of bound interfaces for the eBPF program and keeps it equal to the
// nftables rules behind.
//
// A policy, of one interface and family:
//   off       the program leaves its packets to the rules                  (policyOff: one write)
//   pending   off, and to be built                                         (before, when it differs)
//   on        the program decides what it can                              (policyBuild: the last write of many)
// A changed policy is off while the rules change and until it is built, so that no packet sees half of it. A
// node's action is one write, without that. Large policies are built when changes pause.
//
// What a packet in flight may still look up is removed only some time after (retired). Every run loads a program of
// its own; one of an earlier run stays on its interfaces until the first change replaces it.
#ifndef HOST_DEVICE_EBPF_EBPF_FRONT_H
#define HOST_DEVICE_EBPF_EBPF_FRONT_H

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>

#include <nlohmann/json.hpp>

#include "host/device/ebpf/ebpf_places.h"
#include "host/device/ebpf/ebpf_program.h"
#include "host/device/kernel/kernel_front.h"

namespace host {

enum class EbpfRedirect : uint8_t { Auto, On, Off };

class EbpfFront : public KernelFront {
public:
    explicit EbpfFront(EbpfRedirect redirect);
    ~EbpfFront() override;

    std::string open(const KernelOptions &options) override;
    std::vector<uint32_t> groups() const override;
    bool hears(int protocol, const nlmsghdr *pMessage) override;
    void before(const KernelModel &model, const std::set<std::string> &lists) override;
    void after(const KernelModel &model, const std::set<std::string> &lists, bool isDone) override;
    std::chrono::milliseconds work(const KernelModel &model) override;
    std::chrono::milliseconds workDelay() const override;
    std::string flush() override;
    std::map<CountKey, NftCount> counts() const override;
    void countsClear() override;
    nlohmann::json show() const override;
    std::vector<std::string> differences() override;
    std::vector<DeviceNotice> warnings() const override;

private:
    using Clock = std::chrono::steady_clock;
    using InterfaceKey = std::pair<uint8_t, std::string>; // family, name
    struct Place { // of a node in an interface's order
        NodeKey node;
        uint32_t aclNum = 0;
        std::shared_ptr<const AclRules> rules;
        bool operator==(const Place &) const = default;
        bool operator<(const Place &other) const {
            return std::tie(node.nodeIndex, node) < std::tie(other.node.nodeIndex, other.node);
        }
    };
    struct Holding { // what a generation holds of the maps
        int family = 4;
        uint32_t generation = 0;
        std::vector<EbpfKey> keys;
        std::vector<NodeKey> nodes;
        std::vector<CountKey> counts;
    };
    struct Policy {
        std::vector<Place> places; // ascending
        uint32_t ifIndex = 0;      // for which it was made
        bool isOn = false, isPending = false;
        Clock::time_point since{}, changed{}; // of what is pending
        Holding holding;
        size_t rules = 0, taken = 0;
        EbpfPolicy image{};        // when on
        std::string refusal;       // why it is off
        std::string rest;          // why rules are left to nftables
        std::string noRedirect;    // why packets are not sent on at once
    };

    void takeOver();
    void listIndex(const KernelModel &model, const std::string &list, std::set<InterfaceKey> *pTouched);
    std::vector<Place> placesOf(const InterfaceKey &key) const;
    void policyCheck(const InterfaceKey &key);
    void policyOff(const InterfaceKey &key, Policy &policy);
    void policyBuild(const KernelModel &model, const InterfaceKey &key, Policy &policy);
    std::vector<EbpfRule> rulesOf(const KernelModel &model, const InterfaceKey &key, Policy &policy);
    static uint32_t flagsOf(const Policy &policy);
    std::string redirectRefusal(const InterfaceKey &key) const;
    void nodeSet(const KernelModel &model, const NodeKey &node, bool isNew);
    void nodesSet(const KernelModel &model, const std::set<std::string> &lists);
    void pendingBuild(const KernelModel &model, bool isAll);
    void filtersSet();
    bool isWaiting() const;
    void retiredDrop(bool isAll);
    void aroundRead();

    const EbpfRedirect redirect_;
    std::unique_ptr<EbpfProgram> program_;
    std::unique_ptr<NetlinkSocket> rt_, nft_;
    EbpfOptions options_{};
    bool isTakenOver_ = false;
    bool isBroken_ = false; // what the rules do is not known: everything stays off
    std::map<std::string, std::map<InterfaceKey, std::vector<Place>>> lists_; // as compiled
    std::map<InterfaceKey, std::set<std::string>> listsOf_;
    std::map<InterfaceKey, Policy> policies_;
    std::set<uint32_t> attached_; // interface indexes
    EbpfPlaces<NodeKey> nodePlaces_{EBPF_NODES};
    EbpfPlaces<CountKey> countPlaces_{EBPF_COUNTS};
    std::map<NodeKey, EbpfNode> nodes_; // as written
    std::vector<std::pair<Clock::time_point, Holding>> retired_;
    uint32_t generation_ = 0;
    std::string hooks_; // of others
    std::string error_; // the latest of the kernel's, empty: none
    std::atomic<bool> isAroundDue_{false};
};

} // namespace host

#endif
