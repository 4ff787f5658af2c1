// Links of the kernel and the interface layer of the seam.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/device/device.h"
#include "host/bus/bus.h"
#include "host/ifnet/ifnet.h"
#include "host/ifnet/link_messages.h"
#include "host/option/option.h"
#include "lab.h"
#include "platform/acl_dev_entry.h"
#include "platform/qrv_if.h"
#include "platform/qrv_if_agg.h"
#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"

namespace {

TEST(Ifnet, LinksComeChangeAndGo) {
    lab::inNamespace([] {
        ASSERT_EQ(host::ifnetStart(), "");
        std::mutex lock;
        std::vector<host::IfnetLink> told;
        host::ifnetOnChange([&](const host::IfnetLink &link) {
            const std::lock_guard guard(lock);
            told.push_back(link);
        });
        lab::Namespace far;
        lab::lay(far, {"a0", "a1", {}, {}});
        ASSERT_TRUE(lab::eventually([] { return host::ifnetByName("a0") && host::ifnetByName("a0")->up; }));
        const uint32_t unit = host::ifnetByName("a0")->unit;
        EXPECT_EQ(host::ifnetName(unit), "a0");
        far.inside([] { lab::run("ip link set a1 down"); });
        EXPECT_TRUE(lab::eventually([&] { return !host::ifnetByUnit(unit)->up; })) << "no carrier";
        lab::run("ip link set a0 down && ip link set a0 name other");
        EXPECT_TRUE(lab::eventually([&] { return host::ifnetName(unit) == "other"; }));
        lab::run("ip link del other");
        EXPECT_TRUE(lab::eventually([&] { return !host::ifnetByUnit(unit); }));
        EXPECT_EQ(host::ifnetName(unit), "if" + std::to_string(unit));
        const std::lock_guard guard(lock);
        ASSERT_FALSE(told.empty());
        EXPECT_EQ(told.back(), (host::IfnetLink{unit, "other", false, true})) << "gone: down, its name kept";
    });
}

TEST(Ifnet, LoopbackIsUpAndHasNeitherNeighboursNorEthernetHeaders) {
    lab::inNamespace([] {
        ASSERT_EQ(host::ifnetStart(), "");
        ASSERT_TRUE(host::ifnetByUnit(1));
        EXPECT_EQ(*host::ifnetByUnit(1), (host::IfnetLink{1, "lo", true, false, 0, false}));
    });
}

TEST(Ifnet, NamesFillTheBufferAsEachCallPublishes) {
    lab::inNamespace([] {
        lab::run("ip link add name abcdef type veth peer name ghijkl");
        ASSERT_EQ(host::ifnetStart(), "");
        const uint32_t unit = lab::indexOf("abcdef");
        char buffer[8];
        std::memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ(qrvIfUnit2Name(unit, buffer, 4), buffer);
        EXPECT_STREQ(buffer, "abc");
        EXPECT_EQ(buffer[4], '#');
        std::memset(buffer, '#', sizeof(buffer));
        EXPECT_EQ(qrvIfIndex2Name(unit, buffer, 4), buffer);
        EXPECT_STREQ(buffer, "abcd");
        EXPECT_EQ(buffer[5], '#');
        char name[128];
        EXPECT_STREQ(qrvIfUnit2Name(4711, name, sizeof(name)), "if4711");
    });
}

// The daemon's end of the bus, member of the link group: messages as texts.
class LinkMessages {
public:
    LinkMessages() : fd(qrv_socket(QRV_AF_NETLINK, QRV_SOCK_DGRAM, 0)) {
        uint32_t one = 1;
        qrv_ioctl(fd, QRV_FIONBIO, &one);
        EXPECT_EQ(qrv_setsockopt(fd, QRV_SOL_NETLINK, QRV_NETLINK_ADD_MEMBERSHIP, &QRV_RTNLGRP_LINK, 4), 0);
    }
    ~LinkMessages() { qrv_close(fd); }

