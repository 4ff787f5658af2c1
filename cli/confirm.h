// `pbrctl apply --confirm` and `pbrctl confirm`: an applied policy is undone by itself unless it is confirmed
// in time, also when the terminal it was applied from is gone. An apply without --confirm has the same watcher
// for its steps only.
//
// The watcher is a child process of pbrctl in a session of its own, which has the policy from before. It is
// there before the first step, so that it also undoes what a killed pbrctl leaves half-made:
//
//   begun --pbrctl refuses, or is done without --confirm, cancel--> ended
//   begun --pbrctl is gone, leave--> rolling back
//   begun --arm--> waiting --confirm--> ended
//                  waiting --time over, confirm --rollback--> rolling back --> ended
//
// While it waits nobody else may apply. A daemon that ends meanwhile forgets the waiting; the watcher tells
// the next one, and rolls back at its time if it reaches one.
#ifndef CLI_CONFIRM_H
#define CLI_CONFIRM_H

#include <cstdint>
#include <ostream>
#include <string>

#include <sys/types.h>

#include "cli/daemon.h"
#include "cli/policy.h"

namespace cli {

constexpr uint32_t CONFIRM_MOST_SECONDS = 86400;

struct Rollback {
    std::string root;     // of the daemon's run
    std::string file;     // what is applied, for texts
    uint32_t seconds = 0; // time for the confirmation; 0: it is never armed, and only guards the steps
    Policy before;
};

class ConfirmWatch {
public:
    // Starts the watcher, which reports to the daemon. Throws Refused; nothing was changed then.
    explicit ConfirmWatch(const Rollback &rollback);
    // As end, unless it goes on by itself.
    ~ConfirmWatch();
    ConfirmWatch(const ConfirmWatch &) = delete;
    ConfirmWatch &operator=(const ConfirmWatch &) = delete;

    // Nothing is to be undone: the watcher ends.
    void end();

    // The policy is applied: the time begins.
    void arm();
    // The daemon is gone and the policy may be half-made: rolls back as soon as it can.
    void leave();

private:
    int fd = -1; // to the watcher; -1 when it goes on by itself
    pid_t pid = -1;
};

// Keeps the applied policy, or has it undone now. Throws Refused (nothing waits, too late), NoDaemon.
void confirm(Daemon &daemon, bool rollBack, std::ostream &out);

// Tells what waits. Throws Refused, NoDaemon.
void confirmShow(Daemon &daemon, bool json, std::ostream &out);

} // namespace cli

#endif
