// What the kernel device would do with a packet: the part of KernelDevice behind `pbrctl explain`.
// Answers from the model, which is what is installed, and asks the kernel for nothing but the kind of an
// address.
#include <nlohmann/json.hpp>

#include "host/device/desired/desired_show.h"
#include "host/device/kernel/kernel_device.h"
#include "host/device/kernel/rt_codec.h"

namespace host {

namespace {

using nlohmann::json;

const char *actionText(const RedirectEntry &entry) {
    switch (entry.kind) {
    case PBR_REDIRECT_OUT_IF: return "out-interface";
    case PBR_REDIRECT_NEXT_HOPS: return "next-hops";
    case PBR_REDIRECT_PRIORITY_ONLY: return "priority";
    case PBR_REDIRECT_INERT: return "inert";
    case PBR_REDIRECT_ABSENT: break;
    }
    return "absent";
}

json nextHopsShow(const RedirectEntry &entry) {
    json shown = json::array();
    for (const IpAddress &address : entry.nextHops) {
        shown.push_back(ipAddressText(entry.ipVer, address));
    }
    return shown;
}

} // namespace

// Why a packet is not compared with the nodes at all, in the order of the base chain; empty: it is.
std::string KernelDevice::passedBy(const PacketQuestion &question) const {
    if ((question.mark & hooks_.options.markMask) != 0) {
        return "it carries a mark in our field already";
    }
    const std::string kind = readers_ == nullptr
        ? ""
        : rtAddressKind(readers_->rt, static_cast<uint8_t>(question.packet.version), question.packet.destination);
    if (kind.empty()) {
        return "";
    }
    return kind == "local" ? "its destination is an address of this machine" : "its destination is a " + kind + " address";
}

// What the deciding node does: its paths, or why the packet is routed as usual or dropped. Lock: held by caller
void KernelDevice::deciderShow(const ExplainNode &node, json &shown) const {
    const KernelModel &model = plane_.model();
    const ProgramList &program = model.lists().at(node.key.list);
    const RedirectEntry &entry = program.entries.at(node.entryKey).source;
    const KernelEntryStatus status = model.status(node.key.list, node.entryKey);
    const DecisionKey key{node.key.family, model.decisionOf(node.key)};
    const Decision *pDecision = key.second == 0 ? nullptr : model.decisions().get(key);
    shown["action"] = actionText(entry);
    shown["nextHops"] = nextHopsShow(entry);
    shown["priority"] = status.error.empty() ? program.nodes.at(node.key).decision.precedence : 0;
    shown["paths"] = json::array();
    shown["dropping"] = model.isDropped(node.key);
    shown["why"] = !status.error.empty() ? status.error : status.reason;
    if (pDecision == nullptr) {
        return;
    }
    for (const ProgramPath &path : pDecision->paths) {
        shown["paths"].push_back({{"interface", linkName(path.ifIndex)},
                                  {"gateway", path.hasGateway ? ipAddressText(key.first == 6 ? 2 : 1, path.gateway) : ""},
                                  {"weight", path.weight}});
    }
    shown["table"] = model.decisions().objectsOf(key).rule.table;
}

json KernelDevice::explain(const PacketQuestion &question) {
    std::lock_guard guard(lock_);
    PacketQuestion asked = question;
    json notes = json::array();
    if (plane_.isDefragOn() && asked.packet.isLaterFragment) {
        asked.packet.isLaterFragment = false;
        notes.push_back("fragments are put together before they are compared: the answer is that for the whole packet");
    }
    if (isHeld_) {
        notes.push_back("the policy of an earlier run is still in force: this is what the present one will do");
    }
    if (isFlushed_) {
        notes.push_back("everything was flushed: until the policy is installed again all packets are routed as usual");
    }
    const KernelModel &model = plane_.model();
    const ProgramExplanation explanation =
        programExplain(model.lists(), asked.ifUnit, asked.packet,
                       [&](const NodeKey &key) { return model.refusedOf(key); });
    json shown = programExplainShow(explanation);
    const std::string why = explanation.isBound ? passedBy(asked) : shown["why"].get<std::string>();
    if (!explanation.isBound || !why.empty()) {
        shown = {{"verdict", "not policy"}, {"why", why}, {"nodes", json::array()}};
    } else if (explanation.decider() != nullptr) {
        deciderShow(*explanation.decider(), shown);
    }
    shown["notes"] = std::move(notes);
    return shown;
}

} // namespace host
