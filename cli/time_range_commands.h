// `pbrctl time-range` and `pbrctl show time-ranges`.
#ifndef CLI_TIME_RANGE_COMMANDS_H
#define CLI_TIME_RANGE_COMMANDS_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "cli/daemon.h"

namespace cli {

// A range as the command line gives it; empty texts were not given. The daemon reads the texts.
struct TimeRangeOptions {
    uint32_t id = 0;
    std::string days;
    std::string from;
    std::string to;
    std::vector<std::string> periods; // each "DAYS", "DAYS FROM-TO" or "FROM-TO"
    std::string start;
    std::string end;
    bool force = false; // of a removal
};

// Defines a range, also instead of the one with that number. Throws Usage, Refused, NoDaemon.
void timeRangeDefine(Daemon &daemon, const TimeRangeOptions &options);

// Removes a range. Throws Refused, NoDaemon.
void timeRangeRemove(Daemon &daemon, const TimeRangeOptions &options);

// Switches a range by hand: "on", "off", or "auto" for its schedule. Throws Usage, Refused, NoDaemon.
void timeRangeSwitch(Daemon &daemon, const std::string &id, const std::string &state);

// Prints all ranges. Throws Refused, NoDaemon.
void showTimeRanges(Daemon &daemon, bool asJson, std::ostream &out);

} // namespace cli

#endif
