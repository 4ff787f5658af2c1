// Requests, batches, dumps and lost notifications, against the kernel.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/rtnetlink.h>

#include <atomic>
#include <cerrno>
#include <set>

#include "host/event/event_loop.h"
#include "host/netlink/netlink_monitor.h"
#include "host/netlink/netlink_socket.h"
#include "lab.h"

namespace {

using host::NetlinkAttrs;
using host::NetlinkBatchResult;
using host::NetlinkError;
using host::NetlinkMessage;
using host::NetlinkSocket;

// An unreachable route to host number `count` of 10.0.0.0/8.
NetlinkMessage unreachable(uint32_t count, uint16_t type = RTM_NEWROUTE) {
    NetlinkMessage message(type, type == RTM_NEWROUTE ? NLM_F_CREATE | NLM_F_EXCL : 0);
    rtmsg header = {};
    header.rtm_family = AF_INET;
    header.rtm_dst_len = 32;
    header.rtm_table = RT_TABLE_MAIN;
    header.rtm_type = RTN_UNREACHABLE;
    message.header(header);
    message.putU32Be(RTA_DST, 0x0A000000u + count);
    return message;
}

size_t routesNow(NetlinkSocket &socket) {
    NetlinkMessage message(RTM_GETROUTE, 0);
    rtmsg header = {};
    header.rtm_family = AF_INET;
    message.header(header);
    message.putU32(RTA_TABLE, RT_TABLE_MAIN);
    size_t count = 0;
    EXPECT_FALSE(socket.dump(message, [&](const nlmsghdr *) { ++count; }).error);
    return count;
}

TEST(Netlink, ARefusedRequestTellsTheKernelsOwnWords) {
    lab::inNamespace([] {
        NetlinkSocket socket(NETLINK_ROUTE);
        NetlinkMessage message = unreachable(1);
        message.putU32(RTA_NH_ID, 4711);
        const NetlinkError error = socket.request(message);
        EXPECT_EQ(error.code, EINVAL);
        EXPECT_NE(error.text.find("exthop"), std::string::npos) << error.text;
        NetlinkMessage good = unreachable(1);
        EXPECT_FALSE(socket.request(good)) << "the socket goes on";
        EXPECT_EQ(socket.request(good).code, EEXIST);
    });
}

TEST(Netlink, ABatchOfManyIsAcknowledgedWhole) {
    lab::inNamespace([] {
        NetlinkSocket socket(NETLINK_ROUTE);
        std::vector<NetlinkMessage> messages;
        for (uint32_t count = 0; count < 20000; ++count) {
            messages.push_back(unreachable(count));
        }
        const NetlinkBatchResult result = socket.batch(messages);
        EXPECT_TRUE(result.ok());
        EXPECT_EQ(routesNow(socket), 20000u) << "a dump of many parts";
    });
}

TEST(Netlink, FailuresInABatchNameTheirMessages) {
    lab::inNamespace([] {
        NetlinkSocket socket(NETLINK_ROUTE);
        std::vector<NetlinkMessage> messages = {unreachable(1), unreachable(1), unreachable(2),
                                                unreachable(9, RTM_DELROUTE)};
        std::vector<uint32_t> seqs;
        const NetlinkBatchResult result = socket.batch(messages, &seqs);
        ASSERT_EQ(result.failed.size(), 2u);
        EXPECT_FALSE(result.uncertain);
        EXPECT_EQ(result.failed[0].seq, seqs[1]);
        EXPECT_EQ(result.failed[0].code, EEXIST);
        EXPECT_EQ(result.failed[1].seq, seqs[3]);
        EXPECT_EQ(result.failed[1].code, ESRCH);
        EXPECT_EQ(routesNow(socket), 2u) << "the others stand";
    });
}

TEST(Netlink, AnNftablesBatchWithAFailureTellsItAndChangesNothing) {
    lab::inNamespace([] {
        NetlinkSocket socket(NETLINK_NETFILTER);
        const auto bracket = [&](uint16_t type) {
            NetlinkMessage message(type, 0);
            message.header(nfgenmsg{AF_UNSPEC, NFNETLINK_V0, htons(NFNL_SUBSYS_NFTABLES)});
            message.get()->nlmsg_seq = socket.nextSeq();
            return message;
        };
        const auto table = [&](const char *name, uint16_t type) {
            NetlinkMessage message((NFNL_SUBSYS_NFTABLES << 8) | type, NLM_F_ACK | (type == NFT_MSG_NEWTABLE ? NLM_F_CREATE : 0));
            message.header(nfgenmsg{1 /* inet */, NFNETLINK_V0, 0});
            message.putString(NFTA_TABLE_NAME, name);
            message.get()->nlmsg_seq = socket.nextSeq();
            return message;
        };
        const auto send = [&](bool withFailure) {
            std::vector<NetlinkMessage> messages = {bracket(NFNL_MSG_BATCH_BEGIN), table("one", NFT_MSG_NEWTABLE)};
            if (withFailure) {
                messages.push_back(table("absent", NFT_MSG_DELTABLE));
            }
            messages.push_back(bracket(NFNL_MSG_BATCH_END));
            std::vector<uint8_t> bytes;
            for (NetlinkMessage &message : messages) {
                const uint8_t *pBytes = reinterpret_cast<const uint8_t *>(message.get());
                bytes.insert(bytes.end(), pBytes, pBytes + message.size());
            }
            return std::pair(socket.batch(bytes.data(), bytes.size()), messages[2].get()->nlmsg_seq);
        };
        const auto tables = [] { return std::system("nft list tables | grep -q one"); };
        const auto [failed, seq] = send(true);
        ASSERT_EQ(failed.failed.size(), 1u);
        EXPECT_EQ(failed.failed[0].code, ENOENT);
        EXPECT_EQ(failed.failed[0].seq, seq);
        EXPECT_NE(tables(), 0);
        EXPECT_TRUE(send(false).first.ok());
        EXPECT_EQ(tables(), 0);
    });
}

TEST(Netlink, NotificationsComeOnTheEventThreadWithTheirMaker) {
    lab::inNamespace([] {
        NetlinkSocket socket(NETLINK_ROUTE);
        std::atomic<uint32_t> maker{0};
        std::atomic<bool> onThread{false};
        host::NetlinkMonitor monitor(
            NETLINK_ROUTE, {RTNLGRP_IPV4_ROUTE},
            [&](const nlmsghdr *pMessage) {
                onThread = host::hostEventLoop().onThread();
                maker = pMessage->nlmsg_pid;
            },
            [] {});
        monitor.start(host::hostEventLoop());
        NetlinkMessage message = unreachable(1);
        ASSERT_FALSE(socket.request(message));
        EXPECT_TRUE(lab::eventually([&] { return maker != 0; }));
        EXPECT_EQ(maker, socket.portId());
        EXPECT_TRUE(onThread);
        monitor.stop();
    });
}

TEST(Netlink, LostNotificationsAreToldOnceTheRoomOverflowed) {
    lab::inNamespace([] {
        NetlinkSocket socket(NETLINK_ROUTE);
        std::atomic<uint64_t> seen{0}, lost{0};
        host::NetlinkMonitor monitor(
            NETLINK_ROUTE, {RTNLGRP_IPV4_ROUTE}, [&](const nlmsghdr *) { ++seen; }, [&] { ++lost; });
        const uint64_t many = 40000; // more than the room holds, before anybody reads
        std::vector<NetlinkMessage> messages;
        for (uint32_t count = 0; count < many; ++count) {
            messages.push_back(unreachable(count));
        }
        ASSERT_TRUE(socket.batch(messages).ok());
        monitor.start(host::hostEventLoop());
        EXPECT_TRUE(lab::eventually([&] { return lost > 0; }));
        NetlinkMessage last = unreachable(0, RTM_DELROUTE);
        ASSERT_FALSE(socket.request(last));
        EXPECT_TRUE(lab::eventually([&] { return seen > 0; })) << "it goes on afterwards";
        EXPECT_LE(seen, 1u) << "what waited is older than the tables that are read then";
        monitor.stop();
    });
}

TEST(Netlink, AttributesAreReadWithinTheirBounds) {
    NetlinkMessage message(RTM_NEWROUTE, 0);
    message.header(rtmsg{});
    message.putU32(1, 0x01020304).putU8(2, 7).putString(3, "name").putU32Be(4, 99);
    const size_t nest = message.nestStart(5);
    message.putU16(1, 513).nestEnd(nest);
    const NetlinkAttrs attrs(message.get(), sizeof(rtmsg));
    EXPECT_EQ(attrs.u32(1), 0x01020304u);
    EXPECT_EQ(attrs.u8(2), 7);
    EXPECT_FALSE(attrs.u32(2)) << "too short";
    EXPECT_EQ(attrs.string(3), "name");
    EXPECT_EQ(attrs.u32Be(4), 99u);
    ASSERT_TRUE(attrs.has(5));
    EXPECT_EQ(NetlinkAttrs(attrs.get(5)).u16(1), 513);
    EXPECT_FALSE(attrs.has(6));
    EXPECT_FALSE(attrs.has(60000));
}

TEST(Netlink, AnErrorThatIsNoErrnoIsStillAnError) {
    for (const int told : {INT32_MIN, 16, INT32_MAX}) {
        NetlinkMessage message(NLMSG_ERROR, 0);
        nlmsgerr header = {};
        header.error = told;
        message.header(header);
        EXPECT_EQ(host::netlinkErrorOf(message.get()).code, EBADMSG) << told;
    }
}

TEST(Netlink, AttributesEndWhereTheMessageEnds) {
    NetlinkMessage message(RTM_NEWROUTE, 0);
    message.header(uint32_t{0}).put(5, nullptr, 0);
    nlmsghdr *pMessage = message.get();
    EXPECT_TRUE(NetlinkAttrs(pMessage, sizeof(uint32_t)).has(5));
    pMessage->nlmsg_len -= 2; // the attribute's head is cut in its middle
    EXPECT_FALSE(NetlinkAttrs(pMessage, sizeof(uint32_t)).has(5));
}

TEST(Netlink, AMessageIsWholeWhenItsLengthIsThere) {
    nlmsghdr header = {};
    for (const uint32_t length : {0u, 15u, 17u, 0x80000010u, 0xFFFFFFFFu}) {
        header.nlmsg_len = length;
        EXPECT_FALSE(host::netlinkIsWhole(&header, sizeof(header))) << length;
    }
    header.nlmsg_len = sizeof(header);
    EXPECT_TRUE(host::netlinkIsWhole(&header, sizeof(header)));
    EXPECT_FALSE(host::netlinkIsWhole(&header, sizeof(header) - 1));
    EXPECT_FALSE(host::netlinkIsWhole(&header, -1));
}

TEST(Netlink, BrokenAttributesEndTheReading) {
    for (uint16_t len : {0, 3, 200}) {
        NetlinkMessage message(RTM_NEWROUTE, 0);
        message.header(rtmsg{});
        message.putU32(1, 5);
        const size_t at = message.size();
        message.putU32(2, 6);
        std::vector<uint8_t> bytes(message.size());
        std::memcpy(bytes.data(), message.get(), bytes.size());
        std::memcpy(bytes.data() + at, &len, sizeof(len));
        const NetlinkAttrs attrs(reinterpret_cast<const nlmsghdr *>(bytes.data()), sizeof(rtmsg));
        EXPECT_EQ(attrs.u32(1), 5u);
        EXPECT_FALSE(attrs.has(2)) << len;
    }
}

} // namespace
