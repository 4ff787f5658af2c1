// `pbrctl explain`: what would happen to a packet, and why.
#ifndef CLI_EXPLAIN_H
#define CLI_EXPLAIN_H

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "cli/daemon.h"

namespace cli {

// The packet as the command line gives it; what is missing was not told.
struct ExplainOptions {
    std::string interface;
    std::string source;
    std::string destination;
    std::string protocol;   // a name or a number
    std::optional<uint32_t> sourcePort, destinationPort;
    std::string flags;      // syn,ack: these are set, all others clear; none: no flag
    std::string type;       // a name or a number
    std::optional<uint32_t> code;
    std::string dscp;       // a name or a number
    bool fragment = false;
    std::optional<uint32_t> length;
    std::string sourceMac;
    std::string mark;
    bool verbose = false;
    bool cost = false;        // no packet: what the interface (empty: each) costs its packets
    std::string costInterface;
};

// Prints the answer. Throws Usage, Refused, NoDaemon.
void explain(Daemon &daemon, const ExplainOptions &options, bool asJson, std::ostream &out);

// The request for a packet that enters through a unit. Throws Usage. Lock: none
nlohmann::json explainRequest(const ExplainOptions &options, uint32_t unit);

// The answer in words: {"verdict", "nodes", ...} of device.explain, with "hops": rows of show next-hops of
// the node that decides, when there is one. Lock: none
std::string explainText(const nlohmann::json &answer, bool verbose);

// The answer of device.costs in words. Lock: none
std::string costText(const nlohmann::json &answer);

} // namespace cli

#endif
