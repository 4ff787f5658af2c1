// The daemon's side of the time ranges (platform/timerange.h), and their operations on the management
// socket: "timeranges" lists them, "timerange.define", "timerange.remove" and "timerange.replaceAll" give and
// take schedules, "timerange.set" switches a range by hand.
#include <stdexcept>
#include <utility>

#include "host/journal/journal.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"
#include "host/timerange/iso_text.h"
#include "host/timerange/schedule_json.h"
#include "host/timerange/timerange_service.h"
#include "schedule/schedule_text.h"

namespace host {

namespace {

using nlohmann::json;

constexpr const char *JOURNAL_SERVICE = "timerange";
constexpr uint32_t NAME_MAX_BYTES = 1024;
constexpr uint32_t CONTEXT_MAX_BYTES = 4096;
constexpr uint32_t ID_MIN = 1;           // 0 is no range to the daemon
constexpr uint32_t ID_MAX = 0xFFFFFFFEu; // all ones: none either
constexpr size_t RANGES_MAX = 10000;

uint32_t idMember(const json &request) {
    return mgmtArgNumber(request, "id", ID_MIN, ID_MAX);
}

void mustBeDone(const std::string &why) {
    if (!why.empty()) {
        throw std::runtime_error(why);
    }
}

json rowMembers(const TimerangeRow &row, const TimeZone &zone) {
    return {{"id", row.id},
            {"active", row.active},
            {"override", row.byHand ? json(*row.byHand ? "on" : "off") : json()},
            {"text", row.schedule ? schedule::scheduleText(*row.schedule) : ""},
            {"schedule", row.schedule ? scheduleMembers(*row.schedule) : json()},
            {"nextChange", row.nextChange ? json(isoText(*row.nextChange, zone)) : json()},
            {"bindings", row.names}};
}

json opTimeranges(const json &request) {
    mgmtArgsOnly(request, {});
    const TimerangeClock &clock = timerangeService().clock();
    json shown = json::array();
    for (const TimerangeRow &row : timerangeService().rows()) {
        shown.push_back(rowMembers(row, clock));
    }
    return {{"now", isoText(clock.now(), clock)}, {"timeRanges", std::move(shown)}};
}

json opSet(const json &request) {
    mgmtArgsOnly(request, {"id", "active"});
    const uint32_t id = idMember(request);
    const json active = request.value("active", json());
    if (active != "auto" && !active.is_boolean()) {
        throw std::runtime_error(std::string("member \"active\" ") + (request.contains("active") ? "" : "is missing: it ") +
                                 "must be true, false or \"auto\"");
    }
    timerangeService().set(id, active.is_boolean() ? std::optional(active.get<bool>()) : std::nullopt);
    return json::object();
}

json opDefine(const json &request) {
    mgmtArgsOnly(request, {"id", "days", "from", "to", "start", "end", "periods"});
    timerangeService().define(idMember(request), scheduleRead(request));
    return json::object();
}

json opRemove(const json &request) {
    mgmtArgsOnly(request, {"id", "force"});
    mustBeDone(timerangeService().remove(idMember(request), mgmtArgFlag(request, "force", false)));
    return json::object();
}

json opReplaceAll(const json &request) {
    mgmtArgsOnly(request, {"timeRanges", "force"});
    const json &members = mgmtArgObject(request, "timeRanges");
    if (members.size() > RANGES_MAX) {
        throw std::runtime_error("more than " + std::to_string(RANGES_MAX) + " time ranges");
    }
    TimerangeSchedules schedules;
    for (const auto &[key, value] : members.items()) {
        const uint32_t id = mgmtKeyNumber(key, "time range", ID_MIN, ID_MAX);
        try {
            (void)mgmtArgObject(members, key.c_str());
            scheduleMembersOnly(value);
            schedules[id] = scheduleRead(value);
        } catch (const std::runtime_error &wrong) {
            throw std::runtime_error("time range " + key + ": " + wrong.what());
        }
    }
    mustBeDone(timerangeService().replaceAll(std::move(schedules), mgmtArgFlag(request, "force", false)));
    return json::object();
}

// What the journal keeps: schedules and switches by hand.
std::map<std::string, std::string> rangeTexts() {
    std::map<std::string, std::string> texts;
    for (const TimerangeRow &row : timerangeService().rows()) {
        if (row.schedule || row.byHand) {
            texts[std::to_string(row.id)] = json{{"schedule", row.schedule ? scheduleMembers(*row.schedule) : json()},
                                                 {"byHand", row.byHand ? json(*row.byHand) : json()}}
                                                .dump();
        }
    }
    return texts;
}

// An operation that changes something: not made when it could not be kept.
MgmtHandler kept(json (*op)(const json &)) {
    return [op](const json &request) {
        journalMustBeReady();
        json answer = op(request);
        journalKeepAll(JOURNAL_SERVICE, rangeTexts());
        return answer;
    };
}

} // namespace

void timerangeRestore() {
    for (const auto &[key, text] : journalTexts(JOURNAL_SERVICE)) {
        try {
            const uint32_t id = mgmtKeyNumber(key, "time range", ID_MIN, ID_MAX);
            const json range = json::parse(text);
            if (!range.at("schedule").is_null()) {
                timerangeService().define(id, scheduleRead(range.at("schedule")));
            }
            if (!range.at("byHand").is_null()) {
                timerangeService().set(id, range.at("byHand").get<bool>());
            }
        } catch (const std::exception &refusal) {
            journalNotRestored("time range " + key, refusal.what());
        }
    }
}

void timerangeMgmtRegister() {
    mgmtRegister("timeranges", false, opTimeranges);
    mgmtRegister("timerange.set", true, kept(opSet));
    mgmtRegister("timerange.define", true, kept(opDefine));
    mgmtRegister("timerange.remove", true, kept(opRemove));
    mgmtRegister("timerange.replaceAll", true, kept(opReplaceAll));
}

} // namespace host

extern "C" {

uint32_t timerangeBind(uint32_t id, const char *name, uint32_t nameLen, TimerangeCallback start,
                       TimerangeCallback stop, TimerangeCallback unbind, const void *pContext,
                       uint32_t contextLen) {
    const bool isNameGood = name != nullptr && nameLen >= 1 && nameLen <= host::NAME_MAX_BYTES;
    const bool isContextGood = pContext != nullptr && contextLen <= host::CONTEXT_MAX_BYTES;
    if (!isNameGood || !isContextGood || start == nullptr || stop == nullptr || unbind == nullptr) {
        return QRV_ERR_BAD_ARGUMENT;
    }
    const auto *pBytes = static_cast<const uint8_t *>(pContext);
    host::timerangeService().bind(id, std::string(name, nameLen), {start, stop, unbind},
                                  std::vector<uint8_t>(pBytes, pBytes + contextLen));
    return QRV_OK;
}

uint32_t timerangeUnbind(uint32_t id, const char *name, uint32_t nameLen, uint32_t) {
    if (name == nullptr || nameLen > host::NAME_MAX_BYTES) {
        return QRV_ERR_BAD_ARGUMENT;
    }
    host::timerangeService().unbind(id, std::string(name, nameLen));
    return QRV_OK;
}
}
