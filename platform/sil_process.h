// What surrounds the process: arguments, crash reporter, diagnostic shell.
#ifndef PLATFORM_SIL_PROCESS_H
#define PLATFORM_SIL_PROCESS_H

#include "platform/platform_types.h"

extern "C" {

// Gives the platform the process's arguments, before anything else is called. A platform that does
// not use arguments returns -1 at once. Result: -1 to go on, else the exit status with which the
// process ends now (0 after --help, 1 after a bad argument that was reported). Lock: none
[[nodiscard]] int32_t silProcessArguments(int argc, char **argv);

// Installs the platform's crash reporter. Lock: none
void silCatchSegFault(void);

// Installs the platform's run-time patch signal handler. Lock: none
void patchSignalHandler(void);

// Registers the process's diagnostic shell under `name`; the commands it offers are the functions in
// gProcShellCommands. flags, options: the daemon passes 0. Result: 0 or non-zero. Lock: none
int32_t procShellInit(const char *name, uint32_t flags, uint32_t options);

// One diagnostic command of the shell: its name and the function, called on the shell's task.
struct ProcShellCommand {
    const char *name;
    int32_t (*run)(void);
};

// One switch of the shell: its name and the word that it sets.
struct ProcShellVariable {
    const char *name;
    uint32_t *pValue;
};

// The number of the last failed platform call of the calling task. Lock: none
int32_t errnoGet(void);
}

// The program's shell commands, defined by the program; gProcShellCommandCount entries.
extern const ProcShellCommand gProcShellCommands[];
extern const uint32_t gProcShellCommandCount;

// The program's switches, defined by the program; gProcShellVariableCount entries.
extern const ProcShellVariable gProcShellVariables[];
extern const uint32_t gProcShellVariableCount;

#endif
