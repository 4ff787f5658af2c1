// The route bus: the daemon's socket through the platform's calls, services, and other processes.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/bus/bus.h"
#include "host/bus/bus_packet.h"
#include "host/event/event_loop.h"
#include "platform/platform_types.h"
#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"
#include "tests/unit/host_portable/support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A message whose payload begins with a number.
Bytes message(uint32_t number, size_t payloadLen = 4, uint16_t type = QRV_RTM_HRD_UP) {
    Bytes payload(std::max<size_t>(payloadLen, 4));
    memcpy(payload.data(), &number, sizeof(number));
    return host::busMessage(type, payload.data(), payload.size());
}

uint32_t numberOf(const Bytes &bytes) {
    uint32_t number = 0xFFFFFFFF;
    if (bytes.size() >= 28) {
        memcpy(&number, bytes.data() + 24, sizeof(number));
    }
    return number;
}

void publish(uint32_t group, const Bytes &bytes) {
    host::busPublish(group, bytes.data(), bytes.size());
}

// The daemon's end, opened as the daemon opens it.
class DaemonSocket {
public:
    explicit DaemonSocket(const std::vector<uint32_t> &groups = {QRV_RTNLGRP_HRD}) : fd(qrv_socket(16, 2, 0)) {
        EXPECT_GE(fd, 0);
        uint32_t one = 1;
        EXPECT_EQ(0, qrv_ioctl(fd, 0x8004667E, &one));
        const QrvNetlinkAddr address{0, 16, 0, 0, 0};
        EXPECT_EQ(0, qrv_bind(fd, &address, 12));
        for (const uint32_t group : groups) {
            EXPECT_EQ(0, qrv_setsockopt(fd, 270, 1, &group, 4));
        }
        const uint32_t room = 2500000, owner = 206;
        EXPECT_EQ(0, qrv_setsockopt(fd, 0xFFFF, 0x1002, &room, 4));
        EXPECT_EQ(0, qrv_setsockopt(fd, 0xFFFF, 0x1019, &owner, 4));
    }
    ~DaemonSocket() { qrv_close(fd); }

    uint32_t waiting() const {
        uint32_t count = 0xFFFFFFFF;
        EXPECT_EQ(0, qrv_ioctl(fd, 0x4004667F, &count));
        return count;
    }
    bool isReadable() const {
        QrvFdSet set{};
        set.word[fd / 32] |= 1u << (fd % 32);
        const QrvTimeval now{0, 0};
        return qrv_select(fd, &set, &now) == 1 && (set.word[fd / 32] >> (fd % 32) & 1) != 0;
    }
    // One read; empty when nothing waits.
    Bytes read(uint32_t room = 3840) const {
        Bytes buffer(room);
        QrvNetlinkAddr from{};
        uint32_t fromLen = sizeof(from);
        const int32_t count = qrv_recvfrom(fd, buffer.data(), room, 0, &from, &fromLen);
        if (count > 0) {
            EXPECT_EQ(12u, fromLen);
            EXPECT_EQ(QRV_AF_NETLINK, from.family);
        }
        buffer.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return buffer;
    }

    const int32_t fd;
};

class Bus : public testing::Test {
protected:
    Bus() { before = host::busCounters(); }
    // How much a counter has grown in this test.
    uint64_t grown(uint64_t host::BusCounters::*pCounter) {
        return host::busCounters().*pCounter - before.*pCounter;
    }

    support::Options options;
    host::BusCounters before;
};

// ---- the daemon's socket ----

TEST_F(Bus, AMessageToAJoinedGroupIsRead) {
    DaemonSocket daemon({QRV_RTNLGRP_HRD, QRV_RTNLGRP_NQA});
    EXPECT_FALSE(daemon.isReadable());
    publish(QRV_RTNLGRP_HRD, message(1));
    publish(QRV_RTNLGRP_LINK, message(2));
    publish(QRV_RTNLGRP_NQA, message(3));
    EXPECT_TRUE(daemon.isReadable());
    EXPECT_EQ(message(1), daemon.read());
    EXPECT_EQ(message(3), daemon.read());
    EXPECT_EQ(Bytes{}, daemon.read());
    EXPECT_FALSE(daemon.isReadable());
}

TEST_F(Bus, AnyGroupNumberCanBeJoined) {
    DaemonSocket daemon({0xFFFFFFFF, 0});
    publish(0xFFFFFFFF, message(1));
    publish(0, message(2));
    EXPECT_EQ(1u, numberOf(daemon.read()));
    EXPECT_EQ(2u, numberOf(daemon.read()));
}

