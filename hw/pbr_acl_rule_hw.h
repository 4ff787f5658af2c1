// The device rule of one ACL rule on one interface: written and removed as rules come and go.
//
// Called by the ACL-rule events for links that are in the device. The record (platform/acl_dev_entry.h)
// carries the rule's match fields and the node's redirect action, and goes to the interface layer.
// hwStatus (but for the add's forwardFlag 2 exit), marks and reference counts belong to the link's own
// entry and stay as they are. "ECMP" means isEcmp other than 0 here.
#ifndef HW_PBR_ACL_RULE_HW_H
#define HW_PBR_ACL_RULE_HW_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Writes the rule with the ACL module's translation of it and the next hops whose curSelected is set.
// Without one (and neither out interface nor priority alone) nothing is sent and 0 is returned, no
// counter moves. forwardFlag 2: hwStatus 1, 0. Counts hwAclAddCnt or hwAclAddErr.
// Result: 0, or the interface layer's own. Lock: held by caller
int32_t pbrAclRuleHwAdd(PbrIfNodeEntry *pLink, uint32_t listNum, uint32_t ruleNum) PBR_LOCK_HELD;

// Removes the rule: names ACL and rule, with the next hops whose lastSelected is set; always sent.
// forwardFlag 2: 0, hwStatus stays. Counts hwAclDelCnt or hwAclDelErr.
// Result: 0, or the interface layer's own. Lock: held by caller
int32_t pbrAclRuleHwDel(PbrIfNodeEntry *pLink, uint32_t listNum, uint32_t ruleNum) PBR_LOCK_HELD;

#endif
