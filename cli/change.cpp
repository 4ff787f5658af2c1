// Checks against the running policy, then one operation.
#include "cli/change.h"

#include <algorithm>
#include <optional>
#include <set>
#include <sstream>

#include "cli/check.h"
#include "cli/errors.h"
#include "cli/numbers.h"
#include "cli/operate.h"
#include "cli/plane_hold.h"
#include "cli/running.h"
#include "cli/vrf_names.h"
#include "core/pbr_types.h"

namespace cli {

namespace {

std::string joined(const std::vector<std::string> &words, const char *pBetween) {
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : pBetween) + word;
    }
    return text;
}

std::string place(const std::string &list, uint32_t index) { return "node " + list + "/" + std::to_string(index); }

const List &listMust(const Running &running, const std::string &name) {
    const auto found = running.policy.lists.find(name);
    if (found == running.policy.lists.end()) {
        throw Refused("list " + name + " does not exist. What to do: pbrctl list add " + name + ".");
    }
    return found->second;
}

// The list, which must not be bound.
const List &freeListMust(const Running &running, const std::string &name) {
    const List &list = listMust(running, name);
    const std::vector<std::string> bound = boundTo(running.policy, name);
    if (!bound.empty()) {
        throw Refused("list " + name + " is bound to " + joined(bound, ", ") +
                      " and cannot be changed meanwhile. What to do: pbrctl unbind " + bound[0] +
                      " first and bind it again afterwards; or use 'pbrctl apply', which does so around the change.");
    }
    return list;
}

// A node made again under the same name begins anew. index: none stands for all of the list.
void otherwiseForget(Daemon &daemon, const Running &running, const std::string &list, std::optional<uint32_t> index) {
    for (const NodePlace &drop : running.policy.otherwiseDrop) {
        if (drop.first == list && (!index || drop.second == *index)) {
            otherwiseSet(daemon, drop, false);
        }
    }
}

const Node &nodeMust(const List &list, uint32_t index) {
    const auto found = list.nodes.find(index);
    if (found == list.nodes.end()) {
        throw Refused(place(list.name, index) + " does not exist. What to do: pbrctl node add " + list.name + " " +
                      std::to_string(index) + ".");
    }
    return found->second;
}

uint32_t unitMust(const Interfaces &interfaces, const std::string &name) {
    const auto unit = interfaces.unitOf(name);
    if (!unit) {
        throw Refused("interface " + name + (interfaces.known ? " does not exist in the daemon's network namespace."
                                                              : ": the daemon does not tell its interfaces.") +
                      " What to do: check the name, or give unit:N.");
    }
    return *unit;
}

void aclOfNodeCheck(const Running &running, const std::string &list, uint32_t index, uint32_t acl) {
    if (acl != 0 && running.aclsKnown && running.policy.acls.count(acl) == 0) {
        throw Refused("acl " + std::to_string(acl) + " does not exist. What to do: pbrctl acl create " +
                      std::to_string(acl) + ", or add its first rule.");
    }
    for (const auto &[otherName, other] : running.policy.lists) {
        for (const auto &[otherIndex, node] : other.nodes) {
            if (acl != 0 && node.acl == acl && !(otherName == list && otherIndex == index)) {
                throw Refused("acl " + std::to_string(acl) + " is already used by " + place(otherName, otherIndex) +
                              ". What to do: an ACL serves one node; make a second ACL with the same rules.");
            }
        }
    }
}

std::optional<uint32_t> timeRangeRead(const std::string &text) {
    if (text == "none") {
        return std::nullopt;
    }
    const auto id = numberRead(text, 1, PBR_TIME_RANGE_NONE - 1);
    if (!id) {
        throw Usage("--time-range " + text + ": give a number 1.." + std::to_string(PBR_TIME_RANGE_NONE - 1) +
                    " or none");
    }
    return static_cast<uint32_t>(*id);
}

