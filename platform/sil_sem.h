// Mutex semaphores, named by a 32-bit handle; 0 is never a handle.
#ifndef PLATFORM_SIL_SEM_H
#define PLATFORM_SIL_SEM_H

#include "platform/platform_types.h"

extern "C" {

// Makes a mutex, free. options: the platform's word; the daemon passes 9 (priority order,
// priority inheritance). Result: its handle, or 0 when none could be made. Not recursive.
// Lock: none
[[nodiscard]] uint32_t silCreateMSem(uint32_t options);

// Takes the mutex; timeoutMs: -1 waits without limit. Result: 0, or non-zero when not taken
// (unknown handle, time-out). Lock: takes
int32_t silTakeSem(uint32_t handle, int32_t timeoutMs);

// Gives the mutex back. Result: 0, or non-zero (unknown handle, not held by the caller).
int32_t silGiveSem(uint32_t handle);

// Destroys a free mutex. Result: 0, or non-zero for an unknown handle. Lock: none
int32_t silDeleteSem(uint32_t handle);
}

#endif
