// Netlink request socket: see the header.
//
// Room: an acknowledgement takes up to about 1 KB of the socket's receive room, so the room grows with
// the number of acknowledgements a batch asks for; what is lost all the same is told (uncertain).
#include "host/netlink/netlink_socket.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace host {

namespace {

constexpr size_t RECEIVE_BYTES = 256 * 1024; // one datagram; the kernel fills dumps up to 32 KB
constexpr size_t ROOM_BYTES = 1024 * 1024;
constexpr size_t ACK_ROOM_BYTES = 1280;
constexpr int EMPTY_WAIT_MS = 10000; // a dump's next part or an answer that should be there already

NetlinkError errorOf(int code, const char *what) {
    NetlinkError error;
    error.code = code;
    error.text = std::string(what) + ": " + std::strerror(code);
    return error;
}

void switchOn(int fd, int option) {
    const int one = 1;
    // Old kernels know some of these not; requests are then checked less strictly, nothing else.
    (void)setsockopt(fd, SOL_NETLINK, option, &one, sizeof(one));
}

size_t acksAsked(const void *pMessages, size_t len) {
    size_t count = 0;
    int left = static_cast<int>(len);
    const nlmsghdr *pMessage = static_cast<const nlmsghdr *>(pMessages);
    while (netlinkIsWhole(pMessage, left)) {
        count += (pMessage->nlmsg_flags & NLM_F_ACK) != 0 ? 1 : 0;
        pMessage = mnl_nlmsg_next(pMessage, &left);
    }
    return count;
}

// The errno of an answer, which is negative; EBADMSG for what is none.
int errnoOf(int32_t answer) { return answer < 0 && answer != INT32_MIN ? -answer : EBADMSG; }

} // namespace

void netlinkSetRoom(int fd, int option, int forceOption, size_t bytes) {
    const int value = static_cast<int>(std::min<size_t>(bytes, INT32_MAX / 2));
    if (setsockopt(fd, SOL_SOCKET, forceOption, &value, sizeof(value)) != 0) {
        (void)setsockopt(fd, SOL_SOCKET, option, &value, sizeof(value)); // less room is still a socket
    }
}

NetlinkError netlinkErrorOf(const nlmsghdr *pMessage) {
    NetlinkError error;
    error.seq = pMessage->nlmsg_seq;
    const nlmsgerr *pErr = netlinkHeader<nlmsgerr>(pMessage);
    if (pErr == nullptr) {
        error.code = EBADMSG;
        error.text = "short error message from the kernel";
        return error;
    }
    if (pErr->error == 0) {
        return error;
    }
    error.code = errnoOf(pErr->error);
    error.seq = pErr->msg.nlmsg_seq;
    error.text = std::strerror(error.code);
    const bool echoed = (pMessage->nlmsg_flags & NLM_F_CAPPED) == 0 && pErr->msg.nlmsg_len >= MNL_NLMSG_HDRLEN;
    const size_t skip = sizeof(nlmsgerr) + (echoed ? pErr->msg.nlmsg_len - MNL_NLMSG_HDRLEN : 0);
    if ((pMessage->nlmsg_flags & NLM_F_ACK_TLVS) == 0) {
        return error;
    }
    const NetlinkAttrs attrs(pMessage, skip);
    error.offset = attrs.u32(NLMSGERR_ATTR_OFFS).value_or(0);
    const std::string text = attrs.string(NLMSGERR_ATTR_MSG);
    if (!text.empty()) {
        error.text = text + " (" + error.text + ")";
    }
    return error;
}

std::string netlinkErrorText(const std::string &what, const NetlinkError &error) {
    return error ? what + ": " + error.text : std::string();
}

NetlinkSocket::NetlinkSocket(int protocol) : buffer_(RECEIVE_BYTES) {
    fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (fd_ < 0) {
        throw std::system_error(errno, std::generic_category(), "netlink socket");
    }
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    socklen_t len = sizeof(address);
    if (bind(fd_, reinterpret_cast<sockaddr *>(&address), len) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &len) != 0) {
        const int code = errno;
        close(fd_);
        throw std::system_error(code, std::generic_category(), "netlink bind");
    }
    portId_ = address.nl_pid;
    seq_ = 0;
    switchOn(fd_, NETLINK_EXT_ACK);
    switchOn(fd_, NETLINK_CAP_ACK);
    switchOn(fd_, NETLINK_GET_STRICT_CHK);
    receiveRoom_ = ROOM_BYTES;
    sendRoom_ = ROOM_BYTES;
    netlinkSetRoom(fd_, SO_RCVBUF, SO_RCVBUFFORCE, receiveRoom_);
    netlinkSetRoom(fd_, SO_SNDBUF, SO_SNDBUFFORCE, sendRoom_);
    const timeval limit = {EMPTY_WAIT_MS / 1000, 0};
    (void)setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
}

