// Commands and switches of the process's diagnostic shell: the report of the whole store.
//
// Called on the shell's task. Also the definition of gProcShellCommands and gProcShellVariables.
#ifndef CORE_PBR_SHOW_H
#define CORE_PBR_SHOW_H

#include <cstdint>

// Prints the report of limits, counters, bindings, ready, used and probe tables to standard output. It
// holds the mutex throughout, so the worker and the command server wait while it prints.
// Result: of pbrUnlock. Lock: takes
int32_t pbrInfoShow();

// Sets gPbrDebug to 1, a switch that nothing in the daemon reads. Result: 0. Lock: none
int32_t pbrdebug();

#endif
