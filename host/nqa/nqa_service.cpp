// See nqa_service.h.
#include "host/nqa/nqa_service.h"

#include <cstdio>
#include <ctime>
#include <stdexcept>

#include "host/journal/journal.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"

namespace host {

namespace {

using nlohmann::json;

constexpr const char *JOURNAL_SERVICE = "probe";

const char *stateText(NqaState state) {
    switch (state) {
    case NqaState::Passing:
        return "passing";
    case NqaState::Failing:
        return "failing";
    case NqaState::Unknown:
        return "no result";
    }
    return "no result";
}

// "2026-11-21T13:49:01Z"
std::string timeText(int64_t wallMs) {
    const time_t seconds = static_cast<time_t>(wallMs / 1000);
    tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

// Round trips are null before there is one, and so is the loss before a question is settled.
json statisticsJson(const NqaProbe &probe) {
    const NqaStatistics &all = probe.statistics;
    const auto trip = [&](uint64_t us) { return all.received == 0 ? json() : json(us); };
    const uint64_t settled = all.received + all.lost;
    const uint64_t lostOf10000 = settled == 0 ? 0 : all.lost * 10000 / settled;
    return {{"since", timeText(probe.clearedWallMs)},
            {"sent", all.sent},
            {"received", all.received},
            {"lost", all.lost},
            {"lossPercent", settled == 0 ? json() : json(static_cast<double>(lostOf10000) / 100)},
            {"lastUs", trip(all.lastUs)},
            {"leastUs", trip(all.leastUs)},
            {"meanUs", trip(all.received == 0 ? 0 : all.sumUs / all.received)},
            {"mostUs", trip(all.mostUs)}};
}

json wayJson(const NqaWay &way) {
    char mark[16];
    snprintf(mark, sizeof mark, "0x%08x", way.mark);
    return {{"mark", mark}, {"preference", way.preference}, {"table", way.table}, {"problem", way.problem}};
}

// A probe that is merely asked for has the first four members.
json probeJson(const NqaProbe &probe) {
    json row = {{"admin", probe.name.first},
                {"test", probe.name.second},
                {"status", stateText(probe.state)},
                {"requests", probe.requests}};
    if (probe.config) {
        row["config"] = nqaConfigWrite(*probe.config);
        row["since"] = timeText(probe.sinceWallMs);
        row["statistics"] = statisticsJson(probe);
        row["error"] = probe.error;
    }
    if (probe.way) {
        row["way"] = wayJson(*probe.way);
    }
    return row;
}

NqaName nameRead(const json &request) {
    NqaName name{mgmtArgText(request, "admin"), mgmtArgText(request, "test")};
    nqaNameCheck(name.first, "admin");
    nqaNameCheck(name.second, "test");
    return name;
}

std::string nameText(const NqaName &name) {
    return name.first + "/" + name.second;
}

void must(const std::string &error) {
    if (!error.empty()) {
        throw std::runtime_error(error);
    }
}

// What the journal keeps: the configured probes.
std::map<std::string, std::string> configTexts() {
    std::map<std::string, std::string> texts;
    for (const NqaProbe &probe : nqaProbes()) {
        if (probe.config) {
            texts[json::array({probe.name.first, probe.name.second}).dump()] = nqaConfigWrite(*probe.config).dump();
        }
    }
    return texts;
}

// An operation that changes something: not made when it could not be kept.
MgmtHandler kept(json (*op)(const json &)) {
    return [op](const json &request) {
        journalMustBeReady();
        json answer = op(request);
        journalKeepAll(JOURNAL_SERVICE, configTexts());
        return answer;
    };
}

json opProbes(const json &request) {
    mgmtArgsOnly(request, {});
    json shown = json::array();
    for (const NqaProbe &probe : nqaProbes()) {
        shown.push_back(probeJson(probe));
    }
    return {{"probes", std::move(shown)}};
}

json opSet(const json &request) {
    const NqaName name = nameRead(request);
    must(nqaProbeSet(name, nqaConfigRead(request, true)));
    return json::object();
}

json opDel(const json &request) {
    mgmtArgsOnly(request, {"admin", "test"});
    const NqaName name = nameRead(request);
    if (!nqaProbeDel(name)) {
        throw std::runtime_error("there is no probe " + nameText(name));
    }
    return json::object();
}

json opClear(const json &request) {
    mgmtArgsOnly(request, {"admin", "test"});
    if (!request.contains("admin") && !request.contains("test")) {
        (void)nqaStatisticsClear(nullptr); // all, even if there is none
        return json::object();
    }
    const NqaName name = nameRead(request);
    if (!nqaStatisticsClear(&name)) {
        throw std::runtime_error("there is no probe " + nameText(name));
    }
    return json::object();
}

// "ops/isp-a": the first slash ends the administrator.
NqaName nameSplit(const std::string &key) {
    const size_t slash = key.find('/');
    const NqaName name{key.substr(0, slash), slash == std::string::npos ? "" : key.substr(slash + 1)};
    if (name.first.empty() || name.second.empty() || name.first.size() > NQA_NAME_BYTES ||
        name.second.size() > NQA_NAME_BYTES) {
        throw std::runtime_error("probe \"" + key.substr(0, 80) + "\": the name must be ADMINISTRATOR/TEST, each of 1 to 32 bytes");
    }
    return name;
}

json opReplaceAll(const json &request) {
    mgmtArgsOnly(request, {"probes"});
    std::map<NqaName, NqaConfig> wanted;
    for (const auto &[key, members] : mgmtArgObject(request, "probes").items()) {
        const NqaName name = nameSplit(key);
        if (!members.is_object()) {
            throw std::runtime_error("probe " + key + ": must be an object");
        }
        try {
            wanted[name] = nqaConfigRead(members, false);
        } catch (const std::runtime_error &refusal) {
            throw std::runtime_error("probe " + key + ": " + refusal.what());
        }
    }
    NqaReplaced replaced;
    must(nqaProbesReplace(wanted, &replaced));
    return {{"made", replaced.made}, {"changed", replaced.changed}, {"removed", replaced.removed}, {"kept", replaced.kept}};
}

} // namespace

void nqaRestore() {
    for (const auto &[key, text] : journalTexts(JOURNAL_SERVICE)) {
        try {
            const json name = json::parse(key);
            const NqaName probe{name.at(0).get<std::string>(), name.at(1).get<std::string>()};
            must(nqaProbeSet(probe, nqaConfigRead(json::parse(text), false)));
        } catch (const std::exception &refusal) {
            journalNotRestored("probe " + key, refusal.what());
        }
    }
}

void nqaStart() {
    nqaProbesStart();
    mgmtRegister("probes", false, opProbes);
    mgmtRegister("probe.set", true, kept(opSet));
    mgmtRegister("probe.del", true, kept(opDel));
    mgmtRegister("probe.clear", true, opClear);
    mgmtRegister("probe.replaceAll", true, kept(opReplaceAll));
}

} // namespace host
