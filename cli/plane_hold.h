// A change of several steps that the forwarding plane takes over in one, or not at all: lists are held, the
// policy is changed, the plane is asked on trial, and then it goes on. Without these operations (a switch's
// platform, an older daemon) each step acts when it is done.
#ifndef CLI_PLANE_HOLD_H
#define CLI_PLANE_HOLD_H

#include <cstdint>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "cli/daemon.h"

namespace cli {

// An entry that the plane cannot do: list, node, why. Without list: what concerns none.
using PlaneError = std::tuple<std::string, uint32_t, std::string>;

class PlaneHold {
public:
    // Asks the plane what it cannot do now: that is no reason to refuse a change. Throws NoDaemon.
    explicit PlaneHold(Daemon &daemon);

    // Holds these lists too. Throws Refused (another client holds), NoDaemon.
    void hold(const std::set<std::string> &lists);

    // What the plane could not do of what is held, and could before, as far as it can tell without doing it.
    // Throws Refused, NoDaemon.
    std::vector<PlaneError> trial();

    // Lets the plane go on. Result: what it cannot do and could before. Throws Refused (nothing is held any
    // more: it took too long), NoDaemon.
    std::vector<PlaneError> release();

    bool isHeld() const { return isHeld_; }

    // The connection is gone, and the hold with it.
    void lost() { isHeld_ = false; }

    // What the plane could not do before.
    const std::set<PlaneError> &known() const { return known_; }

private:
    std::vector<PlaneError> freshOf(const nlohmann::json &answer) const;

    Daemon &daemon_;
    std::set<PlaneError> known_;
    bool isHeld_ = false;
};

} // namespace cli

#endif