TEST_F(Bus, TheWaitingBytesAreThoseOfThePayloadNotYetRead) {
    DaemonSocket daemon;
    EXPECT_EQ(0u, daemon.waiting());
    publish(QRV_RTNLGRP_HRD, message(1, 24));
    publish(QRV_RTNLGRP_HRD, message(2, 4));
    EXPECT_EQ(48u + 28u, daemon.waiting());
    (void)daemon.read();
    EXPECT_EQ(28u, daemon.waiting());
    (void)daemon.read();
    EXPECT_EQ(0u, daemon.waiting());
}

TEST_F(Bus, AReadThatIsTooShortLosesTheRestOfThatMessageOnly) {
    DaemonSocket daemon;
    publish(QRV_RTNLGRP_HRD, message(1, 100));
    publish(QRV_RTNLGRP_HRD, message(2));
    EXPECT_EQ(30u, daemon.read(30).size());
    EXPECT_EQ(28u, daemon.waiting());
    EXPECT_EQ(2u, numberOf(daemon.read()));
}

TEST_F(Bus, ABatchIsReadAtOnce) {
    DaemonSocket daemon;
    Bytes batch = message(1);
    const Bytes second = message(2);
    batch.insert(batch.end(), second.begin(), second.end());
    publish(QRV_RTNLGRP_HRD, batch);
    EXPECT_EQ(batch, daemon.read());
}

TEST_F(Bus, FarMoreThanTheKernelTakesIsKeptInOrder) {
    DaemonSocket daemon;
    const uint32_t count = 2500000 / 48;
    for (uint32_t i = 0; i < count; ++i) {
        publish(QRV_RTNLGRP_HRD, message(i, 24));
    }
    EXPECT_EQ(count * 48, daemon.waiting());
    EXPECT_EQ(count * 48, host::busCounters().waitingBytes);
    for (uint32_t i = 0; i < count; ++i) {
        ASSERT_TRUE(daemon.isReadable()) << i;
        ASSERT_EQ(i, numberOf(daemon.read()));
    }
    EXPECT_EQ(0u, daemon.waiting());
    EXPECT_FALSE(daemon.isReadable());
    EXPECT_EQ(0u, grown(&host::BusCounters::lost));
    EXPECT_EQ(count, grown(&host::BusCounters::delivered));
}

TEST_F(Bus, OrderHoldsWhileReadingAndSendingTakeTurns) {
    DaemonSocket daemon;
    uint32_t sent = 0, read = 0;
    for (int turn = 0; turn < 200; ++turn) {
        for (int i = 0; i < 40; ++i) {
            publish(QRV_RTNLGRP_HRD, message(sent++, 24));
        }
        for (int i = 0; i < 25; ++i) {
            ASSERT_EQ(read++, numberOf(daemon.read()));
        }
    }
    while (read < sent) {
        ASSERT_EQ(read++, numberOf(daemon.read()));
    }
    EXPECT_EQ(Bytes{}, daemon.read());
}

// What is called after a loss, for all tests of this program (services register for ever).
support::Mailbox<int> &resyncs() {
    static auto *pBox = [] {
        auto *pNew = new support::Mailbox<int>;
        host::busOnLoss([pNew] { pNew->put(host::hostEventLoop().onThread() ? 1 : -1); });
        return pNew;
    }();
    return *pBox;
}

TEST_F(Bus, WhatIsBeyondTheRoomIsCountedLoggedOnceAndFollowedByAResynchronisation) {
    const size_t resyncsBefore = resyncs().all().size();
    DaemonSocket daemon;
    const uint32_t room = 4800;
    ASSERT_EQ(0, qrv_setsockopt(daemon.fd, 0xFFFF, 0x1002, &room, 4));
    support::StderrCapture captured;
    for (uint32_t i = 0; i < 100 + 7; ++i) {
        publish(QRV_RTNLGRP_HRD, message(i, 24));
    }
    EXPECT_EQ(7u, grown(&host::BusCounters::lost));
    EXPECT_EQ(room, daemon.waiting());
    const std::string said = captured.take();
    EXPECT_NE(std::string::npos, said.find("4800 bytes wait for the daemon: messages are lost"));
    EXPECT_EQ(said.find("messages are lost"), said.rfind("messages are lost"));

    for (uint32_t i = 0; i < 74; ++i) { // 26 are left: more than a quarter
        ASSERT_EQ(i, numberOf(daemon.read()));
    }
    support::eventThreadSettle();
    EXPECT_EQ(resyncsBefore, resyncs().all().size());
    EXPECT_EQ(74u, numberOf(daemon.read()));
    EXPECT_EQ(1, resyncs().waitFor(resyncsBefore + 1).back());
    while (!daemon.read().empty()) {
    }
    support::eventThreadSettle();
    EXPECT_EQ(resyncsBefore + 1, resyncs().all().size());
}

