// From the rules of one interface and family to what the ingress program looks up: tuples and entries. Pure.
//
// Each rule becomes one or more (mask, value) pairs over a packet's key; a range becomes prefixes. Rules are
// taken in their order until one does not fit; a packet that none of those taken decides is left to the
// other half of the device, so that what is left out never changes an answer.
#ifndef HOST_DEVICE_EBPF_EBPF_IMAGE_H
#define HOST_DEVICE_EBPF_EBPF_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "aclrule/acl_rule.h"
#include "host/device/ebpf/ebpf_layout.h"

namespace host {

constexpr size_t EBPF_PAIRS_MOST = 1024;   // (mask, value) pairs of one rule
constexpr size_t EBPF_ENTRIES_MOST = 131072; // of one interface and family

// A rule in the order in which the rules are asked.
struct EbpfRule {
    aclrule::AclRule rule;
    uint32_t place = 0; // of its node in the order, ascending
    uint32_t count = 0; // its counter
    uint32_t node = 0;  // its node among the nodes
};

struct EbpfImage {
    EbpfPolicy policy{}; // generation 0
    std::vector<std::pair<EbpfKey, EbpfEntry>> entries; // keys of generation 0; IPv4: the rest of a key is 0
    size_t taken = 0;    // rules that are in it, the first ones
    std::string reason;  // why the rule behind them is not; empty: all are
};

// family: 4 or 6; the rules are of that family. Lock: none
EbpfImage ebpfImage(const std::vector<EbpfRule> &rules, int family);

} // namespace host

#endif
