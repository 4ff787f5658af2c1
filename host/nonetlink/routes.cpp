// The routes of a host without netlink: none are known, so nothing has a way. See host/fib/fib.h.
#include "host/fib/fib.h"

namespace host {

uint32_t fibTableOfVrf(uint32_t vrfid) {
    constexpr uint32_t MAIN_TABLE = 254;
    return vrfid == 0 ? MAIN_TABLE : vrfid;
}

std::optional<FibEgress> fibLookup(uint32_t, int, const std::array<uint8_t, 16> &) {
    return std::nullopt;
}

void fibOnChange(std::function<void()>) {}

std::string fibStart() {
    return "";
}

FibCounters fibCounters() {
    return {};
}

} // namespace host
