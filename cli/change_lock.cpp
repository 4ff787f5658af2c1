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
    return holder == "change" || (holder == "apply" && kind != ChangeKind::Apply);
}

} // namespace

ChangeLock::ChangeLock(Daemon &changedDaemon, ChangeKind kind, const std::string &what, std::ostream &err)
    : daemon(changedDaemon) {
    const char *pWhat = kind == ChangeKind::Single ? "command" : "file";
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

struct SignalsHeld::Masks {
    sigset_t before;
    sigset_t stops; // those that nobody has told this process to ignore
    bool isTaken = false;
};

namespace {

bool isIgnored(int signal) {
    struct sigaction now;
    return sigaction(signal, nullptr, &now) == 0 && now.sa_handler == SIG_IGN;
}

// Result: the signal of the set that waited, which waits no longer; 0: none did.
int pendingTake(const sigset_t &set) {
    const timespec none{};
    const int signal = sigtimedwait(&set, nullptr, &none);
    return signal > 0 ? signal : 0;
}

} // namespace

SignalsHeld::SignalsHeld() : pMasks(new Masks) {
    sigset_t held;
    sigemptyset(&held);
    sigemptyset(&pMasks->stops);
    for (const int signal : {SIGINT, SIGTERM, SIGQUIT}) {
        sigaddset(&held, signal);
        if (!isIgnored(signal)) {
            sigaddset(&pMasks->stops, signal);
        }
    }
    for (const int signal : {SIGHUP, SIGTSTP, SIGPIPE}) {
        sigaddset(&held, signal);
    }
    pthread_sigmask(SIG_BLOCK, &held, &pMasks->before);
}

SignalsHeld::~SignalsHeld() {
    sigset_t forgotten;
    sigemptyset(&forgotten);
    if (pMasks->isTaken) {
        forgotten = pMasks->stops;
    }
    sigaddset(&forgotten, SIGPIPE);
    while (pendingTake(forgotten) != 0) {
    }
    pthread_sigmask(SIG_SETMASK, &pMasks->before, nullptr);
    delete pMasks;
}

std::string SignalsHeld::stopTaken() {
    const int signal = pendingTake(pMasks->stops);
    pMasks->isTaken = pMasks->isTaken || signal != 0;
    return signal == 0 ? "" : signal == SIGINT ? "SIGINT" : signal == SIGTERM ? "SIGTERM" : "SIGQUIT";
}

} // namespace cli
