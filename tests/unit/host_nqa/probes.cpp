// See probes.h.
#include "tests/unit/host_nqa/probes.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>
#include <regex>

#include <gtest/gtest.h>

#include "host/event/event_loop.h"
#include "host/fib/fib.h"
#include "host/ifnet/ifnet.h"
#include "host/option/option.h"

namespace probes {

using namespace host;
using nlohmann::json;

void start(const std::vector<std::string> &options) {
    std::vector<std::string> all = {"host.log=stderr"};
    all.insert(all.end(), options.begin(), options.end());
    ASSERT_EQ(optionLoad(all, "/dev/null"), "");
    ASSERT_EQ(ifnetStart(), "");
    ASSERT_EQ(fibStart(), "");
    nqaStart();
}

json quick(json members) {
    members["intervalMs"] = 50;
    members["timeoutMs"] = members.value("timeoutMs", 40);
    members["downAfter"] = 2;
    return members;
}

void onLoop(const std::function<void()> &work) {
    std::promise<void> done;
    hostEventLoop().post([&] {
        work();
        done.set_value();
    });
    done.get_future().wait();
}

namespace {

// As from a request: numbers of C++ are signed, those of a request are not.
NqaConfig configOf(const json &members) {
    return nqaConfigRead(json::parse(members.dump()), false);
}

} // namespace

void set(const std::string &test, const json &members) {
    const NqaConfig config = configOf(members);
    onLoop([&] { EXPECT_EQ(nqaProbeSet({"ops", test}, config), ""); });
}

bool del(const std::string &test) {
    bool isThere = false;
    onLoop([&] { isThere = nqaProbeDel({"ops", test}); });
    return isThere;
}

NqaReplaced replaceAll(const std::map<std::string, json> &members) {
    std::map<NqaName, NqaConfig> wanted;
    for (const auto &[test, each] : members) {
        wanted[{"ops", test}] = configOf(each);
    }
    NqaReplaced replaced;
    onLoop([&] { EXPECT_EQ(nqaProbesReplace(wanted, &replaced), ""); });
    return replaced;
}

std::vector<NqaProbe> all() {
    std::vector<NqaProbe> rows;
    onLoop([&] { rows = nqaProbes(); });
    return rows;
}

NqaProbe get(const std::string &test) {
    for (const NqaProbe &probe : all()) {
        if (probe.name == NqaName{"ops", test}) {
            return probe;
        }
    }
    ADD_FAILURE() << "no probe " << test;
    return {};
}

bool becomes(const std::string &test, NqaState state, lab::milliseconds limit) {
    return lab::eventually([&] { return get(test).state == state; }, limit);
}

void expect(const std::string &test, NqaState state) {
    const bool isSo = becomes(test, state);
    EXPECT_TRUE(isSo) << test << ": state " << static_cast<int>(get(test).state) << ", error: " << get(test).error;
}

Uplinks::Uplinks() {
    const auto soften = [] {
        lab::sysctl("ipv4/conf/all/rp_filter", "0");
        lab::sysctl("ipv4/conf/default/rp_filter", "0");
    };
    soften();
    far.inside(soften);
    lab::lay(far, {"upa", "fara", {"198.51.100.2/24", "2001:db8:a::2/64"}, {"198.51.100.1/24", "2001:db8:a::1/64"}});
    lab::lay(far, {"upb", "farb", {"203.0.113.2/24", "2001:db8:b::2/64"}, {"203.0.113.1/24", "2001:db8:b::1/64"}});
    far.inside([] {
        lab::run("ip addr add 192.0.2.10/32 dev lo");
        lab::run("ip -6 addr add 2001:db8:ffff::10/128 dev lo");
    });
    lab::run("ip route add default via 203.0.113.1");
    lab::run("ip -6 route add default via 2001:db8:b::1");
    lab::run("nft 'add table inet watch; add chain inet watch out { type filter hook output priority 0; }'");
    for (const char *pUplink : {"upa", "upb"}) {
        lab::run(std::string("nft add counter inet watch ") + pUplink);
        for (const char *pWhat : {"icmp type echo-request", "icmpv6 type echo-request", "tcp flags syn", "meta l4proto udp"}) {
            lab::run(std::string("nft add rule inet watch out oifname ") + pUplink + " " + pWhat + " counter name " + pUplink);
        }
    }
}

uint64_t Uplinks::leftBy(const std::string &uplink) {
    const std::string command = "nft reset counter inet watch " + uplink;
    FILE *pPipe = popen(command.c_str(), "r");
    std::string text;
    char bytes[512];
    for (size_t got = 0; (got = fread(bytes, 1, sizeof bytes, pPipe)) > 0;) {
        text.append(bytes, got);
    }
    pclose(pPipe);
    std::smatch match;
    if (!std::regex_search(text, match, std::regex("packets ([0-9]+)"))) {
        ADD_FAILURE() << command << ": " << text;
        return 0;
    }
    return std::stoull(match[1]);
}

Server::Server(const lab::Namespace *pWhere, Kind kind, const std::string &address, uint16_t port, std::string answer)
    : kind_(kind), answer_(std::move(answer)) {
    const auto open = [&] {
        const int family = lab::versionOf(address) == 4 ? AF_INET : AF_INET6;
        fd_ = socket(family, (kind == Tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_storage at = {};
        socklen_t len = 0;
        if (family == AF_INET) {
            auto *pAt = reinterpret_cast<sockaddr_in *>(&at);
            pAt->sin_family = AF_INET;
            pAt->sin_port = htons(port);
            std::memcpy(&pAt->sin_addr, lab::address(address).data(), 4);
            len = sizeof *pAt;
        } else {
            auto *pAt = reinterpret_cast<sockaddr_in6 *>(&at);
            pAt->sin6_family = AF_INET6;
            pAt->sin6_port = htons(port);
            std::memcpy(&pAt->sin6_addr, lab::address(address).data(), 16);
            len = sizeof *pAt;
        }
        ASSERT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&at), len), 0) << strerror(errno);
        ASSERT_EQ(kind == Tcp ? listen(fd_, 64) : 0, 0);
    };
    if (pWhere != nullptr) {
        pWhere->inside(open);
    } else {
        open();
    }
    thread_ = std::thread([this] { serve(); });
}

