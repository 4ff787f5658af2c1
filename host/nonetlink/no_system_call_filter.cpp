// The filter of system calls of a build that has none: it says so, unless nobody asked for it. See
// host/confine/system_calls.h.
#include "host/confine/system_calls.h"
#include "host/logging/host_log.h"
#include "host/option/option.h"

namespace host {

std::string systemCallsConfine() {
    if (optionGet("host.seccomp") != "off") {
        hostLog(LOG_LEVEL_NOTICE, "services", "this build does not filter system calls");
    }
    return "";
}

} // namespace host