NetlinkSocket::~NetlinkSocket() {
    close(fd_);
}

uint32_t NetlinkSocket::nextSeq() {
    seq_ = seq_ == UINT32_MAX ? 1 : seq_ + 1;
    return seq_;
}

NetlinkError NetlinkSocket::send(const void *pBytes, size_t len) {
    if (len > sendRoom_ / 2) {
        sendRoom_ = 2 * len;
        netlinkSetRoom(fd_, SO_SNDBUF, SO_SNDBUFFORCE, sendRoom_);
    }
    sockaddr_nl kernel = {};
    kernel.nl_family = AF_NETLINK;
    ssize_t sent;
    do {
        sent = sendto(fd_, pBytes, len, 0, reinterpret_cast<sockaddr *>(&kernel), sizeof(kernel));
    } while (sent < 0 && errno == EINTR);
    return sent < 0 ? errorOf(errno, "send to the kernel") : NetlinkError();
}

// One datagram of the kernel into the buffer. code EAGAIN: nothing there (any more).
NetlinkError NetlinkSocket::receive(bool wait, size_t *pLen) {
    for (;;) {
        sockaddr_nl from = {};
        socklen_t fromLen = sizeof(from);
        const ssize_t got = recvfrom(fd_, buffer_.data(), buffer_.size(), MSG_TRUNC | (wait ? 0 : MSG_DONTWAIT),
                                     reinterpret_cast<sockaddr *>(&from), &fromLen);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return errorOf(errno, "receive from the kernel");
        }
        if (from.nl_pid != 0) {
            continue; // another process's datagram: not the kernel's answer
        }
        if (static_cast<size_t>(got) > buffer_.size()) {
            return errorOf(EMSGSIZE, "answer larger than the buffer");
        }
        *pLen = static_cast<size_t>(got);
        return {};
    }
}

// Throws away what an earlier, broken-off exchange left.
void NetlinkSocket::drain() {
    size_t len = 0;
    NetlinkError error;
    do {
        error = receive(false, &len);
    } while (!error || error.code == ENOBUFS);
}

NetlinkError NetlinkSocket::request(NetlinkMessage &message, const Handler &reply) {
    nlmsghdr *pRequest = message.get();
    pRequest->nlmsg_flags |= NLM_F_ACK;
    pRequest->nlmsg_seq = nextSeq();
    const uint32_t seq = pRequest->nlmsg_seq;
    const NetlinkError sent = send(pRequest, pRequest->nlmsg_len);
    if (sent) {
        return sent;
    }
    for (;;) {
        size_t len = 0;
        const NetlinkError got = receive(true, &len);
        if (got) {
            drain();
            return got;
        }
        int left = static_cast<int>(len);
        for (const nlmsghdr *pMessage = reinterpret_cast<const nlmsghdr *>(buffer_.data());
             netlinkIsWhole(pMessage, left); pMessage = mnl_nlmsg_next(pMessage, &left)) {
            if (pMessage->nlmsg_seq != seq) {
                continue;
            }
            if (pMessage->nlmsg_type == NLMSG_ERROR) {
                return netlinkErrorOf(pMessage);
            }
            if (reply && pMessage->nlmsg_type >= NLMSG_MIN_TYPE) {
                reply(pMessage);
            }
        }
    }
}

