// File, running state, plan; then the transaction.
#include "cli/apply.h"

#include <memory>

#include "cli/change_lock.h"
#include "cli/confirm.h"
#include "cli/errors.h"
#include "cli/numbers.h"
#include "cli/planner.h"
#include "cli/policy_file.h"
#include "cli/running.h"
#include "cli/transaction.h"
#include "cli/vrf_names.h"

namespace cli {

namespace {

constexpr size_t CHECK_BYTES = 512 * 1024; // of ACLs in one question; a line of the socket has 1 MiB

std::string joined(const std::vector<std::string> &lines) {
    std::string text;
    for (const std::string &line : lines) {
        text += (text.empty() ? "" : "\n") + line;
    }
    return text;
}

constexpr size_t PROBLEMS_SHOWN = 20;

// The first problems of a file; what is wrong everywhere is said once too often otherwise.
std::string firstOf(const std::vector<std::string> &problems) {
    if (problems.size() <= PROBLEMS_SHOWN) {
        return joined(problems);
    }
    return joined({problems.begin(), problems.begin() + PROBLEMS_SHOWN}) + "\n... and " +
           std::to_string(problems.size() - PROBLEMS_SHOWN) + " more";
}

[[noreturn]] void refuse(const PolicyFile &file, const std::vector<std::string> &problems) {
    throw Refused(file.name + " is refused:\n" + firstOf(problems) +
                  "\nNothing was changed. What to do: correct the file.");
}

std::string lineText(const PolicyFile &file, int line) { return file.name + ":" + std::to_string(line) + ": "; }

// The first of these places that the file names.
std::string placeText(const PolicyFile &file, const std::vector<std::string> &places) {
    for (const std::string &place : places) {
        const auto found = file.places.find(place);
        if (found != file.places.end()) {
            return lineText(file, found->second);
        }
    }
    return file.name + ": ";
}

void interfaceLookUp(const PolicyFile &file, const Interfaces &interfaces, const std::string &name, uint32_t &unit,
                     std::vector<std::string> &problems) {
    const auto found = interfaces.unitOf(name);
    if (found) {
        unit = *found;
        return;
    }
    const auto line = file.interfaceLines.find(name);
    problems.push_back(lineText(file, line == file.interfaceLines.end() ? 1 : line->second) + "interface " + name +
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
            problems.push_back(lineText(file, file.interfaceLines[binding.interface]) + "interface " +
                               binding.interface + " is the same as " + other->second);
        }
    }
    return problems;
}

void aclsAsk(Daemon &daemon, const PolicyFile &file, const nlohmann::json &acls) {
    try {
        (void)daemon.mgmt("acl.check", {{"acls", acls}});
    } catch (const NotOffered &) {
        return; // each change is checked when it is made
    } catch (const Refused &refusal) {
        refuse(file, {placeText(file, aclPlaces(refusal.what())) + refusal.what()});
    }
}

// Lets the daemon check the rules: it knows what its platform can.
void aclsCheck(Daemon &daemon, const PolicyFile &file) {
    nlohmann::json acls = nlohmann::json::object();
    size_t bytes = 0;
    for (const auto &[number, rules] : file.policy.acls) {
        nlohmann::json texts = nlohmann::json::object();
        for (const auto &[rule, text] : rules) {
            texts[std::to_string(rule)] = text.text;
            bytes += text.text.size() + 20;
        }
        acls[std::to_string(number)] = texts;
        if (bytes > CHECK_BYTES) {
            aclsAsk(daemon, file, acls);
            acls = nlohmann::json::object();
            bytes = 0;
        }
    }
    if (!acls.empty()) {
        aclsAsk(daemon, file, acls);
    }
}

// Everything that can be said before anything is changed.
struct Prepared {
    PolicyFile file;
    Running running;
    Plan plan;
};

PolicyFile fileRead(const ApplyOptions &options) {
    PolicyFile file = policyFileRead(options.file, options.text);
    if (!file.problems.empty()) {
        refuse(file, file.problems);
    }
    return file;
}

// The file again, with the names of VRFs that the daemon knows.
PolicyFile vrfsLookUp(Daemon &daemon, const ApplyOptions &options, PolicyFile file) {
    if (!file.hasVrfNames) {
        return file;
    }
    const VrfNames names = vrfNamesRead(daemon);
    file = policyFileRead(options.file, options.text, &names);
    if (!file.problems.empty()) {
        refuse(file, file.problems);
    }
    return file;
}

Prepared prepare(Daemon &daemon, const ApplyOptions &options, PolicyFile file, std::ostream &err) {
    Prepared made{vrfsLookUp(daemon, options, std::move(file)), runningRead(daemon), {}};
    if (!made.running.aclsKnown) {
        throw Refused("the daemon's platform does not offer ACLs to pbrctl (no management socket): a policy file "
                      "cannot be applied here; use the single-change commands");
    }
    const std::vector<std::string> missing = interfacesLookUp(made.file, made.running.interfaces);
    if (!missing.empty()) {
        refuse(made.file, missing);
    }
    aclsCheck(daemon, made.file);
    made.plan = planMake(made.running.policy, made.file.policy, made.running.limits);
    std::vector<std::string> problems;
    for (const PlanProblem &problem : made.plan.problems) {
        problems.push_back(placeText(made.file, problem.places) + problem.text);
    }
    if (!problems.empty()) {
        refuse(made.file, problems);
    }
    for (const std::string &warning : made.file.warnings) {
        err << "warning: " << warning << "\n";
    }
    return made;
}

void planShow(const Plan &plan, std::ostream &out) {
    out << (plan.lines.empty() ? "nothing to do" : joined(plan.lines)) << "\n" << std::flush;
}

void jsonShow(const Prepared &made, bool isDone, std::ostream &out) {
    out << nlohmann::json({{"plan", made.plan.lines}, {"warnings", made.file.warnings}, {"done", isDone}}).dump(2)
        << "\n";
}

// Who undoes what this process leaves half-made when it is killed. Null: nothing is to be done, or the daemon
// does not know of confirmations, which only --confirm needs.
std::unique_ptr<ConfirmWatch> watchStart(const Daemon &daemon, const Prepared &made, const ApplyOptions &options) {
    if (made.plan.steps.empty()) {
        return nullptr;
    }
    try {
        return std::make_unique<ConfirmWatch>(
            Rollback{daemon.rootFolder(), options.file, options.confirmSeconds.value_or(0), made.running.policy});
    } catch (const Refused &) {
        if (options.confirmSeconds) {
            throw;
        }
        return nullptr;
    }
}

void planApply(Daemon &daemon, const Prepared &made, const ApplyOptions &options, std::ostream &err) {
    const std::unique_ptr<ConfirmWatch> pWatch = watchStart(daemon, made, options);
    SignalsHeld signals; // from here on; the watcher is not to inherit it
    const Where where = [&made](const std::vector<std::string> &places) { return placeText(made.file, places); };
    try {
        planDo(daemon, made.running.policy, made.plan, where, [&signals] { return signals.stopTaken(); }, err);
    } catch (const NoDaemon &lost) {
        if (!options.confirmSeconds || pWatch == nullptr) {
            throw;
        }
        pWatch->leave();
        throw NoDaemon(std::string(lost.what()) + "\nThe policy from before is brought back as soon as it runs");
    }
    // Before a signal that waits may end this process: the watcher would undo what is done.
    if (pWatch != nullptr && options.confirmSeconds) {
        pWatch->arm();
    } else if (pWatch != nullptr) {
        pWatch->end();
    }
    const std::string late = signals.stopTaken();
    if (!late.empty()) {
        err << "interrupted (" << late << ") too late: everything was done already\n";
    }
}

} // namespace

