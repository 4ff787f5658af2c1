// `pbrctl show`: asks the daemon and prints aligned tables or JSON.
#ifndef CLI_SHOW_H
#define CLI_SHOW_H

#include <ostream>
#include <string>

#include "cli/daemon.h"

namespace cli {

// Prints one of the reports below to `out`; json: the rows as JSON. Throws Refused, NoDaemon.
void showLists(Daemon &daemon, bool json, std::ostream &out);
void showBindings(Daemon &daemon, bool json, std::ostream &out);
void showNextHops(Daemon &daemon, bool json, std::ostream &out);
void showAcls(Daemon &daemon, uint32_t acl, bool json, std::ostream &out); // acl 0: all
void showDevice(Daemon &daemon, bool json, std::ostream &out);
void showRecords(Daemon &daemon, bool json, std::ostream &out); // of the device, decoded and as bytes
void showCounters(Daemon &daemon, bool json, std::ostream &out);
void showPolicyCounters(Daemon &daemon, bool json, std::ostream &out); // packets and bytes of nodes and rules

} // namespace cli

#endif
