// See nqa_asker.h.
#include "host/nqa/nqa_asker.h"

#include <arpa/inet.h>
#include <linux/errqueue.h>
#include <linux/filter.h>
#include <linux/icmp.h>
#include <linux/icmpv6.h>
#include <linux/ipv6.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "host/event/event_loop.h"
#include "host/ifnet/ifnet.h"

namespace host {

namespace {

constexpr int READS_AT_ONCE = 256;             // others on the event thread get their turn
constexpr int ICMP_ROOM_BYTES = 2 * 1024 * 1024;
constexpr size_t DESCRIPTORS_MOST = 65536;
constexpr size_t DESCRIPTORS_KEPT = 256;       // for the rest of the process
constexpr size_t HTTP_READ_BYTES = 512;

struct Place {
    sockaddr_storage bytes{};
    socklen_t len = 0;
    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&bytes); }
};

uint32_t unitOf(const std::string &interface) {
    const auto link = interface.empty() ? std::nullopt : ifnetByName(interface);
    return link ? link->unit : 0;
}

Place placeOf(const NqaAddress &address, uint16_t port, uint32_t unit) {
    Place place;
    if (address.version == 4) {
        sockaddr_in at = {};
        at.sin_family = AF_INET;
        at.sin_port = htons(port);
        std::memcpy(&at.sin_addr, address.bytes.data(), sizeof at.sin_addr);
        std::memcpy(&place.bytes, &at, sizeof at);
        place.len = sizeof at;
        return place;
    }
    sockaddr_in6 at = {};
    at.sin6_family = AF_INET6;
    at.sin6_port = htons(port);
    std::memcpy(&at.sin6_addr, address.bytes.data(), sizeof at.sin6_addr);
    if (IN6_IS_ADDR_LINKLOCAL(&at.sin6_addr)) {
        at.sin6_scope_id = unit;
    }
    std::memcpy(&place.bytes, &at, sizeof at);
    place.len = sizeof at;
    return place;
}

NqaAddress addressOf(const sockaddr_storage &from) {
    NqaAddress address;
    if (from.ss_family == AF_INET6) {
        address.version = 6;
        std::memcpy(address.bytes.data(), &reinterpret_cast<const sockaddr_in6 &>(from).sin6_addr, 16);
    } else {
        std::memcpy(address.bytes.data(), &reinterpret_cast<const sockaddr_in &>(from).sin_addr, 4);
    }
    return address;
}

template <typename Value> bool optionSet(int fd, int level, int option, const Value &value) {
    return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

// Only echo replies with our identifier reach the socket: other programs' answers wake nobody here.
bool icmpFilter(int fd, int version, uint16_t identifier) {
    if (version == 4) {
        icmp_filter types = {~(1u << ICMP_ECHOREPLY)};
        sock_filter code[] = {BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0), BPF_STMT(BPF_LD | BPF_H | BPF_IND, 4),
                              BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, identifier, 0, 1),
                              BPF_STMT(BPF_RET | BPF_K, 0xffff), BPF_STMT(BPF_RET | BPF_K, 0)};
        const sock_fprog program = {sizeof code / sizeof code[0], code};
        return optionSet(fd, SOL_RAW, ICMP_FILTER, types) && optionSet(fd, SOL_SOCKET, SO_ATTACH_FILTER, program);
    }
    icmp6_filter types = {};
    std::fill(std::begin(types.data), std::end(types.data), ~0u);
    types.data[ICMPV6_ECHO_REPLY >> 5] &= ~(1u << (ICMPV6_ECHO_REPLY & 31));
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 4),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, identifier, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, 0xffff), BPF_STMT(BPF_RET | BPF_K, 0)};
    const sock_fprog program = {sizeof code / sizeof code[0], code};
    return optionSet(fd, SOL_ICMPV6, ICMPV6_FILTER, types) && optionSet(fd, SOL_SOCKET, SO_ATTACH_FILTER, program);
}

