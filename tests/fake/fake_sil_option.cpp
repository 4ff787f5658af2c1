// The option store of the fake.
#include "platform/sil_option.h"

#include <algorithm>
#include <cstring>

#include "tests/fake/fake_state.h"

namespace fake {

void option(const std::string &name, const std::string &value) {
    state().options[name] = value;
}

} // namespace fake

using namespace fake;

extern "C" int32_t silOptRead(uint32_t store, const char *name, uint32_t section, uint32_t index,
                              uint32_t kind, char *buffer, uint32_t maxLen) {
    const std::string line = text("silOptRead(\"%s\")", name);
    if (store != 0 || section != 0 || index != 0 || kind != 1 || maxLen != 127) {
        misuse(line + ": store, section, index, kind or length");
    }
    for (uint32_t i = 0; i <= maxLen; ++i) {
        if (buffer[i] != 0) {
            misuse(line + ": the buffer is not zeroed");
            break;
        }
    }
    auto found = state().options.find(name);
    const std::string value = found == state().options.end() ? "" : found->second;
    const int64_t count = found == state().options.end() ? -1 : static_cast<int64_t>(std::min<size_t>(value.size(), maxLen));
    const int64_t rc = call("silOptRead", line, count);
    if (rc > 0) {
        memcpy(buffer, value.data(), static_cast<size_t>(rc));
    }
    return static_cast<int32_t>(rc);
}
