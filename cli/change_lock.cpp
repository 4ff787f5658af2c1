// See change_lock.h. Called by apply, by the watcher of a confirmation and by single changes; asks the daemon
// again and again rather than to be queued, so that whoever is interrupted waits for nothing.
#include "cli/change_lock.h"

#include <csignal>
#include <thread>
#include <unistd.h>

#include "cli/errors.h"

namespace cli {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds LOCK_STEP{20};  // between two questions
constexpr std::chrono::milliseconds TOLD_AFTER{500}; // shorter waits are not worth a line

// Who has the right now, as a refusal tells: "change", "apply" or "confirmation".
bool isWorthWaiting(ChangeKind kind, const json &refusal) {
    const std::string holder = refusal.value("holder", "");
    return holder == "change" || (holder == "apply" && kind == ChangeKind::Single);
}

} // namespace

ChangeLock::ChangeLock(Daemon &changedDaemon, ChangeKind kind, const std::string &what, std::ostream &err)
    : daemon(changedDaemon) {
    const char *pWhat = kind == ChangeKind::Apply ? "file" : "command";
    const auto begin = Clock::now();
    for (bool isTold = false;;) {
        const auto answer = daemon.mgmtTry("apply.lock", {{"pid", getpid()}, {pWhat, what}});
        isHeld = answer && answer->value("ok", false);
        if (!answer || isHeld) {
            return;
        }
        const auto waited = Clock::now() - begin;
        if (!isWorthWaiting(kind, *answer) || waited >= LOCK_LONGEST) {
            throw Refused(answer->value("error", "the daemon refused it"));
        }
        if (!isTold && waited >= TOLD_AFTER) {
            isTold = true;
            err << "waiting, " << LOCK_LONGEST.count() << " s at most: " << answer->value("who", "somebody else")
                << "\n" << std::flush;
        }
        std::this_thread::sleep_for(LOCK_STEP);
    }
}

ChangeLock::~ChangeLock() {
    try {
        if (isHeld) {
            (void)daemon.mgmt("apply.unlock");
        }
    } catch (const std::exception &) {
        // The connection's end gives it back.
    }
}

struct SignalsHeld::Before {
    sigset_t mask;
};

SignalsHeld::SignalsHeld() : pBefore(new Before) {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&held, signal);
    }
    pthread_sigmask(SIG_BLOCK, &held, &pBefore->mask);
}

SignalsHeld::~SignalsHeld() {
    pthread_sigmask(SIG_SETMASK, &pBefore->mask, nullptr);
    delete pBefore;
}

} // namespace cli
