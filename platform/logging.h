// Debug output and log records. Texts end in "\r\n"; the platform may strip line ends.
#ifndef PLATFORM_LOGGING_H
#define PLATFORM_LOGGING_H

#include "platform/platform_types.h"

extern "C" {

// Writes a debug text. logId: module. level: 7. flags: 0. Lock: none
void loggingDebugOutput(uint32_t logId, uint32_t level, uint32_t flags, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// Writes a log record. priority: 0 (most urgent) to 7. flags: the record's own word. Lock: none
void loggingLogOutput(uint32_t logId, uint32_t priority, uint32_t flags, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
}

#endif
