// Writes into the kernel what netlink_record kept, and does nothing else: the least that a policy can cost.
//
//   netlink_replay FILE        in the network namespace where it runs
//
// Result, one line: {"datagrams": N, "bytes": N, "seconds": wall, "cpu": of this process, "refused": errors of the kernel}
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "bench/tool.h"

namespace {

struct Record {
    int protocol;
    std::vector<char> bytes;
};

std::vector<Record> read(const char *path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<Record> records;
    std::array<uint32_t, 2> head{};
    while (file.read(reinterpret_cast<char *>(head.data()), sizeof(head))) {
        Record record{static_cast<int>(head[0]), std::vector<char>(head[1])};
        if (!file.read(record.bytes.data(), static_cast<std::streamsize>(record.bytes.size()))) {
            errno = EINVAL;
            fail(path);
        }
        records.push_back(std::move(record));
    }
    return records;
}

int kernelSocket(int protocol) {
    const int socket = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    const int room = 64 << 20;
    sockaddr_nl own{};
    own.nl_family = AF_NETLINK;
    if (socket < 0 || bind(socket, reinterpret_cast<sockaddr *>(&own), sizeof(own)) != 0) {
        fail("netlink socket");
    }
    (void)setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &room, sizeof(room));
    (void)setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room));
    return socket;
}

// The kernel has done a request when the send returns; its answers wait. Result: how many of them are errors.
unsigned refusals(int socket, std::vector<char> &buffer) {
    unsigned refused = 0;
    for (ssize_t got = 0; (got = recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0;) {
        auto left = static_cast<unsigned>(got);
        for (const auto *each = reinterpret_cast<const nlmsghdr *>(buffer.data()); NLMSG_OK(each, left); each = NLMSG_NEXT(each, left)) {
            const auto *error = reinterpret_cast<const nlmsgerr *>(NLMSG_DATA(each));
            refused += each->nlmsg_type == NLMSG_ERROR && error->error != 0 ? 1 : 0;
        }
    }
    return refused;
}

} // namespace

int main(int count, char **words) {
    if (count != 2) {
        std::fprintf(stderr, "usage: netlink_replay FILE\n");
        return 2;
    }
    const std::vector<Record> records = read(words[1]);
    const int route = kernelSocket(NETLINK_ROUTE);
    const int netfilter = kernelSocket(NETLINK_NETFILTER);
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    std::vector<char> buffer(1 << 20);
    size_t bytes = 0;
    unsigned refused = 0;
    const double cpu = seconds(CLOCK_PROCESS_CPUTIME_ID);
    const double begin = seconds(CLOCK_MONOTONIC);
    for (const Record &record : records) {
        const int socket = record.protocol == NETLINK_NETFILTER ? netfilter : route;
        if (sendto(socket, record.bytes.data(), record.bytes.size(), 0, reinterpret_cast<sockaddr *>(&kernel), sizeof(kernel)) < 0) {
            fail("send");
        }
        refused += refusals(socket, buffer);
        bytes += record.bytes.size();
    }
    std::printf("{\"datagrams\": %zu, \"bytes\": %zu, \"seconds\": %.6f, \"cpu\": %.6f, \"refused\": %u}\n", records.size(), bytes,
                seconds(CLOCK_MONOTONIC) - begin, seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu, refused);
    return 0;
}
