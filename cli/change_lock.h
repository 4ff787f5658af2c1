// The right to change the policy, of one client at a time, and interrupts while it is changed. Applies and
// pbrctl's single changes ask for it; raw frames do not.
#ifndef CLI_CHANGE_LOCK_H
#define CLI_CHANGE_LOCK_H

#include <chrono>
#include <ostream>
#include <string>

#include "cli/daemon.h"

namespace cli {

constexpr std::chrono::seconds LOCK_LONGEST{5}; // that somebody else's change is waited for

// What is to be done with the right.
enum class ChangeKind {
    Apply,    // a whole policy; waits for single changes, not for another apply
    Single,   // one command; waits for both
    RollBack, // the way back of an apply; waits for both
};

// The right, until the object's end or the connection's. On a platform without it its operators see to it.
class ChangeLock {
public:
    // what: the file that is applied, or the command ("list add"), for the texts of others. Throws Refused,
    // naming who has it, when that does not end within LOCK_LONGEST or an apply waits for its confirmation;
    // NoDaemon. `err` hears of a wait that lasts.
    ChangeLock(Daemon &changedDaemon, ChangeKind kind, const std::string &what, std::ostream &err);
    ~ChangeLock();
    ChangeLock(const ChangeLock &) = delete;
    ChangeLock &operator=(const ChangeLock &) = delete;

private:
    Daemon &daemon;
    bool isHeld = false;
};

// Signals while the policy is changed: they must not leave a half-made one.
//
// SIGINT, SIGTERM and SIGQUIT ask to stop: they wait until they are asked for, or for the object's end.
// SIGHUP (the terminal is gone), SIGTSTP and SIGPIPE ask for nothing that could be done half-way: they wait
// for the end, SIGPIPE for nothing. Of the calling thread; what it starts meanwhile inherits it.
class SignalsHeld {
public:
    SignalsHeld();
    // What came meanwhile acts now; when a stop was taken, further ones are forgotten.
    ~SignalsHeld();
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;

    // The name of the signal that asked to stop since the last call ("SIGINT"); empty: none did.
    std::string stopTaken();

private:
    struct Masks;
    Masks *pMasks;
};

} // namespace cli

#endif
