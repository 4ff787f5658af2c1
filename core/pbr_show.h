// Commands of the process's diagnostic shell; also the definition of gProcShellCommands.
#ifndef CORE_PBR_SHOW_H
#define CORE_PBR_SHOW_H

#include <cstdint>

// Sets gPbrDebug to 1, a switch that nothing in the daemon reads. Result: 0. Lock: none
int32_t pbrdebug();

#endif
