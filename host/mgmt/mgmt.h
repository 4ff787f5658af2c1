// The host's management socket: what the command socket does not carry (ACLs, device, peers, probes,
// time ranges, shell). A Unix stream socket at optionPath("/tmp/policyroutemgmt.socket"); requests and
// answers are JSON objects, one a line:
//   {"op": "acl.show", ...}  ->  {"ok": true, ...}  or  {"ok": false, "error": "what and why"}
// Lines longer than 1 MiB, and text that is not a JSON object, get an error answer and the connection
// is closed. Peer credentials decide who may write, as for the command socket.
#ifndef HOST_MGMT_MGMT_H
#define HOST_MGMT_MGMT_H

#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "host/mgmt/mgmt_client.h"

namespace host {

// Handles one request on the event thread; throws std::runtime_error for a refusal (its text becomes
// "error"). The result's members are added to {"ok": true}.
using MgmtHandler = std::function<nlohmann::json(const nlohmann::json &request)>;

// Registers an operation; `writes` needs the right to write. Before mgmtStart or after. Lock: none
void mgmtRegister(const std::string &op, bool writes, MgmtHandler handler);

// As mgmtRegister, for an operation that answers later: it must call `done` exactly once, on the event thread.
void mgmtRegisterAsync(const std::string &op, bool writes,
                       std::function<void(const nlohmann::json &request, MgmtDone done)> handler);

// As mgmtRegisterAsync, for an operation that leaves something behind which belongs to the connection.
void mgmtRegisterForClient(const std::string &op, bool writes,
                           std::function<void(const nlohmann::json &request, const MgmtClientPtr &client,
                                              MgmtDone done)> handler);

// Opens the socket. Result: empty, or why not.
std::string mgmtStart();

} // namespace host

#endif
