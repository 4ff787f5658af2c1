// What the kernel answers, in any bytes: the real netlink socket and everything that reads through it, and
// the readers of notifications by themselves.
//
//   u8    which question is asked (ask())
//   then datagrams: u16 bytes (low 14 bits), 0x4000: the receive fails with the error that u8 names,
//   0x8000: sequence numbers stay as they are, else they become those of the request; and the bytes
//
// The kernel is played by socket calls that are put in the linker's place of the real ones (--wrap). Bytes
// of the receive buffer behind a datagram are forbidden to read.
#include <cstddef>
#include <cstdint>

#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sanitizer/asan_interface.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>

#include "fuzz/fuzz_input.h"
#include "host/device/kernel/nft_codec.h"
#include "host/device/kernel/rt_codec.h"
#include "host/device/kernel/surroundings.h"
#include "host/fib/fib_parse.h"
#include "host/hrd/hrd_neighbour.h"

namespace {

using fuzz::Input;

struct Datagram {
    std::vector<uint8_t> bytes;
    int error = 0;
    bool keepsSequence = false;
};

struct Kernel {
    std::deque<Datagram> waiting;
    uint32_t sequence = 0; // of the latest request
    bool isDump = false;
    bool owesEnd = false;  // a request whose answer has not ended
    void *pForbidden = nullptr;
    size_t forbiddenBytes = 0;
} kernel;

constexpr int ERRORS[] = {EAGAIN, ENOBUFS, EINTR, ENOMEM};

void sequencesSet(Datagram &datagram) {
    int left = static_cast<int>(datagram.bytes.size());
    auto *pMessage = reinterpret_cast<nlmsghdr *>(datagram.bytes.data());
    while (!datagram.keepsSequence && host::netlinkIsWhole(pMessage, left)) {
        pMessage->nlmsg_seq = kernel.sequence;
        pMessage = mnl_nlmsg_next(pMessage, &left);
    }
}

// The end of a dump, or an acknowledgement: what comes when the input has no more datagrams.
Datagram endOf() {
    Datagram datagram;
    datagram.bytes.resize(NLMSG_HDRLEN + sizeof(nlmsgerr));
    auto *pMessage = reinterpret_cast<nlmsghdr *>(datagram.bytes.data());
    pMessage->nlmsg_len = static_cast<uint32_t>(datagram.bytes.size());
    pMessage->nlmsg_type = kernel.isDump ? NLMSG_DONE : NLMSG_ERROR;
    kernel.owesEnd = false;
    return datagram;
}

} // namespace

