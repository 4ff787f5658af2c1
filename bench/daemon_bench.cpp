// What the daemon's own operations cost as the store grows: 10 to 100,000 records, with growth exponents.
//
// The store stands on the fake platform (its trace is taken after each operation, so that it does not grow). The pools
// have no limit of their own: they are as large as the options say (policyroute.maxlistnum, maxnodenum; four next hops
// a node).
//   daemon_bench [--benchmark_filter=nodeLookUp]; bench/run.py --part daemon makes a table of it
#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include "api/pbr_keys.h"
#include "api/pbr_next_hop_api.h"
#include "api/pbr_node_api.h"
#include "api/pbr_walk.h"
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
#include "store/pbr_nqa_entry.h"
#include "tests/fake/fake.h"

namespace {

const uint8_t LIST[] = {'w', 'a', 'n'};
constexpr uint32_t ACL_BASE = 5000;

// The address of a next hop of its own for each node (hop 1), or one that all nodes of a row share.
std::array<uint8_t, 16> address(uint32_t hop, uint32_t host) {
    return {10, static_cast<uint8_t>(hop << 4 | host >> 16), static_cast<uint8_t>(host >> 8), static_cast<uint8_t>(host)};
}

// What stands in the store; it is built again only when another one is wanted.
struct Wanted {
    uint32_t lists;
    uint32_t nodes;   // in the list "wan"
    uint32_t sharing; // so many nodes share a first next hop; 1: each has its own
    bool bound;
    bool operator==(const Wanted &other) const = default;
};
Wanted built = {0, 0, 0, false};

std::string listName(uint32_t number) {
    std::array<char, 16> text{};
    (void)std::snprintf(text.data(), text.size(), "l%08u", number);
    return text.data();
}

void addNode(uint32_t number, uint32_t sharing) {
    PbrNodeEntry *pNode = pbrNodeEntryAdd(LIST, sizeof(LIST), number);
    pNode->aclNum = ACL_BASE + number;
    pNode->policyRouteIpVer = PBR_IP_VERSION_4;
    for (uint32_t hop = 1; hop <= 2; ++hop) {
        PbrNextHopEntry *pHop = pbrNextHopEntryAdd(pNode, hop);
        const auto bytes = address(hop, hop == 1 ? number / sharing : 0xFFFF);
        std::memcpy(pHop->nextHop, bytes.data(), 4);
    }
    (void)fake::takeTrace();
}

void want(const Wanted &wanted) {
    if (wanted == built) {
        return;
    }
    fake::reset();
    (void)pbrInit(wanted.lists + 1, wanted.nodes, 8);
    for (uint32_t number = wanted.lists; number > 0; --number) {
        const std::string name = listName(number);
        (void)pbrListEntryAdd(reinterpret_cast<const uint8_t *>(name.data()), static_cast<uint32_t>(name.size()));
        (void)fake::takeTrace();
    }
    (void)pbrListEntryAdd(LIST, sizeof(LIST));
    for (uint32_t number = wanted.nodes; number > 0; --number) { // descending: the place of each is the first
        addNode(number, wanted.sharing);
    }
    if (wanted.bound) {
        PbrIfEntry *pIf = pbrIfEntryAdd(7);
        std::memcpy(pIf->pbrName, LIST, sizeof(LIST));
        pIf->pbrNameLen = sizeof(LIST);
        (void)pbrIfEntryBind(pIf);
    }
    (void)fake::takeTrace();
    built = wanted;
}

uint32_t count(const benchmark::State &state) { return static_cast<uint32_t>(state.range(0)); }

PbrNodeKey nodeKey(uint32_t node, uint8_t hop) {
    PbrNodeKey key{};
    std::memcpy(key.listName, LIST, sizeof(LIST));
    key.listNameLen = sizeof(LIST);
    key.nodeIndex = node;
    key.nextHopIndex = hop;
    return key;
}

void done(benchmark::State &state, bool right) {
    if (!right) {
        state.SkipWithError("the operation was refused");
    }
    state.SetComplexityN(state.range(0));
}

void ignoreList(void *, const uint8_t *, uint32_t) {}
void countEntry(void *pContext, const PbrRedirect *) { ++*static_cast<uint64_t *>(pContext); }

void peerReportOfOneNode(benchmark::State &state) {
    want({0, count(state), 1, true});
    auto peer = address(1, count(state) / 2);
    for (auto _ : state) {
        pbrNextHopStateUp(PBR_IP_VERSION_4, 0, peer.data());
        (void)fake::takeTrace();
    }
    done(state, true);
}

void peerReportOfTenNodes(benchmark::State &state) {
    want({0, count(state), 10, true});
    auto peer = address(1, count(state) / 20);
    for (auto _ : state) {
        pbrNextHopStateUp(PBR_IP_VERSION_4, 0, peer.data());
        (void)fake::takeTrace();
    }
    done(state, true);
}

void peerReportOfAStranger(benchmark::State &state) {
    want({0, count(state), 1, true});
    auto peer = address(3, 1);
    for (auto _ : state) {
        pbrNextHopStateUp(PBR_IP_VERSION_4, 0, peer.data());
        (void)fake::takeTrace();
    }
    done(state, true);
}

void updateRunWithOneChange(benchmark::State &state) {
    want({0, count(state), 1, true});
    auto peer = address(1, count(state) / 2);
    bool up = false;
    for (auto _ : state) {
        up = !up;
        (up ? pbrNextHopStateUp : pbrNextHopStateDown)(PBR_IP_VERSION_4, 0, peer.data());
        (void)pbrIfNodeUpdate();
        (void)fake::takeTrace();
    }
    done(state, true);
}

void redirectViewOfTheList(benchmark::State &state) {
    want({0, count(state), 1, true});
    uint64_t entries = 0;
    const PbrRedirectVisitor visitor = {&entries, ignoreList, countEntry};
    for (auto _ : state) {
        (void)pbrRedirectViewTake(true, &visitor);
    }
    benchmark::DoNotOptimize(entries);
    done(state, true);
}

void listLookUp(benchmark::State &state) {
    want({count(state), 1, 1, false});
    const std::string name = listName(count(state));
    bool right = true;
    for (auto _ : state) {
        const PbrListEntry *pList = pbrListEntryGet(reinterpret_cast<const uint8_t *>(name.data()),
                                                    static_cast<uint32_t>(name.size()));
        right = right && pList != nullptr;
    }
    done(state, right);
}

void nodeLookUp(benchmark::State &state) {
    want({0, count(state), 1, true});
    bool right = true;
    for (auto _ : state) {
        right = right && pbrNodeEntryGet(LIST, sizeof(LIST), count(state)) != nullptr;
    }
    done(state, right);
}

void aclInUseCheck(benchmark::State &state) {
    want({0, count(state), 1, true});
    for (auto _ : state) {
        benchmark::DoNotOptimize(pbrNodeAclNumCheck(1));
    }
    done(state, true);
}

void nqaUseCheck(benchmark::State &state) {
    want({0, count(state), 1, true});
    PbrNodeEntry *pNode = pbrNodeEntryGet(LIST, sizeof(LIST), count(state));
    PbrNextHopEntry *pHop = pbrNextHopEntryGet(pNode, 1);
    pHop->nqaAdminNameLen = pHop->nqaTestNameLen = 3;
    std::memcpy(pHop->nqaAdminName, LIST, sizeof(LIST));
    std::memcpy(pHop->nqaTestName, LIST, sizeof(LIST));
    bool right = true;
    for (auto _ : state) {
        right = right && pbrNqaCheckNoUsed(pHop) == 0;
    }
    pHop->nqaAdminNameLen = pHop->nqaTestNameLen = 0;
    done(state, right);
}

void nodeGet(benchmark::State &state) {
    want({0, count(state), 1, true});
    const PbrNodeKey key = nodeKey(count(state), 0);
    bool right = true;
    for (auto _ : state) {
        PbrApiValue value{};
        right = right && pbrNodeGetApi(&key, PBR_NODE_ACL_NUM, &value) == PBR_OK;
        (void)fake::takeTrace();
    }
    done(state, right);
}

void nodeSet(benchmark::State &state) {
    want({0, count(state), 1, false}); // of a bound list nothing may be set
    const PbrNodeKey key = nodeKey(count(state), 0);
    bool right = true;
    uint32_t number = 0;
    for (auto _ : state) {
        PbrApiValue value{};
        value.word0 = ++number;
        right = right && pbrNodeSetApi(&key, PBR_NODE_FIELD7, &value) == PBR_OK;
        (void)fake::takeTrace();
    }
    done(state, right);
}

void nextHopGet(benchmark::State &state) {
    want({0, count(state), 1, true});
    const PbrNodeKey key = nodeKey(count(state), 2);
    bool right = true;
    for (auto _ : state) {
        std::array<uint8_t, 16> room{};
        PbrApiValue value{};
        value.word0 = reinterpret_cast<uintptr_t>(room.data());
        value.word1 = room.size();
        right = right && pbrNextHopGetApi(&key, PBR_NEXT_HOP_ADDRESS, &value) == PBR_OK;
        (void)fake::takeTrace();
    }
    done(state, right);
}

void nodeWalkStep(benchmark::State &state) { // from the last but one to the last
    want({0, count(state), 1, true});
    const PbrNodeKey from = nodeKey(count(state) - 1, 0);
    bool right = true;
    for (auto _ : state) {
        PbrNodeKey next{};
        right = right && pbrNodeGetNext(&from, &next) == PBR_OK && next.nodeIndex == count(state);
        (void)fake::takeTrace();
    }
    done(state, right);
}

#define GROWING(name, most) BENCHMARK(name)->RangeMultiplier(10)->Range(10, most)->Complexity()
GROWING(peerReportOfOneNode, 100000);
GROWING(peerReportOfTenNodes, 100000);
GROWING(peerReportOfAStranger, 100000);
GROWING(updateRunWithOneChange, 100000);
GROWING(redirectViewOfTheList, 100000);
GROWING(listLookUp, 100000);
GROWING(nodeLookUp, 100000);
GROWING(aclInUseCheck, 100000);
GROWING(nqaUseCheck, 100000);
GROWING(nodeGet, 100000);
GROWING(nodeSet, 100000);
GROWING(nextHopGet, 100000);
GROWING(nodeWalkStep, 100000);

} // namespace
