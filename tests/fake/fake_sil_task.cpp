// Tasks of the fake are remembered, not run.
#include "platform/sil_task.h"

#include "tests/fake/fake_state.h"

namespace fake {

std::vector<Task> tasks() {
    return state().tasks;
}

} // namespace fake

using namespace fake;

extern "C" int32_t silCreateTask(const char *name, uint32_t priority, uint32_t stackBytes,
                                 SilTaskEntry entry, void *pArg1, void *pArg2, uint32_t *pTaskId) {
    const std::string line = text("silCreateTask(\"%s\", %u, %u)", name, priority, stackBytes);
    if (entry == nullptr || pTaskId == nullptr || pArg1 != nullptr || pArg2 != nullptr) {
        misuse(line + ": entry, arguments or task id");
    }
    const int64_t rc = fallible("silCreateTask", line, 0, -1);
    if (rc == 0) {
        state().tasks.push_back({name, priority, stackBytes, entry});
        *pTaskId = static_cast<uint32_t>(state().tasks.size());
    }
    return static_cast<int32_t>(rc);
}
