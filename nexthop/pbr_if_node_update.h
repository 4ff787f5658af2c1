// The periodic update: the one place where changed choices of next hops reach the device.
//
// Called by the update timer on the worker task. Works the ready table off, front to back: for each list
// the best next hop of every node is selected again, and where it changed, or the node or link is marked
// for a rewrite, the entry of every bound interface is deleted and added again. A list whose adds all
// succeeded leaves the table; otherwise it stays for the next run. Before each list the route socket is
// asked for waiting bytes: with any the run ends at once, so that input is always taken in first.
#ifndef NEXTHOP_PBR_IF_NODE_UPDATE_H
#define NEXTHOP_PBR_IF_NODE_UPDATE_H

#include <cstdint>

#include "core/pbr_store_lock.h"

// Makes one run. Changes pPbrNhopBest, the marks of next hops, hwAddRefCnt, the stateChangeFlags and the
// ready table, and through the device operations hwStatus and counters. Result: 0 always.
// Lock: held by caller
int32_t pbrIfNodeUpdate() PBR_LOCK_HELD;

#endif
