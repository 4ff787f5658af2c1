// See host_environment.h.
#include "tests/unit/host_acl/host_environment.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "host/mgmt/mgmt.h"
#include "host/option/option.h"
#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"

namespace hosttest {

aclrule::AclRule rule(uint32_t aclNum, const std::string &text) {
    std::string error;
    return aclrule::aclRuleParse(aclNum, text, &error).value();
}

namespace {

std::string theRoot;

class Environment : public testing::Environment {
    void SetUp() override {
        char folder[] = "/tmp/pbrhostXXXXXX";
        theRoot = mkdtemp(folder);
        ASSERT_EQ(host::optionLoad({"host.root=" + theRoot, "host.device=memory", "host.log=stderr"}, ""),
                  "");
    }
    void TearDown() override { std::filesystem::remove_all(theRoot); }
};

const auto *const pEnvironment = testing::AddGlobalTestEnvironment(new Environment);

} // namespace

const std::string &root() {
    return theRoot;
}

std::string mgmtOpen() {
    static const std::string error = host::mgmtStart();
    return error;
}

Client::Client(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const timeval patience{20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        fd = -1;
    }
}

Client::~Client() {
    if (fd >= 0) {
        close(fd);
    }
}

void Client::send(const std::string &bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return; // closed by the server: what it said can still be read
        }
        sent += static_cast<size_t>(n);
    }
}

size_t Client::sendSome(const std::string &bytes) {
    const ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return n < 0 ? 0 : static_cast<size_t>(n);
}

void Client::finish() {
    shutdown(fd, SHUT_WR);
}

std::optional<std::string> Client::line() {
    for (;;) {
        const size_t end = buffer.find('\n');
        if (end != std::string::npos) {
            const std::string text = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            return text;
        }
        char bytes[65536];
        const ssize_t n = recv(fd, bytes, sizeof bytes, 0);
        if (n <= 0) {
            return std::nullopt;
        }
        buffer.append(bytes, static_cast<size_t>(n));
    }
}

std::optional<nlohmann::json> Client::answer() {
    const auto text = line();
    if (!text) {
        return std::nullopt;
    }
    return nlohmann::json::parse(*text);
}

nlohmann::json Client::call(const nlohmann::json &request) {
    send(request.dump() + "\n");
    return answer().value_or(nlohmann::json::object());
}

bool Client::isClosed() {
    char byte;
    const ssize_t n = recv(fd, &byte, 1, 0);
    return buffer.empty() && (n == 0 || (n < 0 && errno == ECONNRESET));
}

RouteSocket::RouteSocket() : fd(qrv_socket(QRV_AF_NETLINK, QRV_SOCK_DGRAM, 0)) {
    EXPECT_GE(fd, 0);
    uint32_t one = 1;
    qrv_ioctl(fd, QRV_FIONBIO, &one);
    const QrvNetlinkAddr address{0, QRV_AF_NETLINK, 0, 0, 0};
    EXPECT_GE(qrv_bind(fd, &address, sizeof address), 0);
    for (const uint32_t group : {QRV_RTNLGRP_ACL, QRV_RTNLGRP_NQA}) {
        EXPECT_EQ(qrv_setsockopt(fd, QRV_SOL_NETLINK, QRV_NETLINK_ADD_MEMBERSHIP, &group, sizeof group), 0);
    }
}

RouteSocket::~RouteSocket() {
    qrv_close(fd);
}

std::vector<uint8_t> RouteSocket::read(uint32_t ms) {
    QrvFdSet set{};
    set.word[fd / 32] = 1u << (fd % 32);
    const QrvTimeval patience{ms / 1000, ms % 1000 * 1000};
    if (qrv_select(fd, &set, &patience) <= 0) {
        return {};
    }
    std::vector<uint8_t> bytes(3840);
    QrvNetlinkAddr from{};
    uint32_t fromLen = sizeof from;
    const int32_t got = qrv_recvfrom(fd, bytes.data(), 3840, 0, &from, &fromLen);
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

void RouteSocket::drain() {
    while (!read(0).empty()) {
    }
}

} // namespace hosttest
