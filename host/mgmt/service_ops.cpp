// See service_ops.h.
#include "host/mgmt/service_ops.h"

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <utility>

#include "host/bus/bus.h"
#include "host/device/desired/desired_show.h"
#include "host/device/device.h"
#include "host/hrd/hrd_service.h"
#include "host/ifnet/ifnet.h"
#include "host/logging/host_log.h"
#include "host/mgmt/event_ops.h"
#include "host/mgmt/mgmt_args.h"
#include "host/nqa/nqa_probes.h"
#include "host/option/option.h"
#include "policyroute_version.h"

namespace host {

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr uint32_t DEFAULT_MAX_INTERFACES = 48; // of the daemon, without the option

json opVersion(const json &request) {
    mgmtArgsOnly(request, {});
    return {{"program", "policyrouted"},
            {"version", POLICYROUTE_VERSION},
            {"device", optionGet("host.device").value_or("kernel")},
            {"pid", getpid()}};
}

// As the daemon reads the option: by its leading digits, and 0 stands for its default.
uint32_t interfacesMost() {
    const uint32_t given = static_cast<uint32_t>(atoi(optionGet("policyroute.maxifnum").value_or("").c_str()));
    return given != 0 ? given : DEFAULT_MAX_INTERFACES;
}

json opInterfaces(const json &request) {
    mgmtArgsOnly(request, {});
    json shown = json::array();
    for (const IfnetLink &link : ifnetAll()) {
        shown.push_back({{"unit", link.unit}, {"name", link.name}, {"up", link.up}});
    }
    return {{"interfaces", std::move(shown)}, {"mostBound", interfacesMost()}};
}

const char *stateText(HrdState state) {
    switch (state) {
    case HrdState::Unknown:
        return "unknown";
    case HrdState::Up:
        return "up";
    case HrdState::Down:
        return "down";
    }
    return "unknown";
}

json opVrfs(const json &request) {
    mgmtArgsOnly(request, {});
    json shown = json::object();
    for (const auto &[name, value] : optionFamily("host.vrf")) {
        shown[name] = optionNumber("host.vrf." + name);
    }
    return {{"vrfs", std::move(shown)}};
}

json opPeers(const json &request) {
    mgmtArgsOnly(request, {});
    json shown = json::array();
    for (const HrdPeer &peer : hrdPeers()) {
        shown.push_back({{"vrf", peer.vrfid},
                         {"version", peer.version},
                         {"address", ipAddressText(peer.version == 6 ? 2 : 1, peer.address)},
                         {"state", stateText(peer.state)},
                         {"reason", peer.reason},
                         {"interface", peer.interfaceName},
                         {"lladdr", peer.lladdr},
                         {"ups", peer.ups},
                         {"downs", peer.downs}});
    }
    return {{"peers", std::move(shown)}};
}

json opCounters(const json &request) {
    mgmtArgsOnly(request, {});
    const BusCounters bus = busCounters();
    const json device = hostDevice().show();
    return {{"bus",
             {{"published", bus.published},
              {"delivered", bus.delivered},
              {"lost", bus.lost},
              {"waitingBytes", bus.waitingBytes}}},
            {"device", device.value("counters", json::object())}};
}

json opDeviceShow(const json &request) {
    mgmtArgsOnly(request, {});
    return hostDevice().show();
}

json opDeviceRecords(const json &request) {
    mgmtArgsOnly(request, {});
    return hostDevice().recordsShow();
}

json opDeviceFlush(const json &request) {
    mgmtArgsOnly(request, {});
    const std::string error = hostDevice().flush();
    if (!error.empty()) {
        throw std::runtime_error(error);
    }
    return json::object();
}

std::string settleNow() {
    try {
        return hostDevice().settle();
    } catch (const std::exception &failure) { // nobody else would answer the client
        return failure.what();
    }
}

void settleAnswer(const MgmtDone &done, bool determined, const std::string &error) {
    if (!error.empty()) {
        done({{"ok", false}, {"error", error}});
        return;
    }
    done({{"ok", true},
          {"determined", determined},
          {"held", hostDevice().isHeld()},
          {"warnings", deviceNoticesShow(hostDevice().warnings())}});
}

// A plane that keeps what an earlier run left lets go of it a moment later: what it says then counts.
void opDeviceSettle(const json &request, const MgmtDone &done) {
    mgmtArgsOnly(request, {});
    settleWait(hostEventLoop(), nextHopsKnown, [done](bool determined) {
        const std::string error = settleNow();
        if (!hostDevice().isHeld()) {
            settleAnswer(done, determined, error);
            return;
        }
        settleWait(hostEventLoop(), [] { return !hostDevice().isHeld(); },
                   [done, determined](bool isReleased) { settleAnswer(done, determined, isReleased ? settleNow() : ""); },
                   HELD_LONGEST);
    });
}

void opDeviceCheck(const json &request, const MgmtDone &done) {
    mgmtArgsOnly(request, {});
    hostDevice().check([done](json answer) {
        answer["ok"] = true;
        done(answer);
    });
}

json opDeviceWarnings(const json &request) {
    mgmtArgsOnly(request, {});
    return {{"warnings", deviceNoticesShow(hostDevice().warnings())}};
}

// One wait: looks every step until it is answered.
struct Wait : std::enable_shared_from_this<Wait> {
    Wait(EventLoop &eventLoop, std::function<bool()> question, std::function<void(bool)> answer,
         std::chrono::milliseconds longest)
        : loop(eventLoop), isDetermined(std::move(question)), done(std::move(answer)),
          end(Clock::now() + longest) {}

    void look() {
        const bool determined = isDetermined();
        if (determined || Clock::now() >= end) {
            loop.timerStart(SETTLE_STEP, [self = shared_from_this(), determined] { self->done(determined); });
            return;
        }
        loop.timerStart(SETTLE_STEP, [self = shared_from_this()] { self->look(); });
    }

    EventLoop &loop;
    std::function<bool()> isDetermined;
    std::function<void(bool)> done;
    Clock::time_point end;
};

} // namespace

// The daemon has read a report when none waits for it any more.
bool nextHopsKnown() {
    return !hrdUndetermined() && !nqaUndetermined() && busCounters().waitingBytes == 0;
}

void settleWait(EventLoop &loop, std::function<bool()> isDetermined, std::function<void(bool)> done,
                std::chrono::milliseconds longest) {
    std::make_shared<Wait>(loop, std::move(isDetermined), std::move(done), longest)->look();
}

void settleAfterReplay() {
    hostEventLoop().post([] {
        settleWait(hostEventLoop(), nextHopsKnown, [](bool) {
            const std::string error = hostDevice().settle();
            if (!error.empty()) {
                hostLog(LOG_LEVEL_ERROR, "device", "the policy that was brought back: %s", error.c_str());
            }
        });
    });
}

void serviceOpsRegister() {
    mgmtRegister("version", false, opVersion);
    mgmtRegister("interfaces", false, opInterfaces);
    mgmtRegister("vrfs", false, opVrfs);
    mgmtRegister("peers", false, opPeers);
    mgmtRegister("counters", false, opCounters);
    mgmtRegister("device.show", false, opDeviceShow);
    mgmtRegister("device.records", false, opDeviceRecords);
    mgmtRegister("device.flush", true, opDeviceFlush);
    mgmtRegisterAsync("device.settle", true, opDeviceSettle);
    mgmtRegisterAsync("device.check", false, opDeviceCheck);
    mgmtRegister("device.warnings", false, opDeviceWarnings);
    eventOpsRegister();
}

} // namespace host
