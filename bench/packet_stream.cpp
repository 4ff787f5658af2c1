// A steady stream of numbered UDP packets from one network namespace to another: what was lost, by which interface packets
// came, and when that changed. For times below a millisecond, where tests/support/netlab.py's Stream is too coarse.
//
//   packet_stream SENDER-NAMESPACE SINK-NAMESPACE DESTINATION PORT INTERVAL-US SECONDS
//
// Namespaces are paths. The sender has a fixed priority, so that it is on time on a machine that is shared; a packet that is
// late all the same is sent at once, and none is left out. Result, one line of JSON; times are seconds of CLOCK_MONOTONIC:
//   {"sent": N, "lost": N, "late": most seconds that a packet was sent late, "gap": longest time without an arrival,
//    "lost_from", "lost_until": when the first and the last lost packet were sent,
//    "ways": [{"by": INTERFACE, "first": time, "last": time, "count": N} ...]}   runs of one interface, in their order
// Called by bench/kit/failover.py.
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "bench/tool.h"

namespace {

struct Arrival {
    uint32_t number;
    int interface;
    double time;
};

double now() { return seconds(CLOCK_MONOTONIC); }

void sleepUntil(double time) {
    const auto whole = static_cast<time_t>(time);
    const timespec until = {whole, static_cast<long>((time - static_cast<double>(whole)) * 1e9)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

void enter(const char *path) {
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 || setns(descriptor, CLONE_NEWNET) != 0) {
        fail(path);
    }
    close(descriptor);
}

int udpSocket(int family) {
    const int socket = ::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket < 0) {
        fail("socket");
    }
    return socket;
}

// A socket that takes what comes to `port` and tells by which interface.
int receiver(int family, uint16_t port) {
    const int socket = udpSocket(family);
    const int yes = 1;
    const int room = 32 << 20;
    const timeval patience = {0, 50000};
    (void)setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)); // as much as is permitted
    (void)setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    int done = 0;
    if (family == AF_INET) {
        sockaddr_in own{};
        own.sin_family = AF_INET;
        own.sin_port = htons(port);
        done = setsockopt(socket, IPPROTO_IP, IP_PKTINFO, &yes, sizeof(yes)) |
               bind(socket, reinterpret_cast<sockaddr *>(&own), sizeof(own));
    } else {
        sockaddr_in6 own{};
        own.sin6_family = AF_INET6;
        own.sin6_port = htons(port);
        done = setsockopt(socket, IPPROTO_IPV6, IPV6_RECVPKTINFO, &yes, sizeof(yes)) |
               bind(socket, reinterpret_cast<sockaddr *>(&own), sizeof(own));
    }
    if (done != 0) {
        fail("receiver");
    }
    return socket;
}

// The interface that a message came by; 0: not told.
int interfaceOf(msghdr &message) {
    for (cmsghdr *each = CMSG_FIRSTHDR(&message); each != nullptr; each = CMSG_NXTHDR(&message, each)) {
        if (each->cmsg_level == IPPROTO_IP && each->cmsg_type == IP_PKTINFO) {
            in_pktinfo found{};
            std::memcpy(&found, CMSG_DATA(each), sizeof(found));
            return found.ipi_ifindex;
        }
        if (each->cmsg_level == IPPROTO_IPV6 && each->cmsg_type == IPV6_PKTINFO) {
            in6_pktinfo found{};
            std::memcpy(&found, CMSG_DATA(each), sizeof(found));
            return static_cast<int>(found.ipi6_ifindex);
        }
    }
    return 0;
}

void receive(int socket, const std::atomic<bool> &stop, std::vector<Arrival> &arrivals) {
    while (true) {
        uint32_t number = 0;
        alignas(cmsghdr) char control[128];
        iovec part = {&number, sizeof(number)};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        if (recvmsg(socket, &message, 0) == sizeof(number)) {
            arrivals.push_back({number, interfaceOf(message), now()});
        } else if (stop) {
            return;
        }
    }
}