// The node as the options make it.
Node changed(Daemon &daemon, const Running &running, const NodeChange &change, Node node) {
    if (change.interface && change.noInterface) {
        throw Usage("give --interface or --no-interface");
    }
    if (change.priority && (*change.priority > MAX_PRIORITY || *change.priority == PRIORITY_NONE)) {
        throw Usage("--priority: 1..15 without 9, which the daemon takes as 'no priority'; 0 for unchanged");
    }
    node.index = change.index;
    node.acl = change.acl.value_or(node.acl);
    node.priority = change.priority.value_or(node.priority);
    node.vrf = change.vrf ? vrfOf(daemon, *change.vrf) : node.vrf;
    if (change.ecmp) {
        node.ecmp = *change.ecmp ? 1 : 0;
    }
    if (change.timeRange) {
        node.timeRange = timeRangeRead(*change.timeRange);
    }
    if (change.interface) {
        node.outIfUnit = unitMust(running.interfaces, *change.interface);
    } else if (change.noInterface) {
        node.outIfUnit = 0;
    }
    // An ACL whose number tells the version sets it, unless the node has one.
    if (change.ipVersion) {
        node.ipVersion = *change.ipVersion;
    } else if (node.ipVersion == 0) {
        node.ipVersion = aclVersionOf(node.acl).value_or(0);
    }
    return node;
}

void listName(const std::string &name) {
    if (name.empty() || name.size() > MAX_LIST_NAME) {
        throw Refused("list '" + name + "': a name has 1 to 16 bytes, this one has " + std::to_string(name.size()) +
                      ".");
    }
    // A policy file and LIST/NODE could not name it.
    if (std::any_of(name.begin(), name.end(), [](unsigned char c) { return c < 0x21 || c == 0x7f || c == '/'; })) {
        throw Refused("list '" + name + "': a name has no spaces, slashes or control characters.");
    }
}

NextHop probeOf(const std::string &text) {
    NextHop nextHop;
    const size_t slash = text.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == text.size() || slash > MAX_PROBE_NAME ||
        text.size() - slash - 1 > MAX_PROBE_NAME) {
        throw Usage("--probe " + text + ": give ADMINISTRATOR/TEST, each of 1 to 32 bytes");
    }
    nextHop.probeAdmin = text.substr(0, slash);
    nextHop.probeTest = text.substr(slash + 1);
    return nextHop;
}

uint8_t nextFreeIndex(const Node &node) {
    const uint32_t last = node.nextHops.empty() ? 0 : node.nextHops.back().index;
    if (last == UINT8_MAX) {
        throw Refused("the node's last next hop has number 255. What to do: give --index.");
    }
    return static_cast<uint8_t>(last + 1);
}

void nextHopCheck(const Node &node, const std::string &where, const NextHop &nextHop) {
    const int version = nextHop.address.size() == 4 ? 4 : 6;
    if (node.ipVersion == 0) {
        throw Refused(where + " has no IP version yet. What to do: pbrctl node set with --acl or --ip-version " +
                      std::to_string(version) + " first.");
    }
    if (node.ipVersion != version) {
        throw Refused(where + " is of IPv" + std::to_string(node.ipVersion) + ", the next hop of IPv" +
                      std::to_string(version) + ". What to do: make a node of its own with an IPv" +
                      std::to_string(version) + " ACL.");
    }
    if (node.nextHops.size() >= MAX_NEXT_HOPS) {
        throw Refused(where + " has four next hops, more are not taken. What to do: remove one first.");
    }
    for (const NextHop &other : node.nextHops) {
        if (other.index == nextHop.index || other.address == nextHop.address) {
            throw Refused(where + " has next hop " + std::to_string(other.index) + " already: " + nextHopText(other) +
                          ".");
        }
    }
}

