// `pbrctl event`: tells the daemon what its hardware would tell, as a message on the route bus.
#ifndef CLI_EVENT_H
#define CLI_EVENT_H

#include <cstdint>
#include <ostream>
#include <string>

#include "cli/daemon.h"

namespace cli {

struct EventOptions {
    std::string interface; // name or unit:N
    std::string joined, added, removed; // of a link event, at most one: the aggregation, or the port
    uint32_t slot = 0, card = 0, type = 0;
    std::string probe;  // ADMINISTRATOR/TEST
    std::string status; // passing, failing, none
};

// Each publishes one event and tells on `out` what was published (json: type, group and the message's
// bytes). Throws Refused, NoDaemon, Usage.
void eventLink(Daemon &daemon, const EventOptions &options, bool json, std::ostream &out);
void eventGone(Daemon &daemon, const EventOptions &options, bool json, std::ostream &out);
void eventPortReset(Daemon &daemon, const EventOptions &options, bool json, std::ostream &out);
void eventCardUp(Daemon &daemon, const EventOptions &options, bool json, std::ostream &out);
void eventSlotUp(Daemon &daemon, const EventOptions &options, bool json, std::ostream &out);
void eventProbe(Daemon &daemon, const EventOptions &options, bool json, std::ostream &out);

} // namespace cli

#endif
