// `pbrctl check`: whether kernel, device and store agree, and what outside of them breaks forwarding.
#ifndef CLI_CHECK_H
#define CLI_CHECK_H

#include <ostream>
#include <string>

#include <nlohmann/json.hpp>

#include "cli/daemon.h"

namespace cli {

// One line when all agrees ("ok: 12 entries on 3 interfaces, kernel as installed"), else what differs, a
// line each; warnings go to `err`. Result: whether all agrees; warnings do not count. Throws NoDaemon, Refused.
bool check(Daemon &daemon, bool asJson, std::ostream &out, std::ostream &err);

// The line that `check` prints for an answer without differences. Lock: none
std::string checkOkText(const nlohmann::json &answer);

// Prints "warning: TEXT. What to do: ADVICE" for each of an answer's warnings. Lock: none
void warningsPrint(const nlohmann::json &answer, std::ostream &err);

// Asks for what outside breaks forwarding now and prints it; nothing where the daemon does not tell.
void warningsShow(Daemon &daemon, std::ostream &err);

} // namespace cli

#endif
