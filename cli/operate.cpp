// Single changes over the command socket. Each multi-set operation cleans up after itself: `undoing`
// runs a clean-up when the body throws a refusal and passes the refusal on.
#include "cli/operate.h"

#include <algorithm>
#include <functional>

#include "cli/errors.h"
#include "client/result_text.h"

namespace cli {

namespace {

using client::Bytes;

std::string nodePlace(const std::string &list, uint32_t index) { return "node " + list + "/" + std::to_string(index); }

void set(Daemon &daemon, uint16_t command, const Bytes &key, uint32_t field, uint32_t value,
         const std::string &what) {
    must(client::numberSet(daemon.command(), command, key, field, value), what);
}

void setBytes(Daemon &daemon, uint16_t command, const Bytes &key, uint32_t field, const Bytes &value,
              const std::string &what) {
    must(client::bytesSet(daemon.command(), command, key, field, value), what);
}

Bytes bytesOf(const std::string &text) { return Bytes(text.begin(), text.end()); }

uint32_t versionCode(int ipVersion) {
    return ipVersion == 4 ? PBR_IP_VERSION_4 : ipVersion == 6 ? PBR_IP_VERSION_6 : 0;
}

template <typename Body, typename CleanUp> void undoing(Body body, CleanUp cleanUp) {
    try {
        body();
    } catch (const Refused &refusal) {
        try {
            cleanUp();
        } catch (const Refused &second) {
            throw Refused(std::string(refusal.what()) + "\nand what was done before could not be undone: " +
                          second.what());
        }
        throw;
    }
}

void timeRangeUnbind(Daemon &daemon, const std::string &list, uint32_t index) {
    const Bytes key = client::keyOfNode(list, index);
    uint32_t id = PBR_TIME_RANGE_NONE;
    const client::CommandStatus status =
        client::numberGet(daemon.command(), PBR_CMD_NODE_GET, key, PBR_NODE_TIME_RANGE_ID, id);
    if (status.ok() && id != PBR_TIME_RANGE_NONE) {
        set(daemon, PBR_CMD_NODE_SET, key, PBR_NODE_TIME_RANGE_ID, PBR_TIME_RANGE_NONE,
            nodePlace(list, index) + ": release time range " + std::to_string(id));
    }
}

// Sets that are sent without waiting between them: a refused one does not stop those behind it.
struct Batch {
    std::vector<client::CommandRequest> requests;
    std::vector<std::string> whats; // for the text of a refusal

