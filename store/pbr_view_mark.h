// Marks for the redirect view: set beside every state change that may change what should happen to
// packets, read and cleared by hw/pbr_redirect_view. They change no other behaviour.
#ifndef STORE_PBR_VIEW_MARK_H
#define STORE_PBR_VIEW_MARK_H

#include "core/pbr_info.h"
#include "store/pbr_records.h"

constexpr uint32_t PBR_VIEW_LISTS = 1; // some lists are marked
constexpr uint32_t PBR_VIEW_ALL = 2;   // compare everything (a list or an interface went away)

// Marks one list. Lock: held by caller
inline void pbrViewMarkList(PbrListEntry *pList) PBR_LOCK_HELD {
    pList->viewMark = 1;
    gPbrInfo.viewMarks |= PBR_VIEW_LISTS;
}

// Marks everything. Lock: held by caller
inline void pbrViewMarkAll() PBR_LOCK_HELD {
    gPbrInfo.viewMarks |= PBR_VIEW_ALL;
}

#endif
