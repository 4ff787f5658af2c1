// File, running state, plan, steps; and the way back when a step is refused.
#include "cli/apply.h"

#include <csignal>

#include "cli/errors.h"
#include "cli/operate.h"
#include "cli/planner.h"
#include "cli/policy_file.h"
#include "cli/running.h"

namespace cli {

namespace {

std::string joined(const std::vector<std::string> &lines) {
    std::string text;
    for (const std::string &line : lines) {
        text += (text.empty() ? "" : "\n") + line;
    }
    return text;
}

std::string counted(size_t count, const char *pWhat) {
    return std::to_string(count) + " " + pWhat + (count == 1 ? "" : "s");
}

void interfaceLookUp(const PolicyFile &file, const Interfaces &interfaces, const std::string &name, uint32_t &unit,
                     std::vector<std::string> &problems) {
    const auto found = interfaces.unitOf(name);
    if (found) {
        unit = *found;
        return;
    }
    const auto line = file.interfaceLines.find(name);
    problems.push_back(file.name + ":" +
                       std::to_string(line == file.interfaceLines.end() ? 1 : line->second) + ": interface " + name +
                       (interfaces.known ? " does not exist in the daemon's network namespace"
                                         : " cannot be looked up: the daemon does not tell its interfaces; name "
                                           "it by its unit, such as unit:7"));
}

// Turns the names of interfaces into units. Result: problems of the file.
std::vector<std::string> interfacesLookUp(PolicyFile &file, const Interfaces &interfaces) {
    std::vector<std::string> problems;
    for (auto &[name, list] : file.policy.lists) {
        for (auto &[index, node] : list.nodes) {
            if (!node.outIfName.empty()) {
                interfaceLookUp(file, interfaces, node.outIfName, node.outIfUnit, problems);
            }
        }
    }
    std::map<uint32_t, std::string> seen;
    for (Binding &binding : file.policy.bindings) {
        interfaceLookUp(file, interfaces, binding.interface, binding.unit, problems);
        const auto [other, isNew] = seen.insert({binding.unit, binding.interface});
        if (!isNew && binding.unit != 0) {
            problems.push_back(file.name + ":" + std::to_string(file.interfaceLines[binding.interface]) +
                               ": interface " + binding.interface + " is the same as " + other->second);
        }
    }
    return problems;
}

// While steps are done an interrupt must not leave a half-made policy.
class SignalsHeld {
public:
    SignalsHeld() {
        sigset_t held;
        sigemptyset(&held);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
            sigaddset(&held, signal);
        }
        pthread_sigmask(SIG_BLOCK, &held, &before);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;

private:
    sigset_t before;
};

// Undoes the first `count` steps. Result: what was done, for the operator.
std::string undo(Daemon &daemon, const std::vector<Step> &steps, size_t count) {
    std::vector<std::string> failures;
    for (size_t i = count; i > 0; i--) {
        const Step step = stepUndo(steps[i - 1]);
        try {
            stepDo(daemon, step);
        } catch (const Refused &refusal) {
            failures.push_back("could not " + stepText(step) + ": " + refusal.what());
        }
    }
    if (!failures.empty()) {
        return "The steps done before were undone, except:\n" + joined(failures) +
               "\nLook at 'pbrctl show lists' and apply again.";
    }
    return count == 0 ? "Nothing had been changed."
                      : "The " + counted(count, "step") + " done before " + (count == 1 ? "was" : "were") +
                            " undone: the policy is as before.";
}

void stepsDo(Daemon &daemon, const std::vector<Step> &steps) {
    const SignalsHeld held;
    for (size_t i = 0; i < steps.size(); i++) {
        try {
            stepDo(daemon, steps[i]);
        } catch (const Refused &refusal) {
            throw Refused("refused at step " + std::to_string(i + 1) + " of " + std::to_string(steps.size()) + ", " +
                          stepText(steps[i]) + ":\n" + refusal.what() + "\n" + undo(daemon, steps, i));
        } catch (const NoDaemon &lost) {
            throw NoDaemon("the daemon went away at step " + std::to_string(i + 1) + " of " +
                           std::to_string(steps.size()) + ", " + stepText(steps[i]) + ": " + lost.what() +
                           ". What was done before stays as far as the daemon lives; apply again when it runs");
        }
    }
}

// Tells the device that the policy is complete. On a switch there is nobody to tell.
void settle(Daemon &daemon, std::ostream &err) {
    try {
        if (!daemon.mgmt("device.settle").value("determined", true)) {
            err << "warning: the state of some next hops is not known yet; 'pbrctl show next-hops' tells which\n";
        }
    } catch (const Refused &refusal) {
        throw Refused(std::string("the policy is applied, but the device is not right yet: ") + refusal.what() +
                      "\nWhat to do: look at 'pbrctl show device' for the entries concerned.");
    }
}

} // namespace

void apply(Daemon &daemon, const ApplyOptions &options, std::ostream &out, std::ostream &err) {
    PolicyFile file = policyFileRead(options.file, options.text);
    if (!file.problems.empty()) {
        throw Refused(options.file + " is refused:\n" + joined(file.problems) +
                      "\nNothing was changed. What to do: correct the file.");
    }
    Running running = runningRead(daemon);
    if (!running.aclsKnown) {
        throw Refused("the daemon's platform does not offer ACLs to pbrctl (no management socket): a policy file "
                      "cannot be applied here; use the single-change commands");
    }
    const std::vector<std::string> missing = interfacesLookUp(file, running.interfaces);
    const Plan plan = planMake(running.policy, file.policy, running.limits);
    if (!missing.empty() || !plan.problems.empty()) {
        throw Refused(options.file + " is refused:\n" + joined(missing.empty() ? plan.problems : missing) +
                      "\nNothing was changed. What to do: correct the file.");
    }
    for (const std::string &warning : file.warnings) {
        err << "warning: " << warning << "\n";
    }
    if (!options.json) {
        out << (plan.lines.empty() ? "nothing to do" : joined(plan.lines)) << "\n" << std::flush;
    }
    if (!options.dryRun) {
        stepsDo(daemon, plan.steps);
        settle(daemon, err);
    }
    if (options.json) {
        out << nlohmann::json({{"plan", plan.lines}, {"warnings", file.warnings}, {"done", !options.dryRun}}).dump(2)
            << "\n";
    } else if (!plan.lines.empty()) {
        out << (options.dryRun ? "dry run: nothing was changed" : "done: " + counted(plan.steps.size(), "step"))
            << "\n";
    }
}

} // namespace cli
