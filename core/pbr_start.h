// Start-up: the process's first steps, the options, and the ordered list of calls that makes every
// object of process life. There is no shut-down path; the process ends by a signal.
//
// Runs on the main thread before the worker task and the command server exist.
#ifndef CORE_PBR_START_H
#define CORE_PBR_START_H

#include <cstdint>

constexpr uint32_t PBR_DEFAULT_MAX_LIST = 64;
constexpr uint32_t PBR_DEFAULT_MAX_NODE = 128;
constexpr uint32_t PBR_DEFAULT_MAX_IF = 48;
constexpr uint32_t PBR_UPDATE_PERIOD_MS = 1000;
constexpr uint32_t PBR_ARP_CHECK_PERIOD_MS = 5000;
constexpr uint32_t PBR_TASK_PRIORITY = 50;
constexpr uint32_t PBR_TASK_STACK_BYTES = 512000;

// What main does before it goes to sleep: option "policyroute.processmerge", crash and signal handlers,
// the shell, then pbrOptInit, whose failure is printed and does not end the process.
// Result: false when this code runs merged into another process (main then returns 0), else true.
// Lock: none
bool pbrProcessStart();

// Reads "policyroute.enable" and the three limits and calls pbrInit. Result: pbrInit's; PBR_FAIL when
// the options say not to start (nothing was started then). Lock: none
uint32_t pbrOptInit();

// Zeroes gPbrInfo and makes, in this order: list heads, interface tree, route socket, timer list,
// mutex, update timer, worker task "pbrtask", command server "pbrcmdtask", protocol scalar.
// maxListNum, maxNodeNum, maxIfNum: capacities, 0 for the default.
// Result: PBR_OK; QRV_ERR_SOCKET no route socket; PBR_FAIL no mutex; QRV_ERR_TASK no worker task. A
// timer list that cannot be made is reported as PBR_OK although nothing runs then; it is meant so.
// On a failure mutex and socket are given back. Lock: none
uint32_t pbrInit(uint32_t maxListNum, uint32_t maxNodeNum, uint32_t maxIfNum);

#endif
