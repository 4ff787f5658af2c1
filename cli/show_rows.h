// What `pbrctl show` tells, as JSON: pure functions from what the daemon answered to rows.
#ifndef CLI_SHOW_ROWS_H
#define CLI_SHOW_ROWS_H

#include <nlohmann/json.hpp>

#include "cli/running.h"

namespace cli {

// What is known beside the policy. A part that the daemon's platform does not tell is null.
struct Surroundings {
    nlohmann::json peers;  // array of {"vrf","version","address","state","reason",...}
    nlohmann::json device; // {"kind","entries":[...],...}
};

// [{"list","state","interfaces":[...],"nodes":[{"node","acl","match","action",...,"nextHops":[...]}],
//   "warnings":[...]}]
nlohmann::json listRows(const Running &running);

// [{"interface","unit","up","list","nodes","entries","installed","error"}]: entries are those that the
// device should have for the interface now, installed those that it has.
nlohmann::json bindingRows(const Running &running, const Surroundings &around);

// [{"list","node","index","address","vrf","probe","reachable","chosen","installed","why","lladdr",
//   "interface"}]
// reachable: "up", "down", "unknown" (not resolved yet), or null (nobody tracks it). chosen: packets of
// some interface should go to it; installed: they do, on every such interface. why: empty, or why not.
nlohmann::json nextHopRows(const Running &running, const Surroundings &around);

} // namespace cli

#endif