    void set(uint16_t command, const Bytes &key, uint32_t field, uint32_t value, const std::string &what) {
        requests.push_back({command, COMMAND_VALUE_NUMBER, field, value, key, {}});
        whats.push_back(what);
    }
    void setBytes(uint16_t command, const Bytes &key, uint32_t field, const Bytes &value, const std::string &what) {
        requests.push_back({command, COMMAND_VALUE_BYTES, field, static_cast<uint32_t>(value.size()), key, value});
        whats.push_back(what);
    }
};

// Result: each set's answer. Throws NoDaemon.
std::vector<client::CommandAnswer> batchSend(Daemon &daemon, const Batch &batch) {
    std::vector<client::CommandAnswer> answers;
    if (!batch.requests.empty()) {
        must(client::commandCallMany(daemon.command(), batch.requests, answers), batch.whats.front());
    }
    return answers;
}

void mustBeDone(const client::CommandAnswer &answer, const std::string &what) {
    if (answer.result != PBR_OK) {
        must({client::COMMAND_REFUSED, answer.result, client::resultDescribe(answer.result)}, what);
    }
}

// Throws the first refusal of a batch, when all have been answered.
void batchDo(Daemon &daemon, const Batch &batch) {
    const std::vector<client::CommandAnswer> answers = batchSend(daemon, batch);
    for (size_t i = 0; i < answers.size(); i++) {
        mustBeDone(answers[i], batch.whats[i]);
    }
}

void nodeFieldsSet(Batch &batch, const std::string &list, const Node &node) {
    const Bytes key = client::keyOfNode(list, node.index);
    const std::string place = nodePlace(list, node.index);
    const auto give = [&](uint32_t field, uint32_t value, const std::string &what) {
        if (value != 0) {
            batch.set(PBR_CMD_NODE_SET, key, field, value, place + ": " + what + " " + std::to_string(value));
        }
    };
    give(PBR_NODE_IP_VERSION, versionCode(node.ipVersion), "IP version code");
    give(PBR_NODE_MATCH_VALUE1, node.matchValue1, "match value 1");
    give(PBR_NODE_MATCH_VALUE2, node.matchValue2, "match value 2");
    give(PBR_NODE_ACL_NUM, node.acl, "acl");
    give(PBR_NODE_VRF_ID, node.vrf, "vrf");
    give(PBR_NODE_IP_PRI, node.priority, "priority");
    give(PBR_NODE_OUT_IF_UNIT, node.outIfUnit, "out interface unit");
    give(PBR_NODE_FIELD7, node.field7, "field 7");
    give(PBR_NODE_FORWARD_FLAG, node.forwardFlag, "forward flag");
    give(PBR_NODE_IS_ECMP, node.ecmp, "ecmp");
}

std::string nextHopPlace(const std::string &list, uint32_t nodeIndex, const NextHop &nextHop) {
    return nodePlace(list, nodeIndex) + ": next hop " + nextHopText(nextHop) + " (number " +
           std::to_string(nextHop.index) + ")";
}

void nextHopFieldsSet(Batch &batch, const Bytes &key, const NextHop &nextHop, const std::string &what) {
    const std::pair<uint32_t, Bytes> fields[] = {{PBR_NEXT_HOP_ADDRESS, nextHop.address},
                                                 {PBR_NEXT_HOP_NQA_ADMIN_NAME, bytesOf(nextHop.probeAdmin)},
                                                 {PBR_NEXT_HOP_NQA_TEST_NAME, bytesOf(nextHop.probeTest)}};
    for (const auto &[field, value] : fields) {
        if (!value.empty()) {
            batch.setBytes(PBR_CMD_NEXT_HOP_SET, key, field, value, what);
        }
    }
    if (nextHop.active) {
        batch.set(PBR_CMD_NEXT_HOP_SET, key, PBR_NEXT_HOP_STATUS, PBR_ROW_ACTIVE, what + ": activate");
    }
}

// One field of a change, with the way back.
struct FieldChange {
    uint32_t field;
    uint32_t value;
    std::string what;
    std::vector<std::pair<uint32_t, uint32_t>> back; // (field, value) sets that undo it
};

uint32_t timeRangeCode(const std::optional<uint32_t> &timeRange) { return timeRange.value_or(PBR_TIME_RANGE_NONE); }

void versionChanges(const Node &before, const Node &after, std::vector<FieldChange> &changes) {
    if (before.ipVersion == after.ipVersion) {
        return;
    }
    if (before.ipVersion != 0) {
        // Refused by the daemon; its answer tells the operator.
        changes.push_back({PBR_NODE_IP_VERSION, versionCode(after.ipVersion), "IP version", {}});
        return;
    }
    // The daemon checks the new version against the ACL that the node still has.
    if (before.acl != 0 && before.acl != after.acl) {
        changes.push_back({PBR_NODE_ACL_NUM, 0, "acl none", {{PBR_NODE_ACL_NUM, before.acl}}});
    }
    // A version cannot be set back; clearing with 0 makes it unset, keeps next hops and drops the VRF.
    changes.push_back({PBR_NODE_IP_VERSION, versionCode(after.ipVersion), "IP version",
                       {{PBR_NODE_CLEAR, 0}, {PBR_NODE_VRF_ID, before.vrf}}});
}

std::vector<FieldChange> nodeChanges(const Node &before, const Node &after) {
    std::vector<FieldChange> changes;
    versionChanges(before, after, changes);
    const bool aclTakenOff = !changes.empty() && changes.front().field == PBR_NODE_ACL_NUM;
    const auto differ = [&changes](uint32_t field, uint32_t was, uint32_t becomes, const char *pWhat) {
        if (was != becomes) {
            changes.push_back({field, becomes, std::string(pWhat) + " " + std::to_string(becomes), {{field, was}}});
        }
    };
    // An ACL that the node has already would be refused as used.
    differ(PBR_NODE_ACL_NUM, aclTakenOff ? 0 : before.acl, after.acl, "acl");
    differ(PBR_NODE_VRF_ID, before.vrf, after.vrf, "vrf");
    differ(PBR_NODE_IP_PRI, before.priority, after.priority, "priority");
    differ(PBR_NODE_OUT_IF_UNIT, before.outIfUnit, after.outIfUnit, "out interface unit");
    differ(PBR_NODE_IS_ECMP, before.ecmp, after.ecmp, "ecmp");
    if (before.timeRange != after.timeRange) {
        if (before.timeRange) {
            changes.push_back({PBR_NODE_TIME_RANGE_ID, PBR_TIME_RANGE_NONE, "time-range none",
                               {{PBR_NODE_TIME_RANGE_ID, *before.timeRange}}});
        }
        if (after.timeRange) {
            changes.push_back({PBR_NODE_TIME_RANGE_ID, *after.timeRange,
                               "time-range " + std::to_string(*after.timeRange),
                               {{PBR_NODE_TIME_RANGE_ID, timeRangeCode(std::nullopt)}}});
        }
    }
    return changes;
}

nlohmann::json rulesJson(const AclRules &rules) {
    nlohmann::json texts = nlohmann::json::object();
    for (const auto &[number, rule] : rules) {
        texts[std::to_string(number)] = rule.text;
    }
    return texts;
}

nlohmann::json aclRequest(uint32_t acl, const AclRules &rules) { return {{"acl", acl}, {"rules", rulesJson(rules)}}; }

} // namespace

void listMake(Daemon &daemon, const std::string &name, bool active) {
    const Bytes key = client::keyOfList(name);
    const std::string what = "list " + name;
    set(daemon, PBR_CMD_LIST_SET, key, PBR_LIST_STATUS, PBR_ROW_CREATED, what + ": create");
    if (!active) {
        return;
    }
    undoing([&] { set(daemon, PBR_CMD_LIST_SET, key, PBR_LIST_STATUS, PBR_ROW_ACTIVE, what + ": activate"); },
            [&] { listRemove(daemon, name); });
}

void listRemove(Daemon &daemon, const std::string &name) {
    std::vector<client::NodePlace> nodes;
    must(client::nodesWalk(daemon.command(), nodes), "list " + name + ": read its nodes");
    for (const client::NodePlace &node : nodes) {
        if (node.list == name) {
            timeRangeUnbind(daemon, name, node.nodeIndex);
        }
    }
    set(daemon, PBR_CMD_LIST_SET, client::keyOfList(name), PBR_LIST_STATUS, PBR_ROW_DESTROY,
        "list " + name + ": remove");
}

namespace {

// All of a node that was created.
void nodeFill(Batch &batch, const std::string &list, const Node &node) {
    const Bytes key = client::keyOfNode(list, node.index);
    const std::string place = nodePlace(list, node.index);
    nodeFieldsSet(batch, list, node);
    for (const NextHop &nextHop : node.nextHops) {
        const Bytes hopKey = client::keyOfNode(list, node.index, nextHop.index);
        const std::string what = nextHopPlace(list, node.index, nextHop);
        batch.set(PBR_CMD_NEXT_HOP_SET, hopKey, PBR_NEXT_HOP_STATUS, PBR_ROW_CREATED, what);
        nextHopFieldsSet(batch, hopKey, nextHop, what);
    }
    if (node.active) {
        batch.set(PBR_CMD_NODE_SET, key, PBR_NODE_STATUS, PBR_ROW_ACTIVE, place + ": activate");
    }
    if (node.timeRange) {
        batch.set(PBR_CMD_NODE_SET, key, PBR_NODE_TIME_RANGE_ID, *node.timeRange,
                  place + ": time-range " + std::to_string(*node.timeRange));
    }
}

// Nodes to be made, one after the other or together.
struct NodeWanted {
    const std::string &list;
    const Node &node;
};

// First all are created, then those are filled that were: a node that is another's already is not touched. Throws the first
// refusal; at: which node it was.
void nodesMake(Daemon &daemon, const std::vector<NodeWanted> &wanted, size_t &at) {
    Batch creates, fills;
    std::vector<size_t> owners; // of the fills
    for (const auto &[list, node] : wanted) {
        creates.set(PBR_CMD_NODE_SET, client::keyOfNode(list, node.index), PBR_NODE_STATUS, PBR_ROW_CREATED,
                    nodePlace(list, node.index) + ": create");
    }
    const std::vector<client::CommandAnswer> created = batchSend(daemon, creates);
    const auto isDone = [](const client::CommandAnswer &answer) { return answer.result == PBR_OK; };
    const auto firstBad = std::find_if_not(created.begin(), created.end(), isDone);
    for (size_t i = 0; i < static_cast<size_t>(firstBad - created.begin()); i++) {
        nodeFill(fills, wanted[i].list, wanted[i].node);
        owners.resize(fills.requests.size(), i);
    }
    undoing(
        [&] {
            const std::vector<client::CommandAnswer> filled = batchSend(daemon, fills);
            for (size_t i = 0; i < filled.size(); i++) {
                at = owners[i];
                mustBeDone(filled[i], fills.whats[i]);
            }
            if (firstBad != created.end()) {
                at = static_cast<size_t>(firstBad - created.begin());
                mustBeDone(*firstBad, creates.whats[at]);
            }
        },
        [&] {
            for (size_t i = wanted.size(); i-- > at;) {
                if (isDone(created[i])) {
                    nodeRemove(daemon, wanted[i].list, wanted[i].node.index);
                }
            }
        });
}

} // namespace

void nodeMake(Daemon &daemon, const std::string &list, const Node &node) {
    size_t at = 0;
    nodesMake(daemon, {{list, node}}, at);
}

void nodeRemove(Daemon &daemon, const std::string &list, uint32_t index) {
    timeRangeUnbind(daemon, list, index);
    set(daemon, PBR_CMD_NODE_SET, client::keyOfNode(list, index), PBR_NODE_STATUS, PBR_ROW_DESTROY,
        nodePlace(list, index) + ": remove");
}

void nodeClear(Daemon &daemon, const std::string &list, uint32_t index) {
    set(daemon, PBR_CMD_NODE_SET, client::keyOfNode(list, index), PBR_NODE_CLEAR, 1,
        nodePlace(list, index) + ": clear");
}

void nodeChange(Daemon &daemon, const std::string &list, const Node &before, const Node &after) {
    const Bytes key = client::keyOfNode(list, before.index);
    const std::string place = nodePlace(list, before.index);
    std::vector<FieldChange> done;
    undoing(
        [&] {
            for (const FieldChange &change : nodeChanges(before, after)) {
                set(daemon, PBR_CMD_NODE_SET, key, change.field, change.value, place + ": " + change.what);
                done.push_back(change);
            }
        },
        [&] {
            for (auto change = done.rbegin(); change != done.rend(); ++change) {
                for (const auto &[field, value] : change->back) {
                    set(daemon, PBR_CMD_NODE_SET, key, field, value, place + ": " + change->what);
                }
            }
        });
}

void nextHopMake(Daemon &daemon, const std::string &list, uint32_t nodeIndex, const NextHop &nextHop) {
    const Bytes key = client::keyOfNode(list, nodeIndex, nextHop.index);
    const std::string what = nextHopPlace(list, nodeIndex, nextHop);
    set(daemon, PBR_CMD_NEXT_HOP_SET, key, PBR_NEXT_HOP_STATUS, PBR_ROW_CREATED, what);
    Batch batch;
    nextHopFieldsSet(batch, key, nextHop, what);
    if (!batch.requests.empty()) {
        undoing([&] { batchDo(daemon, batch); }, [&] { nextHopRemove(daemon, list, nodeIndex, nextHop.index); });
    }
}

void nextHopRemove(Daemon &daemon, const std::string &list, uint32_t nodeIndex, uint8_t index) {
    set(daemon, PBR_CMD_NEXT_HOP_SET, client::keyOfNode(list, nodeIndex, index), PBR_NEXT_HOP_STATUS,
        PBR_ROW_DESTROY, nodePlace(list, nodeIndex) + ": remove next hop " + std::to_string(index));
}

void bindMake(Daemon &daemon, uint32_t unit, const std::string &interface, const std::string &list) {
    const Bytes key = client::keyOfInterface(unit);
    const std::string what = "interface " + interface + ": bind list " + list;
    Bytes before;
    const client::CommandStatus had =
        client::bytesGet(daemon.command(), PBR_CMD_IF_GET, key, PBR_IF_PBR_NAME, before);
    if (had.outcome == client::COMMAND_NO_DAEMON) {
        must(had, what);
    }
    set(daemon, PBR_CMD_IF_SET, key, PBR_IF_STATUS, PBR_IF_CREATE, what);
    undoing([&] { setBytes(daemon, PBR_CMD_IF_SET, key, PBR_IF_PBR_NAME, bytesOf(list), what); },
            [&] {
                if (!had.ok()) {
                    set(daemon, PBR_CMD_IF_SET, key, PBR_IF_STATUS, PBR_IF_DESTROY, what);
                } else if (!before.empty()) {
                    // Still bound: nothing happens. Its old list taken off already: it is bound again.
                    setBytes(daemon, PBR_CMD_IF_SET, key, PBR_IF_PBR_NAME, before, what);
                }
            });
}

void bindRemove(Daemon &daemon, uint32_t unit, const std::string &interface) {
    set(daemon, PBR_CMD_IF_SET, client::keyOfInterface(unit), PBR_IF_STATUS, PBR_IF_DESTROY,
        "interface " + interface + ": unbind");
}

void aclPut(Daemon &daemon, uint32_t acl, const AclRules &rules) {
    (void)daemon.mgmt("acl.replace", aclRequest(acl, rules)); // warnings concern removals only
}

void aclRemove(Daemon &daemon, uint32_t acl) { (void)daemon.mgmt("acl.destroy", {{"acl", acl}}); }

void probesPut(Daemon &daemon, const std::map<std::string, Probe> &probes) {
    nlohmann::json all = nlohmann::json::object();
    for (const auto &[name, probe] : probes) {
        all[name] = probeJson(probe);
    }
    (void)daemon.mgmt("probe.replaceAll", {{"probes", all}});
}

void timeRangesPut(Daemon &daemon, const std::map<uint32_t, Schedule> &ranges) {
    nlohmann::json all = nlohmann::json::object();
    for (const auto &[id, range] : ranges) {
        all[std::to_string(id)] = scheduleJson(range);
    }
    (void)daemon.mgmt("timerange.replaceAll", {{"timeRanges", all}});
}

void otherwisePut(Daemon &daemon, const std::set<NodePlace> &drops) {
    nlohmann::json rows = nlohmann::json::array();
    for (const auto &[list, node] : drops) {
        rows.push_back({{"list", list}, {"node", node}});
    }
    (void)daemon.mgmt("otherwise.replaceAll", {{"drop", rows}});
}

void otherwiseSet(Daemon &daemon, const NodePlace &place, bool isDrop) {
    (void)daemon.mgmt("otherwise.set",
                      {{"list", place.first}, {"node", place.second}, {"otherwise", isDrop ? "drop" : "normal"}});
}

void stepDo(Daemon &daemon, const Step &step) {
    const Binding &binding = step.binding;
    switch (step.kind) {
    case StepKind::ProbesPut: return probesPut(daemon, step.probes);
    case StepKind::RangesPut: return timeRangesPut(daemon, step.ranges);
    case StepKind::OtherwisePut: return otherwisePut(daemon, step.drops);
    case StepKind::AclPut: return aclPut(daemon, step.acl, step.rules);
    case StepKind::AclRemove: return aclRemove(daemon, step.acl);
    case StepKind::Unbind: return bindRemove(daemon, binding.unit, binding.interface);
    case StepKind::Bind:
    case StepKind::Rebind: return bindMake(daemon, binding.unit, binding.interface, binding.list);
    case StepKind::NodeRemove: return nodeRemove(daemon, step.list, step.node.index);
    case StepKind::NodeMake: return nodeMake(daemon, step.list, step.node);
    case StepKind::ListRemove: return listRemove(daemon, step.list);
    case StepKind::ListMake: return listMake(daemon, step.list, step.listActive);
    }
}

namespace {

constexpr size_t TOGETHER_MOST = 64;

// Those that were done behind a refused one are undone.
void aclsPut(Daemon &daemon, const std::vector<Step> &steps, size_t from, size_t count, size_t &at) {
    std::vector<nlohmann::json> requests;
    for (size_t i = from; i < from + count; i++) {
        requests.push_back(aclRequest(steps[i].acl, steps[i].rules));
    }
    const std::vector<nlohmann::json> answers = daemon.mgmtMany("acl.replace", std::move(requests));
    undoing(
        [&] {
            for (at = from; at < from + count; at++) {
                Daemon::mgmtMustBeOk(answers[at - from]); // warnings concern removals only
            }
        },
        [&] {
            for (size_t i = from + count - 1; i > at; i--) {
                if (answers[i - from]["ok"].get<bool>()) {
                    stepDo(daemon, stepUndo(steps[i]));
                }
            }
        });
}

} // namespace

size_t stepsTogether(const std::vector<Step> &steps, size_t from) {
    const StepKind kind = steps[from].kind;
    if (kind != StepKind::NodeMake && kind != StepKind::AclPut) {
        return 1;
    }
    size_t count = 1;
    while (count < TOGETHER_MOST && from + count < steps.size() && steps[from + count].kind == kind) {
        count++;
    }
    return count;
}

void stepsDo(Daemon &daemon, const std::vector<Step> &steps, size_t from, size_t count, size_t &at) {
    at = from;
    if (steps[from].kind == StepKind::AclPut) {
        return aclsPut(daemon, steps, from, count, at);
    }
    if (steps[from].kind != StepKind::NodeMake) {
        return stepDo(daemon, steps[from]);
    }
    std::vector<NodeWanted> nodes;
    for (size_t i = from; i < from + count; i++) {
        nodes.push_back({steps[i].list, steps[i].node});
    }
    size_t refused = 0;
    try {
        nodesMake(daemon, nodes, refused);
    } catch (...) {
        at = from + refused;
        throw;
    }
}

} // namespace cli
