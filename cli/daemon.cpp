// The management socket speaks one JSON object a line; the command socket is the client library's.
#include "cli/daemon.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "cli/errors.h"
#include "cli/numbers.h"
#include "client/result_text.h"

namespace cli {

namespace {

constexpr const char *UNKNOWN_OPERATION = "unknown operation"; // how such a refusal begins
constexpr const char *UNIT_PREFIX = "unit:"; // an interface by its unit
constexpr int MGMT_TIMEOUT_MS = 60000;              // a device may have much to do
constexpr size_t MGMT_ANSWER_MAX = 256u * 1024 * 1024; // an answer longer than this is none

std::string notReachable(const std::string &why) {
    return "policyrouted is not reachable: " + why +
           ". Is it running (and under this --root)? May you use its sockets (root, or the group of host.group)?";
}

// Result: whether `fd` is ready before the time is over.
bool isReady(int fd, short events, int timeoutMs) {
    pollfd ready{fd, events, 0};
    int count = 0;
    do {
        count = poll(&ready, 1, timeoutMs);
    } while (count < 0 && errno == EINTR);
    return count > 0;
}

void waitFor(int fd, short events) {
    if (!isReady(fd, events, MGMT_TIMEOUT_MS)) {
        throw NoDaemon("the daemon does not answer on its management socket");
    }
}

void sendAll(int fd, const std::string &text) {
    for (size_t sent = 0; sent < text.size();) {
        waitFor(fd, POLLOUT);
        const ssize_t count = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            throw NoDaemon(std::string("the management socket broke: ") + strerror(errno));
        }
        sent += count > 0 ? static_cast<size_t>(count) : 0;
    }
}

// One line with its end; rest: what came behind it, for the next call. A negative time: without limit.
std::string receiveLine(int fd, std::string &rest, int timeoutMs = MGMT_TIMEOUT_MS) {
    char chunk[16384];
    size_t end = rest.find('\n');
    while (end == std::string::npos) {
        if (!isReady(fd, POLLIN, timeoutMs)) {
            throw NoDaemon("the daemon does not answer on its management socket");
        }
        const ssize_t count = recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT);
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (count <= 0 || rest.size() > MGMT_ANSWER_MAX) {
            throw NoDaemon("the daemon closed its management socket");
        }
        rest.append(chunk, static_cast<size_t>(count));
        const size_t before = rest.size() - static_cast<size_t>(count);
        end = rest.find('\n', before);
    }
    std::string line = rest.substr(0, end + 1);
    rest.erase(0, end + 1);
    return line;
}

} // namespace

Daemon::Daemon(std::string rootFolder) : root(std::move(rootFolder)) {}

Daemon::~Daemon() {
    if (mgmtFd >= 0) {
        close(mgmtFd);
    }
}

client::CommandClient &Daemon::command() {
    if (client.fd < 0) {
        const client::CommandStatus status = client::commandConnect(client, root);
        if (!status.ok()) {
            throw NoDaemon(notReachable(status.text));
        }
    }
    return client;
}