// Source, interface and mark of one packet.
class Control {
public:
    Control(const NqaQuestion &question, uint32_t unit, uint32_t mark) {
        if (mark != 0) {
            put(SOL_SOCKET, SO_MARK, mark);
        }
        if (!question.source && unit == 0) {
            return;
        }
        if (question.target.version == 4) {
            in_pktinfo info = {};
            info.ipi_ifindex = static_cast<int>(unit);
            if (question.source) {
                std::memcpy(&info.ipi_spec_dst, question.source->bytes.data(), sizeof info.ipi_spec_dst);
            }
            put(IPPROTO_IP, IP_PKTINFO, info);
        } else {
            in6_pktinfo info = {};
            info.ipi6_ifindex = unit;
            if (question.source) {
                std::memcpy(&info.ipi6_addr, question.source->bytes.data(), sizeof info.ipi6_addr);
            }
            put(IPPROTO_IPV6, IPV6_PKTINFO, info);
        }
    }
    void attach(msghdr &message) {
        message.msg_control = len_ == 0 ? nullptr : bytes_;
        message.msg_controllen = len_;
    }

private:
    template <typename Value> void put(int level, int type, const Value &value) {
        auto *pHeader = reinterpret_cast<cmsghdr *>(bytes_ + len_);
        pHeader->cmsg_level = level;
        pHeader->cmsg_type = type;
        pHeader->cmsg_len = CMSG_LEN(sizeof value);
        std::memcpy(CMSG_DATA(pHeader), &value, sizeof value);
        len_ += CMSG_SPACE(sizeof value);
    }
    alignas(cmsghdr) uint8_t bytes_[128] = {};
    size_t len_ = 0;
};

int errorTake(int fd) {
    int error = 0;
    socklen_t len = sizeof error;
    return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) == 0 ? error : errno;
}

// Options and source of a question's own socket. Result: 0, or the errno.
int talkPrepare(int fd, const NqaQuestion &question, uint32_t mark, uint32_t unit) {
    const bool isBound = !question.interface.empty() && !question.via; // with via the way's route says where
    if ((mark != 0 && !optionSet(fd, SOL_SOCKET, SO_MARK, mark)) ||
        (isBound && setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, question.interface.data(),
                               static_cast<socklen_t>(question.interface.size())) != 0)) {
        return errno;
    }
    const int on = 1;
    if (question.kind == NqaKind::Udp) { // unreachable hosts are told, not only closed ports
        (void)optionSet(fd, question.target.version == 4 ? SOL_IP : SOL_IPV6,
                        question.target.version == 4 ? IP_RECVERR : IPV6_RECVERR, on);
    } else {
        (void)optionSet(fd, SOL_SOCKET, SO_LINGER, linger{1, 0}); // reset at the end: nothing lingers
        (void)optionSet(fd, IPPROTO_TCP, TCP_NODELAY, on);
    }
    if (!question.source) {
        return 0;
    }
    (void)optionSet(fd, SOL_IP, IP_BIND_ADDRESS_NO_PORT, on);
    const Place place = placeOf(*question.source, 0, unit);
    return bind(fd, place.get(), place.len) == 0 ? 0 : errno;
}

// The kernel words a source that is not ours differently for raw packets: so it is tried.
bool isOurs(const NqaAddress &source, uint32_t unit) {
    const int fd = socket(source.version == 4 ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const Place place = placeOf(source, 0, unit);
    const bool is = fd < 0 || bind(fd, place.get(), place.len) == 0 || errno != EADDRNOTAVAIL;
    if (fd >= 0) {
        close(fd);
    }
    return is;
}

} // namespace

NqaAsker::NqaAsker(NqaResults results) : results_(std::move(results)) {
    uint8_t random[sizeof secret_ + sizeof identifier_] = {};
    (void)!getrandom(random, sizeof random, 0); // without it the token is merely guessable
    std::memcpy(&secret_, random, sizeof secret_);
    std::memcpy(&identifier_, random + sizeof secret_, sizeof identifier_);
}

