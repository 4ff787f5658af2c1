// What the daemon's own operations cost as the store grows: 10, 100, 1,000, 10,000 nodes.
//
// The store stands on the fake platform (its trace is taken after each operation, so that it does not
// grow); the growth exponents that the library prints are the figures to look at.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "core/pbr_info.h"
#include "core/pbr_start.h"
#include "hw/pbr_if_bind.h"
#include "hw/pbr_redirect_view.h"
#include "nexthop/pbr_if_node_update.h"
#include "nexthop/pbr_nexthop_state.h"
#include "store/pbr_if_entry.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_next_hop_entry.h"
#include "store/pbr_node_entry.h"
#include "tests/fake/fake.h"

namespace {

const uint8_t LIST[] = {'w', 'a', 'n'};

// One list of `nodes` nodes, each with a next hop of its own and a shared second one, bound once.
void buildStore(uint32_t nodes) {
    fake::reset();
    (void)pbrInit(8, nodes, 8);
    (void)pbrListEntryAdd(LIST, sizeof(LIST));
    for (uint32_t n = 1; n <= nodes; ++n) {
        PbrNodeEntry *pNode = pbrNodeEntryAdd(LIST, sizeof(LIST), n);
        pNode->aclNum = 5000 + n;
        pNode->policyRouteIpVer = PBR_IP_VERSION_4;
        for (uint32_t hop = 1; hop <= 2; ++hop) {
            PbrNextHopEntry *pHop = pbrNextHopEntryAdd(pNode, hop);
            const uint32_t host = hop == 1 ? n : 0xFFFF;
            const uint8_t address[4] = {10, static_cast<uint8_t>(hop), static_cast<uint8_t>(host >> 8),
                                        static_cast<uint8_t>(host)};
            std::memcpy(pHop->nextHop, address, sizeof(address));
        }
    }
    PbrIfEntry *pIf = pbrIfEntryAdd(7);
    std::memcpy(pIf->pbrName, LIST, sizeof(LIST));
    pIf->pbrNameLen = sizeof(LIST);
    (void)pbrIfEntryBind(pIf);
    (void)fake::takeTrace();
}

void ignoreList(void *, const uint8_t *, uint32_t) {}
void countEntry(void *pContext, const PbrRedirect *) { ++*static_cast<uint64_t *>(pContext); }

void peerReport(benchmark::State &state) {
    buildStore(static_cast<uint32_t>(state.range(0)));
    uint8_t address[16] = {10, 1, 0, 5};
    for (auto _ : state) {
        pbrNextHopStateUp(PBR_IP_VERSION_4, 0, address);
        (void)fake::takeTrace();
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(peerReport)->RangeMultiplier(10)->Range(10, 10000)->Complexity();

void updateRunWithOneChange(benchmark::State &state) {
    buildStore(static_cast<uint32_t>(state.range(0)));
    uint8_t address[16] = {10, 1, 0, 5};
    bool up = false;
    for (auto _ : state) {
        up = !up;
        (up ? pbrNextHopStateUp : pbrNextHopStateDown)(PBR_IP_VERSION_4, 0, address);
        (void)pbrIfNodeUpdate();
        (void)fake::takeTrace();
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(updateRunWithOneChange)->RangeMultiplier(10)->Range(10, 1000)->Complexity();

void redirectViewOfTheList(benchmark::State &state) {
    buildStore(static_cast<uint32_t>(state.range(0)));
    uint64_t entries = 0;
    const PbrRedirectVisitor visitor = {&entries, ignoreList, countEntry};
    for (auto _ : state) {
        (void)pbrRedirectViewTake(true, &visitor);
    }
    benchmark::DoNotOptimize(entries);
    state.SetComplexityN(state.range(0));
}
BENCHMARK(redirectViewOfTheList)->RangeMultiplier(10)->Range(10, 10000)->Complexity();

void nodeLookUp(benchmark::State &state) {
    buildStore(static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(pbrNodeEntryGet(LIST, sizeof(LIST), static_cast<uint32_t>(state.range(0))));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(nodeLookUp)->RangeMultiplier(10)->Range(10, 10000)->Complexity();

void aclInUseCheck(benchmark::State &state) {
    buildStore(static_cast<uint32_t>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(pbrNodeAclNumCheck(1));
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(aclInUseCheck)->RangeMultiplier(10)->Range(10, 10000)->Complexity();

} // namespace
