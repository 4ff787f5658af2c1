// Policy files: what is accepted is exported, and the export read again says the same.
#include <cstddef>
#include <cstdint>

#include "cli/export.h"
#include "cli/planner.h"
#include "cli/policy_file.h"
#include "fuzz/fuzz_input.h"

namespace {

// Units as they would be looked up: a plan wants them.
void unitsGive(cli::Policy &policy, std::map<std::string, uint32_t> &units) {
    const auto unitOf = [&](const std::string &name) {
        return name.empty() ? 0 : units.emplace(name, static_cast<uint32_t>(units.size() + 1)).first->second;
    };
    for (cli::Binding &binding : policy.bindings) {
        binding.unit = unitOf(binding.interface);
    }
    for (auto &[name, list] : policy.lists) {
        for (auto &[index, node] : list.nodes) {
            node.outIfUnit = unitOf(node.outIfName);
        }
    }
}

std::string joined(const std::vector<std::string> &lines) {
    std::string all;
    for (const std::string &line : lines) {
        all += line + "\n";
    }
    return all;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    const std::string text(reinterpret_cast<const char *>(pData), size);
    cli::PolicyFile read = cli::policyFileRead("policy.yaml", text);
    for (const std::string &problem : read.problems) {
        fuzz::require(problem.starts_with("policy.yaml:"), "a problem without its place: " + problem);
    }
    if (!read.problems.empty()) {
        return 0;
    }
    std::map<std::string, uint32_t> units;
    unitsGive(read.policy, units);
    const cli::Exported written = cli::exportText(read.policy);
    fuzz::require(written.unsaid.empty(), "the export cannot say what a file said: " + joined(written.unsaid));
    cli::PolicyFile again = cli::policyFileRead("export", written.text);
    fuzz::require(again.problems.empty(), "the export is refused: " + joined(again.problems));
    unitsGive(again.policy, units);
    fuzz::require(cli::exportText(again.policy).text == written.text, "the export of the export differs");
    const cli::Plan there = cli::planMake(read.policy, again.policy, {});
    const cli::Plan back = cli::planMake(again.policy, read.policy, {});
    fuzz::require(there.steps.empty() && there.lines.empty(), "the export differs: " + joined(there.lines));
    fuzz::require(back.steps.empty() && back.lines.empty(), "the export differs: " + joined(back.lines));
    for (const auto &[name, list] : read.policy.lists) {
        (void)cli::listWarnings(list);
    }
    // From nothing and to nothing: every step has a text, a place and an inverse.
    for (const cli::Plan &plan : {cli::planMake({}, read.policy, {}), cli::planMake(read.policy, {}, {})}) {
        for (const cli::Step &step : plan.steps) {
            fuzz::require(!cli::stepText(step).empty() && !cli::stepText(cli::stepUndo(step)).empty(), "a step without text");
            (void)cli::stepPlaces(step, "ACL 1501 rule 20: refused");
        }
    }
    return 0;
}