TEST_F(Bus, ASecondLossIsFollowedByASecondResynchronisation) {
    const size_t resyncsBefore = resyncs().all().size();
    DaemonSocket daemon;
    const uint32_t room = 48;
    ASSERT_EQ(0, qrv_setsockopt(daemon.fd, 0xFFFF, 0x1002, &room, 4));
    support::StderrCapture quiet;
    for (size_t turn = 1; turn <= 2; ++turn) {
        publish(QRV_RTNLGRP_HRD, message(1, 24));
        publish(QRV_RTNLGRP_HRD, message(2, 24));
        EXPECT_EQ(1u, numberOf(daemon.read()));
        EXPECT_EQ(resyncsBefore + turn, resyncs().waitFor(resyncsBefore + turn).size());
    }
}

TEST_F(Bus, WhatIsNoMessageIsRefusedAndCounted) {
    DaemonSocket daemon;
    support::StderrCapture quiet;
    Bytes tooShort(23), wrongLength = message(1), tooLong = message(1, 4000), batch = message(1);
    wrongLength[0] = wrongLength[1] = wrongLength[2] = wrongLength[3] = 0xFF;
    batch.resize(batch.size() + 8); // what follows is no message
    publish(QRV_RTNLGRP_HRD, tooShort);
    publish(QRV_RTNLGRP_HRD, wrongLength);
    publish(QRV_RTNLGRP_HRD, tooLong);
    publish(QRV_RTNLGRP_HRD, batch);
    host::busPublish(QRV_RTNLGRP_HRD, nullptr, 0);
    EXPECT_EQ(Bytes{}, daemon.read());
    EXPECT_EQ(5u, grown(&host::BusCounters::refused));
    publish(QRV_RTNLGRP_HRD, message(1, 3816));
    EXPECT_EQ(3840u, daemon.read().size());
}

TEST_F(Bus, AMessageIsPaddedToFourAndItsLengthIsNot) {
    const uint8_t payload[2] = {5, 6};
    const Bytes bytes = host::busMessage(349, payload, 2);
    RtMsgHeader header{};
    memcpy(&header, bytes.data(), sizeof(header));
    EXPECT_EQ(28u, bytes.size());
    EXPECT_EQ(26u, header.length);
    EXPECT_EQ(349, header.type);
    EXPECT_EQ(5, bytes[24]);
    EXPECT_EQ(0, bytes[27]);
    EXPECT_EQ(24u, host::busMessage(1, nullptr, 0).size());
}

TEST_F(Bus, TheDaemonsRequestReachesSubscribersAndNotTheDaemonItself) {
    static support::Mailbox<Bytes> *pSeen = [] { // subscribed for ever
        auto *pNew = new support::Mailbox<Bytes>;
        host::busSubscribe(QRV_RTNLGRP_NQA, [pNew](const Bytes &bytes) { pNew->put(bytes); });
        return pNew;
    }();
    DaemonSocket daemon({QRV_RTNLGRP_NQA});
    const Bytes request = message(7, 68, QRV_RTM_NQA_STATEREQ);
    publish(QRV_RTNLGRP_NQA, message(8)); // from a service: not for subscribers
    EXPECT_EQ(0, qrvNetlinkSGrpSend(89, 0, request.data(), static_cast<uint32_t>(request.size())));
    EXPECT_EQ((std::vector<Bytes>{request}), pSeen->waitFor(1));
    EXPECT_EQ(8u, numberOf(daemon.read()));
    EXPECT_EQ(Bytes{}, daemon.read());
    EXPECT_GT(0, qrvNetlinkSGrpSend(89, 0, request.data(), 91));
    EXPECT_GT(0, qrvNetlinkSGrpSend(89, 0, nullptr, 92));
}

