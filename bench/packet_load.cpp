// As many small UDP packets as one processor hands through a router and into a sink: puts them into an interface of the
// router's network namespace as a driver does, for a while, and tells what arrived at the interfaces of another namespace
// and what processor time that took.
//
//   packet_load NAMESPACE INTERFACE SOURCE SOURCE-PORT DESTINATION PORT SECONDS CPU SINK-NAMESPACE SINK-INTERFACE ...
//
// Namespaces are paths. Packets come from a program of two dozen instructions that the kernel runs over and over at the
// interface's XDP hook (BPF_PROG_TEST_RUN with live frames); it passes them, 64 at a time as a driver's poll does, to
// the kernel's ordinary way, beginning with ingress. So the sender is a third of what a packet costs. The router's and
// the sink's work are part of this process's processor time, until there is so much that the kernel wakes ksoftirqd,
// whose time is added. What other programs take of the processor is not in it, so that packets per second of processor
// time hold still on a machine that is shared. 64 source ports from SOURCE-PORT on, and 64 destinations: all numbers in
// the last six bits of DESTINATION, at random, so that no packet finds its route by the packet before it.
// Result, one line: {"sent": N, "arrived": {INTERFACE: N}, "cpu": seconds, "wall": seconds}; called by bench/kit/lab.py.
#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <net/if.h>
#include <netinet/ether.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bench/tool.h"

namespace {

constexpr unsigned FLOWS = 64; // source ports, and destinations
constexpr unsigned PAYLOAD = 18; // the smallest Ethernet frame, with IPv4
constexpr unsigned BATCH = 64;
constexpr unsigned ADD_NUMBER = BPF_ALU64 | BPF_ADD; // and BPF_K, which is 0 as BPF_ADD is

// Goes into the network namespace at `path`; result: its descriptor, to come back with rejoin().
int enter(const char *path) {
    const int descriptor = open(path, O_RDONLY | O_CLOEXEC);
    if (descriptor < 0 || setns(descriptor, CLONE_NEWNET) != 0) {
        fail(path);
    }
    return descriptor;
}

void rejoin(int descriptor) {
    if (setns(descriptor, CLONE_NEWNET) != 0) {
        fail("network namespace");
    }
}

// The Ethernet address of an interface of the namespace that this thread is in.
ether_addr addressOf(const char *interface) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::snprintf(request.ifr_name, sizeof(request.ifr_name), "%s", interface);
    if (socket < 0 || ioctl(socket, SIOCGIFHWADDR, &request) != 0) {
        fail(interface);
    }
    close(socket);
    ether_addr found{};
    std::memcpy(&found, request.ifr_hwaddr.sa_data, sizeof(found));
    return found;
}

void put16(uint8_t *p, unsigned value) {
    p[0] = static_cast<uint8_t>(value >> 8);
    p[1] = static_cast<uint8_t>(value);
}

uint32_t sum(const uint8_t *p, size_t size) {
    uint32_t total = 0;
    for (size_t i = 0; i + 1 < size; i += 2) {
        total += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
    }
    return total;
}

unsigned folded(uint32_t total) {
    while (total >> 16) {
        total = (total & 0xFFFF) + (total >> 16);
    }
    return ~total & 0xFFFF;
}

// An Ethernet frame with a UDP packet. IPv6 when the addresses are. The last six bits of the destination are cleared.
std::vector<uint8_t> frame(const ether_addr &to, const char *source, unsigned sourcePort,
                           const char *destination, unsigned port) {
    const bool six = std::strchr(destination, ':') != nullptr;
    const unsigned header = six ? 40 : 20;
    const unsigned size = 8 + PAYLOAD;
    std::vector<uint8_t> bytes(14 + header + size);
    std::memcpy(bytes.data(), &to, 6);
    bytes[6] = 2; // from some local address
    put16(bytes.data() + 12, six ? ETH_P_IPV6 : ETH_P_IP);
    uint8_t *ip = bytes.data() + 14;
    const unsigned addresses = six ? 8 : 12;
    const unsigned width = six ? 16 : 4;
    if (inet_pton(six ? AF_INET6 : AF_INET, source, ip + addresses) != 1 ||
        inet_pton(six ? AF_INET6 : AF_INET, destination, ip + addresses + width) != 1) {
        errno = EINVAL;
        fail(std::string(source) + " to " + destination);
    }
    bytes[14 + header - 1] &= static_cast<uint8_t>(~(FLOWS - 1));
    if (six) {
        ip[0] = 0x60;
        put16(ip + 4, size);
        ip[6] = 17;
        ip[7] = 64;
    } else {
        ip[0] = 0x45;
        put16(ip + 2, header + size);
        ip[6] = 0x40; // do not fragment
        ip[8] = 64;
        ip[9] = 17;
        put16(ip + 10, folded(sum(ip, header)));
    }
    uint8_t *udp = ip + header; // its checksum stays 0: routers do not look at it
    put16(udp, sourcePort);
    put16(udp + 2, port);
    put16(udp + 4, size);
    return bytes;
}

