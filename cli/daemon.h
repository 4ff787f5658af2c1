// pbrctl's two connections to a running daemon: the command socket (policies) and the management socket
// (ACLs, interfaces, peers, device). Each is opened when it is first used. Failures are thrown as
// NoDaemon or Refused.
#ifndef CLI_DAEMON_H
#define CLI_DAEMON_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/policy_calls.h"

namespace cli {

constexpr const char *MGMT_SOCKET_PATH = "/tmp/policyroutemgmt.socket";

class Daemon {
public:
    // root: "" for the machine's own daemon, else the folder of the run (option host.root).
    explicit Daemon(std::string rootFolder);
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    // The connected command socket. Throws NoDaemon.
    client::CommandClient &command();

    // One request to the management socket; `op` is put into it. Result: the answer, whose "ok" is true.
    // Throws Refused with the daemon's text (NotOffered when it does not know the operation), NoDaemon.
    nlohmann::json mgmt(const std::string &op, nlohmann::json request = nlohmann::json::object());

    // Many requests of one operation, sent ahead of their answers, which stay short. Result: each one's answer, whatever its
    // "ok" is. Throws NoDaemon.
    std::vector<nlohmann::json> mgmtMany(const std::string &op, std::vector<nlohmann::json> requests);

    // Throws Refused with the text of an answer whose "ok" is false (NotOffered when the operation is not known).
    static void mgmtMustBeOk(const nlohmann::json &answer);

    // As mgmt; none where the daemon has no management socket or does not know the operation: a switch's
    // platform brings its own. Throws NoDaemon when the connection breaks.
    std::optional<nlohmann::json> mgmtIfThere(const std::string &op);

    // As mgmtIfThere, but a refusal is an answer too, with "ok" false, "error" and what else it tells.
    std::optional<nlohmann::json> mgmtTry(const std::string &op, nlohmann::json request);

    // For an answer that takes long: mgmtSend asks, mgmtAnswer waits for the answer, none when the time is
    // over; nothing else may be asked meanwhile. Throws as mgmt does.
    void mgmtSend(const std::string &op, nlohmann::json request = nlohmann::json::object());
    std::optional<nlohmann::json> mgmtAnswer(int timeoutMs);

    // Waits for the next line that comes without being asked for, after mgmt("watch"). Throws NoDaemon.
    nlohmann::json mgmtLine();

    // Ends both connections, and with them what belongs to them; the next request connects anew.
    void disconnect();

    const std::string &rootFolder() const { return root; }

private:
    bool mgmtConnect(std::string &why);
    template <typename Work> auto mgmtGuarded(Work work);
    nlohmann::json mgmtAsk(const std::string &op, nlohmann::json request);

    std::string root;
    client::CommandClient client;
    int mgmtFd = -1;
    std::string mgmtRest; // received behind the latest line
};

// Throws Refused ("WHAT: why (code). What to do: ...") or NoDaemon unless the status is done.
void must(const client::CommandStatus &status, const std::string &what);

// The machine's interfaces as the daemon sees them.
struct Interfaces {
    bool known = false; // false: the daemon's platform does not tell them
    std::map<std::string, uint32_t> units;
    std::map<uint32_t, std::string> names;
    std::map<uint32_t, bool> up;
    std::optional<uint32_t> mostBound; // lists can be bound to so many; none: the daemon does not tell

    // Unit of "lan0" or "unit:7"; none when there is no such interface.
    std::optional<uint32_t> unitOf(const std::string &name) const;
    // "lan0", or "unit:7" for a unit without a name.
    std::string nameOf(uint32_t unit) const;
};
Interfaces interfacesOf(Daemon &daemon);

} // namespace cli

#endif