Server::~Server() {
    isStopping_ = true;
    thread_.join();
    close(fd_);
}

std::string Server::received() {
    const std::lock_guard guard(lock_);
    return received_;
}

void Server::serve() {
    while (!isStopping_) {
        pollfd wait = {fd_, POLLIN, 0};
        if (poll(&wait, 1, 10) <= 0) {
            continue;
        }
        char bytes[2048];
        if (kind_ == Tcp) {
            const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            pollfd data = {client, POLLIN, 0};
            const ssize_t got = !answer_.empty() && poll(&data, 1, 1000) > 0 ? recv(client, bytes, sizeof bytes, 0) : 0;
            if (got > 0) {
                const std::lock_guard guard(lock_);
                received_.assign(bytes, static_cast<size_t>(got));
            }
            (void)!send(client, answer_.data(), answer_.size(), MSG_NOSIGNAL);
            close(client);
            continue;
        }
        sockaddr_storage from = {};
        socklen_t len = sizeof from;
        const ssize_t got = recvfrom(fd_, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &len);
        if (got <= 0) {
            continue;
        }
        char text[INET6_ADDRSTRLEN] = "";
        inet_ntop(from.ss_family, from.ss_family == AF_INET
                                      ? static_cast<const void *>(&reinterpret_cast<sockaddr_in *>(&from)->sin_addr)
                                      : static_cast<const void *>(&reinterpret_cast<sockaddr_in6 *>(&from)->sin6_addr),
                  text, sizeof text);
        bytes[0] = static_cast<char>(bytes[0] ^ (kind_ == UdpWrong ? 1 : 0));
        (void)!sendto(fd_, bytes, static_cast<size_t>(got), 0, reinterpret_cast<sockaddr *>(&from), len);
        const std::lock_guard guard(lock_);
        received_ = text;
    }
}

} // namespace probes
