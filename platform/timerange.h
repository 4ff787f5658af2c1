// Time ranges: numbered ranges that start and stop; bindings are told by callback.
#ifndef PLATFORM_TIMERANGE_H
#define PLATFORM_TIMERANGE_H

#include "platform/platform_types.h"

extern "C" {

// pContext: the service's copy of the context that was given at binding. Called on a thread of the
// service that holds no lock; the callback takes the program's mutex itself. Result: not used.
typedef uint32_t (*TimerangeCallback)(void *pContext);

// Registers a binding of range `id` under `name` (nameLen bytes, a key together with the id), with a
// copy of the contextLen bytes at pContext. The callbacks tell that the range starts, stops, and that
// the service drops the binding. None is called during this call; a range that is active already
// delivers its start afterwards. A range that is not configured is accepted and is inactive.
// Result: 0, or why not. Lock: held by caller; takes the service's own
[[nodiscard]] uint32_t timerangeBind(uint32_t id, const char *name, uint32_t nameLen,
                                     TimerangeCallback start, TimerangeCallback stop,
                                     TimerangeCallback unbind, const void *pContext,
                                     uint32_t contextLen);

// Removes the binding of range `id` under `name`. flags: 1. Result: 0, or why not.
// Lock: held by caller; takes the service's own
[[nodiscard]] uint32_t timerangeUnbind(uint32_t id, const char *name, uint32_t nameLen,
                                       uint32_t flags);
}

#endif
