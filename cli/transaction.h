// A plan done whole or not at all: one change at a time on a daemon, the forwarding plane held around the
// steps, and the way back when the daemon, a service or the plane refuses something.
//
//   lock -> hold -> steps -> release, settle -> done
//                     |              | refused, or asked to stop
//                     +--refused-----+--> hold -> steps back, compared with what was -> release -> Refused
#ifndef CLI_TRANSACTION_H
#define CLI_TRANSACTION_H

#include <functional>
#include <ostream>

#include "cli/daemon.h"
#include "cli/planner.h"
#include "cli/running.h"

namespace cli {

// "policy.yaml:12: " for the first of these places that the file names; empty without one.
using Where = std::function<std::string(const std::vector<std::string> &places)>;

// Asked before each step and before the plane takes the change over: empty, or what asks to stop ("SIGINT").
using Stop = std::function<std::string()>;

// Does `plan`, which leads from `before`; the caller holds the signals. A stop undoes as a refusal does; without
// `stop` nothing stops it. Warnings go to `err`. Throws Refused: what was refused, where, and that nothing was
// changed, or what is left otherwise than before. Throws NoDaemon when the daemon went away
// and did not come back.
void planDo(Daemon &daemon, const Policy &before, const Plan &plan, const Where &where, const Stop &stop,
            std::ostream &err);

} // namespace cli

#endif