// Sends until `seconds` are over. Result: when each packet was sent; `late` is the most that one was late.
std::vector<double> send(int socket, const sockaddr *to, socklen_t size, double interval, double seconds, double &late) {
    std::vector<double> sent;
    const double begin = now();
    const auto packets = static_cast<uint32_t>(seconds / interval);
    for (uint32_t number = 0; number < packets; ++number) {
        const double due = begin + number * interval;
        sleepUntil(due);
        sent.push_back(now());
        late = std::max(late, sent.back() - due);
        (void)sendto(socket, &number, sizeof(number), 0, to, size); // what the sender cannot send is lost too
    }
    return sent;
}

std::string nameOf(int interface) {
    char name[IF_NAMESIZE] = "?";
    (void)if_indextoname(static_cast<unsigned>(interface), name);
    return name;
}

void tell(const std::vector<double> &sent, const std::vector<Arrival> &arrivals, double late) {
    std::vector<bool> here(sent.size());
    double gap = 0;
    for (size_t i = 0; i < arrivals.size(); ++i) {
        here[arrivals[i].number % sent.size()] = true;
        gap = i == 0 ? 0 : std::max(gap, arrivals[i].time - arrivals[i - 1].time);
    }
    size_t lost = 0;
    double from = 0;
    double until = 0;
    for (size_t i = 0; i < sent.size(); ++i) {
        if (!here[i]) {
            from = lost++ == 0 ? sent[i] : from;
            until = sent[i];
        }
    }
    std::printf("{\"sent\": %zu, \"lost\": %zu, \"late\": %.6f, \"gap\": %.6f, \"lost_from\": %.6f, \"lost_until\": %.6f, \"ways\": [",
                sent.size(), lost, late, gap, from, until);
    for (size_t i = 0; i < arrivals.size();) {
        size_t end = i;
        while (end < arrivals.size() && arrivals[end].interface == arrivals[i].interface) {
            ++end;
        }
        std::printf("%s{\"by\": \"%s\", \"first\": %.6f, \"last\": %.6f, \"count\": %zu}", i ? ", " : "",
                    nameOf(arrivals[i].interface).c_str(), arrivals[i].time, arrivals[end - 1].time, end - i);
        i = end;
    }
    std::printf("]}\n");
}

} // namespace

int main(int count, char **words) {
    if (count != 7) {
        std::fprintf(stderr, "usage: packet_stream SENDER-NAMESPACE SINK-NAMESPACE DESTINATION PORT INTERVAL-US SECONDS\n");
        return 2;
    }
    const bool six = std::strchr(words[3], ':') != nullptr;
    const auto port = static_cast<uint16_t>(std::atoi(words[4]));
    sockaddr_in6 to6{};
    to6.sin6_family = AF_INET6;
    to6.sin6_port = htons(port);
    sockaddr_in to4{};
    to4.sin_family = AF_INET;
    to4.sin_port = htons(port);
    if (inet_pton(six ? AF_INET6 : AF_INET, words[3], six ? static_cast<void *>(&to6.sin6_addr) : &to4.sin_addr) != 1) {
        errno = EINVAL;
        fail(words[3]);
    }
    const double interval = std::atof(words[5]) / 1e6;
    const double seconds = std::atof(words[6]);
    enter(words[1]);
    const int out = udpSocket(six ? AF_INET6 : AF_INET);
    enter(words[2]);
    const int in = receiver(six ? AF_INET6 : AF_INET, port);
    std::vector<Arrival> arrivals;
    arrivals.reserve(static_cast<size_t>(seconds / interval) + 1000);
    std::atomic<bool> stop{false};
    std::thread thread(receive, in, std::cref(stop), std::ref(arrivals));
    const sched_param priority = {10};
    (void)sched_setscheduler(0, SCHED_FIFO, &priority); // else it may be late, which the result tells
    double late = 0;
    const auto sent = six ? send(out, reinterpret_cast<sockaddr *>(&to6), sizeof(to6), interval, seconds, late)
                          : send(out, reinterpret_cast<sockaddr *>(&to4), sizeof(to4), interval, seconds, late);
    sleepUntil(now() + 0.1); // what is still on its way
    stop = true;
    thread.join();
    tell(sent, arrivals, late);
    return 0;
}
