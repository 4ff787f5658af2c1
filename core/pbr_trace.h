// Debug output behind the bits of gPbrInfo.debugFlags. The arguments are evaluated only while the bit
// is set, so they have no effects.
#ifndef CORE_PBR_TRACE_H
#define CORE_PBR_TRACE_H

#include "core/pbr_info.h"
#include "core/pbr_types.h"
#include "platform/logging.h"

constexpr uint32_t PBR_TRACE_LEVEL = 7;

#define PBR_TRACE(bit, logId, ...)                                                                  \
    do {                                                                                            \
        if ((gPbrInfo.debugFlags & (bit)) != 0) {                                                   \
            loggingDebugOutput((logId), PBR_TRACE_LEVEL, 0, __VA_ARGS__);                           \
        }                                                                                           \
    } while (0)

#endif
