// The kernel model: what our nftables table and routing objects should be, computed list by list. Pure.
//
// Second half of the compilation. Input are the programs of lists (program.h); state kept are the
// chains as fingerprints (with the rules themselves until they are installed), the elements, the
// decisions, and which of these may differ from what is installed. Work is in proportion to what
// changed: a list's nodes and the interfaces it is bound to.
//
// A list is *flat* where its rules are looked up in maps (kernel_flat.h) and not compared one by one. It is planned
// anew when its nodes or their rules change, never for a decision. A flat list that the kernel refuses is
// compared one by one until then.
//
// A node of which the kernel refused the rules, or whose rules could never match what the kernel shows
// us, is left out (refused) until its list is set again; a decision that the kernel refused makes its
// nodes route as usual, or drop where they ask for that.
#ifndef HOST_DEVICE_KERNEL_KERNEL_MODEL_H
#define HOST_DEVICE_KERNEL_KERNEL_MODEL_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "host/classify/class_plan.h"
#include "host/device/kernel/decision_table.h"
#include "host/device/kernel/kernel_flat.h"
#include "host/device/kernel/kernel_rules.h"
#include "host/device/kernel/nft_value.h"
#include "host/device/kernel/program.h"

namespace host {

// One step of an nftables transaction.
struct NftChange {
    enum class Kind : uint8_t { TableDel, TableAdd, SetAdd, ChainAdd, ChainFlush, RuleAdd, ElementDel,
                                ElementAdd, SetDel, ChainDel };
    Kind kind = Kind::TableAdd;
    std::string name;   // chain or set; of an element its target
    NftElementKey key;  // elements
    NftRule rule;       // RuleAdd
    std::string owner;  // chain on whose behalf this is: whom a failure concerns
};

struct KernelEntryStatus {
    bool installed = false; // the kernel holds what the entry asks for (also: nothing, when it asks for nothing)
    std::string error;
    std::string reason;
    const ProgramEntry *pEntry = nullptr;
};

// One step of what a list costs a packet.
struct KernelStep {
    ClassStepKind kind = ClassStepKind::Linear;
    std::vector<ClassField> fields;
    size_t rules = 0;
    size_t cells = 0;                                  // of a map
    std::string reason;                                // Linear: why
    std::vector<std::pair<uint32_t, uint32_t>> places; // Linear: the first of its rules, node and number
};

// What a list costs in a family. Not flat: the rules of all steps are compared one by one.
struct KernelCost {
    std::string list;
    uint8_t family = 4;
    bool isFlat = false;
    std::string refused; // the kernel refused the maps
    size_t sections = 0;
    std::vector<KernelStep> steps; // in their order; none: its interfaces do not all ask the same nodes of it alone
};

// What an interface asks of its packets in a family.
struct KernelAsked {
    std::string ifName;
    uint8_t family = 4;
    std::vector<NodeKey> nodes; // in their order, those that are left out not among them
};

class KernelModel {
public:
    explicit KernelModel(const KernelOptions &options) : decisions_(options), options_(options) {}

    // Whether fragments are reassembled before our chain. Before the first list.
    void defragSet(bool on) { options_.defrag = on; }

    // Replaces what is known of a list; an empty program: the list has no links any more. isMore: others follow, and
    // what nodes of several lists share is settled with the last.
    void listSet(const std::string &list, ProgramList program, bool isMore = false);

    // Marks everything as perhaps different from what is installed.
    void allDirty() { isAllDirty_ = true; }
    bool isDirty() const { return isAllDirty_ || !dirtyChains_.empty() || !dirtyElements_.empty(); }

    // The steps that lead from the installed image to the wanted one; none when they are equal.
    std::vector<NftChange> changes(const NftImage &installed);

    // The steps that write all counting rules anew as they are.
    std::vector<NftChange> rewriteCounting() const;

    // The kernel did the steps: nothing is dirty any more.
    void clean();

    // The kernel refused the rules of the node that owns a chain. Result: false when no node owns it.
    bool refuse(const std::string &chain, const std::string &text);

    // A decision's error was set or cleared: rewrites the actions of its users.
    void decisionChanged(const DecisionKey &key);

    // What the kernel should hold, whole.
    NftImage image() const;

    KernelEntryStatus status(const std::string &list, const EntryKey &key) const;

    // The nodes of an entry, one a family at most.
    std::vector<NodeKey> nodesOf(const std::string &list, const EntryKey &key) const;

    DecisionTable &decisions() { return decisions_; }
    const DecisionTable &decisions() const { return decisions_; }
    const std::map<std::string, ProgramList> &lists() const { return lists_; }
    uint32_t decisionOf(const NodeKey &key) const; // 0: routed as usual, or dropped
    bool isDropped(const NodeKey &key) const;      // its packets are dropped now
    bool isFlat(const std::string &list, int family) const; // looked up in maps
    std::vector<KernelCost> costs() const; // of all lists, as they were planned last
    std::vector<KernelAsked> asked() const; // by all interfaces that ask something
    std::string refusedOf(const NodeKey &key) const; // why the node's rules are left out; empty: they are not

private:
    struct Node {
        ProgramNode program;
        ProgramDecision grouped; // as it is known in choices_
        uint32_t decision = 0;   // id acquired; 0 none
        bool isActionDue = false; // it has to be written when the choices are settled
        std::string error;       // no decision could be had
        std::string refused;     // the kernel refused the rules
    };
    // What a chain is, so that its rules can be made again.
    struct ChainKind {
        std::optional<NodeKey> node;        // match and action chains
        bool isMatch = false;
        std::optional<KernelRuleName> rule; // chains of a rule of a flat list
        std::string owner;                  // of a flat list: its first chain
        bool isKept = false;                // the rules are not made again but kept
        bool operator==(const ChainKind &) const = default;
    };
    struct Chain {
        std::vector<uint64_t> fingerprints;
        std::vector<NftRule> rules; // until installed, unless kept; else made again when needed
        ChainKind kind;
        bool operator==(const Chain &) const = default;
    };
    using InterfaceKey = std::pair<uint8_t, std::string>;                  // family, name
    using Place = std::pair<uint32_t, NodeKey>;                            // node index, node
    struct Interface {
        std::map<Place, uint32_t> nodes; // -> entries that put it there (two names for one unit: never)
    };

