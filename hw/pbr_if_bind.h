// Binding a policy list to an interface, and undoing it.
//
// Called by the interface commands; unbinding also by link and aggregation events. The entry names the
// list (pbrName, pbrNameLen). An entry is unbound (no links, not in the list's chain) or bound (one link
// for each node that the list had then, in the chain, protocol 206 on). A list's refCnt is the number of
// bound interfaces modulo 16; its next hops are watched while it is not 0.
#ifndef HW_PBR_IF_BIND_H
#define HW_PBR_IF_BIND_H

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// Binds the list that the entry names: one more user of each node's ACL, one link a node, detection of
// its next hops on the first binding, the entries that can be written now, the protocol on. A failed
// device add or protocol switch does not change the result.
// Result: 0; -1 when the list does not exist or may not be bound (nothing changed), or when the links ran
// out (what was done for earlier nodes stays, refCnt and ACL users stay raised, the entry is not in the
// list's chain). Lock: held by caller
[[nodiscard]] int32_t pbrIfEntryBind(PbrIfEntry *pIf) PBR_LOCK_HELD;

// Unbinds the list that the entry names: entries and links removed, detection ended for peers that no
// other interface needs (last binding only), the list taken out of the ready table, the protocol off.
// The names stay in the entry. Result: 0, or PBR_ERR_UNBIND_NO_LIST when the list does not exist
// (nothing changed). Lock: held by caller
[[nodiscard]] uint32_t pbrIfEntryUnBind(PbrIfEntry *pIf) PBR_LOCK_HELD;

#endif
