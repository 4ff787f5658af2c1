// The daemon's side of the time ranges (platform/timerange.h), and their operations on the management
// socket: "timeranges" lists bindings, "timerange.set" switches a range by hand. Ranges that follow the
// clock do not exist yet; a range is inactive until it is switched on.
#include <stdexcept>
#include <utility>

#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"
#include "host/timerange/timerange_service.h"

namespace host {

namespace {

using nlohmann::json;

constexpr uint32_t NAME_MAX_BYTES = 1024;
constexpr uint32_t CONTEXT_MAX_BYTES = 4096;
constexpr uint32_t ID_MAX = 0xFFFFFFFEu; // all ones: no range

json opTimeranges(const json &request) {
    mgmtArgsOnly(request, {});
    json shown = json::array();
    for (const TimerangeRow &row : timerangeService().rows()) {
        shown.push_back({{"id", row.id}, {"active", row.active}, {"bindings", row.names}});
    }
    return {{"timeRanges", std::move(shown)}};
}

json opSet(const json &request) {
    mgmtArgsOnly(request, {"id", "active"});
    const uint32_t id = mgmtArgNumber(request, "id", 0, ID_MAX);
    if (!request.contains("active")) {
        throw std::runtime_error("member \"active\" is missing: it must be true or false");
    }
    timerangeService().set(id, mgmtArgFlag(request, "active", false));
    return json::object();
}

} // namespace

void timerangeMgmtRegister() {
    mgmtRegister("timeranges", false, opTimeranges);
    mgmtRegister("timerange.set", true, opSet);
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
