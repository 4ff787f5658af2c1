// Model and daemon side by side.
#include "tests/model/runner.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "tests/model/driver.h"

namespace model {
namespace {

constexpr size_t STEPS_SHOWN = 20;

struct Pair {
    Model model;
    Driver driver; // starts the daemon
    std::vector<std::string> driverTrace;
    Sink modelSink, driverSink;
    Answer modelAnswer, driverAnswer;

    explicit Pair(const Limits &limits)
        : model(limits, ruleTranslation()), driver(limits, ruleTranslation()) {}

    void step(const Step &step, bool toDaemonToo) {
        modelAnswer = driverAnswer = Answer();
        model.trace.clear();
        give(step, model, modelAnswer);
        if (toDaemonToo) {
            give(step, driver, driverAnswer);
        }
        driver.takeTrace(driverTrace);
    }

    template <class Side> static void give(const Step &step, Side &side, Answer &answer) {
        switch (step.kind) {
        case StepKind::Command: answer = side.command(step.command); break;
        case StepKind::Read: side.deliver(encode(step.messages)); break;
        case StepKind::Pass: side.pass(step.number); break;
        case StepKind::Range:
            if (side.ranges() != 0) {
                side.range(step.index % side.ranges(), step.number);
            }
            break;
        case StepKind::Arm: side.arm(step.call, step.number, step.value); break;
        case StepKind::Answer: side.answer(step.call, step.value); break;
        case StepKind::Acl: side.aclExists(step.index, step.number != 0); break;
        case StepKind::SelfLog: side.selfLog(step.number); break;
        case StepKind::Waiting: side.waiting(step.index, step.number); break;
        }
    }

    bool isSame() {
        if (model.trace != driverTrace || modelAnswer != driverAnswer) {
            return false;
        }
        write(false);
        return modelSink.numbers == driverSink.numbers && model.ranges() == driver.ranges();
    }

    void write(bool asText) {
        for (Sink *pSink : {&modelSink, &driverSink}) {
            pSink->clear();
            pSink->asText = asText;
        }
        model.write(modelSink);
        driver.write(driverSink);
    }

    std::string difference();
};

// The lines that only one side has, from the first to the last that differ.
std::string differingLines(const std::vector<std::string> &model, const std::vector<std::string> &daemon) {
    size_t first = 0;
    while (first < model.size() && first < daemon.size() && model[first] == daemon[first]) {
        ++first;
    }
    size_t modelEnd = model.size(), daemonEnd = daemon.size();
    while (modelEnd > first && daemonEnd > first && model[modelEnd - 1] == daemon[daemonEnd - 1]) {
        --modelEnd;
        --daemonEnd;
    }
    std::string out;
    for (size_t i = first; i < modelEnd; ++i) {
        out += "    model:  " + model[i] + "\n";
    }
    for (size_t i = first; i < daemonEnd; ++i) {
        out += "    daemon: " + daemon[i] + "\n";
    }
    return out;
}

std::string Pair::difference() {
    std::string out;
    if (modelAnswer != driverAnswer) {
        out += "  answers\n    model:  " + text(modelAnswer) + "\n    daemon: " + text(driverAnswer) + "\n";
    }
    if (model.trace != driverTrace) {
        out += "  calls and texts\n" + differingLines(model.trace, driverTrace);
    }
    write(true);
    if (modelSink.lines != driverSink.lines) {
        out += "  store\n" + differingLines(modelSink.lines, driverSink.lines);
    }
    if (model.ranges() != driver.ranges()) {
        out += "  bindings of time ranges\n";
    }
    return out;
}

std::string lastSteps(const Sequence &sequence, size_t at) {
    std::string out;
    for (size_t i = at < STEPS_SHOWN ? 0 : at - STEPS_SHOWN; i <= at; ++i) {
        out += "  " + std::to_string(i) + ": " + text(sequence.steps[i]) + "\n";
    }
    return out;
}

constexpr size_t NO_STEP = SIZE_MAX;

// missing: the step that only the model is given.
std::string runPair(const Sequence &sequence, Reached *pReached, size_t missing) {
    static const bool isVerbose = getenv("POLICYROUTE_MODEL_VERBOSE") != nullptr;
    Pair pair(sequence.limits);
    pair.model.pReached = pReached;
    for (size_t i = 0; i < sequence.steps.size(); ++i) {
        if (isVerbose) { // before the step, for one that crashes
            fprintf(stderr, "seed %llu step %zu: %s\n", static_cast<unsigned long long>(sequence.seed), i, text(sequence.steps[i]).c_str());
        }
        pair.step(sequence.steps[i], i != missing);
        if (pReached != nullptr) {
            static const char *const kinds[] = {"step: command", "step: read", "step: pass", "step: time range", "step: fault",
                                                "step: answer", "step: ACL", "step: self-log", "step: a link waits"};
            ++(*pReached)[kinds[static_cast<size_t>(sequence.steps[i].kind)]];
        }
        const bool misused = testing::Test::HasFailure();
        if (!pair.isSame() || misused) {
            return "seed " + std::to_string(sequence.seed) + ", limits " + std::to_string(sequence.limits.lists) + " lists, " +
                   std::to_string(sequence.limits.nodes) + " nodes, " + std::to_string(sequence.limits.interfaces) +
                   " interfaces, step " + std::to_string(i) + (misused ? " (the platform was misused)" : "") + "\n" + pair.difference() +
                   " steps\n" + lastSteps(sequence, i);
        }
    }
    return "";
}

} // namespace

std::string run(const Sequence &sequence, Reached *pReached) {
    return runPair(sequence, pReached, NO_STEP);
}

std::string runWithout(const Sequence &sequence, size_t step) {
    return runPair(sequence, nullptr, step);
}

Sequence shorten(const Sequence &sequence) {
    Sequence best = sequence;
    for (size_t width = best.steps.size() / 2; width != 0; width = width == 1 ? 0 : (width + 1) / 2) {
        for (size_t at = 0; at < best.steps.size();) {
            Sequence shorter = best;
            shorter.steps.erase(shorter.steps.begin() + static_cast<ptrdiff_t>(at),
                                shorter.steps.begin() + static_cast<ptrdiff_t>(std::min(at + width, best.steps.size())));
            if (run(shorter, nullptr).empty()) {
                at += width;
            } else {
                best = shorter;
            }
        }
        if (width == 1) {
            break;
        }
    }
    return best;
}

} // namespace model
