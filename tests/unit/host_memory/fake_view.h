// A redirect view for tests: what it would visit is set here. It stands in for the daemon's.
#ifndef TESTS_UNIT_HOST_MEMORY_FAKE_VIEW_H
#define TESTS_UNIT_HOST_MEMORY_FAKE_VIEW_H

#include <string>
#include <utility>
#include <vector>

#include "hw/pbr_redirect_view.h"

namespace fakeview {

// Lists visited at the next take, in order, and whether that is all lists.
struct Script {
    std::vector<std::pair<std::string, std::vector<PbrRedirect>>> lists;
    bool visitsAll = false;
};

extern Script next;
extern uint32_t changed;               // answer of pbrRedirectViewChanged
extern std::vector<bool> takes;        // `all` of each take

void reset();

// A redirect of one next hop, 192.0.2.x.
PbrRedirect nextHop(uint32_t ifUnit, uint32_t nodeIndex, uint8_t last);

} // namespace fakeview

#endif
