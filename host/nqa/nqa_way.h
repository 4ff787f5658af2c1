// Ways of probe packets that the routing table alone does not give: through a next hop, or by a VRF's table.
//
// A way is a mark on the probe's packets and two policy rules for it: the first looks up a table (of our
// own with one default route through the next hop; or the VRF's), the second says unreachable, so that a
// packet whose way is gone never leaves by another. Rules and routes carry protocol number 207.
//
// Marks share the field host.mark-mask with the kernel device, taken from its other end: way id N has the
// mark, the preference and the table that a decision with id N would have, and each side passes over what
// the other has in use. Both families have ids of their own.
//
// What others take away is put back (rules by notification, routes with the next look at the tables). A
// way of an earlier run is removed by open(). The rules stay when the process ends: harmless, since
// nobody sets their marks.
//
// Event thread only. Lock: none
#ifndef HOST_NQA_NQA_WAY_H
#define HOST_NQA_NQA_WAY_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "host/device/kernel/kernel_rules.h"
#include "host/fib/fib.h"
#include "host/nqa/nqa_config.h"

struct nlmsghdr;

namespace host {

struct NetlinkError;

constexpr uint8_t NQA_PROTO = 207; // on the rules and routes of probes

struct NqaWayKey {
    int version = 4;
    uint32_t vrf = 0;
    std::optional<NqaAddress> via;
    std::string interface; // where the next hop is; empty: where the VRF's table says
    auto operator<=>(const NqaWayKey &) const = default;
};

// The way that a question needs; none: the main table's, without a mark.
inline std::optional<NqaWayKey> nqaWayKey(const NqaQuestion &question) {
    if (!question.via && question.vrf == 0) {
        return std::nullopt;
    }
    return NqaWayKey{question.target.version, question.vrf, question.via, question.via ? question.interface : ""};
}

struct NqaWay {
    uint32_t id = 0, mark = 0, mask = 0, preference = 0, table = 0; // id 0: none could be had
    std::string problem; // why packets cannot go this way now; empty: they can
};

class NqaWays {
public:
    explicit NqaWays(const KernelOptions &options);
    ~NqaWays();
    NqaWays(const NqaWays &) = delete;

    // Opens the sockets, removes what an earlier run left and follows the rules. Result: empty, or why not.
    std::string open();
    bool isOpen() const { return pKernel_ != nullptr; }

    // One more user of the way; it is made when needed. get() tells how it is.
    void acquire(const NqaWayKey &key);
    void release(const NqaWayKey &key);

    // The way as it is now; links are looked at. For a key that is acquired.
    NqaWay get(const NqaWayKey &key) const;

    // Makes the kernel right again for all ways: after routes or links changed.
    void refresh();

private:
    struct Path { // of the route to the next hop
        uint32_t ifIndex = 0;
        NqaAddress gateway;
        bool operator==(const Path &) const = default;
    };
    struct Held {
        NqaWay way;
        uint32_t users = 0;
        std::optional<Path> path;      // wanted; none: cannot be found
        std::optional<Path> installed;
        std::string refusal;           // of the kernel
    };
    void idTake(const NqaWayKey &key, Held &held);
    void resolve(const NqaWayKey &key, Held &held);
    void install(const NqaWayKey &key, Held &held);
    NetlinkError routeInstall(const NqaWayKey &key, Held &held);
    NetlinkError rulesInstall(const NqaWayKey &key, const Held &held);
    void remove(const NqaWayKey &key, const Held &held);
    void rulesRead();
    void leftoversRemove();
    void ruleMessage(const nlmsghdr *pMessage);

    KernelOptions options_;
    struct Kernel; // the sockets to it
    std::unique_ptr<Kernel> pKernel_;
    std::map<NqaWayKey, Held> held_;
    std::set<std::pair<int, uint32_t>> taken_;    // (version, preference) of rules that are not ours
    std::set<std::pair<int, uint32_t>> ids_;      // (version, id) of held_
    bool rulesStale_ = true;                      // taken_ must be read anew
    bool repairNeeded_ = false;                   // somebody changed rules of ours
};

} // namespace host

#endif
