// The connection to the command socket: connect, and one loop that writes and reads at the same time,
// so that neither side waits for the other with full buffers.
#include "client/command_client.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "client/result_text.h"

namespace client {

namespace {

CommandStatus noDaemon(CommandClient &client, const std::string &text) {
    commandClose(client);
    return {COMMAND_NO_DAEMON, 0, text};
}

// Writes as much as the socket takes now. Result: false when the connection broke.
bool sendSome(CommandClient &client, const Bytes &out, size_t &sent) {
    const ssize_t count = send(client.fd, out.data() + sent, out.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    sent += static_cast<size_t>(count);
    return true;
}

// Reads what is there. Result: false when the daemon closed the connection or it broke.
bool receiveSome(CommandClient &client) {
    uint8_t chunk[16384];
    const ssize_t count = recv(client.fd, chunk, sizeof(chunk), MSG_DONTWAIT);
    if (count < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    client.received.insert(client.received.end(), chunk, chunk + count);
    return count > 0;
}

// Moves the complete answers out of the received bytes. Result: empty, or why they are no answers.
std::string takeAnswers(CommandClient &client, size_t expected, uint32_t firstId,
                        std::vector<CommandAnswer> &answers) {
    size_t at = 0;
    while (answers.size() < expected) {
        CommandAnswer answer;
        size_t used = 0;
        const CommandTake take =
            commandAnswerTake(client.received.data() + at, client.received.size() - at, answer, used);
        if (take == COMMAND_TAKE_NEED_MORE) {
            break;
        }
        if (take == COMMAND_TAKE_BAD) {
            return "the daemon's answer is not a frame of this protocol";
        }
        if (answer.requestId != firstId + answers.size()) {
            return "the daemon answered another request than the one that was sent";
        }
        answers.push_back(std::move(answer));
        at += used;
    }
    client.received.erase(client.received.begin(), client.received.begin() + static_cast<ptrdiff_t>(at));
    return "";
}

} // namespace

CommandClient::~CommandClient() { commandClose(*this); }

void commandClose(CommandClient &client) {
    if (client.fd >= 0) {
        close(client.fd);
    }
    client.fd = -1;
    client.received.clear();
}

CommandStatus commandConnect(CommandClient &client, const std::string &root) {
    commandClose(client);
    const std::string path = root + COMMAND_SOCKET_PATH;
    sockaddr_un address{};
    if (path.size() >= sizeof(address.sun_path)) {
        return {COMMAND_NO_DAEMON, 0, "socket path is too long: " + path};
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    client.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (client.fd < 0) {
        return {COMMAND_NO_DAEMON, 0, std::string("cannot make a socket: ") + strerror(errno)};
    }
    if (connect(client.fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        return noDaemon(client, path + ": " + strerror(errno));
    }
    return {};
}

CommandStatus commandCallMany(CommandClient &client, const std::vector<CommandRequest> &requests,
                              std::vector<CommandAnswer> &answers) {
    answers.clear();
    Bytes out;
    const uint32_t firstId = client.lastRequestId + 1;
    for (const CommandRequest &request : requests) {
        const auto frame = commandFrameMake(request, client.lastRequestId + 1);
        if (!frame) {
            client.lastRequestId = firstId - 1;
            return {COMMAND_REFUSED, QRV_ERR_BAD_ARGUMENT, "key or value is longer than a frame can carry"};
        }
        client.lastRequestId++;
        out.insert(out.end(), frame->begin(), frame->end());
    }
    if (client.fd < 0) {
        return {COMMAND_NO_DAEMON, 0, "not connected"};
    }
    size_t sent = 0;
    while (answers.size() < requests.size()) {
        pollfd ready{client.fd, static_cast<short>(sent < out.size() ? POLLIN | POLLOUT : POLLIN), 0};
        const int count = poll(&ready, 1, client.timeoutMs);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return noDaemon(client, "the daemon does not answer");
        }
        if ((ready.revents & POLLOUT) != 0 && !sendSome(client, out, sent)) {
            // What it answered before it closed is still to be read.
            sent = out.size();
        }
        const bool open = (ready.revents & (POLLIN | POLLHUP | POLLERR)) == 0 || receiveSome(client);
        const std::string wrong = takeAnswers(client, requests.size(), firstId, answers);
        if (!wrong.empty()) {
            return noDaemon(client, wrong);
        }
        if (!open && answers.size() < requests.size()) {
            return noDaemon(client, "the daemon closed the connection");
        }
    }
    return {};
}

CommandStatus commandCall(CommandClient &client, const CommandRequest &request, CommandAnswer &answer) {
    std::vector<CommandAnswer> answers;
    const CommandStatus status = commandCallMany(client, {request}, answers);
    if (!status.ok()) {
        return status;
    }
    answer = std::move(answers.front());
    if (answer.result != PBR_OK) {
        return {COMMAND_REFUSED, answer.result, resultDescribe(answer.result)};
    }
    return {};
}

} // namespace client
