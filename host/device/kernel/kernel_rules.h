// The rules of our nftables table: builders for each kind of chain. Pure.
//
//   prerouting        (base chain) skips marked packets, then by family and interface name: goto
//   inF/IFACE         skips packets for this machine and for groups, then a jump per node in node order, or on
//                     to the list's maps (kernel_flat.h)
//   matchF/LIST/NODE  one rule an ACL rule: permit goes to the action, deny returns (next node)
//   doF/LIST/NODE     one rule: precedence, mark, accept; or drop. A changed decision rewrites this rule only.
//   defrag            no packet comes here; that its rule exists makes the kernel reassemble fragments
//                     before prerouting, without tracking connections
//
// F is 4 or 6. Names are written so that nft can read them back: other bytes than letters, digits, '_'
// and '-' become ".XX" (hexadecimal).
#ifndef HOST_DEVICE_KERNEL_KERNEL_RULES_H
#define HOST_DEVICE_KERNEL_KERNEL_RULES_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/device/kernel/nft_value.h"
#include "host/device/kernel/program.h"

namespace host {

inline constexpr const char *KERNEL_TABLE = "policyroute";
inline constexpr const char *KERNEL_BASE_CHAIN = "prerouting";
inline constexpr const char *KERNEL_DEFRAG_CHAIN = "defrag";
inline constexpr const char *KERNEL_LOCAL_SET = "local-types";
inline constexpr int32_t KERNEL_BASE_PRIORITY = -151; // just before mangle, after defragmentation

// Where our bits are and where our numbers begin. Fixed for the life of a device.
struct KernelOptions {
    uint32_t markMask = 0xfff00000;
    uint32_t rulePreference = 15000;
    uint32_t tableBase = 1000000;
    size_t mapFrom = 8;  // rules from which on they are looked up in a map; 0: never
    bool defrag = false; // fragments are reassembled before our chain; given up where the kernel cannot
};

uint32_t kernelMarkShift(const KernelOptions &options); // place of the mask's lowest bit
uint32_t kernelMarkLimit(const KernelOptions &options); // greatest decision id that can be had, 0 none

// Why the options cannot be used; empty: they can. The mask must be one unbroken run of bits.
std::string kernelOptionsRefusal(const KernelOptions &options);

std::string kernelNameEncode(const std::string &bytes);
std::string kernelInterfaceMap(int family);                              // interfaces4, interfaces6
std::string kernelInterfaceChain(int family, const std::string &ifName); // in4/lan0
std::string kernelMatchChain(const NodeKey &key);                        // match4/wan/10
std::string kernelActionChain(const NodeKey &key);                       // do4/wan/10
std::string kernelInterfaceKey(const std::string &ifName);               // 16 bytes, zero padded

std::vector<NftRule> kernelDefragRules();
std::vector<NftRule> kernelBaseRules(const KernelOptions &options);
// flat: the chain that asks all of the nodes; empty: they are asked one by one.
std::vector<NftRule> kernelInterfaceRules(const std::vector<NodeKey> &nodes, const KernelOptions &options,
                                          const std::string &flat = "");
std::vector<NftRule> kernelMatchRules(const NodeKey &key, const ProgramNode &node);

// Why the rules cannot be installed exactly where fragments are reassembled; empty: they can. Lock: none
std::string kernelDefragRefusal(const ProgramNode &node, int family);

// id: the decision's; 0 to route as usual, or, when `drop`, to drop. precedence 1..7 or 0.
std::vector<NftRule> kernelActionRules(const NodeKey &key, uint32_t id, uint8_t precedence,
                                       const KernelOptions &options, bool drop = false);

} // namespace host

#endif
