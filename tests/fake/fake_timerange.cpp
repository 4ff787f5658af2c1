// The time-range service of the fake: keeps bindings; tests call the callbacks themselves.
#include "platform/timerange.h"

#include <algorithm>

#include "tests/fake/fake_state.h"

namespace fake {

std::vector<TimerangeBinding> timerangeBindings() {
    return state().timeranges;
}

} // namespace fake

using namespace fake;

extern "C" uint32_t timerangeBind(uint32_t id, const char *name, uint32_t nameLen, TimerangeCallback start,
                                  TimerangeCallback stop, TimerangeCallback unbind, const void *pContext,
                                  uint32_t contextLen) {
    const std::string own(name, nameLen);
    const std::string line = text("timerangeBind(%u, ", id) + quoted(own) + ", " + key(pContext, contextLen) + ")";
    const uint8_t *p = static_cast<const uint8_t *>(pContext);
    const int64_t rc = fallible("timerangeBind", line, 0, FAULT_CODE);
    if (rc == 0) {
        state().timeranges.push_back({id, own, std::vector<uint8_t>(p, p + contextLen), start, stop, unbind});
    }
    return static_cast<uint32_t>(rc);
}

extern "C" uint32_t timerangeUnbind(uint32_t id, const char *name, uint32_t nameLen, uint32_t flags) {
    const std::string own(name, nameLen);
    const std::string line = text("timerangeUnbind(%u, ", id) + quoted(own) + text(", %u)", flags);
    const int64_t rc = fallible("timerangeUnbind", line, 0, FAULT_CODE);
    if (rc == 0) {
        auto &all = state().timeranges;
        all.erase(std::remove_if(all.begin(), all.end(),
                                 [&](const TimerangeBinding &b) { return b.id == id && b.name == own; }),
                  all.end());
    }
    return static_cast<uint32_t>(rc);
}