NetlinkSocket::Attempt NetlinkSocket::dumpOnce(NetlinkMessage &message) {
    Attempt attempt;
    nlmsghdr *pRequest = message.get();
    pRequest->nlmsg_flags |= NLM_F_DUMP;
    pRequest->nlmsg_flags &= static_cast<uint16_t>(~NLM_F_ACK);
    pRequest->nlmsg_seq = nextSeq();
    attempt.error = send(pRequest, pRequest->nlmsg_len);
    while (!attempt.error) {
        size_t len = 0;
        attempt.error = receive(true, &len);
        int left = attempt.error ? 0 : static_cast<int>(len);
        for (const nlmsghdr *pMessage = reinterpret_cast<const nlmsghdr *>(buffer_.data());
             netlinkIsWhole(pMessage, left); pMessage = mnl_nlmsg_next(pMessage, &left)) {
            if (pMessage->nlmsg_seq != seq_) {
                continue;
            }
            attempt.interrupted = attempt.interrupted || (pMessage->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
            if (pMessage->nlmsg_type == NLMSG_ERROR) {
                attempt.error = netlinkErrorOf(pMessage);
                return attempt;
            }
            if (pMessage->nlmsg_type == NLMSG_DONE) {
                int32_t code = 0;
                if (mnl_nlmsg_get_payload_len(pMessage) >= sizeof(code)) {
                    std::memcpy(&code, mnl_nlmsg_get_payload(pMessage), sizeof(code));
                }
                attempt.error = code < 0 ? errorOf(errnoOf(code), "dump") : NetlinkError();
                return attempt;
            }
            const uint8_t *pBytes = reinterpret_cast<const uint8_t *>(pMessage);
            attempt.messages.insert(attempt.messages.end(), pBytes, pBytes + pMessage->nlmsg_len);
            attempt.messages.resize(MNL_ALIGN(attempt.messages.size()));
        }
    }
    drain();
    return attempt;
}

NetlinkDumpResult NetlinkSocket::dump(NetlinkMessage &message, const Handler &reply, int attempts) {
    Attempt attempt;
    for (int count = 0; count < attempts; ++count) {
        attempt = dumpOnce(message);
        // EINTR: some tables end an overtaken dump so; EBUSY: an earlier dump is being torn down.
        const bool again = attempt.error ? attempt.error.code == EINTR || attempt.error.code == ENOBUFS ||
                                               attempt.error.code == EBUSY
                                         : attempt.interrupted;
        if (!again) {
            break;
        }
    }
    NetlinkDumpResult result{attempt.error, attempt.interrupted};
    if (attempt.error) {
        return result;
    }
    int left = static_cast<int>(attempt.messages.size());
    attempt.messages.push_back(0); // libnftnl copies a text up to its terminator, whether the kernel sent one or not
    for (const nlmsghdr *pMessage = reinterpret_cast<const nlmsghdr *>(attempt.messages.data());
         netlinkIsWhole(pMessage, left); pMessage = mnl_nlmsg_next(pMessage, &left)) {
        reply(pMessage);
    }
    return result;
}

NetlinkBatchResult NetlinkSocket::batch(const void *pMessages, size_t len, const Handler &reply) {
    NetlinkBatchResult result;
    size_t acksLeft = acksAsked(pMessages, len);
    const size_t room = ROOM_BYTES + acksLeft * ACK_ROOM_BYTES;
    if (room > receiveRoom_) {
        receiveRoom_ = room;
        netlinkSetRoom(fd_, SO_RCVBUF, SO_RCVBUFFORCE, room);
    }
    const NetlinkError sent = send(pMessages, len);
    if (sent) {
        result.failed.push_back(sent);
        return result;
    }
    // Everything the kernel has to say is waiting by now: read until there is nothing.
    for (;;) {
        size_t got = 0;
        const NetlinkError error = receive(false, &got);
        if (error.code == EAGAIN) {
            break;
        }
        if (error.code == ENOBUFS) {
            result.uncertain = true;
            continue;
        }
        if (error) {
            result.failed.push_back(error);
            break;
        }
        int left = static_cast<int>(got);
        for (const nlmsghdr *pMessage = reinterpret_cast<const nlmsghdr *>(buffer_.data());
             netlinkIsWhole(pMessage, left); pMessage = mnl_nlmsg_next(pMessage, &left)) {
            if (pMessage->nlmsg_type != NLMSG_ERROR) {
                if (reply && pMessage->nlmsg_type >= NLMSG_MIN_TYPE) {
                    reply(pMessage);
                }
                continue;
            }
            const NetlinkError told = netlinkErrorOf(pMessage);
            acksLeft -= acksLeft > 0 && !told ? 1 : 0;
            if (told) {
                result.failed.push_back(told);
            }
        }
    }
    // A failure explains missing acknowledgements (a whole batch that was refused gives only one answer).
    result.uncertain = result.uncertain || (acksLeft > 0 && result.failed.empty());
    return result;
}

NetlinkBatchResult NetlinkSocket::batch(std::vector<NetlinkMessage> &messages, std::vector<uint32_t> *pSeqs) {
    std::vector<uint8_t> bytes;
    for (NetlinkMessage &message : messages) {
        nlmsghdr *pMessage = message.get();
        pMessage->nlmsg_flags |= NLM_F_ACK;
        pMessage->nlmsg_seq = nextSeq();
        if (pSeqs != nullptr) {
            pSeqs->push_back(pMessage->nlmsg_seq);
        }
        const uint8_t *pBytes = reinterpret_cast<const uint8_t *>(pMessage);
        bytes.insert(bytes.end(), pBytes, pBytes + pMessage->nlmsg_len);
    }
    return bytes.empty() ? NetlinkBatchResult() : batch(bytes.data(), bytes.size());
}

} // namespace host
