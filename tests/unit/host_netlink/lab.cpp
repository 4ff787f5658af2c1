// Network namespaces for tests: see the header.
#include "lab.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>

#include <gtest/gtest.h>

#include "host/event/event_loop.h"
#include "host/fib/fib.h"
#include "host/hrd/hrd_service.h"
#include "host/ifnet/ifnet.h"
#include "host/option/option.h"
#include "platform/hrd.h"
#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"

namespace lab {

namespace {

constexpr unsigned HANG_SECONDS = 60;

int ownNamespace() {
    return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
}

[[noreturn]] void child(const std::function<void()> &body) {
    alarm(HANG_SECONDS);
    if (unshare(CLONE_NEWNET) != 0) {
        std::perror("unshare");
        _exit(2);
    }
    run("ip link set lo up");
    sysctl("ipv6/conf/default/accept_dad", "0");
    sysctl("ipv6/conf/all/accept_dad", "0");
    body();
    const int status = testing::Test::HasFailure() ? 1 : 0;
    std::fflush(nullptr);
    _exit(status); // the services' threads still run: no destructors
}

} // namespace

void inNamespace(const std::function<void()> &body) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        child(body);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "failures in the namespace, see above";
}

Namespace::Namespace() : fd_(-1) {
    const int own = ownNamespace();
    if (unshare(CLONE_NEWNET) != 0) {
        ADD_FAILURE() << "unshare: " << std::strerror(errno);
    }
    fd_ = ownNamespace();
    run("ip link set lo up");
    sysctl("ipv6/conf/default/accept_dad", "0");
    sysctl("ipv6/conf/all/accept_dad", "0");
    EXPECT_EQ(setns(own, CLONE_NEWNET), 0);
    close(own);
}

Namespace::~Namespace() {
    close(fd_);
}

void Namespace::inside(const std::function<void()> &body) const {
    const int own = ownNamespace();
    ASSERT_EQ(setns(fd_, CLONE_NEWNET), 0);
    body();
    ASSERT_EQ(setns(own, CLONE_NEWNET), 0);
    close(own);
}

std::string Namespace::path() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_);
}

void run(const std::string &command) {
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

void sysctl(const std::string &name, const std::string &value) {
    std::ofstream file("/proc/sys/net/" + name);
    file << value << std::flush;
    EXPECT_TRUE(file.good()) << name;
}

namespace {

// Asking for a link makes the kernel finish bringing it up; a link-local address is needed to ask for
// IPv6 neighbours and comes a moment later.
void settled(const std::string &name) {
    run("for i in $(seq 300); do ip -6 -o addr show dev " + name +
        " scope link -tentative | grep -q fe80 && ip -o link show dev " + name +
        " | grep -q 'state UP' && exit 0; sleep 0.01; done; exit 1");
}

} // namespace

void lay(const Namespace &ns, const Cable &cable) {
    run("ip link add name " + cable.near + " type veth peer name " + cable.far + " netns " + ns.path());
    for (const std::string &text : cable.nearAddresses) {
        run("ip addr add " + text + " dev " + cable.near);
    }
    run("ip link set " + cable.near + " up");
    ns.inside([&] {
        for (const std::string &text : cable.farAddresses) {
            run("ip addr add " + text + " dev " + cable.far);
        }
        run("ip link set " + cable.far + " up");
        settled(cable.far);
    });
    settled(cable.near);
}

uint32_t indexOf(const std::string &name) {
    const uint32_t index = if_nametoindex(name.c_str());
    EXPECT_NE(index, 0u) << name;
    return index;
}

int versionOf(const std::string &text) {
    return text.find(':') == std::string::npos ? 4 : 6;
}

Address address(const std::string &text) {
    Address bytes{};
    EXPECT_EQ(inet_pton(versionOf(text) == 4 ? AF_INET : AF_INET6, text.c_str(), bytes.data()), 1) << text;
    return bytes;
}

void startServices(const std::string &periodMs) {
    ASSERT_EQ(host::optionLoad({"host.neighbour-probe-ms=" + periodMs, "host.log=stderr"}, "/dev/null"), "");
    ASSERT_EQ(host::ifnetStart(), "");
    ASSERT_EQ(host::fibStart(), "");
    ASSERT_EQ(host::hrdStart(), "");
}

bool eventually(const std::function<bool()> &done, milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() > end) {
            return false;
        }
        // A turn of the event thread: what it has to do by then is done.
        std::promise<void> turn;
        host::hostEventLoop().timerStart(milliseconds(1), [&turn] { turn.set_value(); });
        turn.get_future().wait();
    }
    return true;
}

