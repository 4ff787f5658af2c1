// The management socket's server: connections, lines, limits and the order of answers.
//
// Everything runs on the event thread. A connection is read line by line; one request of it is under way
// at a time, and the next is taken when the answer has left, so that answers come in order and a client
// that does not read stops only itself. A line that is not finished, and an answer that is not fetched,
// within the time limit cost the connection.
//
//   reading --line complete--> under way --answer made--> answering --answer sent--> reading
//   any --end of input, time limit, malformed line--> closed (after what is still to be sent)
//
// A client to which lines are pushed (watch) has no time limit for fetching them: what waits for it is
// bounded. It may end its input and still read.
#ifndef HOST_MGMT_MGMT_SERVER_H
#define HOST_MGMT_MGMT_SERVER_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "host/event/event_loop.h"
#include "host/mgmt/mgmt_client.h"
#include "host/process/peer_rights.h"

namespace host {

struct MgmtLimits {
    size_t lineBytes = 1 << 20;                // longest request line, without its end
    size_t pushBytes = 1 << 18;                // of pushed lines that may wait for a client
    size_t clients = 128;                      // connections at a time
    size_t readers = 96;                       // of which may be from those who may only read
    std::chrono::milliseconds stall{30000};    // longest time for one line to come or an answer to go
};

// Who asked, and with which right (Read or Write).
struct MgmtCaller {
    PeerRight right = PeerRight::None;
    MgmtClientPtr client;
};

// Carries out a request and calls `done` exactly once with the answer, "ok" included, on the event thread.
using MgmtDispatch = std::function<void(const nlohmann::json &request, const MgmtCaller &caller, MgmtDone done)>;

// The text for a client that lacks the right for what it asks. Lock: none
std::string mgmtRefusal();

class MgmtServer {
public:
    // rightOf: the right of who connected a descriptor.
    MgmtServer(EventLoop &loop, const MgmtLimits &limits, MgmtDispatch dispatch,
               std::function<PeerRight(int fd)> rightOf = peerRight);
    ~MgmtServer();
    MgmtServer(const MgmtServer &) = delete;
    MgmtServer &operator=(const MgmtServer &) = delete;

    // Opens the socket at `path` (unixListen). Result: empty, or why not. Lock: none
    std::string start(const std::string &path);

    // Closes all connections and removes the socket file. Any thread but the event thread. Lock: none
    void stop();

private:
    struct Core;
    std::shared_ptr<Core> pCore;
};

} // namespace host

#endif
