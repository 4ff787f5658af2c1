// The operations of the management socket and who may call them: a table by name, filled by the services
// before the socket opens, and the server that looks requests up in it.
#include "host/mgmt/mgmt.h"

#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "host/mgmt/mgmt_request.h"
#include "host/mgmt/mgmt_server.h"
#include "host/option/option.h"

namespace host {

namespace {

using nlohmann::json;

constexpr const char *SOCKET_PATH = "/tmp/policyroutemgmt.socket";

using Handler = std::function<void(const json &request, const MgmtClientPtr &client, MgmtDone done)>;

struct Operation {
    bool writes = false;
    Handler handler;
};

struct Operations {
    std::mutex lock;
    std::map<std::string, Operation> byName;
};

Operations &operations() {
    static Operations *pOperations = new Operations; // outlives the event thread
    return *pOperations;
}

// The operation that a request names; throws the refusal.
Operation operationOf(const json &request) {
    const auto op = request.find("op");
    if (op == request.end() || !op->is_string()) {
        throw std::runtime_error("member \"op\" must name the operation, such as \"version\"");
    }
    Operations &all = operations();
    const std::lock_guard guard(all.lock);
    const auto found = all.byName.find(op->get<std::string>());
    if (found != all.byName.end()) {
        return found->second;
    }
    std::string known;
    for (const auto &[name, operation] : all.byName) {
        known += (known.empty() ? "" : ", ") + name;
    }
    throw std::runtime_error("unknown operation \"" + op->get<std::string>().substr(0, 64) +
                             "\"; known are " + known);
}

void dispatch(const json &request, const MgmtCaller &caller, MgmtDone done) {
    try {
        const Operation operation = operationOf(request);
        if (caller.right == PeerRight::None || (operation.writes && caller.right != PeerRight::Write)) {
            throw std::runtime_error(mgmtRefusal());
        }
        operation.handler(request, caller.client, done);
    } catch (const std::exception &refusal) {
        done(mgmtFailure(refusal.what()));
    }
}

} // namespace

void mgmtRegisterForClient(const std::string &op, bool writes, Handler handler) {
    Operations &all = operations();
    const std::lock_guard guard(all.lock);
    all.byName[op] = {writes, std::move(handler)};
}

void mgmtRegisterAsync(const std::string &op, bool writes,
                       std::function<void(const json &request, MgmtDone done)> handler) {
    mgmtRegisterForClient(op, writes,
                          [handler = std::move(handler)](const json &request, const MgmtClientPtr &, MgmtDone done) {
                              handler(request, std::move(done));
                          });
}

void mgmtRegister(const std::string &op, bool writes, MgmtHandler handler) {
    mgmtRegisterAsync(op, writes, [handler = std::move(handler)](const json &request, const MgmtDone &done) {
        json answer = handler(request);
        answer["ok"] = true;
        done(std::move(answer));
    });
}

std::string mgmtStart() {
    // Serves until the process ends.
    static MgmtServer *pServer = new MgmtServer(hostEventLoop(), MgmtLimits{}, dispatch);
    return pServer->start(optionPath(SOCKET_PATH));
}

} // namespace host
