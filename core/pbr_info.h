// The one block of state with process life, and its mutex.
//
// gPbrInfo is zeroed by pbrInit before anything else and then read and written with gPbrInfo.lock held
// (exception: the guard of the interface handlers, which reads maxListNum and listCount before taking
// it). The mutex is taken by the worker loop, the management handlers, show, and the deliverer of time
// ranges; never twice and never across a wait.
#ifndef CORE_PBR_INFO_H
#define CORE_PBR_INFO_H

#include <cstdint>

#include "core/pbr_link.h"
#include "core/pbr_store_lock.h"
#include "platform/avl.h"
#include "platform/sil_mempool.h"
#include "platform/sil_timer.h"

struct PbrNodeEntry;

struct PbrInfo {
    SilMemPool ifPool;      // "pbr_if" of PbrIfEntry
    AvlTree ifTree;         // PbrIfEntry, ascending unit
    SilMemPool listPool;    // "pbr_list" of PbrListEntry
    PbrLink usedTable;      // head: PbrListEntry.usedLink, name order
    SilMemPool nqaPool;     // "pbr_nqa" of PbrNqaEntry
    PbrLink nqaTable;       // head: PbrNqaEntry.nqaLink
    SilMemPool nodePool;    // "pbr_node" of PbrNodeEntry
    PbrLink nodeTable;      // head: made empty at start, not used afterwards; kept as declared
    SilMemPool nextHopPool; // "pbr_nexthop" of PbrNextHopEntry
    SilMemPool ifNodePool;  // "pbr_ifnode" of PbrIfNodeEntry
    PbrLink readyTable;     // head: PbrListEntry.readyLink, most recently queued first
    uint32_t lock;          // the mutex; 0 when absent
    uint32_t listCount;     // lists in usedTable; written whole, as it is read without the mutex too
    uint32_t maxListNum;    // slots of listPool
    uint32_t maxNodeNum;    // slots of nodePool
    uint32_t maxIfNum;      // slots of ifPool
    int32_t rtSock;         // route socket, -1 when closed
    uint32_t updatePeriod;  // ms
    uint32_t arpCheckPeriod;// ms
    SilTimerList timerList; // the worker task's timers
    SilTimer updateTimer;
    SilTimer arpCheckTimer; // never started
    uint32_t debugFlags;    // PBR_DEBUG_ bits
    uint32_t hwAclAddCnt;   // device entries added
    uint32_t hwAclAddErr;   // failed adds
    uint32_t hwAclDelCnt;   // device entries removed
    uint32_t hwAclDelErr;   // failed removals
    uint32_t rcvRtmAclAddCnt; // ACL-rule-added messages received
    uint32_t rcvRtmAclDelCnt; // ACL-rule-removed messages received
    uint32_t memAllocated;  // 1 while the six pools exist
    // Behind the published fields:
    uint32_t viewMarks;     // PBR_VIEW_ bits of store/pbr_view_mark.h: what the redirect view should
                            // compare again
    PbrNodeEntry *pNodeFinger; // where the latest look-up of a node by its index ended, or null
};

extern PbrInfo gPbrInfo GUARDED_BY(gPbrStoreLock);

// Switches set from the shell without the mutex, so read and written whole; u32, 0 at start.
extern uint32_t gPbrDebug;            // set by pbrdebug; nothing reads it
extern uint32_t gPbrSelfLog;          // "pbrselflog": record received peer reports too
extern const uint8_t gPbrDebugPri[7]; // log priorities by kind of record

// Takes the mutex, waiting without limit. Result: the platform's. Lock: takes
int32_t pbrLock() LOCK_TAKES(gPbrStoreLock);

// Tells the forwarding plane that the store may have changed (devSyncStore) and gives the mutex back.
// Result: the platform's. Lock: gives
int32_t pbrUnlock() LOCK_GIVES(gPbrStoreLock);

#endif