TEST_F(Bus, OnlyThePlatformsNumbersAreTaken) {
    EXPECT_EQ(-1, qrv_socket(AF_INET, 2, 0));
    EXPECT_EQ(-1, qrv_socket(16, 3, 0));
    EXPECT_EQ(-1, qrv_socket(16, 2, 6));
    DaemonSocket daemon;
    uint32_t value = 1;
    EXPECT_NE(0, qrv_setsockopt(daemon.fd, SOL_SOCKET == 0xFFFF ? 1 : SOL_SOCKET, 0x1002, &value, 4));
    EXPECT_NE(0, qrv_setsockopt(daemon.fd, 270, 2, &value, 4));
    EXPECT_NE(0, qrv_setsockopt(daemon.fd, 0xFFFF, 0x1003, &value, 4));
    EXPECT_NE(0, qrv_setsockopt(daemon.fd, 270, 1, &value, 3));
    EXPECT_NE(0, qrv_setsockopt(daemon.fd, 270, 1, nullptr, 4));
    EXPECT_GT(0, qrv_ioctl(daemon.fd, 0x5421, &value));
    EXPECT_GT(0, qrv_ioctl(daemon.fd, QRV_FIONREAD, nullptr));
    QrvNetlinkAddr address{0, 16, 0, 0, 0};
    EXPECT_GT(0, qrv_bind(daemon.fd, &address, 11));
    EXPECT_GT(0, qrv_bind(daemon.fd, nullptr, 12));
    address.family = 2;
    EXPECT_GT(0, qrv_bind(daemon.fd, &address, 12));
    address = {0, 16, 0, 0, 1};
    EXPECT_GT(0, qrv_bind(daemon.fd, &address, 12));
}

TEST_F(Bus, DescriptorsThatAreNoRouteSocketAreRefused) {
    uint32_t value = 1;
    uint8_t buffer[8];
    const QrvNetlinkAddr address{0, 16, 0, 0, 0};
    for (const int32_t fd : {-1, 0, 1023, 1024}) {
        EXPECT_GT(0, qrv_bind(fd, &address, 12));
        EXPECT_NE(0, qrv_setsockopt(fd, 270, 1, &value, 4));
        EXPECT_GT(0, qrv_ioctl(fd, QRV_FIONREAD, &value));
        EXPECT_GT(0, qrv_recvfrom(fd, buffer, sizeof(buffer), 0, nullptr, nullptr));
        EXPECT_GT(0, qrv_close(fd));
        EXPECT_EQ(EBADF, errno);
    }
}

TEST_F(Bus, WaitingNamesTheDescriptorsThatCanBeRead) {
    DaemonSocket one({1}), other({2});
    publish(2, message(1));
    const int32_t most = std::max(one.fd, other.fd);
    QrvFdSet set{};
    set.word[one.fd / 32] |= 1u << (one.fd % 32);
    set.word[other.fd / 32] |= 1u << (other.fd % 32);
    const QrvTimeval timeout{5, 0};
    EXPECT_EQ(1, qrv_select(most, &set, &timeout));
    EXPECT_EQ(0u, one.fd / 32 == other.fd / 32 ? 0 : set.word[one.fd / 32]);
    EXPECT_EQ(1u << (other.fd % 32), set.word[other.fd / 32]);
}

TEST_F(Bus, WaitingEndsWithTheTimeOutAndAnEmptySet) {
    DaemonSocket daemon;
    QrvFdSet set{};
    set.word[daemon.fd / 32] |= 1u << (daemon.fd % 32);
    const QrvTimeval soon{0, 1000};
    EXPECT_EQ(0, qrv_select(daemon.fd, &set, &soon));
    for (const uint32_t word : set.word) {
        EXPECT_EQ(0u, word);
    }
    EXPECT_GT(0, qrv_select(1024, &set, &soon));
    EXPECT_GT(0, qrv_select(-1, &set, &soon));
    EXPECT_GT(0, qrv_select(1, nullptr, &soon));
}

TEST_F(Bus, AClosedSocketGetsNothing) {
    int32_t fd;
    {
        DaemonSocket daemon;
        fd = daemon.fd;
    }
    publish(QRV_RTNLGRP_HRD, message(1));
    EXPECT_EQ(0u, grown(&host::BusCounters::delivered));
    EXPECT_GT(0, qrv_close(fd));
}

// ---- other processes ----

