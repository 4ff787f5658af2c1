// The control block and the shell's switches.
#include "core/pbr_info.h"

PbrInfo gPbrInfo;

uint32_t gPbrDebug;
uint32_t gPbrSelfLog;

// By kind of record: 2 received peer report, 3 hardware programming, 5 protocol enable, 6 protocol
// disable; the others are reserved.
const uint8_t gPbrDebugPri[7] = {7, 7, 6, 6, 3, 0, 0};
