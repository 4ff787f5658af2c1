// See otherwise.h.
#include "host/device/desired/otherwise.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <vector>

namespace host {

namespace {

struct Places {
    std::mutex lock;
    std::set<OtherwisePlace> drop;
};

Places &places() {
    static Places *pPlaces = new Places; // outlives the daemon's tasks
    return *pPlaces;
}

} // namespace

bool otherwiseDrops(const std::string &list, uint32_t nodeIndex) {
    const std::lock_guard guard(places().lock);
    return places().drop.count({list, nodeIndex}) != 0;
}

std::set<OtherwisePlace> otherwiseAll() {
    const std::lock_guard guard(places().lock);
    return places().drop;
}

std::set<std::string> otherwiseReplaceAll(const std::set<OtherwisePlace> &wanted) {
    const std::lock_guard guard(places().lock);
    std::vector<OtherwisePlace> different;
    std::set_symmetric_difference(places().drop.begin(), places().drop.end(), wanted.begin(), wanted.end(),
                                  std::back_inserter(different));
    places().drop = wanted;
    std::set<std::string> lists;
    for (const auto &[list, nodeIndex] : different) {
        lists.insert(list);
    }
    return lists;
}

} // namespace host