// What the daemon would refuse with one code for all: the nodes of a list to bind.
void bindableCheck(const List &list) {
    for (const auto &[index, node] : list.nodes) {
        if (node.acl == 0 && node.matchValue1 == 0 && node.matchValue2 == 0) {
            throw Refused(place(list.name, index) + " has no ACL, so list " + list.name +
                          " cannot be bound. What to do: pbrctl node set " + list.name + " " +
                          std::to_string(index) + " --acl N.");
        }
        if (node.nextHops.empty() && node.outIfUnit == 0 && node.priority == 0) {
            throw Refused(place(list.name, index) + " has no action, so list " + list.name +
                          " cannot be bound. What to do: add a next hop, or set --interface or --priority.");
        }
    }
}

void warn(const List &list, std::ostream &err) {
    for (const std::string &warning : listWarnings(list)) {
        err << "warning: " << warning << "\n";
    }
}

// What the device says of the entries on an interface: a binding stands whatever it says, but who binds must
// not believe that something is installed when it is not.
void installedCheck(Daemon &daemon, uint32_t unit, const std::string &interface) {
    const auto device = daemon.mgmtIfThere("device.show");
    if (!device || !device->contains("entries")) {
        return;
    }
    std::string refused;
    for (const auto &entry : device->at("entries")) {
        const std::string error = entry.value("error", "");
        if (entry.value("ifUnit", 0U) == unit && !error.empty()) {
            refused += "\n  " + place(entry.value("list", ""), entry.value("node", 0U)) + ": " + error;
        }
    }
    if (!refused.empty()) {
        throw Refused("interface " + interface + " is bound, but its device does not take:" + refused +
                      "\nWhat to do: change these nodes, or pbrctl unbind " + interface + ".");
    }
}

// The bound lists with a node that uses the ACL.
std::set<std::string> listsOfAcl(Daemon &daemon, uint32_t acl) {
    std::set<std::string> lists;
    const auto device = daemon.mgmtIfThere("device.show");
    for (const auto &entry : device ? device->value("entries", nlohmann::json::array()) : nlohmann::json::array()) {
        if (entry.value("acl", 0U) == acl) {
            lists.insert(entry.value("list", ""));
        }
    }
    return lists;
}

std::string refusalText(const std::vector<PlaneError> &errors) {
    std::string text;
    for (const auto &[list, node, error] : errors) {
        text += (text.empty() ? "" : "; ") + (list.empty() ? error : place(list, node) + ": " + error);
    }
    return text;
}

// The rule as it is; none when there is none.
std::optional<std::string> ruleText(Daemon &daemon, uint32_t acl, uint32_t rule, bool &isAclThere) {
    isAclThere = false;
    nlohmann::json answer;
    try {
        answer = daemon.mgmt("acl.show", {{"acl", acl}});
    } catch (const Refused &) {
        return std::nullopt; // there is no such ACL
    }
    for (const auto &each : answer.value("acls", nlohmann::json::array())) {
        if (each.value("acl", 0U) != acl) {
            continue;
        }
        isAclThere = true;
        for (const auto &held : each.value("rules", nlohmann::json::array())) {
            if (held.value("rule", 0U) == rule) {
                return held.value("text", "");
            }
        }
    }
    return std::nullopt;
}

} // namespace

void changeAclCreate(Daemon &daemon, uint32_t acl) {
    if (!daemon.mgmt("acl.create", {{"acl", acl}}).value("created", true)) {
        throw Refused("acl " + std::to_string(acl) + " exists already.");
    }
}

void changeAclDestroy(Daemon &daemon, uint32_t acl) {
    const Running running = runningRead(daemon);
    for (const auto &[name, list] : running.policy.lists) {
        for (const auto &[index, node] : list.nodes) {
            if (node.acl == acl && acl != 0) {
                throw Refused("acl " + std::to_string(acl) + " is used by " + place(name, index) +
                              ". What to do: remove the node, or give it another ACL, first.");
            }
        }
    }
    aclRemove(daemon, acl);
}

