// See nqa_service.h.
#include "host/nqa/nqa_service.h"

#include <cstring>
#include <map>
#include <mutex>
#include <utility>

#include "host/bus/bus.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"
#include "platform/qrv_socket.h"

namespace host {

namespace {

using nlohmann::json;
using Name = std::pair<std::string, std::string>; // administrator, test

constexpr size_t PROBES_MAX = 65536; // names remembered; questions beyond are answered all the same

struct Service {
    std::mutex lock;
    std::map<Name, NqaProbe> probes;
};

Service &service() {
    static Service *pService = new Service; // outlives the event thread
    return *pService;
}

std::string nameOf(const uint8_t *pName, uint8_t len) {
    return std::string(reinterpret_cast<const char *>(pName), len);
}

// Remembers the question. Result: the probe's status.
uint8_t noteRequest(const NqaStatusMsg &request) {
    Service &all = service();
    const Name name{nameOf(request.adminName, request.adminNameLen),
                    nameOf(request.testName, request.testNameLen)};
    const std::lock_guard guard(all.lock);
    if (all.probes.size() >= PROBES_MAX && all.probes.count(name) == 0) {
        return NQA_STATUS_FAILING;
    }
    NqaProbe &probe = all.probes[name];
    probe.admin = name.first;
    probe.test = name.second;
    probe.requests++;
    return probe.status;
}

void publish(const NqaStatusMsg &status) {
    const auto bytes = busMessage(QRV_RTM_NQA, &status, sizeof status);
    busPublish(QRV_RTNLGRP_NQA, bytes.data(), bytes.size());
}

// After a loss: the present state of all, since the lost messages may have been answers.
void publishAll() {
    for (const NqaProbe &probe : nqaProbes()) {
        NqaStatusMsg status{};
        std::memcpy(status.adminName, probe.admin.data(), probe.admin.size());
        std::memcpy(status.testName, probe.test.data(), probe.test.size());
        status.adminNameLen = static_cast<uint8_t>(probe.admin.size());
        status.testNameLen = static_cast<uint8_t>(probe.test.size());
        status.status = probe.status;
        publish(status);
    }
}

void received(const std::vector<uint8_t> &message) {
    const auto request = nqaAnswer(message, 0);
    if (!request) {
        return; // answers of ours and of others travel in the same group
    }
    NqaStatusMsg answer = *request;
    answer.status = noteRequest(*request);
    publish(answer);
}

const char *statusText(uint8_t status) {
    return status == NQA_STATUS_PASSING ? "passing" : status == NQA_STATUS_FAILING ? "failing" : "no result";
}

json opProbes(const json &request) {
    mgmtArgsOnly(request, {});
    json shown = json::array();
    for (const NqaProbe &probe : nqaProbes()) {
        shown.push_back({{"admin", probe.admin},
                         {"test", probe.test},
                         {"status", statusText(probe.status)},
                         {"requests", probe.requests}});
    }
    return {{"probes", std::move(shown)}};
}

} // namespace

std::vector<NqaProbe> nqaProbes() {
    Service &all = service();
    const std::lock_guard guard(all.lock);
    std::vector<NqaProbe> probes;
    for (const auto &[name, probe] : all.probes) {
        probes.push_back(probe);
    }
    return probes;
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

void nqaStart() {
    busSubscribe(QRV_RTNLGRP_NQA, received);
    busOnLoss(publishAll);
    mgmtRegister("probes", false, opProbes);
}

} // namespace host
