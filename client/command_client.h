// A connection to the daemon's command socket, for management planes: connect, one command and its
// answer, or many commands pipelined. Blocking, one thread at a time; no exceptions of its own.
//
// Every call gives a CommandStatus: done, refused by the daemon (its code), or no daemon (nobody
// serves the socket, or the connection broke; reconnect, and read back what the daemon has).
#ifndef CLIENT_COMMAND_CLIENT_H
#define CLIENT_COMMAND_CLIENT_H

#include <cstdint>
#include <string>
#include <vector>

#include "client/command_codec.h"

namespace client {

// Path of the command socket below the root folder of a run.
constexpr const char *COMMAND_SOCKET_PATH = "/tmp/policyroutecmd.socket";

enum CommandOutcome {
    COMMAND_DONE,      // the daemon answered with result 0
    COMMAND_REFUSED,   // the daemon answered with another result: code
    COMMAND_NO_DAEMON, // no answer: text tells why
};

struct [[nodiscard]] CommandStatus {
    CommandOutcome outcome = COMMAND_DONE;
    uint32_t code = 0; // COMMAND_REFUSED: the daemon's result code
    std::string text;  // why; empty when done
    bool ok() const { return outcome == COMMAND_DONE; }
};

// The connection. Not copied; closed by its destructor.
struct CommandClient {
    int fd = -1;                // the connected socket; -1 none
    uint32_t lastRequestId = 0; // id of the request sent last
    Bytes received;             // bytes read and not yet taken
    int timeoutMs = 30000;      // longest wait for the daemon to read or answer; < 0 for ever

    CommandClient() = default;
    CommandClient(const CommandClient &) = delete;
    CommandClient &operator=(const CommandClient &) = delete;
    ~CommandClient();
};

// Connects to the command socket below `root` ("" is the machine's own). A connected client is closed
// first. Result: COMMAND_DONE or COMMAND_NO_DAEMON. Lock: none
CommandStatus commandConnect(CommandClient &client, const std::string &root);

// Closes the connection, if any. Lock: none
void commandClose(CommandClient &client);

// Sends one request and waits for its answer. answer: written when the daemon answered.
// Result: as the answer's result code says. Lock: none
CommandStatus commandCall(CommandClient &client, const CommandRequest &request, CommandAnswer &answer);

// Sends many requests without waiting between them and collects all answers, in order. A refused
// request does not stop the later ones. answers: one for each request when the daemon answered all.
// Result: COMMAND_DONE when every answer came, whatever its result. Lock: none
CommandStatus commandCallMany(CommandClient &client, const std::vector<CommandRequest> &requests,
                              std::vector<CommandAnswer> &answers);

} // namespace client

#endif