// The lists that use the ACL are held meanwhile: their packets see the rule only when the plane takes it.
void changeAclAdd(Daemon &daemon, uint32_t acl, uint32_t rule, const std::vector<std::string> &words) {
    bool wasAclThere = false;
    const auto before = ruleText(daemon, acl, rule, wasAclThere);
    PlaneHold plane(daemon);
    plane.hold(listsOfAcl(daemon, acl));
    (void)daemon.mgmt("acl.set", {{"acl", acl}, {"rule", rule}, {"text", joined(words, " ")}});
    std::vector<PlaneError> refused = plane.trial();
    refused = refused.empty() ? plane.release() : refused;
    if (refused.empty()) {
        return;
    }
    if (before) {
        (void)daemon.mgmt("acl.set", {{"acl", acl}, {"rule", rule}, {"text", *before}});
    } else {
        (void)daemon.mgmt("acl.del", {{"acl", acl}, {"rule", rule}});
    }
    if (!wasAclThere) {
        (void)daemon.mgmt("acl.destroy", {{"acl", acl}});
    }
    (void)plane.release();
    throw Refused("the forwarding plane does not take it: " + refusalText(refused) + ". Nothing was changed");
}

void changeAclDel(Daemon &daemon, uint32_t acl, uint32_t rule) {
    (void)daemon.mgmt("acl.del", {{"acl", acl}, {"rule", rule}});
}

void changeListAdd(Daemon &daemon, const std::string &name) {
    listName(name);
    const Running running = runningRead(daemon);
    if (running.policy.lists.count(name) != 0) {
        throw Refused("list " + name + " exists already.");
    }
    if (running.policy.lists.size() >= running.limits.maxLists) {
        throw Refused("there are " + std::to_string(running.policy.lists.size()) +
                      " lists, as many as the daemon holds. What to do: remove one, or raise "
                      "policyroute.maxlistnum and restart the daemon.");
    }
    listMake(daemon, name);
}

void changeListDel(Daemon &daemon, const std::string &name) {
    const Running running = runningRead(daemon);
    (void)freeListMust(running, name);
    listRemove(daemon, name);
    otherwiseForget(daemon, running, name, std::nullopt);
}

void changeNodeAdd(Daemon &daemon, const NodeChange &change) {
    const Running running = runningRead(daemon);
    const List &list = freeListMust(running, change.list);
    if (change.index == 0) {
        throw Refused("the number of a node begins with 1.");
    }
    if (list.nodes.count(change.index) != 0) {
        throw Refused(place(change.list, change.index) + " exists already. What to do: pbrctl node set.");
    }
    const Node node = changed(daemon, running, change, Node());
    aclOfNodeCheck(running, change.list, change.index, node.acl);
    nodeMake(daemon, change.list, node);
}

void changeNodeSet(Daemon &daemon, const NodeChange &change) {
    const Running running = runningRead(daemon);
    const Node &before = nodeMust(freeListMust(running, change.list), change.index);
    const Node after = changed(daemon, running, change, before);
    aclOfNodeCheck(running, change.list, change.index, after.acl);
    if (after.outIfUnit != 0 && !before.nextHops.empty()) {
        throw Refused(place(change.list, change.index) + " has next hops, which exclude an out interface. What to "
                      "do: pbrctl node clear " + change.list + " " + std::to_string(change.index) + " first.");
    }
    nodeChange(daemon, change.list, before, after);
}

void changeNodeClear(Daemon &daemon, const std::string &list, uint32_t index) {
    const Running running = runningRead(daemon);
    (void)nodeMust(freeListMust(running, list), index);
    nodeClear(daemon, list, index);
}

void changeNodeDel(Daemon &daemon, const std::string &list, uint32_t index) {
    const Running running = runningRead(daemon);
    (void)nodeMust(freeListMust(running, list), index);
    nodeRemove(daemon, list, index);
    otherwiseForget(daemon, running, list, index);
}

void changeNodeOtherwise(Daemon &daemon, const std::string &list, uint32_t index, const std::string &what) {
    const Running running = runningRead(daemon);
    const Node &node = nodeMust(listMust(running, list), index);
    if (what == "drop" && node.nextHops.empty() && node.outIfUnit == 0) {
        throw Refused(place(list, index) + " has no next hop and no interface, so that nothing of it can become unusable. "
                      "What to do: add them first.");
    }
    otherwiseSet(daemon, {list, index}, what == "drop");
}

