// Operations of the management socket that belong to no single service: version, interfaces, peers,
// counters, device.show, device.records, device.check, device.warnings, device.settle, device.flush, event.
#ifndef HOST_MGMT_SERVICE_OPS_H
#define HOST_MGMT_SERVICE_OPS_H

#include <chrono>
#include <functional>

#include "host/event/event_loop.h"
#include "host/mgmt/mgmt.h"

namespace host {

constexpr std::chrono::milliseconds SETTLE_LONGEST{5000}; // then the peers are taken as they are
constexpr std::chrono::milliseconds HELD_LONGEST{10000};   // that an earlier run's objects are waited for to be let go of
constexpr std::chrono::milliseconds SETTLE_STEP{20};      // between two looks, and after the last

// Calls `done` on the event thread once `isDetermined` answers true, or SETTLE_LONGEST has passed, with
// whether it did; one step later than that, so that the daemon has acted on the last report. Event
// thread. Lock: none
void settleWait(EventLoop &loop, std::function<bool()> isDetermined, std::function<void(bool)> done,
                std::chrono::milliseconds longest = SETTLE_LONGEST);

// Whether every peer and every configured probe has been found up or down, and the daemon knows. Any
// thread. Lock: none (takes the services' own)
bool nextHopsKnown();

// Tells the device that the policy is complete, once next hops and probes are known: at the end of the replay
// of the journal. Any thread. Lock: none
void settleAfterReplay();

// Registers the operations. Before mgmtStart. Lock: none
void serviceOpsRegister();

} // namespace host

#endif
