// See transaction.h. Refusals of steps come as exceptions; those of the plane as the answer of its release.
#include "cli/transaction.h"

#include <chrono>
#include <set>
#include <thread>

#include "cli/check.h"
#include "cli/errors.h"
#include "cli/numbers.h"
#include "cli/operate.h"
#include "cli/plane_hold.h"

namespace cli {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds PROBES_WAIT{5};         // for the first results of new probes
constexpr std::chrono::milliseconds PROBES_STEP{20};   // between two looks at them

std::string joined(const std::vector<std::string> &lines, const char *pIndent) {
    std::string text;
    for (const std::string &line : lines) {
        text += (text.empty() ? "" : "\n") + (pIndent + line);
    }
    return text;
}

std::string textOf(const json &row, const char *pName) {
    const auto found = row.find(pName);
    return found != row.end() && found->is_string() ? found->get<std::string>() : "";
}

// One run of a plan.
struct Transaction {
    Daemon &daemon;
    const Policy &before;
    const Plan &plan;
    const Where &where;
    const Stop &stop;
    std::ostream &err;
    PlaneHold plane;
    std::string stopped = {};         // what asked to stop
};

// Passing, or failing although it was really asked: a probe through a next hop that is not resolved yet fails
// without a question.
bool hasResult(const json &row) {
    const std::string status = textOf(row, "status");
    const json statistics = row.value("statistics", json::object());
    return status == "passing" || (status == "failing" && statistics.value("sent", uint64_t{0}) != 0);
}

// A probe counts as failing until its first result; the change waits for it, so that packets do not leave
// their next hop because its probe is new.
void probesAwait(Transaction &of) {
    const auto end = Clock::now() + PROBES_WAIT;
    bool isComplete = of.plan.newProbes.empty() || !of.plane.isHeld();
    while (!isComplete) {
        const auto answer = of.daemon.mgmtIfThere("probes");
        isComplete = true;
        for (const json &row : answer ? answer->value("probes", json::array()) : json::array()) {
            const std::string name = textOf(row, "admin") + "/" + textOf(row, "test");
            isComplete = isComplete && (of.plan.newProbes.count(name) == 0 || hasResult(row));
        }
        of.stopped = of.stopped.empty() && of.stop ? of.stop() : of.stopped;
        if (!isComplete && (Clock::now() >= end || !of.stopped.empty())) {
            return;
        }
        if (!isComplete) {
            std::this_thread::sleep_for(PROBES_STEP);
        }
    }
}

// What differs from before now, as lines of a plan that leads back; does that plan when `mend`.
std::vector<std::string> differencesNow(Transaction &of, bool mend, std::vector<std::string> &failures) {
    const Running now = runningRead(of.daemon);
    const Plan back = planMake(now.policy, of.before, {});
    for (size_t i = 0; mend && i < back.steps.size(); i++) {
        try {
            stepDo(of.daemon, back.steps[i]);
        } catch (const Refused &refusal) {
            failures.push_back("could not " + stepText(back.steps[i]) + ": " + refusal.what());
        }
    }
    return back.lines;
}

// Brings back what was before the first `count` steps: each step back in reverse order; what is not as
// before then (a step that stopped half-way, a daemon that was started again) by a plan of its own.
// Result: what the operator is to know.
std::string undo(Transaction &of, size_t count) {
    std::vector<std::string> failures;
    try {
        of.plane.hold(of.plan.held);
    } catch (const Refused &) {
        of.plane.lost(); // then it is undone step by step
    }
    for (size_t i = count; i > 0; i--) {
        const Step step = stepUndo(of.plan.steps[i - 1]);
        try {
            stepDo(of.daemon, step);
        } catch (const Refused &refusal) {
            failures.push_back("could not " + stepText(step) + ": " + refusal.what());
        }
    }
    std::vector<std::string> left = differencesNow(of, false, failures);
    if (!left.empty()) {
        (void)differencesNow(of, true, failures);
        left = differencesNow(of, false, failures);
    }
    try {
        (void)of.plane.release(); // as before, with what could not be done before
    } catch (const Refused &refusal) {
        of.err << "warning: " << refusal.what() << "\n";
    }
    if (left.empty()) {
        return count == 0 ? "Nothing was changed."
                          : "Nothing was changed: what had been done (" + counted(count, "step") + ") is undone.";
    }
    return "Not everything could be undone. To be as before, the policy lacks:\n" + joined(left, "  ") + "\nbecause:\n" +
           joined(failures, "  ") + "\nWhat to do: look at 'pbrctl show lists', remove the cause, and apply again.";
}

// Undoes and throws what the operator reads.
[[noreturn]] void refuse(Transaction &of, const std::string &what, size_t doneCount) {
    try {
        throw Refused(what + "\n" + undo(of, doneCount));
    } catch (const NoDaemon &lost) {
        throw NoDaemon(what + "\nand the daemon went away while " + counted(doneCount, "step") +
                       " done before were undone: " + lost.what() +
                       "\nWhat to do: when it runs again, look at 'pbrctl show lists' and apply again");
    }
}

// The daemon, or the connection to it, is gone: a daemon that serves again is brought back to what was.
[[noreturn]] void lose(Transaction &of, const std::string &what, const std::string &why, size_t doneCount) {
    of.daemon.disconnect();
    of.plane.lost();
    std::string undone;
    try {
        undone = undo(of, doneCount);
    } catch (const NoDaemon &) {
        throw NoDaemon(what + ": " + why + "\nThe " + counted(doneCount, "step") +
                       " done before could not be undone. The forwarding plane keeps what it had. What to do: when the "
                       "daemon runs again, 'pbrctl diff FILE' tells what is missing and 'pbrctl apply FILE' does it");
    }
    throw Refused(what + ": " + why + "\nIt serves again. " + undone);
}

// Undoes when somebody asked to stop.
void stopCheck(Transaction &of, const std::string &before, size_t doneCount) {
    of.stopped = of.stopped.empty() && of.stop ? of.stop() : of.stopped;
    if (!of.stopped.empty()) {
        refuse(of, "interrupted (" + of.stopped + ") before " + before + ".", doneCount);
    }
}

void planStepsDo(Transaction &of) {
    const std::vector<Step> &steps = of.plan.steps;
    const auto number = [&](size_t i) { return "step " + std::to_string(i + 1) + " of " + std::to_string(steps.size()); };
    for (size_t from = 0, count = 0; from < steps.size(); from += count) {
        size_t i = from;
        stopCheck(of, number(i) + ", " + stepText(steps[i]), i);
        count = stepsTogether(steps, from);
        try {
            stepsDo(of.daemon, steps, from, count, i);
        } catch (const NotOffered &) {
            refuse(of, of.where(stepPlaces(steps[i], "")) + "this daemon does not offer what is needed to " +
                           stepText(steps[i]) + ": it is older than this pbrctl, or runs on another platform", i);
        } catch (const Refused &refusal) {
            refuse(of, of.where(stepPlaces(steps[i], refusal.what())) + "refused at " + number(i) + ", " + stepText(steps[i]) + ":\n" +
                           refusal.what(), i);
        } catch (const NoDaemon &lost) {
            lose(of, "the daemon went away at " + number(i) + ", " + stepText(steps[i]), lost.what(), i);
        }
    }
}

std::string planeErrorsText(Transaction &of, const std::vector<PlaneError> &errors) {
    std::vector<std::string> lines;
    for (const auto &[list, node, error] : errors) {
        const std::string place = "node " + list + "/" + std::to_string(node);
        lines.push_back(list.empty() ? error : of.where({place, "list " + list, "lists"}) + place + ": " + error);
    }
    return "the forwarding plane refuses it:\n" + joined(lines, "");
}

// Tells the device that the policy is complete. On a switch there is nobody to tell.
void settle(Transaction &of) {
    try {
        const json answer = of.daemon.mgmt("device.settle");
        warningsPrint(answer, of.err);
        if (!answer.value("determined", true)) {
            of.err << "warning: the state of some next hops is not known yet; 'pbrctl show next-hops' tells which\n";
        }
        if (answer.value("held", false)) {
            of.err << "warning: the kernel still has the policy of the daemon's run before; 'pbrctl show device' tells "
                      "'live' when it has this one\n";
        }
    } catch (const Refused &refusal) {
        if (of.plane.known().empty() && !of.plan.steps.empty()) {
            refuse(of, std::string("the forwarding plane refuses it:\n") + refusal.what(), of.plan.steps.size());
        }
        throw Refused(std::string("the policy is applied, but the device is not right, as before: ") + refusal.what() +
                      "\nWhat to do: look at 'pbrctl show device' for the entries concerned.");
    }
}

void planeTake(Transaction &of) {
    std::vector<PlaneError> errors;
    probesAwait(of);
    if (!of.plan.steps.empty()) {
        stopCheck(of, "the forwarding plane took it over", of.plan.steps.size());
    }
    try {
        errors = of.plane.trial();
        errors = errors.empty() ? of.plane.release() : errors; // refused on trial: the plane still has the old
    } catch (const Refused &refusal) {
        // It held no longer: the steps have acted already.
        of.err << "warning: " << refusal.what() << "\n";
    }
    if (!errors.empty()) {
        refuse(of, planeErrorsText(of, errors), of.plan.steps.size());
    }
    settle(of);
}

} // namespace

void planDo(Daemon &daemon, const Policy &before, const Plan &plan, const Where &where, const Stop &stop,
            std::ostream &err) {
    Transaction of{daemon, before, plan, where, stop, err, PlaneHold(daemon)};
    if (!plan.steps.empty()) {
        try {
            of.plane.hold(plan.held);
        } catch (const Refused &refusal) {
            throw Refused(std::string(refusal.what()) + "\nNothing was changed.");
        }
        planStepsDo(of);
    }
    try {
        planeTake(of);
    } catch (const NoDaemon &lost) {
        throw NoDaemon(std::string("the daemon went away when every step was done: ") + lost.what() +
                       "\nWhat to do: when it runs again, 'pbrctl diff FILE' tells what is missing");
    }
}

} // namespace cli
