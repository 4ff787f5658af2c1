// See nqa_probes.h.
#include "host/nqa/nqa_probes.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>

#include "host/bus/bus.h"
#include "host/event/event_loop.h"
#include "host/fib/fib.h"
#include "host/ifnet/ifnet.h"
#include "host/logging/host_log.h"
#include "host/mgmt/watch_feed.h"
#include "host/nqa/nqa_asker.h"
#include "host/option/option.h"
#include "platform/qrv_socket.h"

namespace host {

namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr size_t REQUESTED_MOST = 65536;      // names remembered; questions beyond are answered all the same
constexpr int STEPS_AT_ONCE = 128;            // others on the event thread get their turn
constexpr milliseconds REFRESH_WAIT{20};      // changes of routes and links are looked at together

struct Probe {
    uint32_t id = 0;
    NqaConfig config;
    std::optional<NqaWayKey> way;
    int64_t sinceWallMs = 0, clearedWallMs = 0;
    bool hasResult = false;
};

struct Service {
    std::map<NqaName, Probe> probes;
    std::map<uint32_t, NqaName> nameOfId;
    std::map<NqaName, uint64_t> requests;
    NqaEngine engine;
    std::unique_ptr<NqaWays> pWays;
    std::unique_ptr<NqaAsker> pAsker;
    uint32_t lastId = 0;
    EventLoop::TimerId timer = 0;
    int64_t timerDueUs = 0;
    bool isRefreshSet = false;
    std::atomic<size_t> unknown{0}; // probes without a result yet
};

Service &service() {
    static Service *pService = new Service; // outlives the event thread
    return *pService;
}

int64_t nowUs() {
    return duration_cast<microseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int64_t wallMs() {
    return duration_cast<milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// ---- the route bus ----

std::string nameOf(const uint8_t *pName, uint8_t len) {
    return std::string(reinterpret_cast<const char *>(pName), len);
}

void publish(const NqaStatusMsg &status) {
    const auto bytes = busMessage(QRV_RTM_NQA, &status, sizeof status);
    busPublish(QRV_RTNLGRP_NQA, bytes.data(), bytes.size());
}

void publishState(const NqaName &name, NqaState state) {
    NqaStatusMsg status{};
    std::memcpy(status.adminName, name.first.data(), name.first.size());
    std::memcpy(status.testName, name.second.data(), name.second.size());
    status.adminNameLen = static_cast<uint8_t>(name.first.size());
    status.testNameLen = static_cast<uint8_t>(name.second.size());
    status.status = static_cast<uint8_t>(state);
    publish(status);
}

NqaState stateOf(const NqaName &name) {
    const auto found = service().probes.find(name);
    return found == service().probes.end() ? NqaState::Failing : service().engine.get(found->second.id)->state;
}

// After a loss: the present state of all, since the lost messages may have been answers.
void publishAll() {
    for (const auto &[name, probe] : service().probes) {
        publishState(name, stateOf(name));
    }
    for (const auto &[name, count] : service().requests) {
        if (service().probes.count(name) == 0) {
            publishState(name, NqaState::Failing);
        }
    }
}

void received(const std::vector<uint8_t> &message) {
    const auto request = nqaAnswer(message, 0);
    if (!request) {
        return; // answers of ours and of others travel in the same group
    }
    const NqaName name{nameOf(request->adminName, request->adminNameLen),
                       nameOf(request->testName, request->testNameLen)};
    auto &requests = service().requests;
    if (requests.size() < REQUESTED_MOST || requests.count(name) != 0) {
        requests[name]++;
    }
    NqaStatusMsg answer = *request;
    answer.status = static_cast<uint8_t>(stateOf(name));
    publish(answer);
}

// ---- running ----

void changed(uint32_t id) {
    const NqaName &name = service().nameOfId.at(id);
    Probe &probe = service().probes.at(name);
    const NqaRun &run = *service().engine.get(id);
    service().unknown -= probe.hasResult ? 0 : 1; // nothing becomes unknown again
    probe.hasResult = true;
    probe.sinceWallMs = wallMs();
    const std::string text = name.first + "/" + name.second;
    if (run.state == NqaState::Passing) {
        hostLog(LOG_LEVEL_NOTICE, "nqa", "probe %s is passing", text.c_str());
    } else {
        hostLog(LOG_LEVEL_NOTICE, "nqa", "probe %s is failing: %s", text.c_str(), run.error.c_str());
    }
    const bool isPassing = run.state == NqaState::Passing;
    watchTell("probe", "probe " + text + (isPassing ? " is passing" : " is failing: " + run.error),
              {{"probe", text}, {"state", isPassing ? "passing" : "failing"}, {"reason", isPassing ? "" : run.error}});
    publishState(name, run.state);
}

void arm();

void answered(uint32_t id, uint64_t seq) {
    if (service().engine.success(id, seq, nowUs()).changed) {
        changed(id);
    }
    arm();
}

void unanswered(uint32_t id, uint64_t seq, const std::string &why) {
    if (service().engine.failure(id, seq, why).changed) {
        changed(id);
    }
    arm();
}

bool isOpen(uint32_t id, uint64_t seq, const NqaAddress &target) {
    const NqaRun *pRun = service().engine.get(id);
    return pRun != nullptr && pRun->isWaiting && pRun->seq == seq &&
           service().probes.at(service().nameOfId.at(id)).config.question.target == target;
}

NqaAsker &asker() {
    if (service().pAsker == nullptr) {
        service().pAsker = std::make_unique<NqaAsker>(NqaResults{answered, unanswered, isOpen});
    }
    return *service().pAsker;
}

void ask(uint32_t id, uint64_t seq) {
    const Probe &probe = service().probes.at(service().nameOfId.at(id));
    uint32_t mark = 0;
    std::string why;
    if (probe.way) {
        const NqaWay way = service().pWays->get(*probe.way);
        mark = way.mark;
        why = way.problem;
    }
    if (why.empty()) {
        why = asker().ask(id, seq, probe.config.question, mark);
    }
    if (!why.empty() && service().engine.failure(id, seq, why).changed) {
        changed(id);
    }
}

void tick() {
    service().timer = 0;
    for (int i = 0; i < STEPS_AT_ONCE; i++) {
        const auto due = service().engine.next(nowUs());
        if (!due) {
            break;
        }
        if (!due->isTimeout) {
            ask(due->id, due->seq);
            continue;
        }
        asker().cancel(due->id);
        if (due->isChange) {
            changed(due->id);
        }
    }
    arm();
}

// One timer for all probes: at the earliest thing that is due.
void arm() {
    const auto due = service().engine.dueUs();
    if (!due || (service().timer != 0 && service().timerDueUs <= *due)) {
        return; // a timer that comes too early finds nothing and sets itself right
    }
    hostEventLoop().timerStop(service().timer);
    service().timerDueUs = *due;
    const auto wait = std::chrono::ceil<milliseconds>(microseconds(std::max<int64_t>(*due - nowUs(), 0)));
    service().timer = hostEventLoop().timerStart(wait, tick);
}

// ---- ways ----

NqaWays &ways() {
    if (service().pWays == nullptr) {
        KernelOptions options;
        options.markMask = static_cast<uint32_t>(optionNumber("host.mark-mask"));
        options.rulePreference = static_cast<uint32_t>(optionNumber("host.rule-preference"));
        options.tableBase = static_cast<uint32_t>(optionNumber("host.table-base"));
        service().pWays = std::make_unique<NqaWays>(options);
    }
    return *service().pWays;
}

void refreshSoon() {
    if (service().pWays == nullptr || std::exchange(service().isRefreshSet, true)) {
        return;
    }
    hostEventLoop().timerStart(REFRESH_WAIT, [] {
        service().isRefreshSet = false;
        service().pWays->refresh();
    });
}

// ---- configuration ----

void make(const NqaName &name, const NqaConfig &config) {
    Probe &probe = service().probes[name];
    probe.id = ++service().lastId;
    probe.config = config;
    probe.way = nqaWayKey(config.question);
    probe.sinceWallMs = probe.clearedWallMs = wallMs();
    service().nameOfId[probe.id] = name;
    if (probe.way) {
        ways().acquire(*probe.way);
    }
    service().engine.add(probe.id, config.timing, nowUs());
    service().unknown++;
}

// Result: the state that it had.
NqaState drop(const NqaName &name) {
    const auto found = service().probes.find(name);
    const Probe probe = found->second;
    const NqaState state = service().engine.get(probe.id)->state;
    asker().cancel(probe.id);
    service().engine.del(probe.id);
    service().nameOfId.erase(probe.id);
    service().probes.erase(found);
    service().unknown -= probe.hasResult ? 0 : 1;
    if (probe.way) {
        service().pWays->release(*probe.way);
    }
    return state;
}

void put(const NqaName &name, const NqaConfig &config) {
    const auto found = service().probes.find(name);
    if (found == service().probes.end()) {
        return make(name, config);
    }
    Probe &probe = found->second;
    if (probe.config.question == config.question) {
        if (probe.config.timing != config.timing) {
            asker().cancel(probe.id);
            probe.config = config;
            service().engine.timingSet(probe.id, config.timing, nowUs());
        }
        return;
    }
    // The new way stands before the old one goes: one that both use is not touched.
    const std::optional<NqaWayKey> next = nqaWayKey(config.question);
    if (next) {
        ways().acquire(*next);
    }
    const NqaState before = drop(name);
    make(name, config);
    if (next) {
        service().pWays->release(*next);
    }
    if (before == NqaState::Passing) {
        publishState(name, NqaState::Unknown);
    }
}

std::string tooMany(size_t count) {
    return "more than " + std::to_string(NQA_PROBES_MOST) + " probes cannot be run: " + std::to_string(count);
}

} // namespace

std::vector<NqaProbe> nqaProbes() {
    std::map<NqaName, NqaProbe> all;
    for (const auto &[name, probe] : service().probes) {
        const NqaRun &run = *service().engine.get(probe.id);
        NqaProbe &row = all[name];
        row = {name, 0, probe.config, run.state, probe.sinceWallMs, probe.clearedWallMs, run.statistics, run.isWaiting,
               run.error, std::nullopt};
        if (probe.way) {
            row.way = service().pWays->get(*probe.way);
        }
    }
    for (const auto &[name, count] : service().requests) {
        all[name].name = name;
        all[name].requests = count;
    }
    std::vector<NqaProbe> rows;
    for (auto &[name, row] : all) {
        rows.push_back(std::move(row));
    }
    return rows;
}

std::string nqaProbeSet(const NqaName &name, const NqaConfig &config) {
    const size_t count = service().probes.size() + (service().probes.count(name) == 0 ? 1 : 0);
    if (count > NQA_PROBES_MOST) {
        return tooMany(count);
    }
    put(name, config);
    arm();
    return "";
}

bool nqaProbeDel(const NqaName &name) {
    if (service().probes.count(name) == 0) {
        return false;
    }
    if (drop(name) == NqaState::Passing) {
        publishState(name, NqaState::Failing);
    }
    return true;
}

std::string nqaProbesReplace(const std::map<NqaName, NqaConfig> &probes, NqaReplaced *pReplaced) {
    if (probes.size() > NQA_PROBES_MOST) {
        return tooMany(probes.size());
    }
    std::vector<NqaName> gone;
    for (const auto &[name, probe] : service().probes) {
        if (probes.count(name) == 0) {
            gone.push_back(name);
        }
    }
    NqaReplaced replaced;
    for (const auto &[name, config] : probes) {
        const auto found = service().probes.find(name);
        const bool isNew = found == service().probes.end();
        ++(isNew ? replaced.made : found->second.config == config ? replaced.kept : replaced.changed);
        put(name, config);
    }
    for (const NqaName &name : gone) {
        (void)nqaProbeDel(name); // it was there just now
    }
    replaced.removed = gone.size();
    *pReplaced = replaced;
    arm();
    return "";
}

bool nqaUndetermined() {
    return service().unknown != 0;
}

bool nqaStatisticsClear(const NqaName *pName) {
    bool isFound = pName == nullptr;
    for (auto &[name, probe] : service().probes) {
        if (pName == nullptr || *pName == name) {
            service().engine.statisticsClear(probe.id);
            probe.clearedWallMs = wallMs();
            isFound = true;
        }
    }
    return isFound;
}

std::optional<NqaStatusMsg> nqaAnswer(const std::vector<uint8_t> &request, uint8_t status) {
    RtMsgHeader header;
    NqaStatusMsg asked;
    if (request.size() < sizeof header + sizeof asked) {
        return std::nullopt;
    }
    std::memcpy(&header, request.data(), sizeof header);
    std::memcpy(&asked, request.data() + QRV_RTM_HEADER_BYTES, sizeof asked);
    const bool areNamesGood = asked.adminNameLen >= 1 && asked.adminNameLen <= NQA_NAME_BYTES &&
                              asked.testNameLen >= 1 && asked.testNameLen <= NQA_NAME_BYTES;
    if (header.type != QRV_RTM_NQA_STATEREQ || header.length < sizeof header + sizeof asked ||
        !areNamesGood) {
        return std::nullopt;
    }
    NqaStatusMsg answer{}; // bytes behind the names are 0, whatever was asked
    std::memcpy(answer.adminName, asked.adminName, asked.adminNameLen);
    std::memcpy(answer.testName, asked.testName, asked.testNameLen);
    answer.adminNameLen = asked.adminNameLen;
    answer.testNameLen = asked.testNameLen;
    answer.status = status;
    return answer;
}

void nqaProbesStart() {
    busSubscribe(QRV_RTNLGRP_NQA, received);
    busOnLoss(publishAll);
    fibOnChange(refreshSoon);
    ifnetOnChange([](const IfnetLink &) { refreshSoon(); });
    if (optionGet("host.device").value_or("kernel") == "kernel") {
        hostEventLoop().post([] {
            // Removes what an earlier run left; without the kernel each probe with a way tells why.
            const std::string error = ways().open();
            if (!error.empty()) {
                hostLog(LOG_LEVEL_WARNING, "nqa", "ways of probes: %s", error.c_str());
            }
        });
    }
}

} // namespace host
