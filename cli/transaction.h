// A plan done whole or not at all: one change at a time on a daemon, the forwarding plane held around the
// steps, and the way back when the daemon, a service or the plane refuses something.
//
//   lock -> hold -> steps -> release, settle -> done
//                     |              | refused
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

// Does `plan`, which leads from `before`. Warnings go to `err`. Throws Refused: what was refused, where, and
// that nothing was changed, or what is left otherwise than before. Throws NoDaemon when the daemon went away
// and did not come back.
void planDo(Daemon &daemon, const Policy &before, const Plan &plan, const Where &where, std::ostream &err);

} // namespace cli

#endif