void changeNextHopAdd(Daemon &daemon, const NextHopChange &change, std::ostream &err) {
    NextHop nextHop = change.probe ? probeOf(*change.probe) : NextHop();
    const auto address = addressRead(change.address);
    if (!address) {
        throw Usage("'" + change.address + "' is no IPv4 or IPv6 address");
    }
    if (change.index && (*change.index == 0 || *change.index > UINT8_MAX)) {
        throw Usage("--index: 1..255");
    }
    const Running running = runningRead(daemon);
    const List &list = freeListMust(running, change.list);
    const Node &node = nodeMust(list, change.node);
    nextHop.address = *address;
    nextHop.index = change.index ? static_cast<uint8_t>(*change.index) : nextFreeIndex(node);
    nextHopCheck(node, place(change.list, change.node), nextHop);
    nextHopMake(daemon, change.list, change.node, nextHop);
    List after = list;
    after.nodes[change.node].nextHops.push_back(nextHop);
    warn(after, err);
}

void changeNextHopDel(Daemon &daemon, const NextHopChange &change) {
    const Running running = runningRead(daemon);
    const Node &node = nodeMust(freeListMust(running, change.list), change.node);
    const auto address = addressRead(change.address);
    const auto index = numberRead(change.address, 1, UINT8_MAX);
    for (const NextHop &nextHop : node.nextHops) {
        if ((address && nextHop.address == *address) || (index && nextHop.index == *index)) {
            return nextHopRemove(daemon, change.list, change.node, nextHop.index);
        }
    }
    throw Refused(place(change.list, change.node) + " has no next hop " + change.address + ".");
}

void changeBind(Daemon &daemon, const std::string &interface, const std::string &list, std::ostream &err) {
    const Running running = runningRead(daemon);
    const uint32_t unit = unitMust(running.interfaces, interface);
    const List &wanted = listMust(running, list);
    bindableCheck(wanted);
    size_t uses = 0;
    for (const Binding &binding : running.policy.bindings) {
        if (binding.list == list) {
            if (binding.unit == unit) {
                return; // bound already
            }
            uses++;
        }
    }
    if (uses >= MAX_BOUND) {
        throw Refused("list " + list + " is bound to 15 interfaces, more are not taken: its use count has four bits. "
                      "What to do: make a second list, with ACLs of its own, for interface " + interface + ".");
    }
    bindMake(daemon, unit, interface, list);
    warn(wanted, err);
    installedCheck(daemon, unit, interface);
    warningsShow(daemon, err);
}

void changeUnbind(Daemon &daemon, const std::string &interface) {
    const Running running = runningRead(daemon);
    const uint32_t unit = unitMust(running.interfaces, interface);
    std::vector<client::InterfaceRow> rows;
    must(client::interfacesRead(daemon.command(), rows), "read the bindings");
    if (std::none_of(rows.begin(), rows.end(), [unit](const auto &each) { return each.unit == unit; })) {
        throw Refused("interface " + interface + " has no list bound.");
    }
    bindRemove(daemon, unit, interface);
}

void changeDebug(Daemon &daemon, const std::string &what) {
    uint32_t flags = 0;
    std::istringstream words(what);
    for (std::string word; what != "off" && std::getline(words, word, ',');) {
        if (word == "hw") {
            flags |= PBR_DEBUG_HARDWARE;
        } else if (word == "dump") {
            flags |= PBR_DEBUG_DUMP;
        } else if (word == "event") {
            flags |= PBR_DEBUG_GENERAL;
        } else {
            throw Usage("debug set " + what + ": '" + word + "' is none of hw, event, dump, off");
        }
    }
    must(client::numberSet(daemon.command(), PBR_CMD_SCALAR_SET, {}, PBR_SCALAR_DEBUG_FLAGS, flags),
         "debug set " + what);
}

} // namespace cli