void whileEventThreadWaits(const std::function<void()> &body) {
    std::promise<void> waits, done;
    host::hostEventLoop().post([&] {
        waits.set_value();
        done.get_future().wait();
    });
    waits.get_future().wait();
    body();
    done.set_value();
}

Reports::Reports() : fd_(qrv_socket(QRV_AF_NETLINK, QRV_SOCK_DGRAM, 0)) {
    EXPECT_GE(fd_, 0);
    EXPECT_EQ(qrv_setsockopt(fd_, QRV_SOL_NETLINK, QRV_NETLINK_ADD_MEMBERSHIP, &QRV_RTNLGRP_HRD, 4), 0);
}

Reports::~Reports() {
    qrv_close(fd_);
}

std::optional<Reports::Report> Reports::next(milliseconds limit) {
    QrvFdSet set = {};
    set.word[fd_ / 32] = 1u << (fd_ % 32);
    const auto wait = std::max(limit, milliseconds(0)).count();
    const QrvTimeval timeout = {static_cast<uint32_t>(wait / 1000), static_cast<uint32_t>(wait % 1000 * 1000)};
    if (qrv_select(fd_, &set, &timeout) <= 0) {
        return std::nullopt;
    }
    uint8_t bytes[256];
    QrvNetlinkAddr from;
    uint32_t fromLen = sizeof(from);
    const int32_t got = qrv_recvfrom(fd_, bytes, sizeof(bytes), 0, &from, &fromLen);
    EXPECT_EQ(got, static_cast<int32_t>(QRV_RTM_HEADER_BYTES + sizeof(HrdPeerMsg)));
    RtMsgHeader header;
    HrdPeerMsg message;
    std::memcpy(&header, bytes, sizeof(header));
    std::memcpy(&message, bytes + QRV_RTM_HEADER_BYTES, sizeof(message));
    Report report{header.type, message.vrId, message.family == 1 ? 4 : 6, {}, Clock::now()};
    std::memcpy(report.address.data(), message.address, 16);
    return report;
}

std::optional<Reports::Report> Reports::nextOf(uint16_t type, const std::string &text, milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    for (;;) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
        const std::optional<Report> report = next(left);
        if (!report || (report->type == type && report->address == address(text))) {
            return report;
        }
    }
}

bool Reports::silentFor(milliseconds time) {
    return !next(time);
}

int32_t peer(uint8_t operation, const std::string &text, uint32_t vrfid) {
    uint8_t record[200] = {};
    const bool four = versionOf(text) == 4;
    record[HRD_PEER_OPERATION] = operation;
    record[HRD_PEER_FAMILY] = four ? 1 : 2;
    record[HRD_PEER_KIND] = 7;
    const uint32_t vrf = htonl(vrfid);
    std::memcpy(record + HRD_PEER_VRF, &vrf, sizeof(vrf));
    std::memcpy(record + HRD_PEER_ADDRESS, address(text).data(), four ? 4 : 16);
    HrdPeerDesc desc = {record, four ? HRD_PEER_IPV4_BYTES : HRD_PEER_IPV6_BYTES};
    return hrdScalarSetApi(0, HRD_OBJECT_PEER, &desc);
}

} // namespace lab
