// The match of one ACL rule as nftables expressions. Pure.
//
// Each expression list is exact: a packet of the family passes through it when the rule's words say so and
// only then. What a packet does not carry (ports of a later fragment, a MAC address of a tunnel's packet)
// is not matched, by permit and by deny rules alike.
#ifndef HOST_DEVICE_KERNEL_KERNEL_MATCH_H
#define HOST_DEVICE_KERNEL_KERNEL_MATCH_H

#include <vector>

#include "host/acl/acl_rule.h"
#include "host/device/kernel/nft_value.h"

namespace host {

// family: 4 or 6, one that the rule is of. Lock: none
std::vector<NftExpr> kernelMatchExprs(const AclRule &rule, int family);

} // namespace host

#endif