class Client {
public:
    explicit Client(const std::string &root) : fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, (root + "/tmp/policyroutebus.socket").c_str());
        const timeval patience{20, 0};
        EXPECT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience)));
        EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address))) << strerror(errno);
    }
    ~Client() { close(fd); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    void sendBytes(const Bytes &packet) {
        ASSERT_EQ(static_cast<ssize_t>(packet.size()), ::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL));
    }
    Bytes receive() {
        Bytes packet(8192);
        const ssize_t count = recv(fd, packet.data(), packet.size(), 0);
        packet.resize(count > 0 ? static_cast<size_t>(count) : 0);
        return packet;
    }
    void join(uint32_t group) {
        sendBytes(host::busPacket(host::BUS_JOIN, group));
        ASSERT_EQ(host::busPacket(host::BUS_JOIN, group), receive());
    }
    void sendMessage(uint32_t group, const Bytes &bytes) {
        sendBytes(host::busPacket(host::BUS_MESSAGE, group, bytes.data(), bytes.size()));
    }

    const int fd;
};

Bytes refusal(uint32_t group, uint32_t code) {
    return host::busPacket(host::BUS_REFUSED, group, &code, sizeof(code));
}

Bytes delivery(uint32_t group, const Bytes &bytes) {
    return host::busPacket(host::BUS_MESSAGE, group, bytes.data(), bytes.size());
}

class BusClients : public Bus {
protected:
    BusClients() {
        EXPECT_EQ("", host::busStart());
        while (host::busCounters().clients != 0) { // those of the test before are being forgotten
            support::eventThreadSettle();
        }
    }
};

TEST_F(BusClients, AClientGetsTheMessagesOfTheGroupsItJoined) {
    Client client(options.root.path);
    client.join(77);
    publish(56, message(1));
    publish(77, message(2));
    EXPECT_EQ(delivery(77, message(2)), client.receive());
    client.sendBytes(host::busPacket(host::BUS_LEAVE, 77));
    EXPECT_EQ(host::busPacket(host::BUS_LEAVE, 77), client.receive());
    publish(77, message(3));
    client.join(56);
    publish(56, message(4));
    EXPECT_EQ(delivery(56, message(4)), client.receive());
}

TEST_F(BusClients, AClientsMessageReachesDaemonAndOtherClientsAndNotItself) {
    DaemonSocket daemon;
    Client one(options.root.path), two(options.root.path);
    one.join(QRV_RTNLGRP_HRD);
    two.join(QRV_RTNLGRP_HRD);
    one.sendMessage(QRV_RTNLGRP_HRD, message(5));
    EXPECT_EQ(delivery(QRV_RTNLGRP_HRD, message(5)), two.receive());
    EXPECT_EQ(message(5), daemon.read());
    one.join(1);
    publish(1, message(6));
    EXPECT_EQ(delivery(1, message(6)), one.receive());
}

TEST_F(BusClients, TheDaemonsRequestReachesAClient) {
    Client client(options.root.path);
    client.join(89);
    const Bytes request = message(9, 68, QRV_RTM_NQA_STATEREQ);
    EXPECT_EQ(0, qrvNetlinkSGrpSend(89, 0, request.data(), static_cast<uint32_t>(request.size())));
    EXPECT_EQ(delivery(89, request), client.receive());
}

TEST_F(BusClients, MalformedPacketsAreRefusedCountedAndTheClientStays) {
    Client client(options.root.path);
    DaemonSocket daemon;
    const uint32_t bad = QRV_ERR_BAD_ARGUMENT;
    Bytes wrongLength = message(1);
    wrongLength[3] = wrongLength[0] = 0x7F;
    const struct {
        const char *what;
        Bytes packet;
        uint32_t group;
    } cases[] = {
        {"one byte", {1}, 0},
        {"half a head", {0, 0, 0, 1}, 0},
        {"operation 0", host::busPacket(0, 77), 77},
        {"operation 5", host::busPacket(5, 77), 77},
        {"an answer as a request", host::busPacket(host::BUS_REFUSED, 77), 77},
        {"a join with more", host::busPacket(host::BUS_JOIN, 77, "more", 4), 77},
        {"no message", host::busPacket(host::BUS_MESSAGE, 77), 77},
        {"a message too short", host::busPacket(host::BUS_MESSAGE, 77, Bytes(23).data(), 23), 77},
        {"a wrong length word", delivery(77, wrongLength), 77},
        {"a message too long", delivery(77, message(1, 3820)), 77},
        {"a very long packet", delivery(77, Bytes(60000)), 77},
    };
    for (const auto &c : cases) {
        client.sendBytes(c.packet);
        const Bytes answer = client.receive();
        if (c.packet.size() >= 8) {
            EXPECT_EQ(refusal(c.group, bad), answer) << c.what;
        } else {
            EXPECT_EQ(12u, answer.size()) << c.what;
        }
    }
    EXPECT_EQ(std::size(cases), grown(&host::BusCounters::refused));
    EXPECT_EQ(Bytes{}, daemon.read());
    client.join(77);
}

