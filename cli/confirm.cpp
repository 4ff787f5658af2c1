// See confirm.h. The watcher tells what it does in the system's log, as it has no terminal.
#include "cli/confirm.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>

#include "cli/change_lock.h"
#include "cli/errors.h"
#include "cli/planner.h"
#include "cli/running.h"
#include "cli/transaction.h"

namespace cli {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

// What goes over the socket pair.
constexpr char SAID_BEGUN = '+', SAID_REFUSED = '-', SAID_ARM = 'A', SAID_CANCEL = 'C';

constexpr std::chrono::milliseconds RECONNECT_STEP{500};
constexpr std::chrono::minutes RECONNECT_LONGEST{10}; // after the time is over; while the run's folder exists
constexpr int REFUSED_MOST = 5;                       // times that a roll-back is tried
constexpr int ANSWER_SPARE_MS = 1000;                 // what an answer of the daemon may be late

bool say(int fd, const std::string &text) {
    return send(fd, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// Until the end of input, or one byte when `isWord`.
std::string receive(int fd, bool isWord) {
    std::string text;
    char chunk[4096];
    for (;;) {
        const ssize_t count = recv(fd, chunk, isWord ? 1 : sizeof(chunk), 0);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return text;
        }
        text.append(chunk, static_cast<size_t>(count));
        if (isWord) {
            return text;
        }
    }
}

// ---- the watcher's process ----

void detach(int parentFd) {
    setsid();
    for (const int signal : {SIGHUP, SIGINT, SIGPIPE}) {
        std::signal(signal, SIG_IGN);
    }
    (void)!chdir("/"); // no file system is kept busy; it stays where it is otherwise
    const int null = open("/dev/null", O_RDWR);
    for (int fd = 0; fd <= 2; fd++) {
        dup2(null, fd);
    }
    // The parent's connections end with the parent: their lock is its own.
    if (parentFd > 3) {
        close_range(3, static_cast<unsigned>(parentFd) - 1, 0);
    }
    close_range(static_cast<unsigned>(parentFd) + 1, ~0u, 0);
    openlog("pbrctl", LOG_PID, LOG_DAEMON);
}

void begin(Daemon &daemon, const Rollback &rollback) {
    json request = {{"pid", getpid()}, {"file", rollback.file}};
    if (rollback.seconds != 0) {
        request["seconds"] = rollback.seconds;
    }
    (void)daemon.mgmt("confirm.begin", request);
}

// Waits for the confirmation; tells the parent when the daemon has been asked. Result: whether it came.
bool isConfirmed(Daemon &daemon, const Rollback &rollback, int parentFd) {
    const auto end = Clock::now() + std::chrono::seconds(rollback.seconds);
    for (bool isBegun = true; Clock::now() < end;) {
        const auto leftMs = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        try {
            if (!isBegun) {
                begin(daemon, rollback);
                isBegun = true;
            }
            daemon.mgmtSend("confirm.wait", {{"milliseconds", leftMs}});
            (void)say(parentFd, {SAID_BEGUN}); // from the second time on nobody hears it
            const auto answer = daemon.mgmtAnswer(static_cast<int>(leftMs) + ANSWER_SPARE_MS);
            return answer && answer->value("confirmed", false);
        } catch (const std::exception &lost) { // the daemon is gone, or starts
            isBegun = false;
            std::this_thread::sleep_for(RECONNECT_STEP);
        }
    }
    return false;
}

// Interfaces by their names of now: one that was made anew has another unit. What is gone stays unbound.
Policy withUnitsOfNow(Policy policy, const Interfaces &interfaces) {
    std::vector<Binding> bindings;
    for (Binding binding : policy.bindings) {
        binding.unit = interfaces.unitOf(binding.interface).value_or(0);
        if (binding.unit != 0 || !interfaces.known) {
            bindings.push_back(binding);
        } else {
            syslog(LOG_WARNING, "interface %s is gone: it stays without list %s", binding.interface.c_str(),
                   binding.list.c_str());
        }
    }
    policy.bindings = bindings;
    for (auto &[name, list] : policy.lists) {
        for (auto &[index, node] : list.nodes) {
            node.outIfUnit = interfaces.unitOf(node.outIfName).value_or(node.outIfUnit);
        }
    }
    return policy;
}

void rollBackOnce(Daemon &daemon, const Rollback &rollback) {
    std::ostringstream warnings;
    const ChangeLock lock(daemon, ChangeKind::RollBack, rollback.file + " (roll-back)", warnings);
    const Running running = runningRead(daemon);
    const Policy wanted = withUnitsOfNow(rollback.before, running.interfaces);
    const Plan plan = planMake(running.policy, wanted, running.limits);
    const SignalsHeld held;
    planDo(daemon, running.policy, plan, [](const std::vector<std::string> &) { return std::string(); }, {}, warnings);
    syslog(LOG_NOTICE, "%s: the policy from before is back (%zu steps)", rollback.file.c_str(), plan.steps.size());
}

// Result: whether the policy from before is back.
bool rollBack(Daemon &daemon, const Rollback &rollback) {
    const auto end = Clock::now() + RECONNECT_LONGEST;
    int refusedCount = 0;
    const auto isThere = [&rollback] { return rollback.root.empty() || access(rollback.root.c_str(), F_OK) == 0; };
    while (refusedCount < REFUSED_MOST && Clock::now() < end && isThere()) {
        try {
            rollBackOnce(daemon, rollback);
            return true;
        } catch (const Refused &refusal) {
            refusedCount++;
            syslog(LOG_ERR, "%s: roll-back: %s", rollback.file.c_str(), refusal.what());
        } catch (const std::exception &) {
            daemon.disconnect(); // it is not there yet, or it is gone again
        }
        std::this_thread::sleep_for(RECONNECT_STEP);
    }
    syslog(LOG_ERR, "%s is to be undone, and the policy from before could not be brought back",
           rollback.file.c_str());
    return false;
}

int watch(const Rollback &rollback, int parentFd) {
    Daemon daemon(rollback.root);
    try {
        begin(daemon, rollback);
    } catch (const std::exception &refusal) {
        (void)say(parentFd, SAID_REFUSED + std::string(refusal.what()));
        return EXIT_REFUSED;
    }
    if (!say(parentFd, {SAID_BEGUN})) {
        return EXIT_DONE; // the parent ended before it did anything, and others may have changed the policy since
    }
    const std::string said = receive(parentFd, true);
    if (said == std::string{SAID_CANCEL}) {
        return EXIT_DONE;
    }
    if (said.empty()) {
        syslog(LOG_WARNING, "%s: the apply was broken off in the middle: rolling back", rollback.file.c_str());
    }
    if (!said.empty() && isConfirmed(daemon, rollback, parentFd)) {
        return EXIT_DONE;
    }
    return rollBack(daemon, rollback) ? EXIT_DONE : EXIT_REFUSED;
}

} // namespace

ConfirmWatch::ConfirmWatch(const Rollback &rollback) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        throw Refused(std::string("cannot start a watcher: ") + strerror(errno) + "\nNothing was changed.");
    }
    pid = fork();
    if (pid == 0) {
        detach(ends[1]);
        _exit(watch(rollback, ends[1]));
    }
    close(ends[1]);
    fd = ends[0];
    const std::string said = pid < 0 ? SAID_REFUSED + std::string(strerror(errno)) : receive(fd, true);
    if (said == std::string{SAID_BEGUN}) {
        return;
    }
    const std::string why = pid < 0 ? said.substr(1) : receive(fd, false);
    close(fd);
    if (pid > 0) {
        waitpid(pid, nullptr, 0);
    }
    throw Refused("cannot start a watcher that would roll back: " + (why.empty() ? "it ended" : why) +
                  "\nNothing was changed.");
}

