// Which chains count for the operator, and what a rule that is written anew counts on from. Pure.
#ifndef HOST_DEVICE_KERNEL_KERNEL_COUNTS_H
#define HOST_DEVICE_KERNEL_KERNEL_COUNTS_H

#include <map>
#include <string>

#include "host/device/kernel/kernel_model.h"
#include "host/device/kernel/nft_codec.h"

namespace host {

bool kernelIsCountingChain(const std::string &chain);

// What the rule that a RuleAdd replaces had counted: of an action chain its only rule, of an ACL rule the one of its
// number, whether it stood in a chain of its own or in its node's. Lock: none
NftCount kernelCountBefore(const std::map<std::string, NftChainCounts> &counts, const NftChange &change);

} // namespace host

#endif