NqaAsker::~NqaAsker() {
    while (!talks_.empty()) {
        cancel(talks_.begin()->first);
    }
    for (const auto &[version, fd] : icmpFds_) {
        hostEventLoop().fdDel(fd);
        close(fd);
    }
}

std::string NqaAsker::ask(uint32_t id, uint64_t seq, const NqaQuestion &question, uint32_t mark) {
    if (!question.interface.empty() && unitOf(question.interface) == 0) {
        return "no interface " + question.interface;
    }
    return question.kind == NqaKind::Icmp ? icmpAsk(id, seq, question, mark) : talkAsk(id, seq, question, mark);
}

void NqaAsker::cancel(uint32_t id) {
    const auto found = talks_.find(id);
    if (found != talks_.end()) {
        hostEventLoop().fdDel(found->second.fd);
        close(found->second.fd);
        talks_.erase(found);
    }
}

// ---- ICMP ----

std::string NqaAsker::icmpOpen(int version, int *pFd) {
    const auto found = icmpFds_.find(version);
    if (found != icmpFds_.end()) {
        *pFd = found->second;
        return "";
    }
    const int fd = socket(version == 4 ? AF_INET : AF_INET6, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK,
                          version == 4 ? static_cast<int>(IPPROTO_ICMP) : static_cast<int>(IPPROTO_ICMPV6));
    if (fd < 0) {
        return "ICMP socket: " + nqaErrorText(errno);
    }
    const int on = 1;
    const bool isReady = icmpFilter(fd, version, identifier_) &&
                         optionSet(fd, version == 4 ? SOL_IP : SOL_IPV6, version == 4 ? IP_RECVERR : IPV6_RECVERR, on);
    if (!isReady) {
        const std::string text = "ICMP socket: " + nqaErrorText(errno);
        close(fd);
        return text;
    }
    if (!optionSet(fd, SOL_SOCKET, SO_RCVBUFFORCE, ICMP_ROOM_BYTES)) {
        (void)optionSet(fd, SOL_SOCKET, SO_RCVBUF, ICMP_ROOM_BYTES); // as large as we may
    }
    icmpFds_[version] = fd;
    hostEventLoop().fdAdd(fd, EPOLLIN, [this, version](uint32_t events) { icmpReady(version, events); });
    *pFd = fd;
    return "";
}

std::string NqaAsker::icmpAsk(uint32_t id, uint64_t seq, const NqaQuestion &question, uint32_t mark) {
    int fd = -1;
    const std::string error = icmpOpen(question.target.version, &fd);
    if (!error.empty()) {
        return error;
    }
    const uint32_t unit = unitOf(question.interface);
    NqaEchoBytes bytes = nqaEchoWrite(question.target.version, identifier_, {secret_, id, seq});
    Place place = placeOf(question.target, 0, unit);
    Control control(question, question.via ? 0 : unit, mark);
    iovec part = {bytes.data(), bytes.size()};
    msghdr message = {};
    message.msg_name = &place.bytes;
    message.msg_namelen = place.len;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    control.attach(message);
    (void)errorTake(fd); // an ICMP error of another probe would be told here
    if (sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
        return "";
    }
    const int code = errno;
    return nqaErrorText(question.source && !isOurs(*question.source, unit) ? EADDRNOTAVAIL : code);
}

void NqaAsker::icmpReady(int version, uint32_t events) {
    const int fd = icmpFds_.at(version);
    if ((events & EPOLLERR) != 0) {
        icmpErrors(version, fd);
    }
    uint8_t bytes[512];
    for (int i = 0; i < READS_AT_ONCE; i++) {
        sockaddr_storage from = {};
        socklen_t fromLen = sizeof from;
        const ssize_t got = recvfrom(fd, bytes, sizeof bytes, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &fromLen);
        if (got < 0) {
            return; // nothing more, or an error that the next turn takes
        }
        const auto token = nqaEchoReplyRead(version, bytes, static_cast<size_t>(got), identifier_, secret_);
        if (token && results_.isOpen(token->id, token->seq, addressOf(from))) {
            results_.success(token->id, token->seq);
        }
    }
}

