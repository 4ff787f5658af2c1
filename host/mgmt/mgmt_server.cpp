// See mgmt_server.h.
#include "host/mgmt/mgmt_server.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <future>
#include <map>
#include <string_view>
#include <utility>

#include "host/mgmt/mgmt_request.h"
#include "host/process/unix_listen.h"

namespace host {

namespace {

using nlohmann::json;

constexpr size_t READ_BYTES = 65536;
constexpr int LINES_A_TURN = 16; // then other clients have theirs

struct Connection {
    int fd = -1; // -1: closed
    MgmtCaller caller;
    std::string in;     // bytes received; at most one line limit and one read are not yet taken
    size_t begin = 0;   // of `in`: bytes taken
    size_t scanned = 0; // of `in`: no line end before this
    std::string out; // bytes of answers not yet sent
    size_t sent = 0; // of `out`
    bool underWay = false;  // a request has no answer yet
    bool calling = false;   // its operation is being called: what follows is left to the caller
    bool atEnd = false;     // no more input; close when everything is sent
    bool isPushed = false;  // it gets lines that answer nothing
    bool turnPosted = false;
    bool timed = false;     // `stall` runs
    EventLoop::TimerId stall = 0;
    int watched = -1; // epoll events asked for, -1: not watched
};
using ConnectionPtr = std::shared_ptr<Connection>;

// Bytes of names may be anything: what is not UTF-8 is written as the replacement character.
std::string lineOf(const json &answer) {
    return answer.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace

// The state behind the server; callbacks hold it weakly, so that none outlives stop().
struct MgmtServer::Core : std::enable_shared_from_this<Core> {
    Core(EventLoop &eventLoop, const MgmtLimits &theLimits, MgmtDispatch theDispatch,
         std::function<PeerRight(int)> theRightOf)
        : loop(eventLoop), limits(theLimits), dispatch(std::move(theDispatch)),
          rightOf(std::move(theRightOf)) {}

    EventLoop &loop;
    const MgmtLimits limits;
    const MgmtDispatch dispatch;
    const std::function<PeerRight(int)> rightOf;
    std::string path;
    int listener = -1;
    std::map<int, ConnectionPtr> connections; // by descriptor

    std::string open(const std::string &where);
    void acceptAll();
    void admit(int fd);
    void ready(const ConnectionPtr &c, uint32_t events);
    void readSome(const ConnectionPtr &c);
    void takeLines(const ConnectionPtr &c);
    bool takeLine(const ConnectionPtr &c);
    void request(const ConnectionPtr &c, std::string_view line);
    void answer(const ConnectionPtr &c, const json &value);
    bool push(const ConnectionPtr &c, const json &line);
    void refuseAndEnd(const ConnectionPtr &c, const std::string &why);
    void flush(const ConnectionPtr &c);
    void settle(const ConnectionPtr &c);
    void watch(const ConnectionPtr &c, int events);
    void timeOut(const ConnectionPtr &c, bool wanted);
    void shut(const ConnectionPtr &c);
    void shutAll();
};

std::string MgmtServer::Core::open(const std::string &where) {
    path = where;
    const std::string error = unixListen(path, SOCK_STREAM, &listener);
    if (!error.empty()) {
        return error;
    }
    loop.fdAdd(listener, EPOLLIN, [weak = weak_from_this()](uint32_t) {
        if (const auto core = weak.lock()) {
            core->acceptAll();
        }
    });
    return "";
}

void MgmtServer::Core::acceptAll() {
    for (int fd = unixAccept(listener); fd >= 0; fd = unixAccept(listener)) {
        admit(fd);
    }
}

void MgmtServer::Core::admit(int fd) {
    auto c = std::make_shared<Connection>();
    c->fd = fd;
    c->caller = {rightOf(fd), std::make_shared<MgmtClient>()};
    c->caller.client->pushBy([weak = weak_from_this(), connection = std::weak_ptr(c)](const json &line) {
        const auto core = weak.lock();
        const auto held = connection.lock();
        return core != nullptr && held != nullptr && core->push(held, line);
    });
    connections[fd] = c;
    const auto readers = std::count_if(connections.begin(), connections.end(), [](const auto &entry) {
        return entry.second->caller.right != PeerRight::Write;
    });
    const bool isReader = c->caller.right != PeerRight::Write;
    if (c->caller.right == PeerRight::None) {
        refuseAndEnd(c, mgmtRefusal());
    } else if (connections.size() > limits.clients ||
               (isReader && static_cast<size_t>(readers) > limits.readers)) {
        refuseAndEnd(c, "too many clients: at most " + std::to_string(limits.clients) + ", of which " +
                            std::to_string(limits.readers) + " that may only read");
    } else {
        settle(c);
    }
}

void MgmtServer::Core::ready(const ConnectionPtr &c, uint32_t events) {
    if (c->fd < 0) {
        return;
    }
    if ((events & EPOLLERR) != 0 || ((events & EPOLLHUP) != 0 && (events & EPOLLIN) == 0)) {
        shut(c);
        return;
    }
    if ((events & EPOLLOUT) != 0) {
        flush(c);
    }
    if (c->fd >= 0 && (events & EPOLLIN) != 0) {
        readSome(c);
    }
    if (c->fd >= 0) {
        takeLines(c);
    }
}

void MgmtServer::Core::readSome(const ConnectionPtr &c) {
    c->in.erase(0, c->begin);
    c->scanned -= c->begin;
    c->begin = 0;
    const size_t had = c->in.size();
    c->in.resize(had + READ_BYTES);
    const ssize_t got = recv(c->fd, c->in.data() + had, READ_BYTES, MSG_DONTWAIT);
    c->in.resize(had + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got == 0) {
        c->atEnd = true;
    } else if (got < 0 && errno != EAGAIN && errno != EINTR) {
        shut(c);
    }
}

// Takes the lines that are complete, a few a turn.
void MgmtServer::Core::takeLines(const ConnectionPtr &c) {
    int taken = 0;
    while (taken < LINES_A_TURN && takeLine(c)) {
        taken++;
    }
    if (taken == LINES_A_TURN && !c->turnPosted) {
        c->turnPosted = true;
        loop.post([weak = weak_from_this(), c] {
            c->turnPosted = false;
            const auto core = weak.lock();
            if (core != nullptr && c->fd >= 0) {
                core->takeLines(c);
            }
        });
    }
    settle(c);
}

// Result: whether a line was taken and another may follow.
bool MgmtServer::Core::takeLine(const ConnectionPtr &c) {
    if (c->fd < 0 || c->underWay || !c->out.empty()) {
        return false;
    }
    const size_t end = c->in.find('\n', c->scanned);
    if (std::min(end, c->in.size()) - c->begin > limits.lineBytes) {
        refuseAndEnd(c, "the line is longer than " + std::to_string(limits.lineBytes) + " bytes");
        return false;
    }
    if (end == std::string::npos) {
        c->scanned = c->in.size();
        return false;
    }
    const std::string line = c->in.substr(c->begin, end - c->begin);
    c->begin = end + 1;
    c->scanned = end + 1;
    request(c, line);
    return true;
}

void MgmtServer::Core::request(const ConnectionPtr &c, std::string_view line) {
    std::string error;
    const auto parsed = mgmtRequestParse(line, &error);
    if (!parsed) {
        refuseAndEnd(c, error);
        return;
    }
    c->underWay = true;
    c->calling = true;
    dispatch(*parsed, c->caller, [weak = weak_from_this(), c](const json &value) {
        const auto core = weak.lock();
        if (core == nullptr || c->fd < 0 || !c->underWay) {
            return; // the client has gone meanwhile
        }
        c->underWay = false;
        core->answer(c, value);
        if (!c->calling) {
            core->takeLines(c);
        }
    });
    c->calling = false;
}

void MgmtServer::Core::answer(const ConnectionPtr &c, const json &value) {
    c->out += lineOf(value);
    flush(c);
}

// Result: false when too much waits already.
bool MgmtServer::Core::push(const ConnectionPtr &c, const json &line) {
    const std::string text = lineOf(line);
    if (c->fd < 0 || c->out.size() - c->sent + text.size() > limits.pushBytes) {
        return false;
    }
    c->isPushed = true;
    c->out.erase(0, c->sent); // else what was sent would pile up before a slow reader's rest
    c->sent = 0;
    c->out += text;
    flush(c);
    settle(c);
    return c->fd >= 0;
}

void MgmtServer::Core::refuseAndEnd(const ConnectionPtr &c, const std::string &why) {
    c->in.clear();
    c->begin = 0;
    c->scanned = 0;
    c->atEnd = true;
    answer(c, mgmtFailure(why));
    if (c->fd >= 0) {
        settle(c);
    }
}

void MgmtServer::Core::flush(const ConnectionPtr &c) {
    while (c->sent < c->out.size()) {
        const ssize_t n =
            send(c->fd, c->out.data() + c->sent, c->out.size() - c->sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != EAGAIN) {
            shut(c);
            return;
        }
        if (n < 0) {
            return;
        }
        c->sent += static_cast<size_t>(n);
        timeOut(c, false); // it goes on: the time counts anew
    }
    const bool hasSent = !c->out.empty();
    c->out.clear();
    c->sent = 0;
    if (hasSent && c->isPushed) {
        c->caller.client->roomMade();
    }
}

// Watches for what the connection waits for now, and ends it when there is nothing left.
void MgmtServer::Core::settle(const ConnectionPtr &c) {
    if (c->fd < 0) {
        return;
    }
    const bool hasLine = c->in.find('\n', c->scanned) != std::string::npos;
    if (c->atEnd && !c->isPushed && !c->underWay && c->out.empty() && !hasLine) {
        shut(c);
        return;
    }
    // While a request is under way or lines wait for their turn, the client's bytes wait too.
    const bool isReading = c->out.empty() && !c->underWay && !hasLine && !c->atEnd;
    const int events = isReading ? static_cast<int>(EPOLLIN) : 0;
    watch(c, c->out.empty() ? events : static_cast<int>(EPOLLOUT));
    timeOut(c, (!c->out.empty() && !c->isPushed) || (isReading && c->begin < c->in.size()));
}

void MgmtServer::Core::watch(const ConnectionPtr &c, int events) {
    if (c->watched == events) {
        return;
    }
    if (c->watched >= 0) {
        loop.fdDel(c->fd);
    }
    c->watched = events;
    loop.fdAdd(c->fd, static_cast<uint32_t>(events), [weak = weak_from_this(), c](uint32_t got) {
        // Copies first: watching anew destroys this function object.
        const auto core = weak.lock();
        const ConnectionPtr held = c; // NOLINT(performance-unnecessary-copy-initialization): c ends in ready()
        if (core != nullptr) {
            core->ready(held, got);
        }
    });
}

void MgmtServer::Core::timeOut(const ConnectionPtr &c, bool wanted) {
    if (wanted == c->timed) {
        return;
    }
    c->timed = wanted;
    if (!wanted) {
        loop.timerStop(c->stall);
        return;
    }
    c->stall = loop.timerStart(limits.stall, [weak = weak_from_this(), c] {
        const auto core = weak.lock();
        if (core == nullptr || c->fd < 0) {
            return;
        }
        c->timed = false;
        if (c->out.empty()) {
            core->refuseAndEnd(c, "the line was not finished in time");
        } else {
            core->shut(c);
        }
    });
}

void MgmtServer::Core::shut(const ConnectionPtr &c) {
    if (c->fd < 0) {
        return;
    }
    timeOut(c, false);
    if (c->watched >= 0) {
        loop.fdDel(c->fd);
    }
    connections.erase(c->fd);
    unixHangUp(c->fd);
    c->fd = -1;
    c->caller.client->end();
}

void MgmtServer::Core::shutAll() {
    while (!connections.empty()) {
        shut(ConnectionPtr(connections.begin()->second));
    }
    if (listener >= 0) {
        loop.fdDel(listener);
        close(listener);
        unlink(path.c_str());
        listener = -1;
    }
}

std::string mgmtRefusal() {
    return "not permitted: only root, the daemon's user and members of the group of option host.group may "
           "write; others may read when option host.read-others is yes";
}

MgmtServer::MgmtServer(EventLoop &loop, const MgmtLimits &limits, MgmtDispatch dispatch,
                       std::function<PeerRight(int)> rightOf)
    : pCore(std::make_shared<Core>(loop, limits, std::move(dispatch), std::move(rightOf))) {}

MgmtServer::~MgmtServer() {
    stop();
}

std::string MgmtServer::start(const std::string &path) {
    return pCore->open(path);
}

void MgmtServer::stop() {
    std::promise<void> done;
    pCore->loop.post([core = pCore, &done] {
        core->shutAll();
        done.set_value();
    });
    done.get_future().wait();
}

} // namespace host
