// The decisions that packets are marked with: which id stands for which paths. Pure.
//
// A decision is shared by all nodes that choose alike among their next hops and do the same when none is left; its paths
// change with what they choose, under the same id. Nodes of which is not known what they choose among, and those that have
// chosen otherwise than the others, share by paths. Id n of a family means: mark n in our field, routing table base + n,
// rule preference base + n - 1. Next-hop objects are shared by all decisions;
// two or more paths make a group of the decision's own.
// A decision without users stays known until it is dropped, because the kernel may still hold it.
#ifndef HOST_DEVICE_KERNEL_DECISION_TABLE_H
#define HOST_DEVICE_KERNEL_DECISION_TABLE_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/device/kernel/kernel_rules.h"
#include "host/device/kernel/program.h"
#include "host/device/kernel/rt_codec.h"

namespace host {

constexpr uint32_t NEXT_HOP_ID_BASE = 206000000;   // next-hop objects
constexpr uint32_t NEXT_HOP_ID_COUNT = 400000;
constexpr uint32_t GROUP_ID_BASE_IPV4 = 206400000; // + decision id
constexpr uint32_t GROUP_ID_BASE_IPV6 = 206500000;

using DecisionKey = std::pair<uint8_t, uint32_t>; // family, id

struct Decision {
    std::vector<ProgramPath> paths;
    std::vector<ProgramPath> standby; // none or one: the way on when the kernel loses the only path
    uint64_t choice = 0;      // shared by it; 0: by the paths
    bool drop = false;        // what no path takes is dropped: its table ends there, whoever removes the route above
    uint32_t users = 0;       // nodes whose packets get this mark
    bool installed = false;   // the kernel holds all of it
    bool isMade = false;      // the kernel holds it, or did: the id stays
    bool isStandbyRefused = false; // the kernel does not take the standby, which is left out
    std::string error;        // why the kernel does not take it; its users route as usual meanwhile
    bool waits = false;       // the error is that a link is down: nobody's fault, and it ends with that
};

// The routing objects that one decision needs, in the order in which they are made.
struct DecisionObjects {
    std::map<uint32_t, RtNextHop> nextHops;
    std::map<uint32_t, RtGroup> groups;       // none or one
    std::map<RtRouteKey, uint32_t> routes;
    RtRule rule;
};

class DecisionTable {
public:
    explicit DecisionTable(const KernelOptions &options) : options_(options) {}

    // Whether somebody else uses what an id would stand for; asked before an id is given out.
    void takenSet(std::function<bool(uint8_t family, uint32_t preference, uint32_t table)> taken) {
        taken_ = std::move(taken);
    }
    void nextHopTakenSet(std::function<bool(uint32_t id)> taken) { nextHopTaken_ = std::move(taken); }

    // The id for these paths, with one user more. Result: 0 and *pError when there is none left.
    uint32_t acquire(uint8_t family, const std::vector<ProgramPath> &paths, bool drop, std::string *pError);
    void release(uint8_t family, uint32_t id);

    // The id for what shares a choice (not 0), without another user; made when there is none. Its paths are changed by
    // change(). Takes over a decision that nobody uses and that has these paths in the kernel already, while that costs
    // nobody an id. Result: 0 when there is no id left.
    uint32_t choiceId(uint8_t family, uint64_t choice, const ProgramDecision &wanted);
    // The same if it is there. Result: 0 when not.
    uint32_t choiceFind(uint8_t family, uint64_t choice, bool drop) const;
    void use(uint8_t family, uint32_t id); // one user more

    // Other paths for a decision that is shared by a choice. Result: false when no next-hop id is left for them.
    bool change(const DecisionKey &key, const ProgramDecision &wanted);

    // Takes over decisions that the kernel already holds whole: their ids and next-hop ids are kept.
    void adopt(const RtImage &image);

    // Somebody took these next-hop ids meanwhile: ours get others.
    void nextHopsAvoid(const std::set<uint32_t> &ids);

    // Forgets decisions without users, and next-hop ids that no decision names.
    void drop();

    Decision *get(const DecisionKey &key);
    const Decision *get(const DecisionKey &key) const;
    const std::map<DecisionKey, Decision> &all() const { return decisions_; }
    std::map<DecisionKey, Decision> &all() { return decisions_; }

    DecisionObjects objectsOf(const DecisionKey &key) const;

    // All objects of decisions that have users.
    RtImage wanted() const;

private:
    struct Content {
        uint8_t family = 4;
        bool drop = false;
        uint64_t choice = 0;
        std::vector<ProgramPath> paths; // choice 0
        auto operator<=>(const Content &) const = default;
    };
    static Content contentOf(uint8_t family, const Decision &decision);
    bool nextHopsGet(uint8_t family, const std::vector<ProgramPath> &paths);
    uint32_t unusedId(uint8_t family, const ProgramDecision &wanted) const;
    uint32_t freeId(uint8_t family);
    uint32_t nextHopId(const RtNextHop &nextHop);
    bool adoptOne(const RtImage &image, const RtRule &rule);
    bool pathsOf(const RtImage &image, uint8_t family, uint32_t target, std::vector<ProgramPath> *pPaths) const;

    KernelOptions options_;
    std::function<bool(uint8_t, uint32_t, uint32_t)> taken_;
    std::function<bool(uint32_t)> nextHopTaken_;
    std::map<DecisionKey, Decision> decisions_;
    std::map<Content, uint32_t> ids_;
    std::map<Content, std::set<uint32_t>> adopted_; // ids by paths, for choices to take over; may be gone or taken
    std::map<RtNextHop, uint32_t> nextHopIds_;
    std::map<uint32_t, RtNextHop> nextHopsById_;
};

} // namespace host

#endif
