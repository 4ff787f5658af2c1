// The hint that the store may have changed: counted.
#include "platform/dev_sync.h"

#include "tests/fake/fake_state.h"

namespace fake {

uint32_t syncCount() {
    return state().syncs;
}

} // namespace fake

extern "C" void devSyncStore(void) {
    if (!fake::locked()) {
        fake::misuse("devSyncStore without the mutex");
    }
    ++fake::state().syncs;
}