extern "C" {
int __wrap_socket(int, int, int) {
    return open("/dev/null", O_RDWR | O_CLOEXEC);
}
int __wrap_bind(int, const sockaddr *, socklen_t) {
    return 0;
}
int __wrap_setsockopt(int, int, int, const void *, socklen_t) {
    return 0;
}
int __wrap_getsockname(int, sockaddr *, socklen_t *) {
    return 0;
}
ssize_t __wrap_sendto(int, const void *pBytes, size_t count, int, const sockaddr *, socklen_t) {
    nlmsghdr header;
    memcpy(&header, pBytes, sizeof(header));
    kernel.sequence = header.nlmsg_seq;
    kernel.isDump = (header.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP;
    kernel.owesEnd = true;
    return static_cast<ssize_t>(count);
}
ssize_t __wrap_recvfrom(int, void *pBuffer, size_t room, int flags, sockaddr *pFrom, socklen_t *pFromLen) {
    __asan_unpoison_memory_region(kernel.pForbidden, kernel.forbiddenBytes);
    const bool waits = (flags & MSG_DONTWAIT) == 0;
    if (kernel.waiting.empty() && (!kernel.owesEnd || !waits)) {
        errno = EAGAIN;
        return -1;
    }
    Datagram datagram;
    if (kernel.waiting.empty()) {
        datagram = endOf();
    } else {
        datagram = kernel.waiting.front();
        kernel.waiting.pop_front();
    }
    if (datagram.error != 0) {
        errno = datagram.error;
        return -1;
    }
    sequencesSet(datagram);
    memset(pFrom, 0, *pFromLen);
    const size_t count = std::min(datagram.bytes.size(), room);
    std::copy_n(datagram.bytes.data(), count, static_cast<uint8_t *>(pBuffer));
    const size_t readable = std::min(MNL_ALIGN(count), room);
    kernel.pForbidden = static_cast<uint8_t *>(pBuffer) + readable;
    kernel.forbiddenBytes = room - readable;
    __asan_poison_memory_region(kernel.pForbidden, kernel.forbiddenBytes);
    return static_cast<ssize_t>(datagram.bytes.size());
}
}

namespace {

using host::FibTables;

void lookups(const FibTables &tables) {
    host::FibAddress address{};
    for (const int version : {4, 6}) {
        for (const uint8_t first : {uint8_t{0}, uint8_t{10}, uint8_t{0x20}}) {
            address[0] = first;
            (void)tables.lookup(version, RT_TABLE_MAIN, address);
        }
    }
    for (uint32_t ifIndex = 0; ifIndex < 4; ++ifIndex) {
        (void)tables.networksOf(ifIndex);
    }
}

// One notification, as each of those who listen reads it.
void notification(const nlmsghdr *pMessage, FibTables &tables) {
    (void)host::netlinkErrorOf(pMessage);
    (void)host::nftIsOfOurTable(pMessage);
    (void)host::rtMayConcernUs(pMessage);
    (void)host::fibParseAddress(pMessage);
    if (const auto neighbour = host::hrdParseNeighbour(pMessage)) {
        (void)host::hrdEvidence(neighbour->second);
        (void)host::hrdLladdrText(neighbour->second.lladdr);
    }
    if (const auto route = host::fibParseRoute(pMessage)) {
        const bool isReplace = (pMessage->nlmsg_flags & NLM_F_REPLACE) != 0;
        if (pMessage->nlmsg_type == RTM_DELROUTE) {
            (void)tables.routeDel(route->version, route->table, route->route);
        } else if ((pMessage->nlmsg_flags & NLM_F_APPEND) != 0) {
            tables.routeAppend(route->version, route->table, route->route);
        } else {
            (void)tables.routeAdd(route->version, route->table, route->route, isReplace);
        }
    }
    if (const auto nexthop = host::fibParseNexthop(pMessage)) {
        if (pMessage->nlmsg_type == RTM_DELNEXTHOP) {
            tables.nexthopDel(nexthop->id);
        } else {
            tables.nexthopSet(nexthop->id, nexthop->nexthop);
        }
    }
}

// Each message in memory of its own size.
void notifications() {
    FibTables tables;
    for (Datagram &datagram : kernel.waiting) {
        int left = static_cast<int>(datagram.bytes.size());
        const auto *pMessage = reinterpret_cast<const nlmsghdr *>(datagram.bytes.data());
        while (host::netlinkIsWhole(pMessage, left)) {
            const auto *pBytes = reinterpret_cast<const uint8_t *>(pMessage);
            const std::vector<uint8_t> own(pBytes, pBytes + pMessage->nlmsg_len);
            notification(reinterpret_cast<const nlmsghdr *>(own.data()), tables);
            lookups(tables);
            pMessage = mnl_nlmsg_next(pMessage, &left);
        }
    }
}

void rulesets(host::NetlinkSocket &socket) {
    host::NftImage image;
    (void)host::nftRead(socket, &image);
    std::map<std::string, std::vector<uint64_t>> counters;
    (void)host::nftCounters(socket, &counters);
    std::map<std::string, host::NftChainCounts> counts;
    (void)host::nftCountsRead(socket, "", &counts);
}

void batch(host::NetlinkSocket &socket) {
    host::NftBatch changes(socket);
    changes.ownerSet("wan");
    changes.tableAdd();
    changes.chainAdd("c");
    changes.elementAdd({"interfaces4", std::string("lan0\0\0\0\0\0\0\0\0\0\0\0\0", 16)}, "c");
    for (const host::NetlinkError &error : changes.send().failed) {
        (void)changes.ownerOf(error.seq);
    }
}

void neighbours() {
    host::HrdNeighbours all;
    const host::HrdNeighbourKey key{2, 4, {10, 0, 0, 1}};
    host::HrdNeighbour entry;
    bool asked = false;
    (void)all.askingTime(2, 4);
    (void)all.get(key, entry);
    (void)all.solicit(key, entry, asked);
}

void ask(uint8_t which) {
    if (which % 8 == 0) {
        notifications();
        return;
    }
    host::NetlinkSocket socket(which % 8 < 4 ? NETLINK_NETFILTER : NETLINK_ROUTE);
    host::RtImage image;
    host::Surroundings around;
    switch (which % 8) {
    case 1:
    case 2: rulesets(socket); break;
    case 3: batch(socket); break;
    case 4: (void)host::rtRead(socket, &image); break;
    case 5:
        (void)host::rtTableIsForeign(socket, 4, 100);
        (void)host::rtAddressKind(socket, 4, {10, 0, 0, 1});
        break;
    case 6: neighbours(); break;
    case 7: (void)host::surroundingsRead(socket, [](uint8_t, uint32_t) { return true; }, &around); break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    Input input(pData, size);
    kernel = {};
    const uint8_t which = input.u8();
    while (!input.ended()) {
        const uint16_t word = input.u16();
        Datagram datagram;
        datagram.keepsSequence = (word & 0x8000) != 0;
        datagram.error = (word & 0x4000) != 0 ? ERRORS[input.below(std::size(ERRORS))] : 0;
        datagram.bytes = input.bytes(word & 0x3FFF);
        kernel.waiting.push_back(datagram);
    }
    ask(which);
    return 0;
}