bool diff(Daemon &daemon, const ApplyOptions &options, std::ostream &out, std::ostream &err) {
    const Prepared made = prepare(daemon, options, fileRead(options), err);
    if (options.json) {
        jsonShow(made, false, out);
    } else if (!made.plan.lines.empty()) {
        planShow(made.plan, out);
    }
    return !made.plan.lines.empty();
}

void apply(Daemon &daemon, const ApplyOptions &options, std::ostream &out, std::ostream &err) {
    PolicyFile file = fileRead(options);
    (void)daemon.command(); // tells at once when no daemon runs
    std::unique_ptr<ChangeLock> pLock;
    if (!options.dryRun) {
        pLock = std::make_unique<ChangeLock>(daemon, ChangeKind::Apply, options.file, err);
    }
    const Prepared made = prepare(daemon, options, std::move(file), err);
    if (!options.json) {
        planShow(made.plan, out);
    }
    if (!options.dryRun) {
        planApply(daemon, made, options, err);
    }
    if (!options.dryRun && !options.confirmSeconds) {
        (void)daemon.mgmtIfThere("journal.forget"); // what did not come back at the start is not wanted any more
    }
    if (options.json) {
        jsonShow(made, !options.dryRun, out);
    } else if (!made.plan.lines.empty()) {
        out << (options.dryRun ? "dry run: nothing was changed" : "done: " + counted(made.plan.steps.size(), "step"))
            << "\n";
        if (options.confirmSeconds && !options.dryRun) {
            out << "it is undone in " << *options.confirmSeconds << " s unless 'pbrctl confirm' comes\n";
        }
    }
}

} // namespace cli
