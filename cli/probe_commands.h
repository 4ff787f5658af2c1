// `pbrctl probe` and `pbrctl show probes`.
#ifndef CLI_PROBE_COMMANDS_H
#define CLI_PROBE_COMMANDS_H

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "cli/daemon.h"

namespace cli {

// A probe as the command line gives it; empty texts and missing numbers were not given. The daemon has
// the defaults and says what is wrong.
struct ProbeOptions {
    std::string name;      // ADMINISTRATOR/TEST
    std::string kind;      // icmp, tcp, udp, http
    std::string target;
    std::optional<uint32_t> port;
    std::string path;
    std::string host;
    std::string source;
    std::string interface;
    std::string vrf;       // a number or a name
    std::string via;
    std::string interval;  // 500ms, 1s, 2m
    std::string timeout;   // the same
    std::optional<uint32_t> downAfter;
    std::optional<uint32_t> upAfter;
};

// Makes a probe, also instead of the one with that name. Throws Usage, Refused, NoDaemon.
void probeDefine(Daemon &daemon, const ProbeOptions &options);

// Removes a probe. Throws Usage, Refused, NoDaemon.
void probeRemove(Daemon &daemon, const std::string &name);

// Begins the statistics anew, of one probe or (empty) of all. Throws Usage, Refused, NoDaemon.
void probeClear(Daemon &daemon, const std::string &name);

// Prints all probes. Throws Refused, NoDaemon.
void showProbes(Daemon &daemon, bool asJson, std::ostream &out);

} // namespace cli

#endif