// What arrived at each interface of the namespace that this thread is in.
std::map<std::string, uint32_t> counters() {
    std::map<std::string, uint32_t> found;
    ifaddrs *all = nullptr;
    if (getifaddrs(&all) != 0) {
        fail("getifaddrs");
    }
    for (const ifaddrs *each = all; each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr != nullptr && each->ifa_addr->sa_family == AF_PACKET && each->ifa_data != nullptr) {
            found[each->ifa_name] = static_cast<const rtnl_link_stats *>(each->ifa_data)->rx_packets;
        }
    }
    freeifaddrs(all);
    return found;
}

// The path of the processor time of the kernel's thread for what interrupts left, on that processor; empty: none seen.
std::string softirqThread(int cpu) {
    const std::string wanted = "ksoftirqd/" + std::to_string(cpu);
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream file(entry.path() / "comm");
        std::string name;
        if (file && std::getline(file, name) && name == wanted) {
            return entry.path() / "schedstat";
        }
    }
    return {};
}

double softirqSeconds(const std::string &path) {
    std::ifstream file(path);
    double nanoseconds = 0;
    file >> nanoseconds;
    return nanoseconds / 1e9;
}

// One instruction of a BPF program.
bpf_insn op(unsigned code, unsigned to, unsigned from, int offset, int32_t value) {
    bpf_insn one{};
    one.code = static_cast<uint8_t>(code);
    one.dst_reg = static_cast<uint8_t>(to & 15U);
    one.src_reg = static_cast<uint8_t>(from & 15U);
    one.off = static_cast<int16_t>(offset);
    one.imm = value;
    return one;
}

int32_t raw32(const uint8_t *p) {
    int32_t value = 0;
    std::memcpy(&value, p, sizeof(value));
    return value;
}

int32_t raw16(const uint8_t *p) {
    uint16_t value = 0;
    std::memcpy(&value, p, sizeof(value));
    return value;
}

long bpf(unsigned command, bpf_attr &attributes) {
    return syscall(__NR_bpf, command, &attributes, sizeof(attributes));
}

// The program: the kernel hands the same frames round and round, so what a router changes is put back, which is
// the Ethernet addresses, the time to live and its checksum; and a new source port and destination are chosen.
std::vector<bpf_insn> programFor(const std::vector<uint8_t> &bytes, unsigned sourcePort) {
    const bool six = raw16(&bytes[12]) == htons(ETH_P_IPV6);
    const int udp = six ? 54 : 34;
    const uint8_t last = bytes[static_cast<size_t>(udp) - 1];
    std::vector<bpf_insn> code = {
        op(BPF_LDX | BPF_MEM | BPF_W, 6, 1, 0, 0), // data, and its end
        op(BPF_LDX | BPF_MEM | BPF_W, 7, 1, 4, 0),
        op(BPF_ALU64 | BPF_MOV | BPF_K, 0, 0, 0, XDP_DROP),
        op(BPF_ALU64 | BPF_MOV | BPF_X, 2, 6, 0, 0),
        op(ADD_NUMBER, 2, 0, 0, static_cast<int32_t>(bytes.size())),
        op(BPF_JMP | BPF_JGT | BPF_X, 2, 7, 0, 0), // to the end; its distance is known below
    };
    const size_t jump = code.size() - 1;
    for (int at = 0; at < 12; at += 4) {
        code.push_back(op(BPF_ST | BPF_MEM | BPF_W, 6, 0, at, raw32(&bytes[static_cast<size_t>(at)])));
    }
    const std::vector<bpf_insn> chosen = {
        op(BPF_ST | BPF_MEM | BPF_B, 6, 0, six ? 21 : 22, 64),
        op(BPF_JMP | BPF_CALL, 0, 0, 0, BPF_FUNC_get_prandom_u32),
        op(BPF_ALU64 | BPF_MOV | BPF_X, 1, 0, 0, 0), // r1: the source port
        op(BPF_ALU64 | BPF_AND | BPF_K, 1, 0, 0, FLOWS - 1),
        op(ADD_NUMBER, 1, 0, 0, static_cast<int32_t>(sourcePort)),
        op(BPF_ALU | BPF_END | BPF_TO_BE, 1, 0, 0, 16),
        op(BPF_STX | BPF_MEM | BPF_H, 6, 1, udp, 0),
        op(BPF_ALU64 | BPF_RSH | BPF_K, 0, 0, 0, 8), // r0: the destination
        op(BPF_ALU64 | BPF_AND | BPF_K, 0, 0, 0, FLOWS - 1),
        op(BPF_ALU64 | BPF_MOV | BPF_X, 1, 0, 0, 0),
        op(ADD_NUMBER, 1, 0, 0, last),
        op(BPF_STX | BPF_MEM | BPF_B, 6, 1, udp - 1, 0),
    };
    code.insert(code.end(), chosen.begin(), chosen.end());
    if (!six) { // and the header's sum with it
        const std::vector<bpf_insn> checksum = {
            op(ADD_NUMBER, 0, 0, 0, static_cast<int32_t>(0xFFFFU & ~(unsigned{bytes[24]} << 8 | bytes[25]))),
            op(BPF_ALU64 | BPF_MOV | BPF_X, 1, 0, 0, 0),
            op(BPF_ALU64 | BPF_RSH | BPF_K, 1, 0, 0, 16),
            op(BPF_ALU64 | BPF_ADD | BPF_X, 0, 1, 0, 0),
            op(BPF_ALU64 | BPF_XOR | BPF_K, 0, 0, 0, 0xFFFF),
            op(BPF_ALU | BPF_END | BPF_TO_BE, 0, 0, 0, 16),
            op(BPF_STX | BPF_MEM | BPF_H, 6, 0, 24, 0),
        };
        code.insert(code.end(), checksum.begin(), checksum.end());
    }
    code.push_back(op(BPF_ALU64 | BPF_MOV | BPF_K, 0, 0, 0, XDP_PASS));
    code[jump].off = static_cast<int16_t>(code.size() - jump - 1);
    code.push_back(op(BPF_JMP | BPF_EXIT, 0, 0, 0, 0));
    return code;
}

