// Links of the kernel and the interface layer of the seam.
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/device/device.h"
#include "host/ifnet/ifnet.h"
#include "host/option/option.h"
#include "lab.h"
#include "platform/acl_dev_entry.h"
#include "platform/qrv_if.h"
#include "platform/qrv_if_agg.h"

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

TEST(Ifnet, LoopbackIsUpAndHasNoNeighbours) {
    lab::inNamespace([] {
        ASSERT_EQ(host::ifnetStart(), "");
        ASSERT_TRUE(host::ifnetByUnit(1));
        EXPECT_EQ(*host::ifnetByUnit(1), (host::IfnetLink{1, "lo", true, false}));
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
