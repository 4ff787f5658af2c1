// Probes by name: what the daemon is told, and what a change of the configuration leaves alone.
#include <gtest/gtest.h>

#include <cstring>

#include "host/bus/bus.h"
#include "platform/qrv_socket.h"
#include "tests/unit/host_nqa/probes.h"

namespace {

using namespace host;
using namespace probes;
using lab::inNamespace;
using nlohmann::json;

json echoOf(const std::string &target) {
    return {{"kind", "icmp"}, {"target", target}, {"intervalMs", 50}, {"timeoutMs", 40}, {"downAfter", 2}};
}

// The daemon's end of the bus.
class DaemonSocket {
public:
    DaemonSocket() : fd_(qrv_socket(QRV_AF_NETLINK, QRV_SOCK_DGRAM, 0)) {
        EXPECT_EQ(qrv_setsockopt(fd_, QRV_SOL_NETLINK, QRV_NETLINK_ADD_MEMBERSHIP, &QRV_RTNLGRP_NQA, 4), 0);
    }
    ~DaemonSocket() { qrv_close(fd_); }

    void ask(const std::string &test) {
        NqaStatusMsg message{};
        std::memcpy(message.adminName, "ops", 3);
        std::memcpy(message.testName, test.data(), test.size());
        message.adminNameLen = 3;
        message.testNameLen = static_cast<uint8_t>(test.size());
        const auto bytes = busMessage(QRV_RTM_NQA_STATEREQ, &message, sizeof message);
        EXPECT_GE(qrvNetlinkSGrpSend(QRV_RTNLGRP_NQA, 0, bytes.data(), static_cast<uint32_t>(bytes.size())), 0);
    }

    // "a 1": the next status message; "" when none comes in time.
    std::string next(uint32_t limitMs = 5000) {
        QrvFdSet set = {};
        set.word[fd_ / 32] = 1u << (fd_ % 32);
        const QrvTimeval timeout = {limitMs / 1000, limitMs % 1000 * 1000};
        if (qrv_select(fd_, &set, &timeout) <= 0) {
            return "";
        }
        uint8_t bytes[256];
        QrvNetlinkAddr from;
        uint32_t fromLen = sizeof from;
        EXPECT_EQ(qrv_recvfrom(fd_, bytes, sizeof bytes, 0, &from, &fromLen), 92);
        RtMsgHeader header;
        NqaStatusMsg message;
        std::memcpy(&header, bytes, sizeof header);
        std::memcpy(&message, bytes + QRV_RTM_HEADER_BYTES, sizeof message);
        EXPECT_EQ(header.type, QRV_RTM_NQA);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(message.adminName), message.adminNameLen), "ops");
        return std::string(reinterpret_cast<char *>(message.testName), message.testNameLen) + " " +
               std::to_string(message.status);
    }

private:
    int32_t fd_;
};

TEST(NqaService, TellsTheDaemonEachChangeAndAnswersItsQuestions) {
    inNamespace([] {
        start();
        DaemonSocket daemon;
        daemon.ask("a");
        EXPECT_EQ(daemon.next(), "a 2"); // not configured

        set("a", echoOf("127.0.0.1"));
        EXPECT_EQ(daemon.next(), "a 1");
        daemon.ask("a");
        EXPECT_EQ(daemon.next(), "a 1");

        lab::run("nft 'add table inet cut; add chain inet cut in { type filter hook input priority 0; }'");
        lab::run("nft add rule inet cut in icmp type echo-request drop");
        EXPECT_EQ(daemon.next(), "a 2");
        lab::run("nft delete table inet cut");
        EXPECT_EQ(daemon.next(), "a 1");

        EXPECT_TRUE(del("a"));
        EXPECT_EQ(daemon.next(), "a 2"); // nobody watches it any more
        EXPECT_FALSE(del("a"));
        EXPECT_EQ(get("a").requests, 2u);
    });
}