int loadProgram(const std::vector<bpf_insn> &code) {
    bpf_attr attributes{};
    attributes.prog_type = BPF_PROG_TYPE_XDP;
    attributes.insn_cnt = static_cast<uint32_t>(code.size());
    attributes.insns = reinterpret_cast<uintptr_t>(code.data());
    attributes.license = reinterpret_cast<uintptr_t>("Apache-2.0");
    const long program = bpf(BPF_PROG_LOAD, attributes);
    if (program < 0) {
        fail("the kernel does not take the program");
    }
    return static_cast<int>(program);
}

// Lets the kernel send `packets`.
void send(int program, unsigned interface, const std::vector<uint8_t> &bytes, uint32_t packets) {
    xdp_md context{};
    context.data_end = static_cast<uint32_t>(bytes.size());
    context.ingress_ifindex = interface;
    bpf_attr attributes{};
    attributes.test.prog_fd = static_cast<uint32_t>(program);
    attributes.test.data_size_in = static_cast<uint32_t>(bytes.size());
    attributes.test.data_in = reinterpret_cast<uintptr_t>(bytes.data());
    attributes.test.repeat = packets;
    attributes.test.ctx_size_in = sizeof(context);
    attributes.test.ctx_in = reinterpret_cast<uintptr_t>(&context);
    attributes.test.flags = BPF_F_TEST_XDP_LIVE_FRAMES;
    attributes.test.batch_size = BATCH;
    if (bpf(BPF_PROG_TEST_RUN, attributes) < 0) {
        fail("the kernel does not send");
    }
}

} // namespace

int main(int count, char **words) {
    if (count < 11) {
        std::fprintf(stderr, "usage: packet_load NAMESPACE INTERFACE SOURCE SOURCE-PORT DESTINATION PORT SECONDS CPU "
                             "SINK-NAMESPACE SINK-INTERFACE ...\n");
        return 2;
    }
    const int cpu = std::atoi(words[8]);
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(cpu), &set);
    if (sched_setaffinity(0, sizeof(set), &set) != 0) {
        fail("processor " + std::to_string(cpu));
    }
    const std::string thread = softirqThread(cpu);
    const int router = enter(words[1]);
    const unsigned interface = if_nametoindex(words[2]);
    if (interface == 0) {
        fail(words[2]);
    }
    const auto sourcePort = static_cast<unsigned>(std::atoi(words[4]));
    const std::vector<uint8_t> bytes = frame(addressOf(words[2]), words[3], sourcePort, words[5],
                                             static_cast<unsigned>(std::atoi(words[6])));
    const int program = loadProgram(programFor(bytes, sourcePort));
    uint32_t packets = 256; // until caches are warm and it is known what a packet takes
    double used = 0;
    for (const double enough = 0.02; used < enough; packets *= 2) {
        const double begin = seconds(CLOCK_THREAD_CPUTIME_ID);
        send(program, interface, bytes, packets);
        used = seconds(CLOCK_THREAD_CPUTIME_ID) - begin;
    }
    packets = std::max(1024U, static_cast<uint32_t>(packets / (2 * used) * std::atof(words[7])));
    const int sink = enter(words[9]);
    auto before = counters();
    rejoin(router);
    const double cpuBefore = seconds(CLOCK_THREAD_CPUTIME_ID) + softirqSeconds(thread);
    const double begin = seconds(CLOCK_MONOTONIC);
    send(program, interface, bytes, packets);
    const double wall = seconds(CLOCK_MONOTONIC) - begin;
    used = seconds(CLOCK_THREAD_CPUTIME_ID) + softirqSeconds(thread) - cpuBefore;
    rejoin(sink);
    auto after = counters();
    std::printf("{\"sent\": %u, \"arrived\": {", packets);
    for (int i = 10; i < count; ++i) {
        std::printf("%s\"%s\": %u", i > 10 ? ", " : "", words[i], after[words[i]] - before[words[i]]);
    }
    std::printf("}, \"cpu\": %.6f, \"wall\": %.6f}\n", used, wall);
    return 0;
}
