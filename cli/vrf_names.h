// Names of VRFs: a VRF is the number of a routing table, which the daemon's options host.vrf.NAME name.
#ifndef CLI_VRF_NAMES_H
#define CLI_VRF_NAMES_H

#include <cstdint>
#include <string>

#include "cli/daemon.h"
#include "cli/policy.h"

namespace cli {

// All names that the daemon knows; none where its platform does not tell them. Throws NoDaemon.
VrfNames vrfNamesRead(Daemon &daemon);

// Whether a text is meant as a number; else it is a name. Lock: none
bool isVrfNumber(const std::string &text);

// "red, green", or "none". Lock: none
std::string vrfNamesText(const VrfNames &names);

// The VRF of an option's value, a number or a name. Throws Usage, Refused for an unknown name, NoDaemon.
uint32_t vrfOf(Daemon &daemon, const std::string &text);

} // namespace cli

#endif
