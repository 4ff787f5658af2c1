// Asks the questions of probes over real sockets, without ever waiting.
//
// ICMP: one raw socket a family for all probes; source, interface and mark travel with each packet. UDP,
// TCP and HTTP: a socket a question, from asking to its result; a finished TCP connection is reset, so
// that nothing lingers. Sockets open at once are bounded by RLIMIT_NOFILE, whose soft limit is raised to
// the hard one (65,536 at most) when the first question is asked; a question beyond is refused with a text.
//
// Event thread only. Lock: none
#ifndef HOST_NQA_NQA_ASKER_H
#define HOST_NQA_NQA_ASKER_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "host/nqa/nqa_config.h"
#include "host/nqa/nqa_packet.h"

namespace host {

struct NqaResults {
    std::function<void(uint32_t id, uint64_t seq)> success;
    std::function<void(uint32_t id, uint64_t seq, const std::string &why)> failure;
    // Whether this question of this target waits for an answer; asked for each ICMP packet that comes in.
    std::function<bool(uint32_t id, uint64_t seq, const NqaAddress &target)> isOpen;
};

class NqaAsker {
public:
    explicit NqaAsker(NqaResults results);
    ~NqaAsker();
    NqaAsker(const NqaAsker &) = delete;

    // Asks. mark: of the packets, 0 none. A result comes later, by a call of `success` or `failure`.
    // Result: empty, or why it could not be asked (nothing comes then).
    std::string ask(uint32_t id, uint64_t seq, const NqaQuestion &question, uint32_t mark);

    // Gives up what is open for the probe; no result comes for it any more.
    void cancel(uint32_t id);

    size_t openSockets() const { return talks_.size(); }

    // Most sockets open at once; for tests, else decided by the limits of the process.
    void socketsMostSet(size_t count) { socketsMost_ = count; }

private:
    struct Talk { // a socket of one question
        int fd = -1;
        uint64_t seq = 0;
        NqaKind kind = NqaKind::Tcp;
        NqaTokenBytes token{};  // udp: what was sent
        std::string toSend;     // http: what remains of the request
        std::string received;   // http
        bool isConnected = false;
    };
    std::string icmpOpen(int version, int *pFd);
    std::string icmpAsk(uint32_t id, uint64_t seq, const NqaQuestion &question, uint32_t mark);
    void icmpReady(int version, uint32_t events);
    void icmpErrors(int version, int fd);
    std::string talkOpen(const NqaQuestion &question, uint32_t mark, int *pFd);
    std::string talkAsk(uint32_t id, uint64_t seq, const NqaQuestion &question, uint32_t mark);
    void talkReady(uint32_t id, uint32_t events);
    std::string udpRead(Talk &talk, bool *pIsDone);
    std::string httpTalk(Talk &talk, uint32_t events, bool *pIsDone);
    void socketsMostDecide();

    NqaResults results_;
    std::map<int, int> icmpFds_; // by version
    std::map<uint32_t, Talk> talks_;
    uint64_t secret_ = 0;
    uint16_t identifier_ = 0;    // of our echo requests
    size_t socketsMost_ = 0;     // 0: not decided yet
};

} // namespace host

#endif
