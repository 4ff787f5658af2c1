// A request socket to the kernel: one message, a batch or a dump, with its outcome.
//
// For NETLINK_ROUTE and NETLINK_NETFILTER. Strict checking of requests, extended acknowledgements and
// capped echoes are switched on. The socket belongs to the network namespace of the thread that made
// it. The kernel answers a request before its send returns, so no call here waits for anything but the
// kernel's own work; what was expected and did not come is an error, never an endless wait.
// Not for several threads at once: the owner locks. A reply handler must not use the socket it is called from.
#ifndef HOST_NETLINK_NETLINK_SOCKET_H
#define HOST_NETLINK_NETLINK_SOCKET_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/netlink/netlink_message.h"

namespace host {

// One message's failure. code 0: none.
struct NetlinkError {
    int code = 0;        // errno, positive
    std::string text;    // the kernel's own words when it gave some, else the errno's; with the errno
    uint32_t seq = 0;    // sequence number of the message concerned
    uint32_t offset = 0; // byte of the message that the kernel objects to; 0 when not told
    explicit operator bool() const { return code != 0; } // true: failed
};

struct NetlinkBatchResult {
    // Failures in the order in which the kernel told them. An nftables batch with a failure changed
    // nothing; messages of a NETLINK_ROUTE batch stand each for itself.
    std::vector<NetlinkError> failed;
    // Some asked-for acknowledgement was lost (receive room) or did not come: what the kernel holds must
    // be read back. `failed` is then not complete.
    bool uncertain = false;
    bool ok() const { return failed.empty() && !uncertain; }
};

struct NetlinkDumpResult {
    NetlinkError error;       // failure; what was handed on by then is not the whole
    bool interrupted = false; // the tables changed during every attempt: complete but for these changes
};

class NetlinkSocket {
public:
    using Handler = std::function<void(const nlmsghdr *)>;

    // Opens a socket of the protocol (NETLINK_ROUTE ...). Throws std::system_error.
    explicit NetlinkSocket(int protocol);
    ~NetlinkSocket();
    NetlinkSocket(const NetlinkSocket &) = delete;
    NetlinkSocket &operator=(const NetlinkSocket &) = delete;

    // Sends the message and takes its acknowledgement (NLM_F_ACK is added); `reply` receives what comes
    // before it, as for a get of one object. The message's sequence number is set.
    NetlinkError request(NetlinkMessage &message, const Handler &reply = {});

    // Asks for a whole table (NLM_F_DUMP is added). The messages are collected first and handed to
    // `reply` only once, from an attempt during which the table did not change, or from the last one.
    NetlinkDumpResult dump(NetlinkMessage &message, const Handler &reply, int attempts = 8);

    // Sends messages that stand one behind the other (each at a 4-byte boundary) with one send and
    // collects the answers. The messages carry sequence numbers of nextSeq(). `reply` receives messages
    // that are no acknowledgements (echoes). Messages without NLM_F_ACK answer only when they fail.
    NetlinkBatchResult batch(const void *pMessages, size_t len, const Handler &reply = {});

    // The same for built messages: numbers them (0 in seqOf[i] never occurs) and asks for their
    // acknowledgements. pSeqs, may be null: receives the sequence number of each.
    NetlinkBatchResult batch(std::vector<NetlinkMessage> &messages, std::vector<uint32_t> *pSeqs = nullptr);

    // The next sequence number, never 0.
    uint32_t nextSeq();

    // Our port: nlmsg_pid of notifications about changes that were made through this socket.
    uint32_t portId() const { return portId_; }
    int fd() const { return fd_; }

private:
    struct Attempt {
        NetlinkError error;
        bool interrupted = false;
        std::vector<uint8_t> messages;
    };
    NetlinkError send(const void *pBytes, size_t len);
    NetlinkError receive(bool wait, size_t *pLen);
    Attempt dumpOnce(NetlinkMessage &message);
    void drain();

    int fd_ = -1;
    uint32_t portId_ = 0;
    uint32_t seq_ = 0;
    size_t sendRoom_ = 0;
    size_t receiveRoom_ = 0;
    std::vector<uint8_t> buffer_;
};

// Failure that an NLMSG_ERROR message tells, with the extended acknowledgement's text; code 0 for an
// acknowledgement.
NetlinkError netlinkErrorOf(const nlmsghdr *pMessage);

// "what: text" of a failure, for results that are texts.
std::string netlinkErrorText(const std::string &what, const NetlinkError &error);

// Room for waiting messages or for one send, as large as asked when we are privileged, else as allowed.
void netlinkSetRoom(int fd, int option, int forceOption, size_t bytes);

} // namespace host

#endif