    // "32 NAME", "32 NAME 52 NAME", "34 NAME", names of the units as they were given in `known`; empty: none.
    std::string next(const std::map<uint32_t, std::string> &known, uint32_t ms = 5000) {
        QrvFdSet set{};
        set.word[fd / 32] = 1u << (fd % 32);
        const QrvTimeval patience{ms / 1000, ms % 1000 * 1000};
        if (qrv_select(fd, &set, &patience) <= 0) {
            return "";
        }
        uint8_t bytes[3840] = {};
        QrvNetlinkAddr from{};
        uint32_t fromLen = sizeof(from);
        EXPECT_GT(qrv_recvfrom(fd, bytes, sizeof(bytes), 0, &from, &fromLen), 0);
        RtMsgHeader header;
        LinkInfo info;
        std::memcpy(&header, bytes, sizeof(header));
        std::memcpy(&info, bytes + sizeof(header), sizeof(info));
        const auto name = [&](uint32_t unit) { return known.count(unit) != 0 ? known.at(unit) : "other"; };
        std::string text = std::to_string(header.type) + " " + name(info.ifIndex);
        if (header.type == QRV_RTM_NEWLINK && header.length > 48) {
            RtAttr attr;
            uint32_t other;
            std::memcpy(&attr, bytes + 48, sizeof(attr));
            std::memcpy(&other, bytes + 52, sizeof(other));
            EXPECT_EQ(header.length, 56u);
            EXPECT_EQ(attr.length, 8u);
            text += " " + std::to_string(attr.type) + " " + name(other);
        }
        return text;
    }

private:
    int32_t fd;
};

TEST(Ifnet, LinksThatComeJoinLeaveAndGoArePublished) {
    lab::inNamespace([] {
        lab::run("ip link add br0 type bridge && ip link add p0 type veth peer name p1");
        lab::run("ip link set p1 master br0");
        LinkMessages messages;
        ASSERT_EQ(host::ifnetStart(), "");
        const std::map<uint32_t, std::string> known = {
            {lab::indexOf("br0"), "br0"}, {lab::indexOf("p0"), "p0"}, {lab::indexOf("p1"), "p1"}};
        EXPECT_EQ(host::ifnetByName("p1")->aggregation, lab::indexOf("br0"));
        lab::run("ip link set p0 up && ip link set p0 master br0");
        EXPECT_EQ(messages.next(known), "32 p0 52 br0") << "what was there at the start is no news";
        EXPECT_EQ(messages.next(known), "32 br0 66 p0");
        lab::run("ip link set p0 nomaster");
        EXPECT_EQ(messages.next(known), "32 br0 67 p0");
        lab::run("ip link del p0");
        std::multiset<std::string> gone; // the kernel takes the two ends in either order
        for (int i = 0; i < 3; i++) {
            gone.insert(messages.next(known));
        }
        EXPECT_EQ(gone, (std::multiset<std::string>{"32 br0 67 p1", "34 p0", "34 p1"}));
        lab::run("ip link add v0 type dummy 2>/dev/null || ip link add v0 type bridge");
        EXPECT_EQ(messages.next(known), "32 other");
        lab::run("ip link del br0");
        EXPECT_EQ(messages.next(known), "34 br0");
        EXPECT_EQ(messages.next(known, 100), "");
    });
}

TEST(Ifnet, OtherChangesOfALinkArePublishedToNobody) {
    lab::inNamespace([] {
        lab::run("ip link add p0 type veth peer name p1");
        LinkMessages messages;
        ASSERT_EQ(host::ifnetStart(), "");
        lab::run("ip link set p0 up && ip link set p1 up && ip link set p0 down && ip link set p0 name q0");
        ASSERT_TRUE(lab::eventually([] { return host::ifnetByName("q0").has_value(); }));
        lab::whileEventThreadWaits([] {});
        EXPECT_EQ(messages.next({}, 0), "");
    });
}

TEST(LinkMessagesOf, TellWhatWasLeftBeforeWhatWasJoined) {
    const auto texts = [](std::optional<uint32_t> before, std::optional<uint32_t> after) {
        const auto link = [](std::optional<uint32_t> aggregation) -> std::optional<host::IfnetLink> {
            return aggregation ? std::optional(host::IfnetLink{9, "p", true, true, *aggregation}) : std::nullopt;
        };
        std::string text;
        for (const std::vector<uint8_t> &bytes : host::linkMessagesOf(link(before), link(after))) {
            uint32_t words[14] = {};
            std::memcpy(words, bytes.data(), bytes.size());
            text += std::to_string(words[1] & 0xFFFF) + ":" + std::to_string(words[7]);
            text += bytes.size() > 48 ? ":" + std::to_string(words[12] >> 16) + ":" + std::to_string(words[13]) + " " : " ";
        }
        return text;
    };
    EXPECT_EQ(texts({}, 0), "32:9 ");
    EXPECT_EQ(texts({}, 5), "32:9 32:9:52:5 32:5:66:9 ");
    EXPECT_EQ(texts(0, 0), "");
    EXPECT_EQ(texts(5, 5), "");
    EXPECT_EQ(texts(0, 5), "32:9:52:5 32:5:66:9 ");
    EXPECT_EQ(texts(5, 6), "32:5:67:9 32:9:52:6 32:6:66:9 ");
    EXPECT_EQ(texts(5, 0), "32:5:67:9 ");
    EXPECT_EQ(texts(5, {}), "32:5:67:9 34:9 ");
    EXPECT_EQ(texts(0, {}), "34:9 ");
}

TEST(Ifnet, AGoneInterfaceKeepsItsNameUntilItsPolicyIsOff) {
    lab::inNamespace([] {
        lab::run("ip link add p0 type veth peer name p1");
        ASSERT_EQ(host::ifnetStart(), "");
        const uint32_t unit = lab::indexOf("p0"), other = lab::indexOf("p1");
        uint32_t protocol = QRV_PROTO_POLICY_ROUTE;
        ASSERT_EQ(qrvIfSetApi(unit, QRV_IF_PROTO_ENABLE, &protocol), 0);
        lab::run("ip link del p0");
        ASSERT_TRUE(lab::eventually([&] { return !host::ifnetByUnit(unit) && !host::ifnetByUnit(other); }));
        EXPECT_EQ(host::ifnetName(unit), "p0");
        EXPECT_EQ(host::ifnetName(other), "if" + std::to_string(other));
        EXPECT_EQ(qrvIfSetApi(unit, QRV_IF_PROTO_DISABLE, &protocol), 0) << "it was on";
        EXPECT_NE(qrvIfSetApi(unit, QRV_IF_PROTO_DISABLE, &protocol), 0);
        EXPECT_EQ(host::ifnetName(unit), "if" + std::to_string(unit));
    });
}

TEST(Ifnet, AfterALossOnlyWhatHoldsAPolicyWronglyIsToldAgain) {
    lab::inNamespace([] {
        lab::run("ip link add br0 type bridge && ip link add p0 type veth peer name p1 && "
                 "ip link add q0 type veth peer name q1");
        ASSERT_EQ(host::ifnetStart(), "");
        const std::map<uint32_t, std::string> known = {{lab::indexOf("br0"), "br0"}, {lab::indexOf("p0"), "p0"},
                                                       {lab::indexOf("q0"), "q0"}, {lab::indexOf("q1"), "q1"}};
        uint32_t protocol = QRV_PROTO_POLICY_ROUTE;
        for (const char *pName : {"br0", "p0", "q0"}) {
            ASSERT_EQ(qrvIfSetApi(lab::indexOf(pName), QRV_IF_PROTO_ENABLE, &protocol), 0);
        }
        const uint32_t gone = lab::indexOf("p0"), late = lab::indexOf("q1");
        LinkMessages messages;
        lab::run("ip link set q0 master br0 && ip link set q1 master br0 && ip link del p0");
        ASSERT_TRUE(lab::eventually([&] { return !host::ifnetByUnit(gone); }));
        // Bound as a port, which is the operator's will.
        ASSERT_EQ(qrvIfSetApi(late, QRV_IF_PROTO_ENABLE, &protocol), 0);
        // The daemon does not read until messages are lost, then reads all.
        std::vector<uint8_t> much(3840);
        const uint32_t length = 3840;
        std::memcpy(much.data(), &length, sizeof(length));
        while (host::busCounters().lost == 0) {
            host::busPublish(QRV_RTNLGRP_LINK, much.data(), much.size());
        }
        std::string told;
        for (std::string text = messages.next(known, 0); told.find("34") == std::string::npos || !text.empty();
             text = messages.next(known, 200)) {
            if (text.rfind("0 ", 0) != 0) {
                told += text + ", ";
            }
        }
        const std::string again = "34 p0, 32 q0 52 br0, ";
        const size_t at = told.rfind("34 p0");
        ASSERT_NE(at, std::string::npos) << told;
        EXPECT_EQ(told.substr(at), again) << told;
    });
}

TEST(Ifnet, AProtocolIsRememberedPerInterface) {
    lab::inNamespace([] {
        ASSERT_EQ(host::ifnetStart(), "");
        uint32_t protocol = QRV_PROTO_POLICY_ROUTE;
        EXPECT_EQ(qrvIfSetApi(1, QRV_IF_PROTO_ENABLE, &protocol), 0);
        EXPECT_EQ(qrvIfSetApi(1, QRV_IF_PROTO_ENABLE, &protocol), 0);
        EXPECT_EQ(host::ifnetProtocols(1), std::vector<uint32_t>{206});
        EXPECT_EQ(qrvIfSetApi(1, QRV_IF_PROTO_DISABLE, &protocol), 0);
        EXPECT_TRUE(host::ifnetProtocols(1).empty());
        EXPECT_NE(qrvIfSetApi(4711, QRV_IF_PROTO_ENABLE, &protocol), 0) << "no such interface";
        EXPECT_NE(qrvIfSetApi(4711, QRV_IF_PROTO_DISABLE, &protocol), 0);
        EXPECT_NE(qrvIfSetApi(1, 58, &protocol), 0);
        EXPECT_NE(qrvIfSetApi(1, QRV_IF_PROTO_ENABLE, nullptr), 0);
        EXPECT_EQ(host::ifnetCounters().protocolEnables, 2u);
        EXPECT_EQ(host::ifnetCounters().refused, 4u);
    });
}

TEST(Ifnet, EntriesLiveOnTheAggregationDevice) {
    lab::inNamespace([] {
        ASSERT_EQ(host::optionLoad({"host.device=memory"}, ""), "");
        ASSERT_EQ(host::ifnetStart(), "");
        for (uint32_t function : {0x03E80135u, 0x03E80136u}) {
            uint8_t request[20];
            std::memset(request, 0xFF, sizeof(request));
            std::memcpy(request, &function, sizeof(function));
            EXPECT_EQ(qrvIfGetApi(1, QRV_IF_HWAPIFUNCDISPATCH, request), 0);
            EXPECT_EQ(request[8], 0xFE) << "bit 0 clear";
            EXPECT_EQ(request[9], 0xFF);
            EXPECT_NE(qrvIfGetApi(4711, QRV_IF_HWAPIFUNCDISPATCH, request), 0);
        }
        uint8_t unknown[20] = {};
        EXPECT_NE(qrvIfGetApi(1, QRV_IF_HWAPIFUNCDISPATCH, unknown), 0);
        EXPECT_NE(qrvIfGetApi(1, 46, unknown), 0);
    });
}

TEST(Ifnet, MembersNeedEntriesOfTheirOwnWhenTheMemoryDeviceIsToldSo) {
    lab::inNamespace([] {
        ASSERT_EQ(host::optionLoad({"host.device=memory", "host.memory-member-entries=on"}, ""), "");
        ASSERT_EQ(host::ifnetStart(), "");
        AggDispatchReq request{};
        request.function = AGG_PORT_REMOVED;
        EXPECT_EQ(qrvIfGetApi(1, QRV_IF_HWAPIFUNCDISPATCH, &request), 0);
        EXPECT_EQ(request.answer, AGG_MEMBER_ENTRIES);
    });
}

TEST(Ifnet, RuleRecordsGoToTheDeviceAndAreCounted) {
    lab::inNamespace([] {
        ASSERT_EQ(host::optionLoad({"host.device=memory"}, ""), "");
        ASSERT_EQ(host::ifnetStart(), "");
        const std::vector<uint8_t> entry(ACL_DEV_ENTRY_BYTES);
        PbrDevRuleDesc desc{ACL_DEV_RULE_ADD, entry.data(), 0, ACL_DEV_ENTRY_BYTES, {}};
        EXPECT_EQ(qrvIfSetApi(1, QRV_IF_RULE_DEVICE, &desc), 0);
        EXPECT_EQ(host::hostDevice().recordsShow()["ruleRecords"].size(), 1u);
        desc.type = ACL_DEV_RULE_DEL;
        EXPECT_EQ(qrvIfSetApi(1, QRV_IF_RULE_DEVICE, &desc), 0);
        EXPECT_EQ(host::hostDevice().recordsShow()["ruleRecords"].size(), 0u);
        EXPECT_EQ(host::ifnetCounters().ruleRecords, 2u);
    });
}

TEST(Ifnet, ADescriptorWithoutARuleRecordIsRefused) {
    lab::inNamespace([] {
        ASSERT_EQ(host::optionLoad({"host.device=memory"}, ""), "");
        ASSERT_EQ(host::ifnetStart(), "");
        const std::vector<uint8_t> entry(ACL_DEV_ENTRY_BYTES);
        const PbrDevRuleDesc good{ACL_DEV_RULE_ADD, entry.data(), 0, ACL_DEV_ENTRY_BYTES, {}};
        PbrDevRuleDesc noRecord = good, tooShort = good, otherType = good;
        noRecord.pEntry = nullptr;
        tooShort.len = ACL_DEV_ENTRY_BYTES - 1;
        otherType.type = 1;
        for (PbrDevRuleDesc *pDesc : {&noRecord, &tooShort, &otherType}) {
            EXPECT_NE(qrvIfSetApi(1, QRV_IF_RULE_DEVICE, pDesc), 0);
        }
        EXPECT_EQ(host::ifnetCounters().refused, 3u);
        EXPECT_EQ(host::ifnetCounters().ruleRecords, 0u);
    });
}

} // namespace