// What routers and this machine say of packets that could not be delivered.
void NqaAsker::icmpErrors(int version, int fd) {
    for (int i = 0; i < READS_AT_ONCE; i++) {
        uint8_t bytes[512];
        alignas(cmsghdr) uint8_t control[512];
        sockaddr_storage target = {};
        iovec part = {bytes, sizeof bytes};
        msghdr message = {};
        message.msg_name = &target;
        message.msg_namelen = sizeof target;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        const ssize_t got = recvmsg(fd, &message, MSG_ERRQUEUE | MSG_DONTWAIT);
        if (got < 0) {
            break;
        }
        const auto token = nqaEchoQuoteRead(version, bytes, static_cast<size_t>(got), identifier_, secret_);
        const cmsghdr *pHeader = CMSG_FIRSTHDR(&message);
        if (!token || pHeader == nullptr || pHeader->cmsg_len < CMSG_LEN(sizeof(sock_extended_err))) {
            continue;
        }
        sock_extended_err error;
        std::memcpy(&error, CMSG_DATA(pHeader), sizeof error);
        const bool isIcmp = error.ee_origin == SO_EE_ORIGIN_ICMP || error.ee_origin == SO_EE_ORIGIN_ICMP6;
        std::string text = isIcmp ? nqaIcmpErrorText(version, error.ee_type, error.ee_code)
                                  : nqaErrorText(static_cast<int>(error.ee_errno));
        sockaddr_storage teller = {};
        const size_t tellerLen = version == 4 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        if (isIcmp && pHeader->cmsg_len >= CMSG_LEN(sizeof error + tellerLen)) {
            std::memcpy(&teller, CMSG_DATA(pHeader) + sizeof error, tellerLen);
            text += ", says " + nqaAddressText(addressOf(teller));
        }
        if (results_.isOpen(token->id, token->seq, addressOf(target))) {
            results_.failure(token->id, token->seq, text);
        }
    }
    (void)errorTake(fd);
}

// ---- UDP, TCP, HTTP ----

void NqaAsker::socketsMostDecide() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        socketsMost_ = DESCRIPTORS_KEPT;
        return;
    }
    const rlim_t wanted = std::min<rlim_t>(limit.rlim_max, DESCRIPTORS_MOST);
    if (limit.rlim_cur < wanted) {
        const rlimit raised = {wanted, limit.rlim_max};
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
            limit.rlim_cur = wanted;
        }
    }
    const size_t most = static_cast<size_t>(std::min<rlim_t>(limit.rlim_cur, DESCRIPTORS_MOST));
    socketsMost_ = most > 2 * DESCRIPTORS_KEPT ? most - DESCRIPTORS_KEPT : std::max<size_t>(most / 2, 1);
}

std::string NqaAsker::talkOpen(const NqaQuestion &question, uint32_t mark, int *pFd) {
    const int kind = question.kind == NqaKind::Udp ? SOCK_DGRAM : SOCK_STREAM;
    const int fd = socket(question.target.version == 4 ? AF_INET : AF_INET6, kind | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return nqaErrorText(errno);
    }
    const uint32_t unit = unitOf(question.interface);
    int error = talkPrepare(fd, question, mark, unit);
    const Place place = placeOf(question.target, question.port, unit);
    if (error == 0 && connect(fd, place.get(), place.len) != 0 && errno != EINPROGRESS) {
        error = errno;
    }
    if (error != 0) {
        close(fd);
        return nqaErrorText(error);
    }
    *pFd = fd;
    return "";
}

