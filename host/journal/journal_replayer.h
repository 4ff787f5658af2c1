// Makes a kept policy again through the daemon's own handlers.
#ifndef HOST_JOURNAL_JOURNAL_REPLAYER_H
#define HOST_JOURNAL_JOURNAL_REPLAYER_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/journal/policy_state.h"
#include "platform/icm.h"

namespace host {

// Units from here on are no interface's: rows of interfaces that are not there are kept under them.
constexpr uint32_t REPLAY_UNIT_NONE = 0x80000000u;

struct ReplayRefusal {
    std::string what; // "list wan node 10", "interface lan0"
    std::string why;
};

struct ReplayResult {
    size_t sets = 0;                             // that were done
    std::vector<ReplayRefusal> refused;          // rows that are not there, or not whole
    std::map<PolicyRow, std::string> unmade;     // rows whose interface is not there, as in `what`: none of them exists
    std::map<PolicyRow, PolicyFields> rows;      // to be kept: all of them, with the units of now
    std::map<uint32_t, std::string> names;       // of the units in these rows
};

// The unit that a set names: that of an interface, or the interface that a node sends out of; 0: none. Lock: none
uint32_t replayUnitOf(const PolicySet &set);

// The interface's name now; empty: there is none. Lock: none
std::string replayUnitName(uint32_t unit);

// What the units belong to: this run of the machine, this network namespace. Lock: none
std::string replayMachineRun();

// names: of units, as text, when their sets were accepted. isSameRun: the units are those of this run of the
// machine. Then an interface is found by its unit and is gone with it; else it is found by its name. A set
// of a unit that was never an interface is repeated as it was. Before the command socket opens. Lock: takes
// the daemon's, through the handlers
ReplayResult replayRun(const PolicyState &state, const std::map<std::string, std::string> &names, bool isSameRun,
                       const IcmCommand *pCommands, uint32_t count);

} // namespace host

#endif
