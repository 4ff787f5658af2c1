// The option store: text values under dotted names.
#ifndef PLATFORM_SIL_OPTION_H
#define PLATFORM_SIL_OPTION_H

#include "platform/platform_types.h"

extern "C" {

// Copies the value of option `key` into the buffer. store, section, index, kind: the daemon passes
// 0, 0, 0 and 1 (text). buffer: at least maxLen + 1 bytes, zeroed by the caller; at most maxLen
// characters are written, no terminator is added. Result: characters written, or 0 or a negative
// number when the option is absent. Lock: none
int32_t silOptRead(uint32_t store, const char *key, uint32_t section, uint32_t index, uint32_t kind,
                   char *buffer, uint32_t maxLen);
}

#endif