    using ChoiceKey = std::tuple<uint8_t, uint64_t, bool>; // family, choice, drop
    using Outcome = std::pair<std::vector<ProgramPath>, std::vector<ProgramPath>>; // paths, standby
    // The nodes of a choice, by what they have chosen: all the same, but for moments and lists that are held.
    struct Choice {
        std::map<Outcome, std::set<NodeKey>> groups;
        std::set<NodeKey> moved; // since it was settled
    };

    using ListKey = std::pair<std::string, uint8_t>; // list, family
    struct FlatPlace {
        NodeKey node;
        uint32_t aclNum = 0;
        std::shared_ptr<const AclRules> rules;
        bool operator==(const FlatPlace &) const = default;
    };
    struct Flat {
        std::vector<FlatPlace> places; // of which the plan was made
        bool isFlat = false;
        std::string refused;           // the kernel refused the maps
        bool isPending = false;        // changed since the kernel was told
        size_t sections = 0;
        std::vector<KernelStep> steps; // of the plan
        std::vector<std::string> chains;
        std::set<std::string> sets;
        std::vector<NftElementKey> elements;
    };

    bool nodeSet(const NodeKey &key, const ProgramNode &program, bool isRulesChange);
    void nodeDel(const NodeKey &key);
    void decisionSet(const NodeKey &key, Node &node);
    void groupLeave(const NodeKey &key, const Node &node);
    void choicesSettle();
    void choiceSettle(const ChoiceKey &key);
    void decisionMove(const NodeKey &key, uint32_t id);
    void actionSet(const NodeKey &key, const Node &node);
    void placesSet(const std::string &list, const ProgramList &program, bool isAdd,
                   std::set<InterfaceKey> &touched);
    void interfaceSet(const InterfaceKey &key);
    void baseSet();
    void flatsSet(const std::string &list, const std::set<InterfaceKey> &touched, const std::set<NodeKey> &changed);
    void flatSet(const ListKey &key, const std::set<NodeKey> &changed);
    void flatMake(const ListKey &key, Flat &flat);
    bool flatRefuse(const std::string &chain, const std::string &text);
    void matchesSet(const ListKey &key, const std::set<NodeKey> *pOnly);
    std::vector<FlatPlace> flatPlaces(const ListKey &key) const;
    static std::vector<KernelFlatNode> flatNodes(const std::vector<FlatPlace> &places);
    static void stepsKeep(const std::vector<KernelFlatNode> &nodes, const ClassPlan &plan, Flat &flat);
    ClassPlan flatPlan(const std::vector<KernelFlatNode> &nodes) const;
    std::set<InterfaceKey> interfacesOf(const ListKey &key) const;
    std::vector<NodeKey> askedNodes(const Interface &interface) const;
    std::vector<NftRule> interfaceRules(const InterfaceKey &key, const Interface &interface) const;
    std::set<std::string> setNames() const;
    void chainSet(const std::string &name, std::vector<NftRule> rules, ChainKind kind);
    void chainDrop(const std::string &name);
    void elementSet(const NftElementKey &key, const std::string &target);
    void elementDrop(const NftElementKey &key);
    std::vector<NftRule> rulesOf(const std::string &name, const Chain &chain) const;
    uint32_t effective(const NodeKey &key, const Node &node) const;
    std::string errorOf(const NodeKey &key) const;

    void changesBegin(const NftImage &installed, std::vector<NftChange> &changes, bool *pIsFresh) const;
    void chainChanges(const std::string &name, const NftImage &installed, bool isFresh,
                      std::vector<NftChange> &adds, std::vector<NftChange> &fills,
                      std::vector<NftChange> &dels) const;
    void elementChanges(const NftElementKey &key, const NftImage &installed, bool isFresh,
                        std::vector<NftChange> &out) const;

    DecisionTable decisions_;
    KernelOptions options_;
    std::map<std::string, ProgramList> lists_;
    std::map<NodeKey, Node> nodes_;
    std::map<DecisionKey, std::set<NodeKey>> users_;
    std::map<ChoiceKey, Choice> choices_;
    std::set<ChoiceKey> unsettled_;
    std::map<InterfaceKey, Interface> interfaces_;
    std::map<ListKey, Flat> flats_;
    std::map<std::string, std::string> flatSets_; // maps of flat lists -> owner
    std::map<std::string, Chain> chains_;
    std::map<NftElementKey, std::string> elements_;
    std::set<std::string> dirtyChains_;
    std::set<NftElementKey> dirtyElements_;
    bool isAllDirty_ = false;
};

// What the image is after the steps. Lock: none
void nftImageChange(NftImage &image, const std::vector<NftChange> &changes);

// One line a step, for tests and logs. Lock: none
std::string nftChangeText(const NftChange &change);

} // namespace host

#endif
