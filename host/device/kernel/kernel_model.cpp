// The kernel model: see kernel_model.h. Used by the kernel plane; calls the rule builders and the
// decision table.
//
// Invariants: chains_ and elements_ are exactly what nodes_ and interfaces_ ask for; the base chain,
// the sets and the whole table are wanted exactly while some interface is; users_ lists for each
// decision the nodes that acquired it.
#include "host/device/kernel/kernel_model.h"

#include <algorithm>

#include "host/device/kernel/kernel_map.h"

namespace host {

namespace {

constexpr uint32_t RTN_LOCAL_KIND = 2, RTN_MULTICAST_KIND = 5; // local, broadcast, anycast, multicast

std::vector<NftElementKey> localElements() {
    std::vector<NftElementKey> keys;
    for (uint32_t kind = RTN_LOCAL_KIND; kind <= RTN_MULTICAST_KIND; kind++) {
        const std::vector<uint8_t> word = nftWord(kind);
        keys.push_back({KERNEL_LOCAL_SET, std::string(word.begin(), word.end())});
    }
    return keys;
}

NftChange step(NftChange::Kind kind, const std::string &name, const std::string &owner = "") {
    NftChange change;
    change.kind = kind;
    change.name = name;
    change.owner = owner;
    return change;
}

NftChange elementStep(NftChange::Kind kind, const NftElementKey &key, const std::string &target, const std::string &owner) {
    NftChange change = step(kind, target, owner);
    change.key = key;
    return change;
}

void append(std::vector<NftChange> &to, std::vector<NftChange> &from) {
    to.insert(to.end(), std::make_move_iterator(from.begin()), std::make_move_iterator(from.end()));
}

// Chains that jump stand before those jumped to, so that none is deleted while it is used.
int deleteOrder(const std::string &chain) {
    if (chain == KERNEL_BASE_CHAIN) {
        return 0;
    }
    const char *const order[] = {"in", "flat", "part", "path", "match", "rule", "skip"};
    int place = 1;
    for (const char *pKind : order) {
        if (chain.rfind(pKind, 0) == 0) {
            return place;
        }
        place++;
    }
    return place;
}

} // namespace

// ---- lists ----

void KernelModel::listSet(const std::string &list, ProgramList program, bool isMore) {
    std::set<InterfaceKey> touched;
    std::set<NodeKey> changed;
    ProgramList &known = lists_[list];
    placesSet(list, known, false, touched);
    for (const auto &[key, node] : known.nodes) {
        if (program.nodes.count(key) == 0) {
            nodeDel(key);
        }
    }
    for (const auto &[key, node] : program.nodes) {
        auto old = known.nodes.find(key);
        const bool isRulesChange = old == known.nodes.end() || old->second.rules != node.rules ||
                                   old->second.aclNum != node.aclNum;
        if (nodeSet(key, node, isRulesChange)) {
            changed.insert(key);
        }
    }
    known = std::move(program);
    placesSet(list, known, true, touched);
    if (known.entries.empty()) {
        lists_.erase(list);
    }
    if (!isMore) {
        choicesSettle();
    }
    flatsSet(list, touched, changed);
    for (const InterfaceKey &key : touched) {
        interfaceSet(key);
    }
    baseSet();
}

// Result: whether the node's match has to be written.
bool KernelModel::nodeSet(const NodeKey &key, const ProgramNode &program, bool isRulesChange) {
    auto [it, isNew] = nodes_.emplace(key, Node{});
    Node &node = it->second;
    const bool isRetry = !node.refused.empty() || !node.error.empty();
    const bool isDecisionChange = isNew || isRetry || node.program.decision != program.decision;
    const ProgramDecision &before = node.program.decision, &after = program.decision;
    node.isActionDue = node.isActionDue || isNew || isRetry || before.precedence != after.precedence || before.drop != after.drop ||
                       before.choice != after.choice;
    node.program = program;
    if (isDecisionChange) {
        decisionSet(key, node);
    }
    if (isRulesChange || isRetry) {
        node.refused = options_.defrag ? kernelDefragRefusal(program, key.family) : "";
    }
    if (!node.refused.empty()) {
        chainDrop(kernelMatchChain(key));
        chainDrop(kernelActionChain(key));
        return false;
    }
    if (isDecisionChange && program.decision.choice == 0) {
        actionSet(key, node);
    }
    return isRulesChange || isRetry;
}

void KernelModel::nodeDel(const NodeKey &key) {
    Node &node = nodes_.at(key);
    node.program.decision = {};
    decisionSet(key, node);
    chainDrop(kernelMatchChain(key));
    chainDrop(kernelActionChain(key));
    nodes_.erase(key);
}

std::string KernelModel::errorOf(const NodeKey &key) const {
    const Node &node = nodes_.at(key);
    if (!node.refused.empty()) {
        return node.refused;
    }
    const Decision *pDecision = decisions_.get({key.family, node.decision});
    return pDecision != nullptr && !pDecision->error.empty() ? pDecision->error : node.error;
}

void KernelModel::actionSet(const NodeKey &key, const Node &node) {
    const bool isFailed = !errorOf(key).empty();
    const uint8_t precedence = isFailed ? uint8_t{0} : node.program.decision.precedence;
    chainSet(kernelActionChain(key),
             kernelActionRules(key, effective(key, node), precedence, options_, node.program.decision.drop),
             {key, false, {}, {}, false});
}

bool KernelModel::refuse(const std::string &chain, const std::string &text) {
    auto it = chains_.find(chain);
    if (flatRefuse(chain, text)) {
        return true;
    }
    if (it == chains_.end() || !it->second.kind.node) {
        return false;
    }
    const NodeKey key = *it->second.kind.node;
    nodes_.at(key).refused = text;
    chainDrop(kernelMatchChain(key));
    chainDrop(kernelActionChain(key));
    std::set<InterfaceKey> touched;
    for (const auto &[interfaceKey, interface] : interfaces_) {
        if (interfaceKey.first == key.family && interface.nodes.count({key.nodeIndex, key}) != 0) {
            touched.insert(interfaceKey);
        }
    }
    flatSet({key.list, key.family}, {});
    for (const InterfaceKey &interfaceKey : touched) {
        interfaceSet(interfaceKey);
    }
    return true;
}

// ---- interfaces ----

void KernelModel::placesSet(const std::string &list, const ProgramList &program, bool isAdd,
                            std::set<InterfaceKey> &touched) {
    for (const auto &[entryKey, entry] : program.entries) {
        for (const uint8_t family : {uint8_t{4}, uint8_t{6}}) {
            if (!entry.families[family == 6]) {
                continue;
            }
            const InterfaceKey key{family, entry.ifName};
            const Place place{entryKey.second, {list, entryKey.second, family, entry.variant}};
            uint32_t &count = interfaces_[key].nodes[place];
            count = isAdd ? count + 1 : count - 1;
            if (count == 0) {
                interfaces_[key].nodes.erase(place);
            }
            touched.insert(key);
        }
    }
}

void KernelModel::interfaceSet(const InterfaceKey &key) {
    const std::string chain = kernelInterfaceChain(key.first, key.second);
    const NftElementKey element{kernelInterfaceMap(key.first), kernelInterfaceKey(key.second)};
    if (interfaces_[key].nodes.empty()) {
        interfaces_.erase(key);
        chainDrop(chain);
        elementDrop(element);
        return;
    }
    chainSet(chain, interfaceRules(key, interfaces_[key]), {});
    elementSet(element, chain);
}

void KernelModel::baseSet() {
    if (interfaces_.empty()) {
        chainDrop(KERNEL_BASE_CHAIN);
        chainDrop(KERNEL_DEFRAG_CHAIN);
        for (const NftElementKey &key : localElements()) {
            elementDrop(key);
        }
        return;
    }
    if (chains_.count(KERNEL_BASE_CHAIN) == 0) {
        chainSet(KERNEL_BASE_CHAIN, kernelBaseRules(options_), {});
        if (options_.defrag) {
            chainSet(KERNEL_DEFRAG_CHAIN, kernelDefragRules(), {});
        }
        for (const NftElementKey &key : localElements()) {
            elementSet(key, "");
        }
    }
}

// ---- chains and elements ----

void KernelModel::chainSet(const std::string &name, std::vector<NftRule> rules, ChainKind kind) {
    std::vector<uint64_t> fingerprints;
    fingerprints.reserve(rules.size());
    for (const NftRule &rule : rules) {
        fingerprints.push_back(nftFingerprint(rule));
    }
    auto [it, isNew] = chains_.emplace(name, Chain{});
    if (!isNew && it->second.fingerprints == fingerprints) {
        return;
    }
    it->second = {std::move(fingerprints), std::move(rules), std::move(kind)};
    dirtyChains_.insert(name);
}

void KernelModel::chainDrop(const std::string &name) {
    if (chains_.erase(name) != 0) {
        dirtyChains_.insert(name);
    }
}

void KernelModel::elementSet(const NftElementKey &key, const std::string &target) {
    auto [it, isNew] = elements_.emplace(key, target);
    if (isNew || it->second != target) {
        it->second = target;
        dirtyElements_.insert(key);
    }
}

void KernelModel::elementDrop(const NftElementKey &key) {
    if (elements_.erase(key) != 0) {
        dirtyElements_.insert(key);
    }
}

// The rules of a chain that were not kept are made again: only after somebody tampered with the table.
std::vector<NftRule> KernelModel::rulesOf(const std::string &name, const Chain &chain) const {
    if (chain.rules.size() == chain.fingerprints.size()) {
        return chain.rules;
    }
    if (chain.kind.rule) {
        return kernelRuleRules(*chain.kind.rule);
    }
    const std::optional<NodeKey> &key = chain.kind.node;
    if (key && chain.kind.isMatch) {
        return kernelMatchRules(*key, nodes_.at(*key).program);
    }
    if (key) {
        const Node &node = nodes_.at(*key);
        const uint8_t precedence = errorOf(*key).empty() ? node.program.decision.precedence : uint8_t{0};
        return kernelActionRules(*key, effective(*key, node), precedence, options_, node.program.decision.drop);
    }
    if (name == KERNEL_BASE_CHAIN) {
        return kernelBaseRules(options_);
    }
    if (name == KERNEL_DEFRAG_CHAIN) {
        return kernelDefragRules();
    }
    for (const auto &[interfaceKey, interface] : interfaces_) {
        if (kernelInterfaceChain(interfaceKey.first, interfaceKey.second) == name) {
            return interfaceRules(interfaceKey, interface);
        }
    }
    return {};
}

// ---- differences ----

void KernelModel::changesBegin(const NftImage &installed, std::vector<NftChange> &changes, bool *pIsFresh) const {
    const bool isWanted = !chains_.empty();
    *pIsFresh = !installed.table;
    if (installed.stale || (installed.table && !isWanted)) {
        changes.push_back(step(NftChange::Kind::TableDel, ""));
    }
    if (!isWanted) {
        return;
    }
    if (!installed.table) {
        changes.push_back(step(NftChange::Kind::TableAdd, ""));
    }
    for (const std::string &name : setNames()) {
        if (*pIsFresh || installed.sets.count(name) == 0) {
            const auto owner = flatSets_.find(name);
            changes.push_back(step(NftChange::Kind::SetAdd, name, owner == flatSets_.end() ? "" : owner->second));
        }
    }
}

void KernelModel::chainChanges(const std::string &name, const NftImage &installed, bool isFresh,
                               std::vector<NftChange> &adds, std::vector<NftChange> &fills,
                               std::vector<NftChange> &dels) const {
    auto wanted = chains_.find(name);
    auto held = installed.chains.find(name);
    const bool isHeld = !isFresh && held != installed.chains.end();
    if (wanted == chains_.end()) {
        if (isHeld) {
            fills.push_back(step(NftChange::Kind::ChainFlush, name, name));
            dels.push_back(step(NftChange::Kind::ChainDel, name, name));
        }
        return;
    }
    if (isHeld && held->second == wanted->second.fingerprints) {
        return;
    }
    const std::string &owner = wanted->second.kind.owner.empty() ? name : wanted->second.kind.owner;
    if (!isHeld) {
        adds.push_back(step(NftChange::Kind::ChainAdd, name, owner));
    } else if (!held->second.empty()) {
        fills.push_back(step(NftChange::Kind::ChainFlush, name, owner));
    }
    for (NftRule &rule : rulesOf(name, wanted->second)) {
        fills.push_back(step(NftChange::Kind::RuleAdd, name, owner));
        fills.back().rule = std::move(rule);
    }
}

void KernelModel::elementChanges(const NftElementKey &key, const NftImage &installed, bool isFresh,
                                 std::vector<NftChange> &out) const {
    auto wanted = elements_.find(key);
    auto held = installed.elements.find(key);
    const bool isHeld = !isFresh && held != installed.elements.end();
    const auto flat = flatSets_.find(key.first);
    if (flat == flatSets_.end() && kernelMapLayout(key.first)) {
        return; // goes with its map
    }
    if (wanted != elements_.end() && isHeld && held->second == wanted->second) {
        return;
    }
    const auto ownerOf = [&](const std::string &target) { return flat == flatSets_.end() ? target : flat->second; };
    if (isHeld) {
        out.push_back(elementStep(NftChange::Kind::ElementDel, key, held->second, ownerOf(held->second)));
    }
    if (wanted != elements_.end()) {
        out.push_back(elementStep(NftChange::Kind::ElementAdd, key, wanted->second, ownerOf(wanted->second)));
    }
}

std::vector<NftChange> KernelModel::changes(const NftImage &installed) {
    std::vector<NftChange> changes, adds, fills, elements, dels;
    bool isFresh = false;
    changesBegin(installed, changes, &isFresh);
    if (chains_.empty()) {
        return changes; // the table goes with all that is in it
    }
    std::set<std::string> chains = dirtyChains_;
    std::set<NftElementKey> keys = dirtyElements_;
    if (isAllDirty_ || isFresh) {
        for (const auto &[name, chain] : chains_) {
            chains.insert(name);
        }
        for (const auto &[name, fingerprints] : installed.chains) {
            chains.insert(name);
        }
        for (const auto &[key, chain] : elements_) {
            keys.insert(key);
        }
        for (const auto &[key, chain] : installed.elements) {
            keys.insert(key);
        }
    }
    for (const std::string &name : chains) {
        chainChanges(name, installed, isFresh, adds, fills, dels);
    }
    for (const NftElementKey &key : keys) {
        elementChanges(key, installed, isFresh, elements);
    }
    // A map of ranges has no room for the new while the old is there.
    std::stable_partition(elements.begin(), elements.end(),
                          [](const NftChange &change) { return change.kind == NftChange::Kind::ElementDel; });
    for (const std::string &name : installed.sets) {
        if (!isFresh && kernelMapLayout(name) && flatSets_.count(name) == 0) {
            elements.push_back(step(NftChange::Kind::SetDel, name));
        }
    }
    std::stable_sort(dels.begin(), dels.end(), [](const NftChange &left, const NftChange &right) {
        return deleteOrder(left.name) < deleteOrder(right.name);
    });
    append(changes, adds);
    append(changes, fills);
    append(changes, elements);
    append(changes, dels);
    return changes;
}

std::vector<NftChange> KernelModel::rewriteCounting() const {
    std::vector<NftChange> changes;
    for (const auto &[name, chain] : chains_) {
        if (!chain.kind.node && !chain.kind.rule) {
            continue;
        }
        changes.push_back(step(NftChange::Kind::ChainFlush, name, name));
        for (NftRule &rule : rulesOf(name, chain)) {
            changes.push_back(step(NftChange::Kind::RuleAdd, name, name));
            changes.back().rule = std::move(rule);
        }
    }
    return changes;
}

void KernelModel::clean() {
    for (const std::string &name : dirtyChains_) {
        auto it = chains_.find(name);
        if (it != chains_.end() && !it->second.kind.isKept) {
            it->second.rules = {};
        }
    }
    for (auto &[key, flat] : flats_) {
        flat.isPending = false;
    }
    dirtyChains_.clear();
    dirtyElements_.clear();
    isAllDirty_ = false;
}

NftImage KernelModel::image() const {
    NftImage image;
    image.table = !chains_.empty();
    if (!image.table) {
        return image;
    }
    image.sets = setNames();
    for (const auto &[name, chain] : chains_) {
        image.chains[name] = chain.fingerprints;
    }
    image.elements = elements_;
    return image;
}

// ---- questions ----

std::vector<NodeKey> KernelModel::nodesOf(const std::string &list, const EntryKey &key) const {
    std::vector<NodeKey> keys;
    auto it = lists_.find(list);
    if (it == lists_.end() || it->second.entries.count(key) == 0) {
        return keys;
    }
    const ProgramEntry &entry = it->second.entries.at(key);
    for (const uint8_t family : {uint8_t{4}, uint8_t{6}}) {
        if (entry.families[family == 6]) {
            keys.push_back({list, key.second, family, entry.variant});
        }
    }
    return keys;
}

std::string KernelModel::refusedOf(const NodeKey &key) const {
    auto it = nodes_.find(key);
    return it == nodes_.end() ? "unknown to the device" : it->second.refused;
}

KernelEntryStatus KernelModel::status(const std::string &list, const EntryKey &key) const {
    KernelEntryStatus status;
    auto it = lists_.find(list);
    if (it == lists_.end() || it->second.entries.count(key) == 0) {
        status.error = "unknown to the device";
        return status;
    }
    status.pEntry = &it->second.entries.at(key);
    status.error = status.pEntry->error;
    status.reason = status.pEntry->reason;
    bool isPending = isAllDirty_;
    for (const NodeKey &node : nodesOf(list, key)) {
        const Decision *pDecision = decisions_.get({node.family, nodes_.at(node).decision});
        if (nodes_.at(node).refused.empty() && pDecision != nullptr && pDecision->waits) {
            status.reason = status.reason.empty() ? pDecision->error : status.reason;
        } else {
            status.error = status.error.empty() ? errorOf(node) : status.error;
        }
        const auto flat = flats_.find({node.list, node.family});
        isPending = isPending || (flat != flats_.end() && flat->second.isPending && flat->second.isFlat) ||
                    dirtyChains_.count(kernelMatchChain(node)) != 0 ||
                    dirtyChains_.count(kernelActionChain(node)) != 0 ||
                    dirtyChains_.count(kernelInterfaceChain(node.family, status.pEntry->ifName)) != 0;
    }
    status.installed = status.error.empty() && !isPending;
    return status;
}

void nftImageChange(NftImage &image, const std::vector<NftChange> &changes) {
    for (const NftChange &change : changes) {
        switch (change.kind) {
        case NftChange::Kind::TableDel: image = {}; break;
        case NftChange::Kind::TableAdd: image = {}; image.table = true; break;
        case NftChange::Kind::SetAdd: image.sets.insert(change.name); break;
        case NftChange::Kind::ChainAdd: image.chains[change.name]; break;
        case NftChange::Kind::ChainFlush: image.chains[change.name].clear(); break;
        case NftChange::Kind::RuleAdd: image.chains[change.name].push_back(nftFingerprint(change.rule)); break;
        case NftChange::Kind::ElementDel: image.elements.erase(change.key); break;
        case NftChange::Kind::ElementAdd: image.elements[change.key] = change.name; break;
        case NftChange::Kind::SetDel:
            image.sets.erase(change.name);
            std::erase_if(image.elements, [&](const auto &item) { return item.first.first == change.name; });
            break;
        case NftChange::Kind::ChainDel: image.chains.erase(change.name); break;
        }
    }
}

std::string nftChangeText(const NftChange &change) {
    const std::string element = change.key.first + " " + std::string(change.key.second.c_str());
    switch (change.kind) {
    case NftChange::Kind::TableDel: return "delete table";
    case NftChange::Kind::TableAdd: return "add table";
    case NftChange::Kind::SetAdd: return "add set " + change.name;
    case NftChange::Kind::ChainAdd: return "add chain " + change.name;
    case NftChange::Kind::ChainFlush: return "flush chain " + change.name;
    case NftChange::Kind::RuleAdd: return "add rule " + change.name + ": " + nftRuleText(change.rule);
    case NftChange::Kind::ElementDel: return "delete element " + element;
    case NftChange::Kind::ElementAdd: return "add element " + element + " -> " + change.name;
    case NftChange::Kind::SetDel: return "delete set " + change.name;
    case NftChange::Kind::ChainDel: return "delete chain " + change.name;
    }
    return "?";
}

} // namespace host
