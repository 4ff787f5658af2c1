// The command server (platform/icm.h): a Unix stream socket, many clients, one task. What the keeper of
// sets (host/hwil/cmd_sync.h) has is replayed before the socket opens.
//
// The task is an epoll loop. A client's requests are answered in the order in which they came, and only
// while its unread answers stay below a bound; a client beyond it is not read from until it has taken
// them, so nobody's laziness costs more than that memory, and nobody waits for it. Each turn serves a few
// requests of each client that has whole ones.
//
// States of a client: open; ended (no more input: the peer shut its side; what has come is still
// answered); closing (a frame whose end cannot be known: its error answer is still sent); gone (nobody
// reads answers any more: what has come whole is still carried out, in order).
#include "platform/icm.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "host/hwil/cmd_sync.h"
#include "host/icm/command_call.h"
#include "host/logging/host_log.h"
#include "host/option/option.h"
#include "host/process/notify.h"
#include "host/process/unix_listen.h"
#include "platform/sil_task.h"

namespace host {
namespace {

constexpr size_t READ_BYTES = 65536;
constexpr size_t MOST_OUT_BYTES = 256 * 1024; // answers a client has not taken
constexpr int REQUESTS_A_TURN = 16;
constexpr size_t MOST_CLIENTS = 512;
constexpr uint32_t TASK_PRIORITY = 60;
constexpr uint32_t TASK_STACK_BYTES = 512000;

struct Client {
    int fd;
    PeerRight right;
    std::vector<uint8_t> in;  // received
    size_t taken = 0;         // of `in`: bytes of requests that were served
    std::vector<uint8_t> out; // answers
    size_t sent = 0;          // of `out`
    bool isEnded = false;
    bool isClosing = false;
    bool isGone = false;
    uint32_t watched = 0; // epoll events asked for
};

struct Server {
    CommandMap map{};
    int listener = -1;
    int epollFd = -1;
    std::map<int, std::unique_ptr<Client>> clients; // by descriptor
    std::set<int> unserved; // descriptors of clients with whole requests that may be served
    bool isFull = false;    // the log says so already
};

// ---- one client's bytes ----

size_t unsent(const Client &client) {
    return client.out.size() - client.sent;
}

FrameTake frameNext(const Client &client, size_t *pFrameBytes) {
    return commandFrameTake(client.in.data() + client.taken, client.in.size() - client.taken, pFrameBytes);
}

bool mayServe(const Client &client) {
    size_t frameBytes = 0;
    return !client.isClosing && unsent(client) < MOST_OUT_BYTES &&
           frameNext(client, &frameBytes) != FrameTake::NeedMore;
}

void inForget(Client &client) {
    client.in.erase(client.in.begin(), client.in.begin() + static_cast<ptrdiff_t>(client.taken));
    client.taken = 0;
}

void readSome(Client &client) {
    const size_t before = client.in.size();
    client.in.resize(before + READ_BYTES);
    const ssize_t count = recv(client.fd, client.in.data() + before, READ_BYTES, 0);
    client.in.resize(before + (count > 0 ? static_cast<size_t>(count) : 0));
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        client.isEnded = true;
        client.isGone = client.isGone || count < 0;
    }
}

void sendSome(Client &client) {
    while (!client.isGone && unsent(client) > 0) {
        const ssize_t count = send(client.fd, client.out.data() + client.sent, unsent(client), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            client.isGone = errno != EAGAIN;
            break;
        }
        client.sent += static_cast<size_t>(count);
    }
    if (client.isGone || unsent(client) == 0) {
        client.out.clear();
        client.sent = 0;
    }
}

// Serves some of the client's whole requests.
void serveSome(const CommandMap &map, Client &client) {
    for (int i = 0; i < REQUESTS_A_TURN && mayServe(client); ++i) {
        const uint8_t *pBytes = client.in.data() + client.taken;
        size_t frameBytes = 0;
        if (frameNext(client, &frameBytes) == FrameTake::BadLength) {
            commandAnswerBadLength(pBytes, client.in.size() - client.taken, &client.out);
            client.isClosing = true;
            break;
        }
        commandAnswer(map, client.right, pBytes, &client.out);
        client.taken += frameBytes;
        if (client.isGone) {
            client.out.clear();
        }
    }
    inForget(client);
    sendSome(client);
}

// ---- many clients ----

bool isFinished(const Client &client) {
    if (client.isClosing) {
        return unsent(client) == 0;
    }
    return client.isEnded && !mayServe(client) && unsent(client) == 0;
}

void clientClose(Server &server, const Client &client) {
    const int fd = client.fd;
    server.unserved.erase(fd);
    server.clients.erase(fd);
    close(fd); // leaves the epoll set with it
    server.isFull = false;
}

// Asks epoll for what the client needs next; `mod` adds it at first.
void watch(Server &server, Client &client, int operation) {
    const bool isReading = !client.isEnded && !client.isClosing && !mayServe(client) &&
                           unsent(client) < MOST_OUT_BYTES;
    const uint32_t wanted = (isReading ? EPOLLIN : 0u) | (unsent(client) > 0 ? EPOLLOUT : 0u);
    if (operation == EPOLL_CTL_MOD && wanted == client.watched) {
        return;
    }
    epoll_event event{};
    event.events = wanted;
    event.data.fd = client.fd;
    if (epoll_ctl(server.epollFd, operation, client.fd, &event) != 0) {
        hostLog(LOG_LEVEL_ERROR, "icm", "a client cannot be watched: %s", strerror(errno));
        client.isGone = client.isEnded = true;
        return;
    }
    client.watched = wanted;
}

// After each step with a client: close it, or decide what it waits for.
void settle(Server &server, Client &client) {
    if (isFinished(client)) {
        clientClose(server, client);
        return;
    }
    if (mayServe(client)) {
        server.unserved.insert(client.fd);
    } else {
        server.unserved.erase(client.fd);
    }
    watch(server, client, EPOLL_CTL_MOD);
}

void admit(Server &server, int fd) {
    if (server.clients.size() >= MOST_CLIENTS) {
        if (!server.isFull) {
            hostLog(LOG_LEVEL_WARNING, "icm", "%zu clients are connected; further ones are hung up on",
                    MOST_CLIENTS);
        }
        server.isFull = true;
        close(fd);
        return;
    }
    auto pClient = std::make_unique<Client>(Client{fd, peerRight(fd), {}, 0, {}, 0});
    Client &client = *pClient;
    server.clients[fd] = std::move(pClient);
    watch(server, client, EPOLL_CTL_ADD);
    settle(server, client);
}

void acceptAll(Server &server) {
    for (int fd = unixAccept(server.listener); fd >= 0; fd = unixAccept(server.listener)) {
        admit(server, fd);
    }
}

void clientReady(Server &server, int fd, uint32_t events) {
    const auto found = server.clients.find(fd);
    if (found == server.clients.end()) {
        return; // closed in this turn
    }
    Client &client = *found->second;
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
        client.isGone = true;
    }
    if ((events & EPOLLIN) != 0 || (client.isGone && !mayServe(client))) {
        readSome(client);
    }
    sendSome(client);
    settle(server, client);
}

