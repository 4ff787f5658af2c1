// The ways of probe packets of a host without netlink: only the routing table's own. A probe that asks for another
// fails and says why. See host/nqa/nqa_way.h.
#include "host/nqa/nqa_way.h"

namespace host {

struct NqaWays::Kernel {};

NqaWays::NqaWays(const KernelOptions &options) : options_(options) {}

NqaWays::~NqaWays() = default;

std::string NqaWays::open() {
    return "this build has no netlink";
}

void NqaWays::acquire(const NqaWayKey &key) {
    Held &held = held_[key];
    ++held.users;
    held.refusal = "only the routing table's own way can be had: " + open();
}

void NqaWays::release(const NqaWayKey &key) {
    const auto found = held_.find(key);
    if (found != held_.end() && --found->second.users == 0) {
        held_.erase(found);
    }
}

NqaWay NqaWays::get(const NqaWayKey &key) const {
    NqaWay way;
    const auto found = held_.find(key);
    way.problem = found == held_.end() ? "" : found->second.refusal;
    return way;
}

void NqaWays::refresh() {}

} // namespace host
