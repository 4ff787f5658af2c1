// The shell's commands. The report of the whole store comes with the show walk.
#include "core/pbr_show.h"

#include "core/pbr_info.h"
#include "platform/sil_process.h"

int32_t pbrdebug() {
    gPbrDebug = 1;
    return 0;
}

const ProcShellCommand gProcShellCommands[] = {
    {"pbrdebug", pbrdebug},
};
const uint32_t gProcShellCommandCount = sizeof(gProcShellCommands) / sizeof(gProcShellCommands[0]);
