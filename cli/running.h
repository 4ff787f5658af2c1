// The running policy, read from the daemon.
#ifndef CLI_RUNNING_H
#define CLI_RUNNING_H

#include "cli/daemon.h"
#include "cli/policy.h"

namespace cli {

struct Running {
    Policy policy;
    Interfaces interfaces;
    Limits limits;
    std::map<std::string, uint32_t> refCnts; // use count of each list, as the daemon has it
    bool aclsKnown = false;                  // false: ACLs are not managed through this daemon's host
};

// Reads everything. Throws NoDaemon, Refused.
Running runningRead(Daemon &daemon);

// What the host's services run: false, and nothing written, where they are not managed through the daemon.
bool probesRead(Daemon &daemon, std::map<std::string, Probe> &probes);
bool timeRangesRead(Daemon &daemon, std::map<uint32_t, Schedule> &ranges);

// Names of the interfaces to which a list is bound, in unit order.
std::vector<std::string> boundTo(const Policy &policy, const std::string &list);

} // namespace cli

#endif
