// What surrounds the process, in the fake.
#include "platform/sil_process.h"

#include "tests/fake/fake_state.h"

using namespace fake;

extern "C" int32_t silProcessArguments(int argc, char **) {
    return static_cast<int32_t>(call("silProcessArguments", text("silProcessArguments(%d)", argc), -1));
}
extern "C" void silCatchSegFault(void) {
    record("silCatchSegFault()");
}
extern "C" void patchSignalHandler(void) {
    record("patchSignalHandler()");
}
extern "C" int32_t procShellInit(const char *name, uint32_t flags, uint32_t options) {
    return static_cast<int32_t>(call("procShellInit", text("procShellInit(\"%s\", %u, %u)", name, flags, options), 0));
}
extern "C" int32_t errnoGet(void) {
    return static_cast<int32_t>(quiet("errnoGet", "", 0));
}
