// See fake_view.h.
#include "tests/unit/host_memory/fake_view.h"

namespace fakeview {

Script next;
uint32_t changed = 0;
std::vector<bool> takes;

void reset() {
    next = {};
    changed = 0;
    takes.clear();
}

PbrRedirect nextHop(uint32_t ifUnit, uint32_t nodeIndex, uint8_t last) {
    PbrRedirect redirect{};
    redirect.ifUnit = ifUnit;
    redirect.nodeIndex = nodeIndex;
    redirect.aclNum = 1500 + nodeIndex;
    redirect.kind = PBR_REDIRECT_NEXT_HOPS;
    redirect.ipVer = 1;
    redirect.nextHopCount = 1;
    redirect.configuredCount = 1;
    redirect.nextHops[0][0] = 192;
    redirect.nextHops[0][2] = 2;
    redirect.nextHops[0][3] = last;
    return redirect;
}

} // namespace fakeview

uint32_t pbrRedirectViewChanged() {
    return fakeview::changed;
}

bool pbrRedirectViewTake(bool all, const PbrRedirectVisitor *pVisitor) {
    fakeview::takes.push_back(all);
    fakeview::changed = 0;
    for (const auto &[name, redirects] : fakeview::next.lists) {
        const auto *pName = reinterpret_cast<const uint8_t *>(name.data());
        const auto nameLen = static_cast<uint32_t>(name.size());
        pVisitor->listBegin(pVisitor->pContext, pName, nameLen);
        for (PbrRedirect redirect : redirects) {
            redirect.pListName = pName;
            redirect.listNameLen = nameLen;
            pVisitor->entry(pVisitor->pContext, &redirect);
        }
    }
    return fakeview::next.visitsAll || all;
}

bool pbrRedirectViewGet(uint32_t, uint32_t, PbrRedirect *) {
    return false;
}