ConfirmWatch::~ConfirmWatch() { end(); }

void ConfirmWatch::end() {
    if (fd >= 0) {
        (void)say(fd, {SAID_CANCEL});
        close(fd);
        fd = -1;
        waitpid(pid, nullptr, 0);
    }
}

void ConfirmWatch::arm() {
    if (!say(fd, {SAID_ARM}) || receive(fd, true).empty()) {
        throw Refused("the policy is applied, but its watcher has ended: it will not be rolled back");
    }
    close(fd);
    fd = -1;
}

void ConfirmWatch::leave() {
    close(fd);
    fd = -1;
}

void confirm(Daemon &daemon, bool rollBackNow, std::ostream &out) {
    const auto answer = daemon.mgmt("confirm", {{"rollback", rollBackNow}});
    if (!rollBackNow) {
        (void)daemon.mgmtIfThere("journal.forget"); // as an apply that needs no confirmation does
    }
    out << answer.value("file", "the policy") << (rollBackNow ? " is rolled back now" : " is confirmed: it stays") << "\n";
}

void confirmShow(Daemon &daemon, bool json, std::ostream &out) {
    auto answer = daemon.mgmt("confirm.show");
    answer.erase("ok");
    if (json) {
        out << answer.dump(2) << "\n";
    } else if (!answer.value("pending", false)) {
        out << "nothing waits for a confirmation\n";
    } else {
        out << answer.value("file", "") << ": " << answer.value("state", "") << ", " << answer.value("secondsLeft", 0)
            << " s left\n";
    }
}

} // namespace cli
