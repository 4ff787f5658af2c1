// See hold_ops.h. Called by the management socket; calls the device.
#include "host/mgmt/hold_ops.h"

#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "host/device/device.h"
#include "host/event/event_loop.h"
#include "host/ifnet/ifnet.h"
#include "host/logging/host_log.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"
#include "host/mgmt/service_ops.h"

namespace host {

namespace {

using nlohmann::json;

// Who holds now; event thread only.
struct Hold {
    bool isHeld = false;
    bool isGuarded = false;
    MgmtClientPtr owner; // of what is held; null: its client has gone, and its guard may take it
    EventLoop::TimerId longest = 0;
};

Hold &hold() {
    static Hold *pHold = new Hold; // outlives the event thread
    return *pHold;
}

std::vector<Device::EntryError> holdEnd() {
    hold().isHeld = false;
    hold().owner = nullptr;
    hostEventLoop().timerStop(std::exchange(hold().longest, 0));
    return hostDevice().release();
}

// The change ended without its last step: the plane takes what there is.
void holdAbandon(const char *pWhy) {
    hostLog(LOG_LEVEL_WARNING, "device", "a change is taken over unfinished: %s", pWhy);
    (void)holdEnd(); // nobody is there to hear of it; the entries show their errors
}

void clientEnd(const MgmtClientPtr &client) {
    if (client == nullptr || !hold().isHeld || hold().owner != client) {
        return;
    }
    hold().owner = nullptr;
    if (!hold().isGuarded) {
        holdAbandon("its client has gone");
    }
}

void ownershipCheck(const MgmtClientPtr &client) {
    if (hold().isHeld && hold().owner != nullptr && hold().owner != client) {
        throw std::runtime_error("another client changes the policy now; try again when it has finished");
    }
}

void opHold(const json &request, const MgmtClientPtr &client, const MgmtDone &done) {
    mgmtArgsOnly(request, {"lists"});
    std::set<std::string> lists;
    const auto named = request.find("lists");
    if (named == request.end() || !named->is_array()) {
        throw std::runtime_error("member \"lists\" must be a list of names");
    }
    for (const json &name : *named) {
        if (!name.is_string()) {
            throw std::runtime_error("member \"lists\" must be a list of names");
        }
        lists.insert(name.get<std::string>());
    }
    ownershipCheck(client);
    if (hold().owner != client) {
        hold().owner = client;
        const std::weak_ptr<MgmtClient> weak = client;
        client->onEnd([weak] { clientEnd(weak.lock()); });
    }
    if (!std::exchange(hold().isHeld, true)) {
        hold().longest = hostEventLoop().timerStart(HOLD_LONGEST, [] { holdAbandon("it took longer than 30 seconds"); });
    }
    hostDevice().hold(lists);
    done({{"ok", true}});
}

json errorsShow(const std::vector<Device::EntryError> &errors) {
    json shown = json::array();
    for (const Device::EntryError &error : errors) {
        shown.push_back({{"list", error.list},
                         {"node", error.nodeIndex},
                         {"interface", error.ifUnit == 0 ? "" : ifnetName(error.ifUnit)},
                         {"error", error.error}});
    }
    return shown;
}

void holderMust(const MgmtClientPtr &client) {
    if (!hold().isHeld || hold().owner != client) {
        throw std::runtime_error("nothing is held by this connection");
    }
}

void opTrial(const json &request, const MgmtClientPtr &client, const MgmtDone &done) {
    mgmtArgsOnly(request, {});
    holderMust(client);
    done({{"ok", true}, {"errors", errorsShow(hostDevice().trial())}});
}

void opRelease(const json &request, const MgmtClientPtr &client, const MgmtDone &done) {
    mgmtArgsOnly(request, {});
    holderMust(client);
    settleWait(hostEventLoop(), nextHopsKnown, [client, done](bool determined) {
        if (!hold().isHeld || hold().owner != client) {
            done({{"ok", false}, {"error", "the change took too long: it was taken over unfinished"}});
            return;
        }
        const std::vector<Device::EntryError> errors = holdEnd();
        done({{"ok", true}, {"determined", determined}, {"errors", errorsShow(errors)}});
    });
}

} // namespace

void holdGuardSet(bool isGuarded) {
    hold().isGuarded = isGuarded;
    if (!isGuarded && hold().isHeld && hold().owner == nullptr) {
        holdAbandon("its client has gone");
    }
}

void holdOpsRegister() {
    mgmtRegisterForClient("device.hold", true, opHold);
    mgmtRegisterForClient("device.trial", true, opTrial);
    mgmtRegisterForClient("device.release", true, opRelease);
}

} // namespace host
