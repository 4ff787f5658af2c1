// The probes by name: runs the configured ones and answers the daemon's questions about them.
//
// A probe is named by (administrator, test). Each change of its state is published on the route bus as a
// status message; every question of the daemon is answered with the present state: passing, failing, or
// "no result" before the first one. A probe that is not configured is answered "failing", so that a next
// hop tied to it carries no traffic before something watches it.
//
// Everything happens on the event thread: nqa_engine decides when and what, nqa_asker asks, nqa_way makes
// the packets leave where they should. Lock: none, but for what is said otherwise.
#ifndef HOST_NQA_NQA_PROBES_H
#define HOST_NQA_NQA_PROBES_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/nqa/nqa_config.h"
#include "host/nqa/nqa_engine.h"
#include "host/nqa/nqa_way.h"
#include "platform/qrv_rtm.h"

namespace host {

constexpr uint8_t NQA_STATUS_PASSING = 1;
constexpr uint8_t NQA_STATUS_FAILING = 2;
constexpr size_t NQA_PROBES_MOST = 16384;

using NqaName = std::pair<std::string, std::string>; // administrator, test

// A probe that is configured, or was asked for, or both.
struct NqaProbe {
    NqaName name;
    uint64_t requests = 0;               // how often the daemon asked
    std::optional<NqaConfig> config;     // none: not configured
    NqaState state = NqaState::Failing;
    int64_t sinceWallMs = 0;             // when the state began, milliseconds since 1970
    int64_t clearedWallMs = 0;           // when the statistics began
    NqaStatistics statistics;
    bool isWaiting = false;              // a question is open
    std::string error;                   // of the latest failure
    std::optional<NqaWay> way;           // of its packets, when they have one
};

// All of them, by name. Event thread.
std::vector<NqaProbe> nqaProbes();

// Makes a probe, or changes it: when only times and counts change it keeps its state and statistics, else
// it begins anew. Result: empty, or why not. Event thread.
std::string nqaProbeSet(const NqaName &name, const NqaConfig &config);

// Result: whether there was one. One that passed is reported as failing. Event thread.
bool nqaProbeDel(const NqaName &name);

struct NqaReplaced {
    size_t made = 0, changed = 0, removed = 0, kept = 0;
};

// Exactly these probes; those that are equal are not disturbed. Result: empty, or why nothing was changed.
std::string nqaProbesReplace(const std::map<NqaName, NqaConfig> &probes, NqaReplaced *pReplaced);

// Whether some configured probe has no result yet: the first comes within a second and its time-out. Any
// thread.
bool nqaUndetermined();

// Statistics begin anew, of one probe or (null) of all. Result: whether there was one. Event thread.
bool nqaStatisticsClear(const NqaName *pName);

// The status message that answers a request. request: a whole message; none when it is not one (other
// type, too short, or a name of no or more than 32 bytes). Any thread.
std::optional<NqaStatusMsg> nqaAnswer(const std::vector<uint8_t> &request, uint8_t status);

// Listens to the bus, to routes and links. Before the first request.
void nqaProbesStart();

} // namespace host

#endif
