// The worker task: waits for route messages and due timers, and handles them under the mutex.
//
// A pass takes and gives the mutex three times (next time-out, route socket, due timers) and never
// holds it across the wait.
#ifndef CORE_PBR_LOOP_H
#define CORE_PBR_LOOP_H

#include <cstdint>

// Entry of the task "pbrtask": makes passes for ever. Arguments: not used. Lock: takes, per pass
void pbrMain(void *pArg1, void *pArg2);

// Makes one pass. pMaxFd: the highest descriptor seen so far, 0 at first; only ever raised. A wait that
// fails or times out is not reported. Lock: takes
void pbrMainPass(int32_t *pMaxFd);

#endif
