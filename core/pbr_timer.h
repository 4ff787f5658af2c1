// The two timers of the control block: the periodic update and the ARP check.
//
// The update timer is one-shot and re-arms itself after each run, so its period (updatePeriod, ms) goes
// from the end of one update to the start of the next. The ARP-check timer is never started: callback
// and field are kept as they are, and it is meant that nothing starts them.
#ifndef CORE_PBR_TIMER_H
#define CORE_PBR_TIMER_H

#include <cstdint>

#include "core/pbr_store_lock.h"

// Arms the update timer afresh: due in updatePeriod. Lock: held by caller (after start-up)
void pbrUpdateTimerStart() PBR_LOCK_HELD;

// Disarms the update timer; harmless when it is not armed. Lock: held by caller
void pbrUpdateTimerStop() PBR_LOCK_HELD;

// Callback: makes one update run, then arms the timer again. pArg: not used.
// Result: that of the arming. Lock: held by caller
int32_t pbrUpdateTimerTimeOut(void *pArg) PBR_LOCK_HELD;

// Callback: arms the ARP-check timer again (arpCheckPeriod, ms), then asks the hardware layer to refresh
// neighbour state. pArg: not used. Result: the hardware layer's. Lock: held by caller
int32_t pbrArpCheckTimerTimeOut(void *pArg) PBR_LOCK_HELD;

#endif
