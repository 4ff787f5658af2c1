// The part of the kernel model that makes lists flat: see kernel_model.h. A list is flat in a family when
// every interface that has it asks the same nodes of it and of no other list, and a map comes out of it.
#include <algorithm>
#include <utility>

#include "host/classify/class_plan.h"
#include "host/device/kernel/kernel_flat.h"
#include "host/device/kernel/kernel_map.h"
#include "host/device/kernel/kernel_model.h"

namespace host {

// The nodes that an interface asks, in their order, as they have rules to install.
std::vector<NodeKey> KernelModel::askedNodes(const Interface &interface) const {
    std::vector<NodeKey> nodes;
    for (const auto &[place, count] : interface.nodes) {
        if (nodes_.at(place.second).refused.empty()) {
            nodes.push_back(place.second);
        }
    }
    return nodes;
}

std::vector<NftRule> KernelModel::interfaceRules(const InterfaceKey &key, const Interface &interface) const {
    const std::vector<NodeKey> nodes = askedNodes(interface);
    const bool isWithFlat = !nodes.empty() && isFlat(nodes.front().list, key.first);
    return kernelInterfaceRules(nodes, options_, isWithFlat ? kernelFlatChain(key.first, nodes.front().list) : "");
}

bool KernelModel::isFlat(const std::string &list, int family) const {
    const auto it = flats_.find({list, static_cast<uint8_t>(family)});
    return it != flats_.end() && it->second.isFlat;
}

std::set<KernelModel::InterfaceKey> KernelModel::interfacesOf(const ListKey &key) const {
    std::set<InterfaceKey> found;
    const auto list = lists_.find(key.first);
    if (list != lists_.end()) {
        for (const auto &[entryKey, entry] : list->second.entries) {
            if (entry.families[key.second == 6]) {
                found.insert({key.second, entry.ifName});
            }
        }
    }
    return found;
}

// What the list's interfaces ask; nothing when they do not all ask the same, or ask others too.
std::vector<KernelModel::FlatPlace> KernelModel::flatPlaces(const ListKey &key) const {
    std::vector<NodeKey> nodes;
    bool isFirst = true;
    for (const InterfaceKey &interface : interfacesOf(key)) {
        std::vector<NodeKey> asked = askedNodes(interfaces_.at(interface));
        const bool isOwn = std::all_of(asked.begin(), asked.end(), [&](const NodeKey &node) {
            return node.variant == 0 && node.list == key.first;
        });
        if (!isOwn || (!isFirst && asked != nodes)) {
            return {};
        }
        nodes = std::move(asked);
        isFirst = false;
    }
    std::vector<FlatPlace> places;
    for (NodeKey &node : nodes) {
        const ProgramNode &program = nodes_.at(node).program;
        places.push_back({std::move(node), program.aclNum, program.rules});
    }
    return places;
}

std::vector<KernelFlatNode> KernelModel::flatNodes(const std::vector<FlatPlace> &places) {
    std::vector<KernelFlatNode> nodes;
    for (const FlatPlace &place : places) {
        nodes.push_back({place.node, place.aclNum, {}});
        if (place.rules) {
            nodes.back().rules = programRules(place.aclNum, *place.rules, place.node.family);
        }
    }
    return nodes;
}

ClassPlan KernelModel::flatPlan(const std::vector<KernelFlatNode> &nodes) const {
    if (nodes.empty()) {
        return {};
    }
    ClassLimits limits;
    limits.mapFrom = options_.mapFrom;
    limits.fieldsMost = KERNEL_MAP_FIELDS;
    return classPlan(kernelFlatRules(nodes), nodes.front().key.family, limits);
}

// Other lists on the same interfaces cannot be flat any more, or can be again.
void KernelModel::flatsSet(const std::string &list, const std::set<InterfaceKey> &touched, const std::set<NodeKey> &changed) {
    std::set<ListKey> lists;
    for (const InterfaceKey &key : touched) {
        lists.insert({list, key.first});
        const std::string *pLatest = &list;
        for (const auto &[place, count] : interfaces_[key].nodes) {
            if (place.second.list != *pLatest) {
                pLatest = &place.second.list;
                lists.insert({*pLatest, key.first});
            }
        }
    }
    for (const ListKey &key : lists) {
        flatSet(key, changed);
    }
}

// What the operator may ask for later.
void KernelModel::stepsKeep(const std::vector<KernelFlatNode> &nodes, const ClassPlan &plan, Flat &flat) {
    constexpr size_t PLACES = 10;
    std::vector<std::pair<uint32_t, uint32_t>> places; // by rule
    for (const KernelFlatNode &node : nodes) {
        for (const auto &[number, rule] : node.rules) {
            places.emplace_back(node.key.nodeIndex, number);
        }
    }
    flat.sections = plan.sections.size();
    flat.steps.clear();
    for (const std::vector<ClassStep> &section : plan.sections) {
        for (const ClassStep &step : section) {
            flat.steps.push_back({step.kind, step.fields, step.rules.size(), step.cells.size(), step.reason, {}});
            const size_t told = step.kind == ClassStepKind::Linear ? std::min(PLACES, step.rules.size()) : 0;
            for (size_t i = 0; i < told; i++) {
                flat.steps.back().places.push_back(places[step.rules[i]]);
            }
        }
    }
}

std::vector<KernelCost> KernelModel::costs() const {
    std::vector<KernelCost> found;
    for (const auto &[key, flat] : flats_) {
        found.push_back({key.first, key.second, flat.isFlat, flat.refused, flat.sections, flat.steps});
    }
    return found;
}

std::vector<KernelAsked> KernelModel::asked() const {
    std::vector<KernelAsked> found;
    for (const auto &[key, interface] : interfaces_) {
        found.push_back({key.second, key.first, askedNodes(interface)});
    }
    return found;
}

void KernelModel::flatSet(const ListKey &key, const std::set<NodeKey> &changed) {
    std::vector<FlatPlace> places = flatPlaces(key);
    Flat &flat = flats_[key];
    const bool wasFlat = flat.isFlat;
    if (places != flat.places) {
        flat.refused.clear();
        flat.places = std::move(places);
        flatMake(key, flat);
    }
    if (flat.isFlat) {
        for (const FlatPlace &place : flat.places) {
            chainDrop(kernelMatchChain(place.node));
        }
    } else {
        matchesSet(key, wasFlat ? nullptr : &changed);
    }
    if (flat.places.empty() && interfacesOf(key).empty()) {
        flats_.erase(key);
    }
}

// The match chains of a list that is compared one by one: of all its nodes, or of those alone.
void KernelModel::matchesSet(const ListKey &key, const std::set<NodeKey> *pOnly) {
    const auto list = lists_.find(key.first);
    if (list == lists_.end()) {
        return;
    }
    for (const auto &[node, program] : list->second.nodes) {
        if (node.family == key.second && (pOnly == nullptr || pOnly->count(node) != 0) && nodes_.at(node).refused.empty()) {
            chainSet(kernelMatchChain(node), kernelMatchRules(node, program), {node, true, {}, {}, false});
        }
    }
}

std::set<std::string> KernelModel::setNames() const {
    std::set<std::string> names = {kernelInterfaceMap(4), kernelInterfaceMap(6), KERNEL_LOCAL_SET};
    for (const auto &[name, owner] : flatSets_) {
        names.insert(name);
    }
    return names;
}

// The chains, sets and elements of a list as they should be now; none of them when it is not flat.
void KernelModel::flatMake(const ListKey &key, Flat &flat) {
    const std::vector<KernelFlatNode> nodes = flatNodes(flat.places);
    const ClassPlan plan = flat.refused.empty() ? flatPlan(nodes) : ClassPlan{};
    if (flat.refused.empty()) {
        stepsKeep(nodes, plan, flat);
    }
    KernelFlat made;
    flat.isFlat = plan.maps != 0;
    if (flat.isFlat) {
        made = kernelFlat(nodes, plan);
    }
    const std::string owner = kernelFlatChain(key.second, key.first);
    for (const std::string &chain : flat.chains) {
        if (made.chains.count(chain) == 0) {
            chainDrop(chain);
        }
    }
    for (const NftElementKey &element : flat.elements) {
        if (made.elements.count(element) == 0) {
            elementDrop(element);
        }
    }
    for (const std::string &set : flat.sets) {
        flatSets_.erase(set);
    }
    flat.chains.clear();
    flat.elements.clear();
    for (auto &[name, chain] : made.chains) {
        const bool isKept = !chain.name;
        chainSet(name, std::move(chain.rules), {std::nullopt, false, std::move(chain.name), owner, isKept});
        flat.chains.push_back(name);
    }
    for (const auto &[element, target] : made.elements) {
        elementSet(element, target);
        flat.elements.push_back(element);
    }
    for (const std::string &set : made.sets) {
        flatSets_[set] = owner;
    }
    flat.sets = std::move(made.sets);
    flat.isPending = true;
}

// Result: false when the chain is of no list that is flat.
bool KernelModel::flatRefuse(const std::string &chain, const std::string &text) {
    for (auto &[key, flat] : flats_) {
        if (!flat.isFlat || kernelFlatChain(key.second, key.first) != chain) {
            continue;
        }
        flat.refused = text;
        flatMake(key, flat);
        matchesSet(key, nullptr);
        for (const InterfaceKey &interface : interfacesOf(key)) {
            interfaceSet(interface);
        }
        return true;
    }
    return false;
}

} // namespace host