TEST(NqaService, AnswersNoResultBeforeTheFirst) {
    inNamespace([] {
        start();
        lab::run("nft 'add table inet cut; add chain inet cut in { type filter hook input priority 0; }'");
        lab::run("nft add rule inet cut in icmp type echo-request drop");
        DaemonSocket daemon;
        json slow = echoOf("127.0.0.1");
        slow["intervalMs"] = slow["timeoutMs"] = 60000;
        EXPECT_FALSE(nqaUndetermined());
        set("a", slow);
        daemon.ask("a");
        EXPECT_EQ(daemon.next(), "a 3");
        EXPECT_TRUE(nqaUndetermined());
        lab::run("nft delete table inet cut");
        set("b", echoOf("127.0.0.1"));
        expect("b", NqaState::Passing);
        EXPECT_TRUE(nqaUndetermined());
        EXPECT_TRUE(del("a"));
        EXPECT_FALSE(nqaUndetermined());
    });
}

TEST(NqaService, AProbeThatAsksSomethingElseBeginsAnewAndTheDaemonIsTold) {
    inNamespace([] {
        start();
        DaemonSocket daemon;
        set("a", echoOf("127.0.0.1"));
        EXPECT_EQ(daemon.next(), "a 1");
        set("a", echoOf("127.0.0.2"));
        EXPECT_EQ(daemon.next(), "a 3");
        EXPECT_EQ(daemon.next(), "a 1");
    });
}

TEST(NqaService, OtherTimesKeepTheStateAndTellNobody) {
    inNamespace([] {
        start();
        DaemonSocket daemon;
        set("a", echoOf("127.0.0.1"));
        EXPECT_EQ(daemon.next(), "a 1");
        const uint64_t received = get("a").statistics.received;
        json faster = echoOf("127.0.0.1");
        faster["downAfter"] = 5;
        set("a", faster);
        EXPECT_EQ(get("a").state, NqaState::Passing);
        EXPECT_GE(get("a").statistics.received, received);
        EXPECT_EQ(get("a").config->timing.downAfter, 5u);
        daemon.ask("a");
        EXPECT_EQ(daemon.next(), "a 1"); // nothing came before the answer
    });
}

TEST(NqaService, ReplacingAllLeavesEqualOnesUndisturbed) {
    inNamespace([] {
        start();
        DaemonSocket daemon;
        set("kept", echoOf("127.0.0.1"));
        EXPECT_EQ(daemon.next(), "kept 1");
        set("gone", echoOf("127.0.0.2"));
        EXPECT_EQ(daemon.next(), "gone 1");
        ASSERT_TRUE(lab::eventually([] { return get("kept").statistics.received >= 3; }));
        const NqaProbe before = get("kept");

        const NqaReplaced replaced = replaceAll({{"kept", echoOf("127.0.0.1")}, {"made", echoOf("127.0.0.3")}});

        EXPECT_EQ(replaced.made, 1u);
        EXPECT_EQ(replaced.removed, 1u);
        EXPECT_EQ(replaced.kept, 1u);
        EXPECT_EQ(replaced.changed, 0u);
        EXPECT_GE(get("kept").statistics.received, before.statistics.received);
        EXPECT_EQ(get("kept").sinceWallMs, before.sinceWallMs);
        EXPECT_EQ(daemon.next(), "gone 2");
        EXPECT_EQ(daemon.next(), "made 1");
    });
}

TEST(NqaService, MoreProbesThanCanBeRunChangeNothing) {
    inNamespace([] {
        start();
        set("a", echoOf("127.0.0.1"));
        std::map<NqaName, NqaConfig> many;
        const NqaConfig config = get("a").config.value();
        for (size_t i = 0; i <= NQA_PROBES_MOST; i++) {
            many[{"ops", std::to_string(i)}] = config;
        }
        NqaReplaced replaced;
        onLoop([&] { EXPECT_EQ(nqaProbesReplace(many, &replaced), "more than 16384 probes cannot be run: 16385"); });
        EXPECT_EQ(all().size(), 1u);
    });
}

TEST(NqaService, ClearingBeginsStatisticsAnewAndNotTheState) {
    inNamespace([] {
        start();
        json slow = echoOf("127.0.0.1");
        slow["intervalMs"] = 60000;
        set("a", slow);
        expect("a", NqaState::Passing);
        onLoop([] {
            const NqaName name{"ops", "a"}, other{"ops", "b"};
            EXPECT_TRUE(nqaStatisticsClear(&name));
            EXPECT_FALSE(nqaStatisticsClear(&other));
        });
        EXPECT_EQ(get("a").statistics.received, 0u);
        EXPECT_EQ(get("a").state, NqaState::Passing);
    });
}

} // namespace
