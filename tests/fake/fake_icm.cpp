// The command server of the fake: remembered, not run.
#include "platform/icm.h"

#include "tests/fake/fake_state.h"

namespace fake {

std::vector<CommandServer> commandServers() {
    return state().commandServers;
}

} // namespace fake

using namespace fake;

extern "C" int32_t icmProcTcpInit(const char *taskName, const char *path, const IcmCommand *pCommands,
                                  uint32_t count) {
    state().commandServers.push_back({taskName, path, pCommands, count});
    return static_cast<int32_t>(
        call("icmProcTcpInit", text("icmProcTcpInit(\"%s\", \"%s\", %u)", taskName, path, count), 0));
}
