// See class_reach.h. Called by the plan.
#include "host/classify/class_reach.h"

#include <algorithm>
#include <iterator>

namespace host {

namespace {

using Union = std::map<ClassNumber, ClassNumber>;

// The first range that ends at or behind a number.
Union::const_iterator endingBehind(const Union &ranges, const ClassNumber &number) {
    auto it = ranges.upper_bound(number);
    if (it != ranges.begin() && std::prev(it)->second >= number) {
        --it;
    }
    return it;
}

void rangeAdd(Union &ranges, ClassRange range) {
    auto it = endingBehind(ranges, range.first);
    while (it != ranges.end() && it->first <= range.last) {
        range.first = std::min(range.first, it->first);
        range.last = std::max(range.last, it->second);
        it = ranges.erase(it);
    }
    ranges.emplace(range.first, range.last);
}

} // namespace

void ClassReach::add(const ClassBox &box) {
    fields_ = isEmpty_ ? box.fields : fields_ & box.fields;
    isEmpty_ = false;
    for (size_t i = 0; i < CLASS_FIELD_COUNT; i++) {
        if ((fields_ >> i & 1u) != 0) {
            rangeAdd(unions_[i], box.ranges[i]);
        } else {
            unions_[i].clear();
        }
    }
}

bool ClassReach::mayMeet(const ClassBox &box) const {
    if (isEmpty_) {
        return false;
    }
    for (size_t i = 0; i < CLASS_FIELD_COUNT; i++) {
        if ((fields_ & box.fields) >> i & 1u) {
            const auto it = endingBehind(unions_[i], box.ranges[i].first);
            if (it == unions_[i].end() || it->first > box.ranges[i].last) {
                return false;
            }
        }
    }
    return true;
}

} // namespace host
