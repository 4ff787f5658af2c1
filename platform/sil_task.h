// Tasks: threads of the process with a name and a priority.
#ifndef PLATFORM_SIL_TASK_H
#define PLATFORM_SIL_TASK_H

#include "platform/platform_types.h"

extern "C" {

typedef void (*SilTaskEntry)(void *pArg1, void *pArg2);

// Starts a task that runs `entry(pArg1, pArg2)`; the task ends when the entry returns.
// name: at most 15 characters count. priority: the platform's scale, 0..255; a platform without
// priorities ignores it. stackBytes: bytes. pTaskId: receives the task's number; may not be null.
// Result: 0, or non-zero when the task could not be made (nothing was started).
// Lock: none
[[nodiscard]] int32_t silCreateTask(const char *name, uint32_t priority, uint32_t stackBytes,
                                    SilTaskEntry entry, void *pArg1, void *pArg2, uint32_t *pTaskId);
}

#endif
