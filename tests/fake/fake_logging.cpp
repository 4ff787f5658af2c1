// Logging of the fake: texts go into the trace.
#include "platform/logging.h"

#include <cstdarg>
#include <cstdio>

#include "tests/fake/fake_state.h"

using namespace fake;

namespace {

std::string formatted(const char *format, va_list args) {
    char buffer[4096];
    vsnprintf(buffer, sizeof(buffer), format, args);
    return quoted(buffer);
}

} // namespace

extern "C" void loggingDebugOutput(uint32_t logId, uint32_t level, uint32_t flags, const char *format, ...) {
    va_list args;
    va_start(args, format);
    record(text("debug 0x%08X %u %u ", logId, level, flags) + formatted(format, args));
    va_end(args);
}

extern "C" void loggingLogOutput(uint32_t logId, uint32_t priority, uint32_t flags, const char *format, ...) {
    va_list args;
    va_start(args, format);
    record(text("log 0x%08X p%u f%u ", logId, priority, flags) + formatted(format, args));
    va_end(args);
}