TEST_F(BusClients, AClientThatDoesNotReadIsDroppedAndNobodyWaits) {
    support::StderrCapture captured;
    DaemonSocket daemon({1});
    Client lazy(options.root.path), good(options.root.path);
    lazy.join(1);
    good.join(1);
    uint32_t sent = 0;
    while (grown(&host::BusCounters::dropped) == 0 && sent < 10000) {
        publish(1, message(sent, 3000));
        ASSERT_EQ(sent, numberOf(daemon.read()));
        const Bytes packet = good.receive();
        ASSERT_EQ(sent, numberOf(Bytes(packet.begin() + 8, packet.end())));
        ++sent;
    }
    EXPECT_EQ(1u, grown(&host::BusCounters::dropped));
    EXPECT_GE(sent * 3032u, 2500000u);
    EXPECT_NE(std::string::npos, captured.take().find("does not read"));
    support::eventThreadSettle();
    for (uint32_t i = 0; i < sent; ++i) { // what its socket took, then the end
        if (lazy.receive().empty()) {
            break;
        }
        ASSERT_LT(i + 1, sent) << "still connected";
    }
}

TEST_F(BusClients, AClientThatReadsLateGetsEverythingInOrder) {
    Client late(options.root.path);
    late.join(1);
    for (uint32_t i = 0; i < 700; ++i) { // more than a socket takes, less than the queue
        publish(1, message(i, 3000));
    }
    for (uint32_t i = 0; i < 700; ++i) {
        ASSERT_EQ(delivery(1, message(i, 3000)), late.receive()) << i;
    }
    EXPECT_EQ(0u, grown(&host::BusCounters::dropped));
}

TEST_F(BusClients, AClientThatHangsUpIsForgotten) {
    {
        Client client(options.root.path);
        client.join(1);
        EXPECT_EQ(1u, host::busCounters().clients);
    }
    while (host::busCounters().clients != 0) {
        support::eventThreadSettle();
    }
    publish(1, message(1));
    Client other(options.root.path);
    other.join(1);
}

TEST_F(BusClients, WithoutRightsAClientIsRefusedAndHungUpOn) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs another user";
    }
    ASSERT_EQ(0, chmod((options.root.path + "/tmp/policyroutebus.socket").c_str(), 0666));
    ASSERT_EQ(0, chmod(options.root.path.c_str(), 0755));
    ASSERT_EQ(0, seteuid(65534));
    Client other(options.root.path);
    ASSERT_EQ(0, seteuid(0));
    EXPECT_EQ(refusal(0, QRV_ERR_NOT_PERMITTED), other.receive());
    EXPECT_EQ(Bytes{}, other.receive());
}

class BusReaders : public Bus {
protected:
    BusReaders() : reading({"host.read-others=yes"}) { EXPECT_EQ("", host::busStart()); }
    support::Options reading;
};

TEST_F(BusReaders, OthersMayListenButNotSend) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs another user";
    }
    DaemonSocket daemon;
    ASSERT_EQ(0, chmod(reading.root.path.c_str(), 0755));
    ASSERT_EQ(0, seteuid(65534));
    Client other(reading.root.path);
    ASSERT_EQ(0, seteuid(0));
    other.join(77);
    publish(77, message(1));
    EXPECT_EQ(delivery(77, message(1)), other.receive());
    EXPECT_EQ(message(1), daemon.read());
    other.sendMessage(77, message(2));
    EXPECT_EQ(refusal(77, QRV_ERR_NOT_PERMITTED), other.receive());
    EXPECT_EQ(Bytes{}, daemon.read());
}

TEST_F(BusClients, ManyClientsAreServedAndOneTooManyIsRefused) {
    std::vector<std::unique_ptr<Client>> all;
    while (host::busCounters().clients < 64) {
        all.push_back(std::make_unique<Client>(options.root.path));
        all.back()->join(1);
    }
    Client extra(options.root.path);
    EXPECT_EQ(refusal(0, QRV_ERR_NO_RECORD), extra.receive());
    publish(1, message(3));
    for (const auto &pClient : all) {
        EXPECT_EQ(delivery(1, message(3)), pClient->receive());
    }
}

} // namespace
