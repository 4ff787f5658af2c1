// What the memory device says of a packet: which node of the view would take it. It forwards nothing, and
// whether a next hop has a route is nobody's concern here.
#include <nlohmann/json.hpp>

#include "host/device/desired/desired_show.h"
#include "host/device/desired/otherwise.h"
#include "host/device/kernel/program_explain.h"
#include "host/device/memory/memory_device.h"
#include "host/ifnet/ifnet.h"

namespace host {

namespace {

using nlohmann::json;

// The world of a plane without packets: every interface and every route is there.
ProgramEnv environment() {
    ProgramEnv env;
    env.rules = aclSnapshot;
    env.link = [](uint32_t unit) {
        return std::optional(ifnetByUnit(unit).value_or(IfnetLink{unit, "unit:" + std::to_string(unit), true}));
    };
    env.egress = [](uint32_t, int, const IpAddress &) { return std::optional(FibEgress{}); };
    return env;
}

} // namespace

json MemoryDevice::explain(const PacketQuestion &question) {
    const std::lock_guard guard(lock);
    std::map<std::string, ProgramList> lists;
    for (const auto &[list, entries] : desired.lists) {
        lists[list] = programCompile(list, entries, environment());
    }
    const ProgramExplanation explanation =
        programExplain(lists, question.ifUnit, question.packet, [](const NodeKey &) { return std::string(); });
    json shown = programExplainShow(explanation);
    if (!explanation.isBound) {
        shown["verdict"] = "not policy";
    }
    if (const ExplainNode *pNode = explanation.decider()) {
        const RedirectEntry &entry = desired.lists.at(pNode->key.list).at(pNode->entryKey);
        const json row = redirectEntryShow(entry, {});
        shown["action"] = row["action"];
        shown["nextHops"] = row["nextHops"];
        shown["priority"] = entry.newIpPri;
        shown["paths"] = json::array();
        shown["dropping"] = entry.kind == PBR_REDIRECT_INERT && otherwiseDrops(entry.list, entry.nodeIndex);
        shown["why"] = entry.kind == PBR_REDIRECT_INERT ? "no usable next hop" : "";
    }
    shown["notes"] = {"the memory device forwards nothing: this is what the policy says"};
    return shown;
}

} // namespace host