std::string NqaAsker::talkAsk(uint32_t id, uint64_t seq, const NqaQuestion &question, uint32_t mark) {
    cancel(id);
    if (socketsMost_ == 0) {
        socketsMostDecide();
    }
    if (talks_.size() >= socketsMost_) {
        return "too many probes wait for answers: " + std::to_string(talks_.size()) + " sockets are open (RLIMIT_NOFILE)";
    }
    Talk talk;
    const std::string error = talkOpen(question, mark, &talk.fd);
    if (!error.empty()) {
        return error;
    }
    talk.seq = seq;
    talk.kind = question.kind;
    talk.token = nqaTokenWrite({secret_, id, seq});
    if (question.kind == NqaKind::Http) {
        talk.toSend = nqaHttpRequest(question.path, nqaHostOf(question));
    }
    if (question.kind == NqaKind::Udp && send(talk.fd, talk.token.data(), talk.token.size(), MSG_NOSIGNAL) < 0) {
        const std::string text = nqaErrorText(errno);
        close(talk.fd);
        return text;
    }
    const int fd = talk.fd;
    talks_[id] = std::move(talk);
    hostEventLoop().fdAdd(fd, question.kind == NqaKind::Udp ? EPOLLIN : EPOLLOUT,
                          [this, id](uint32_t events) { talkReady(id, events); });
    return "";
}

std::string NqaAsker::udpRead(Talk &talk, bool *pIsDone) {
    uint8_t bytes[NQA_TOKEN_BYTES + 1];
    const ssize_t got = recv(talk.fd, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got < 0) {
        *pIsDone = errno != EAGAIN && errno != EINTR;
        return *pIsDone ? nqaErrorText(errno) : "";
    }
    *pIsDone = true;
    const bool isSame = got == NQA_TOKEN_BYTES && std::equal(talk.token.begin(), talk.token.end(), bytes);
    return isSame ? "" : "other bytes came back than were sent";
}

std::string NqaAsker::httpTalk(Talk &talk, uint32_t events, bool *pIsDone) {
    *pIsDone = false;
    if ((events & EPOLLOUT) != 0 && !talk.toSend.empty()) {
        const ssize_t sent = send(talk.fd, talk.toSend.data(), talk.toSend.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EAGAIN && errno != EINTR) {
            *pIsDone = true;
            return nqaErrorText(errno);
        }
        talk.toSend.erase(0, static_cast<size_t>(std::max<ssize_t>(sent, 0)));
    }
    char bytes[HTTP_READ_BYTES];
    const ssize_t got = recv(talk.fd, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return "";
    }
    if (got <= 0) {
        *pIsDone = true;
        return got < 0 ? nqaErrorText(errno) : "the connection was closed without an HTTP status";
    }
    talk.received.append(bytes, static_cast<size_t>(got));
    uint32_t status = 0;
    const NqaHttp what = nqaHttpStatus(talk.received, &status);
    *pIsDone = what != NqaHttp::More;
    if (what == NqaHttp::Strange) {
        return "the answer is no HTTP";
    }
    return what == NqaHttp::Status && (status < 200 || status > 399) ? "HTTP status " + std::to_string(status) : "";
}

void NqaAsker::talkReady(uint32_t id, uint32_t events) {
    const auto found = talks_.find(id);
    if (found == talks_.end()) {
        return;
    }
    Talk &talk = found->second;
    const uint64_t seq = talk.seq;
    bool isDone = true;
    std::string why;
    // Later errors are told by the reading, behind what can still be read.
    const int error = talk.kind != NqaKind::Udp && !talk.isConnected ? errorTake(talk.fd) : 0;
    if (error != 0) {
        why = nqaErrorText(error);
    } else if (talk.kind == NqaKind::Udp) {
        why = udpRead(talk, &isDone);
    } else if (talk.kind == NqaKind::Http) {
        talk.isConnected = true;
        why = httpTalk(talk, events, &isDone);
    }
    if (!isDone) {
        if (talk.kind == NqaKind::Http && talk.toSend.empty()) {
            hostEventLoop().fdAdd(talk.fd, EPOLLIN, [this, id](uint32_t next) { talkReady(id, next); });
        }
        return;
    }
    cancel(id);
    if (why.empty()) {
        results_.success(id, seq);
    } else {
        results_.failure(id, seq, why);
    }
}

} // namespace host