bool Daemon::mgmtConnect(std::string &why) {
    const std::string path = root + MGMT_SOCKET_PATH;
    sockaddr_un address{};
    if (mgmtFd >= 0) {
        return true;
    }
    if (path.size() >= sizeof(address.sun_path)) {
        why = "socket path is too long: " + path;
        return false;
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    mgmtFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (mgmtFd < 0 || connect(mgmtFd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        why = path + ": " + strerror(errno);
        if (mgmtFd >= 0) {
            close(mgmtFd);
        }
        mgmtFd = -1;
        return false;
    }
    return true;
}

// Runs `work` on the connection, which is closed when it breaks.
template <typename Work> auto Daemon::mgmtGuarded(Work work) {
    try {
        return work();
    } catch (const NoDaemon &) {
        close(mgmtFd);
        mgmtFd = -1;
        mgmtRest.clear();
        throw;
    }
}

namespace {

std::string requestLine(const std::string &op, nlohmann::json request) {
    request["op"] = op;
    // Names may be any bytes; what is no UTF-8 is replaced rather than thrown at the operator.
    return request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

nlohmann::json answerRead(int fd, std::string &rest) {
    nlohmann::json answer = nlohmann::json::parse(receiveLine(fd, rest), nullptr, false);
    if (!answer.is_object() || !answer.contains("ok") || !answer["ok"].is_boolean()) {
        throw NoDaemon("the daemon's answer on its management socket is not understood");
    }
    return answer;
}

bool isNotOffered(const nlohmann::json &answer) {
    return !answer["ok"].get<bool>() && answer.value("error", "").rfind(UNKNOWN_OPERATION, 0) == 0;
}

nlohmann::json mustBeOk(nlohmann::json answer) {
    if (!answer["ok"].get<bool>()) {
        const std::string error = answer.value("error", "the daemon refused it");
        if (isNotOffered(answer)) {
            throw NotOffered(error);
        }
        throw Refused(error);
    }
    return answer;
}

} // namespace

nlohmann::json Daemon::mgmtAsk(const std::string &op, nlohmann::json request) {
    return mgmtGuarded([&] {
        sendAll(mgmtFd, requestLine(op, std::move(request)));
        return answerRead(mgmtFd, mgmtRest);
    });
}

nlohmann::json Daemon::mgmt(const std::string &op, nlohmann::json request) {
    std::string why;
    if (!mgmtConnect(why)) {
        throw NoDaemon(notReachable(why));
    }
    return mustBeOk(mgmtAsk(op, std::move(request)));
}

std::vector<nlohmann::json> Daemon::mgmtMany(const std::string &op, std::vector<nlohmann::json> requests) {
    std::string why, lines;
    if (!mgmtConnect(why)) {
        throw NoDaemon(notReachable(why));
    }
    for (nlohmann::json &request : requests) {
        lines += requestLine(op, std::move(request));
    }
    return mgmtGuarded([&] {
        sendAll(mgmtFd, lines);
        std::vector<nlohmann::json> answers;
        while (answers.size() < requests.size()) {
            answers.push_back(answerRead(mgmtFd, mgmtRest));
        }
        return answers;
    });
}

void Daemon::mgmtMustBeOk(const nlohmann::json &answer) { (void)mustBeOk(answer); }

void Daemon::mgmtSend(const std::string &op, nlohmann::json request) {
    std::string why;
    if (!mgmtConnect(why)) {
        throw NoDaemon(notReachable(why));
    }
    mgmtGuarded([&] { sendAll(mgmtFd, requestLine(op, std::move(request))); });
}

std::optional<nlohmann::json> Daemon::mgmtAnswer(int timeoutMs) {
    if (mgmtRest.empty() && !isReady(mgmtFd, POLLIN, timeoutMs)) {
        return std::nullopt;
    }
    return mgmtGuarded([&] { return std::optional(mustBeOk(answerRead(mgmtFd, mgmtRest))); });
}

nlohmann::json Daemon::mgmtLine() {
    return mgmtGuarded([&] {
        nlohmann::json line = nlohmann::json::parse(receiveLine(mgmtFd, mgmtRest, -1), nullptr, false);
        if (!line.is_object()) {
            throw NoDaemon("the daemon's line on its management socket is not understood");
        }
        return line;
    });
}

void Daemon::disconnect() {
    client::commandClose(client);
    if (mgmtFd >= 0) {
        close(mgmtFd);
    }
    mgmtFd = -1;
    mgmtRest.clear();
}

std::optional<nlohmann::json> Daemon::mgmtIfThere(const std::string &op) {
    std::string why;
    if (!mgmtConnect(why)) {
        return std::nullopt;
    }
    nlohmann::json answer = mgmtAsk(op, nlohmann::json::object());
    return answer["ok"].get<bool>() ? std::optional<nlohmann::json>(std::move(answer)) : std::nullopt;
}

std::optional<nlohmann::json> Daemon::mgmtTry(const std::string &op, nlohmann::json request) {
    std::string why;
    if (!mgmtConnect(why)) {
        return std::nullopt;
    }
    nlohmann::json answer = mgmtAsk(op, std::move(request));
    return isNotOffered(answer) ? std::nullopt : std::optional<nlohmann::json>(std::move(answer));
}

void must(const client::CommandStatus &status, const std::string &what) {
    if (status.outcome == client::COMMAND_NO_DAEMON) {
        throw NoDaemon(what + ": " + status.text);
    }
    if (status.outcome == client::COMMAND_REFUSED) {
        throw Refused(what + ": " + status.text + ". What to do: " + client::resultAdvice(status.code) + ".");
    }
}

std::optional<uint32_t> Interfaces::unitOf(const std::string &name) const {
    const auto found = units.find(name);
    if (found != units.end()) {
        return found->second;
    }
    if (name.rfind(UNIT_PREFIX, 0) == 0) {
        const auto unit = numberRead(name.substr(strlen(UNIT_PREFIX)), 1, UINT32_MAX);
        return unit ? std::optional<uint32_t>(static_cast<uint32_t>(*unit)) : std::nullopt;
    }
    return std::nullopt;
}

std::string Interfaces::nameOf(uint32_t unit) const {
    const auto found = names.find(unit);
    return found != names.end() ? found->second : UNIT_PREFIX + std::to_string(unit);
}

Interfaces interfacesOf(Daemon &daemon) {
    Interfaces interfaces;
    const auto answer = daemon.mgmtIfThere("interfaces");
    if (!answer || !answer->contains("interfaces")) {
        return interfaces;
    }
    interfaces.known = true;
    if (answer->contains("mostBound")) {
        interfaces.mostBound = answer->at("mostBound").get<uint32_t>();
    }
    for (const auto &each : (*answer)["interfaces"]) {
        const uint32_t unit = each.value("unit", 0u);
        const std::string name = each.value("name", "");
        interfaces.units[name] = unit;
        interfaces.names[unit] = name;
        interfaces.up[unit] = each.value("up", false);
    }
    return interfaces;
}

} // namespace cli
