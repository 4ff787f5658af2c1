// See watch_ops.h. Called by the management socket and by the feed; pushes lines to clients.
#include "host/mgmt/watch_ops.h"

#include <chrono>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"
#include "host/mgmt/watch_feed.h"

namespace host {

namespace {

using nlohmann::json;

// Clients and how many events each lost since it last had room; event thread only.
using Watchers = std::map<MgmtClientPtr, uint64_t>;

Watchers &watchers() {
    static Watchers *pWatchers = new Watchers; // outlives the event thread
    return *pWatchers;
}

void lossAdd(const MgmtClientPtr &client, uint64_t count) {
    const auto found = watchers().find(client);
    if (found != watchers().end()) {
        found->second += count;
    }
}

// Tells what was lost, when there is room for it. A push may make room, which comes here again, and may end
// the connection. Result: false when something remains untold.
bool lossTell(const MgmtClientPtr &client) {
    const auto found = watchers().find(client);
    const uint64_t lost = found == watchers().end() ? 0 : std::exchange(found->second, 0);
    if (lost == 0) {
        return true;
    }
    if (client->push({{"time", watchTimeText(std::chrono::system_clock::now())},
                      {"event", "lost"},
                      {"text", std::to_string(lost) + " events were lost: this client did not read"},
                      {"count", lost}})) {
        return true;
    }
    lossAdd(client, lost);
    return false;
}

void eventTell(const json &event) {
    const Watchers now = watchers(); // a push may end its connection
    for (const auto &[client, lost] : now) {
        if (!lossTell(client) || !client->push(event)) {
            lossAdd(client, 1);
        }
    }
}

void watcherDel(const std::weak_ptr<MgmtClient> &weak) {
    const MgmtClientPtr client = weak.lock();
    watchers().erase(client);
    if (watchers().empty()) {
        watchListen({});
    }
}

void opWatch(const json &request, const MgmtClientPtr &client, const MgmtDone &done) {
    mgmtArgsOnly(request, {});
    if (watchers().count(client) != 0) {
        throw std::runtime_error("this connection watches already");
    }
    done({{"ok", true}});
    watchers()[client] = 0;
    const std::weak_ptr<MgmtClient> weak = client;
    client->onRoom([weak] {
        (void)lossTell(weak.lock()); // what does not fit stays counted
    });
    client->onEnd([weak] { watcherDel(weak); });
    if (!watchers().empty()) {
        watchListen(eventTell);
    }
}

} // namespace

void watchOpsRegister() {
    mgmtRegisterForClient("watch", false, opWatch);
}

} // namespace host
