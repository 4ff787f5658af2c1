// Joins the policy with the peers and the device's entries, and gives the reasons.
#include "cli/show_rows.h"

#include <algorithm>

#include "cli/numbers.h"

namespace cli {

namespace {

using nlohmann::json;

struct DeviceView {
    bool known = false;
    // (list, node) -> its entries, one for each interface
    std::map<std::pair<std::string, uint32_t>, std::vector<json>> entries;
};

DeviceView deviceView(const json &device) {
    DeviceView view;
    view.known = device.is_object() && device.contains("entries");
    if (view.known) {
        for (const auto &entry : device["entries"]) {
            if (entry.contains("list") && entry.contains("node")) {
                view.entries[{entry["list"].get<std::string>(), entry["node"].get<uint32_t>()}].push_back(entry);
            }
        }
    }
    return view;
}

// An entry for which the device has nothing to do: not an entry for the operator's count.
bool isIdle(const json &entry) {
    const std::string action = entry.value("action", "");
    return action == "absent" || action == "inert";
}

const json *peerOf(const json &peers, const std::string &address, uint32_t vrf) {
    if (peers.is_array()) {
        for (const auto &peer : peers) {
            const auto bytes = addressRead(peer.value("address", ""));
            if (bytes && addressWrite(*bytes) == address && peer.value("vrf", 0u) == vrf) {
                return &peer;
            }
        }
    }
    return nullptr;
}

bool usesAddress(const json &entry, const std::string &address) {
    if (entry.value("action", "") != "next-hops" || !entry.contains("nextHops")) {
        return false;
    }
    return std::any_of(entry["nextHops"].begin(), entry["nextHops"].end(), [&address](const json &each) {
        const auto bytes = each.is_string() ? addressRead(each.get<std::string>()) : std::nullopt;
        return bytes && addressWrite(*bytes) == address;
    });
}

std::string probeText(const NextHop &nextHop) {
    const bool has = !nextHop.probeAdmin.empty() || !nextHop.probeTest.empty();
    return has ? nextHop.probeAdmin + "/" + nextHop.probeTest : "";
}

bool hasProbe(const NextHop &nextHop) { return !nextHop.probeAdmin.empty() && !nextHop.probeTest.empty(); }

// Everything about one next hop that its reason depends on.
struct HopState {
    const Node &node;
    const NextHop &nextHop;
    bool listBound = false;
    const json *pPeer = nullptr;
    std::vector<json> entries; // of its node
    bool deviceKnown = false;
    bool chosen = false;
    bool installed = false;
};

std::string chosenOther(const HopState &state) {
    for (const NextHop &other : state.node.nextHops) {
        const std::string address = addressWrite(other.address);
        for (const auto &entry : state.entries) {
            if (other.index != state.nextHop.index && usesAddress(entry, address)) {
                return address + (other.index < state.nextHop.index ? " comes first" : "");
            }
        }
    }
    return "";
}

std::string deviceError(const HopState &state) {
    for (const auto &entry : state.entries) {
        const std::string error = entry.value("error", "");
        if (!error.empty()) {
            return "device: " + error;
        }
    }
    return "";
}

// Why packets do not go to a next hop that is reachable and of a bound list.
std::string notChosenReason(const HopState &state) {
    const bool absent = std::any_of(state.entries.begin(), state.entries.end(),
                                    [](const json &entry) { return entry.value("action", "") == "absent"; });
    if (absent && state.node.timeRange) {
        return "time range " + std::to_string(*state.node.timeRange) + " is not active";
    }
    const std::string other = chosenOther(state);
    if (other.find("comes first") == std::string::npos && hasProbe(state.nextHop) && state.node.ecmp == 0) {
        return "probe " + probeText(state.nextHop) + " is not passing";
    }
    if (!other.empty()) {
        return "another next hop is preferred: " + other;
    }
    const std::string error = deviceError(state);
    return error.empty() ? "not taken over yet" : error;
}

std::string whyNot(const HopState &state) {
    if (state.chosen && state.installed) {
        return "";
    }
    if (!state.listBound) {
        return "the list is not bound to an interface";
    }
    if (state.node.acl == 0) {
        return "the node has no ACL";
    }
    if (state.node.forwardFlag == 2) {
        return "forward flag 2: the node is not programmed";
    }
    if (state.nextHop.address.empty()) {
        return "it has no address";
    }
    const std::string peerState = state.pPeer == nullptr ? "" : state.pPeer->value("state", "");
    const std::string peerReason = state.pPeer == nullptr ? "" : state.pPeer->value("reason", "");
    if (peerState == "down") {
        return "unreachable" + (peerReason.empty() ? "" : ": " + peerReason);
    }
    if (peerState == "unknown") {
        return "not resolved yet" + (peerReason.empty() ? "" : ": " + peerReason);
    }
    if (!state.deviceKnown) {
        return "";
    }
    if (!state.chosen) {
        return notChosenReason(state);
    }
    const std::string error = deviceError(state);
    return error.empty() ? "not in the device yet" : error;
}

// What happens to the packets of the node while no next hop is usable; "drop (now)" while that is so.
std::string otherwiseText(const HopState &state, bool isDrop) {
    const bool isNow = std::any_of(state.entries.begin(), state.entries.end(),
                                   [](const json &entry) { return entry.value("dropping", false); });
    return isDrop ? (isNow ? "drop (now)" : "drop") : "normal";
}

json hopRow(const std::string &list, const HopState &state, bool isDrop) {
    const json *pPeer = state.pPeer;
    return {{"list", list},
            {"node", state.node.index},
            {"index", state.nextHop.index},
            {"address", addressWrite(state.nextHop.address)},
            {"vrf", state.node.vrf},
            {"probe", probeText(state.nextHop)},
            {"reachable", pPeer == nullptr ? json() : json(pPeer->value("state", "unknown"))},
            {"chosen", state.deviceKnown ? json(state.chosen) : json()},
            {"installed", state.deviceKnown ? json(state.installed) : json()},
            {"why", whyNot(state)},
            {"otherwise", otherwiseText(state, isDrop)},
            {"interface", pPeer == nullptr ? "" : pPeer->value("interface", "")},
            {"lladdr", pPeer == nullptr ? "" : pPeer->value("lladdr", "")}};
}

void entriesJoin(HopState &state, const DeviceView &view, const std::string &list) {
    state.deviceKnown = view.known;
    const auto found = view.entries.find({list, state.node.index});
    if (found == view.entries.end()) {
        return;
    }
    state.entries = found->second;
    const std::string address = addressWrite(state.nextHop.address);
    bool all = true;
    for (const auto &entry : state.entries) {
        if (usesAddress(entry, address)) {
            state.chosen = true;
            all = all && entry.value("installed", false);
        }
    }
    state.installed = state.chosen && all;
}

json hopJson(const NextHop &nextHop) {
    return {{"index", nextHop.index},
            {"address", addressWrite(nextHop.address)},
            {"probe", probeText(nextHop)},
            {"active", nextHop.active}};
}

json nodeJson(const Node &node, bool isDrop) {
    json nextHops = json::array();
    for (const NextHop &nextHop : node.nextHops) {
        nextHops.push_back(hopJson(nextHop));
    }
    return {{"node", node.index},
            {"state", node.active ? "active" : "not activated"},
            {"acl", node.acl},
            {"ipVersion", node.ipVersion},
            {"priority", node.priority},
            {"outInterface", node.outIfName},
            {"outIfUnit", node.outIfUnit},
            {"ecmp", node.ecmp != 0},
            {"vrf", node.vrf},
            {"timeRange", node.timeRange ? json(*node.timeRange) : json()},
            {"nextHops", nextHops},
            {"match", nodeMatchText(node)},
            {"otherwise", isDrop ? "drop" : "normal"},
            {"action", nodeActionText(node) + (isDrop ? ", otherwise drop" : "")}};
}

} // namespace

json listRows(const Running &running) {
    json rows = json::array();
    for (const auto &[name, list] : running.policy.lists) {
        json nodes = json::array();
        for (const auto &[index, node] : list.nodes) {
            nodes.push_back(nodeJson(node, running.policy.otherwiseDrop.count({name, index}) != 0));
        }
        rows.push_back({{"list", name},
                        {"state", list.active ? "active" : "not activated"},
                        {"interfaces", boundTo(running.policy, name)},
                        {"nodes", nodes},
                        {"warnings", listWarnings(list)}});
    }
    return rows;
}

json bindingRows(const Running &running, const Surroundings &around) {
    const DeviceView view = deviceView(around.device);
    json rows = json::array();
    for (const Binding &binding : running.policy.bindings) {
        size_t entries = 0, installed = 0;
        std::string error;
        for (const auto &[place, nodeEntries] : view.entries) {
            for (const auto &entry : nodeEntries) {
                if (entry.value("ifUnit", 0u) != binding.unit) {
                    continue;
                }
                entries += isIdle(entry) ? 0 : 1;
                installed += !isIdle(entry) && entry.value("installed", false) ? 1 : 0;
                error = error.empty() ? entry.value("error", "") : error;
            }
        }
        const auto up = running.interfaces.up.find(binding.unit);
        const auto list = running.policy.lists.find(binding.list);
        const size_t nodes = list == running.policy.lists.end() ? 0 : list->second.nodes.size();
        rows.push_back({{"interface", binding.interface},
                        {"unit", binding.unit},
                        {"up", up == running.interfaces.up.end() ? json() : json(up->second)},
                        {"list", binding.list},
                        {"nodes", nodes},
                        {"entries", view.known ? json(entries) : json()},
                        {"installed", view.known ? json(installed) : json()},
                        {"error", error}});
    }
    return rows;
}

json nextHopRows(const Running &running, const Surroundings &around) {
    const DeviceView view = deviceView(around.device);
    json rows = json::array();
    for (const auto &[name, list] : running.policy.lists) {
        const bool bound = !boundTo(running.policy, name).empty();
        for (const auto &[index, node] : list.nodes) {
            for (const NextHop &nextHop : node.nextHops) {
                HopState state{node, nextHop, bound, nullptr, {}, false, false, false};
                state.pPeer = peerOf(around.peers, addressWrite(nextHop.address), node.vrf);
                entriesJoin(state, view, name);
                rows.push_back(hopRow(name, state, running.policy.otherwiseDrop.count({name, index}) != 0));
            }
        }
    }
    return rows;
}

} // namespace cli