void serveTurn(Server &server) {
    const std::set<int> turn = server.unserved;
    for (const int fd : turn) {
        const auto found = server.clients.find(fd);
        if (found != server.clients.end()) {
            Client &client = *found->second;
            serveSome(server.map, client);
            settle(server, client);
        }
    }
}

void serverMain(void *pArg, void *) {
    Server &server = *static_cast<Server *>(pArg);
    std::array<epoll_event, 64> events{};
    for (;;) {
        const int count = epoll_wait(server.epollFd, events.data(), static_cast<int>(events.size()),
                                     server.unserved.empty() ? -1 : 0);
        for (int i = 0; i < count; ++i) {
            if (events[i].data.fd == server.listener) {
                acceptAll(server);
            } else {
                clientReady(server, events[i].data.fd, events[i].events);
            }
        }
        serveTurn(server);
    }
}

// Opens the socket and starts the task. Result: empty, or why not; nothing is left then.
std::string serverStart(const char *taskName, const std::string &path, Server &server) {
    std::string error = unixListen(path, SOCK_STREAM, &server.listener);
    if (!error.empty()) {
        return error;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = server.listener;
    server.epollFd = epoll_create1(EPOLL_CLOEXEC);
    uint32_t taskId = 0;
    if (server.epollFd < 0 || epoll_ctl(server.epollFd, EPOLL_CTL_ADD, server.listener, &event) != 0 ||
        silCreateTask(taskName, TASK_PRIORITY, TASK_STACK_BYTES, serverMain, &server, nullptr, &taskId) != 0) {
        error = std::string("the command server cannot start: ") + strerror(errno);
        close(server.epollFd);
        unixUnlisten(path, server.listener);
    }
    return error;
}

} // namespace
} // namespace host

int32_t icmProcTcpInit(const char *taskName, const char *path, const IcmCommand *pCommands, uint32_t count) {
    if (host::commandKeeper() != nullptr) {
        host::commandKeeper()->replay(pCommands, count);
    }
    const std::string where = host::optionPath(path);
    auto pServer = std::make_unique<host::Server>();
    pServer->map = {pCommands, count, gIcmCommandShapes, gIcmCommandShapeCount};
    const std::string error = host::serverStart(taskName, where, *pServer);
    if (!error.empty()) {
        fprintf(stderr, "policyrouted: %s\n", error.c_str());
        return -1;
    }
    (void)pServer.release(); // the task's until the process ends
    fprintf(stderr, "policyrouted: serving on %s\n", where.c_str());
    host::notifyReady(); // everything else was started before
    return 0;
}
