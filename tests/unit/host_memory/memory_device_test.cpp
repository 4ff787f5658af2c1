// The memory device: records by key, capacity, scripted failures, and what it shows.
#include <gtest/gtest.h>

#include "host/device/memory/memory_device.h"
#include "host/device/memory/memory_record.h"
#include "host/device/memory/rule_record.h"
#include "host/option/option.h"
#include "platform/dev_sync.h"
#include "tests/unit/host_memory/fake_view.h"

namespace {

using namespace host;
using nlohmann::json;
using Record = MemoryDevice::Record;

Record record(uint8_t ifUnit, uint16_t aclNum, uint8_t action, std::vector<uint8_t> area = {}) {
    Record made{};
    made[3] = ifUnit;
    made[6] = static_cast<uint8_t>(aclNum >> 8);
    made[7] = static_cast<uint8_t>(aclNum);
    made[PBR_HW_ACL_ACTION] = action;
    std::copy(area.begin(), area.end(), made.begin() + PBR_HW_ACL_NEXT_HOPS);
    return made;
}

constexpr int32_t NO_ROOM = 0x03E80001;

TEST(MemoryDevice, KeepsExactlyTheRecordsByInterfaceAndAcl) {
    MemoryDevice device(0);
    const Record a = record(7, 1501, 7, {10, 0, 0, 1}), b = record(8, 1501, 7, {10, 0, 0, 2}),
                 c = record(7, 1502, 0);
    EXPECT_EQ(device.add(7, 1501, a.data()), 0);
    EXPECT_EQ(device.add(8, 1501, b.data()), 0);
    EXPECT_EQ(device.add(7, 1502, c.data()), 0);
    EXPECT_EQ(device.records(),
              (std::map<MemoryDevice::Key, Record>{{{7, 1501}, a}, {{8, 1501}, b}, {{7, 1502}, c}}));
    EXPECT_EQ(device.add(7, 1501, b.data()), 0);
    EXPECT_EQ(device.records().at({7, 1501}), b);
    EXPECT_EQ(device.del(7, 1501, c.data()), 0);
    EXPECT_EQ(device.records().count({7, 1501}), 0u);
    EXPECT_EQ(device.records().size(), 2u);
}

TEST(MemoryDevice, DeletingAnAbsentRecordIsDoneAndCounted) {
    MemoryDevice device(0);
    const Record a = record(7, 1501, 7);
    EXPECT_EQ(device.del(7, 1501, a.data()), 0);
    EXPECT_EQ(device.show()["counters"]["delsAbsent"], 1);
    EXPECT_EQ(device.show()["counters"]["dels"], 1);
}

TEST(MemoryDevice, RefusesARecordBeyondItsCapacityButReplacesOne) {
    MemoryDevice device(2);
    const Record a = record(7, 1501, 7);
    EXPECT_EQ(device.add(7, 1501, a.data()), 0);
    EXPECT_EQ(device.add(7, 1502, a.data()), 0);
    EXPECT_EQ(device.add(7, 1503, a.data()), NO_ROOM);
    EXPECT_EQ(device.records().size(), 2u);
    EXPECT_EQ(device.add(7, 1502, a.data()), 0);
    EXPECT_EQ(device.del(7, 1501, a.data()), 0);
    EXPECT_EQ(device.add(7, 1503, a.data()), 0);
}

TEST(MemoryDevice, AScriptedFailureHitsTheCallsItNames) {
    MemoryDevice device(0);
    const Record a = record(7, 1501, 7);
    MemoryFault fault;
    fault.count = 2;
    fault.after = 1;
    fault.ifUnit = 7;
    fault.aclNum = 1501;
    fault.code = -5;
    device.faultAdd(fault);
    EXPECT_EQ(device.add(7, 1501, a.data()), 0);
    EXPECT_EQ(device.add(8, 1501, a.data()), 0);
    EXPECT_EQ(device.add(7, 1502, a.data()), 0);
    EXPECT_EQ(device.del(7, 1501, a.data()), 0);
    EXPECT_EQ(device.add(7, 1501, a.data()), -5);
    EXPECT_EQ(device.records().count({7, 1501}), 0u);
    EXPECT_EQ(device.add(7, 1501, a.data()), -5);
    EXPECT_EQ(device.add(7, 1501, a.data()), 0);
}

TEST(MemoryDevice, AFailedAddLeavesTheRecordAsItWas) {
    MemoryDevice device(0);
    const Record a = record(7, 1501, 7), b = record(7, 1501, 0);
    ASSERT_EQ(device.add(7, 1501, a.data()), 0);
    MemoryFault fault;
    fault.code = 3;
    device.faultAdd(fault);
    EXPECT_EQ(device.add(7, 1501, b.data()), 3);
    EXPECT_EQ(device.records().at({7, 1501}), a);
}

TEST(MemoryDevice, ADeleteCanFailToo) {
    MemoryDevice device(0);
    const Record a = record(7, 1501, 7);
    ASSERT_EQ(device.add(7, 1501, a.data()), 0);
    MemoryFault fault;
    fault.command = PBR_HW_ACL_DEL;
    fault.code = 4;
    device.faultAdd(fault);
    EXPECT_EQ(device.add(7, 1501, a.data()), 0);
    EXPECT_EQ(device.del(7, 1501, a.data()), 4);
    EXPECT_EQ(device.records().size(), 1u);
    EXPECT_EQ(device.del(7, 1501, a.data()), 0);
}

TEST(MemoryDevice, ACountOfZeroRemovesAllFailures) {
    MemoryDevice device(0);
    const Record a = record(7, 1501, 7);
    MemoryFault fault;
    fault.count = 100;
    fault.code = 4;
    device.faultAdd(fault);
    EXPECT_EQ(device.add(7, 1501, a.data()), 4);
    fault.count = 0;
    device.faultAdd(fault);
    EXPECT_EQ(device.add(7, 1501, a.data()), 0);
    EXPECT_EQ(device.show()["faults"], 0);
}

using RuleRecord = MemoryDevice::RuleRecord;

RuleRecord ruleRecord(uint16_t aclNum, uint8_t ruleNum, uint8_t mark = 0) {
    RuleRecord made{};
    made[ACL_DEV_LST_IDX + 2] = static_cast<uint8_t>(aclNum >> 8);
    made[ACL_DEV_LST_IDX + 3] = static_cast<uint8_t>(aclNum);
    made[ACL_DEV_RULE_IDX + 3] = ruleNum;
    made[ACL_DEV_DIR] = mark;
    return made;
}

TEST(MemoryDevice, ARulesDeleteFindsItsAddByInterfaceAclAndRule) {
    MemoryDevice device(1);
    const RuleRecord a = ruleRecord(1501, 10, 1), b = ruleRecord(1501, 20, 2), c = ruleRecord(1502, 10, 3);
    const RuleRecord del = ruleRecord(1501, 10);
    for (const RuleRecord *pEntry : {&a, &b, &c}) {
        EXPECT_EQ(device.rule(7, ACL_DEV_RULE_ADD, pEntry->data()), 0) << "capacity is not about rules";
    }
    EXPECT_EQ(device.rule(8, ACL_DEV_RULE_ADD, a.data()), 0);
    EXPECT_EQ(device.rule(7, ACL_DEV_RULE_DEL, del.data()), 0);
    EXPECT_EQ(device.ruleRecords(), (std::map<MemoryDevice::RuleKey, RuleRecord>{
                                        {{7, 1501, 20}, b}, {{7, 1502, 10}, c}, {{8, 1501, 10}, a}}));
    EXPECT_EQ(device.rule(7, ACL_DEV_RULE_DEL, del.data()), 0);
    EXPECT_EQ(device.show()["counters"]["ruleAdds"], 4);
    EXPECT_EQ(device.show()["counters"]["ruleDels"], 2);
    EXPECT_EQ(device.show()["counters"]["ruleDelsAbsent"], 1);
    EXPECT_EQ(device.show()["counters"]["ruleRecords"], 3);
}

TEST(MemoryDevice, TheRecordOfAWholeAclCoversThoseOfItsRules) {
    const Record whole = record(7, 1501, 7);
    const RuleRecord a = ruleRecord(1501, 10), b = ruleRecord(1501, 255), other = ruleRecord(1502, 1);
    for (const bool isAdd : {true, false}) {
        MemoryDevice device(0);
        device.rule(7, ACL_DEV_RULE_ADD, a.data());
        device.rule(7, ACL_DEV_RULE_ADD, b.data());
        device.rule(7, ACL_DEV_RULE_ADD, other.data());
        device.rule(8, ACL_DEV_RULE_ADD, a.data());
        EXPECT_EQ(isAdd ? device.add(7, 1501, whole.data()) : device.del(7, 1501, whole.data()), 0);
        EXPECT_EQ(device.ruleRecords().size(), 2u);
        EXPECT_EQ(device.ruleRecords().count({7, 1502, 1}) + device.ruleRecords().count({8, 1501, 10}), 2u);
    }
}

TEST(MemoryDevice, AScriptedFailureOfARuleLeavesTheRecordsAsTheyWere) {
    MemoryDevice device(0);
    const RuleRecord a = ruleRecord(1501, 10, 1), b = ruleRecord(1501, 10, 2);
    ASSERT_EQ(device.rule(7, ACL_DEV_RULE_ADD, a.data()), 0);
    MemoryFault fault;
    fault.code = 6;
    for (const uint32_t command : {ACL_DEV_RULE_ADD, ACL_DEV_RULE_DEL}) {
        fault.command = command;
        device.faultAdd(fault);
        EXPECT_EQ(device.rule(7, command, b.data()), 6);
        EXPECT_EQ(device.ruleRecords().at({7, 1501, 10}), a);
    }
    EXPECT_EQ(device.show()["counters"]["ruleAddErrors"], 1);
    EXPECT_EQ(device.show()["counters"]["ruleDelErrors"], 1);
    EXPECT_EQ(device.flush(), "");
    EXPECT_TRUE(device.ruleRecords().empty());
}

TEST(MemoryDevice, TellsARecordOfAMemberFromThatOfABoundInterface) {
    fakeview::reset();
    MemoryDevice device(0, true);
    EXPECT_TRUE(device.needsMemberEntries());
    EXPECT_FALSE(MemoryDevice(0).needsMemberEntries());
    fakeview::next = {{{"wan", {fakeview::nextHop(7, 1, 1)}}}, false};
    device.storeChanged();
    const Record bound = record(7, 1501, 7), member = record(8, 1501, 7), remains = record(8, 1777, 7);
    ASSERT_EQ(device.add(7, 1501, bound.data()) + device.add(8, 1501, member.data()) +
                  device.add(8, 1777, remains.data()),
              0);
    const json records = device.recordsShow()["records"];
    EXPECT_EQ(records[0]["member"], false);
    EXPECT_EQ(records[1]["member"], true);
    EXPECT_EQ(records[2]["member"], false);
    EXPECT_EQ(device.del(8, 1501, member.data()), 0);
    EXPECT_EQ(device.recordsShow()["records"].size(), 2u);
}

TEST(RuleRecord, NamesEveryFieldInOrderWithItsValue) {
    RuleRecord entry = ruleRecord(1501, 10);
    const auto put = [&](uint32_t offset, std::vector<uint8_t> bytes) {
        std::copy(bytes.begin(), bytes.end(), entry.begin() + offset);
    };
    put(ACL_DEV_PROTO_TYPE, {0, 6});
    put(ACL_DEV_SRC_ADDR, {10, 1, 0, 0});
    put(ACL_DEV_SRC_STR_PREFIX, {255, 255});
    put(ACL_DEV_SRC_PREFIX, {16});
    put(ACL_DEV_IP_VER, {1});
    put(ACL_DEV_DEST_PORT, {1, 187, 1, 188});
    put(ACL_DEV_BITS, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1});
    put(ACL_DEV_ACTION, {0x01, 0x01}); // bits 7 and 15
    put(ACL_DEV_NEW_PRIORITY, {0, 0, 0, 3});
    put(ACL_DEV_IPV4_NEXT_HOPS, {192, 0, 2, 1, 192, 0, 2, 2});
    const json shown = ruleRecordShow(999999, entry.data());
    EXPECT_EQ(shown["interface"], "if999999");
    EXPECT_EQ(shown["acl"], 1501);
    EXPECT_EQ(shown["rule"], 10);
    EXPECT_EQ(shown["actions"], json({"next-hops-ipv4", "priority"}));
    EXPECT_EQ(shown["hex"].get<std::string>().size(), 1016u);
    EXPECT_EQ(shown["hex"].get<std::string>().substr(0, 12), "000600000a01");
    std::map<std::string, json> values;
    uint32_t before = 0;
    for (const json &field : shown["fields"]) {
        EXPECT_GE(field["offset"], before);
        before = field["offset"];
        EXPECT_TRUE(values.emplace(field["name"], field["value"]).second) << field;
    }
    EXPECT_EQ(values.size(), 70u);
    EXPECT_EQ(values["protoType"], 6);
    EXPECT_EQ(values["srcAddr"], "10.1.0.0");
    EXPECT_EQ(values["srcStrPrefix"], "ffff0000000000000000000000000000");
    EXPECT_EQ(values["srcPrefix"], 16);
    EXPECT_EQ(values["destPort"], 443);
    EXPECT_EQ(values["destEndPort"], 444);
    EXPECT_EQ(values["bits"], json({95}));
    EXPECT_EQ(values["action"], json({7, 15}));
    EXPECT_EQ(values["newPriority"], 3);
    EXPECT_EQ(values["ipv4NextHop1"], "192.0.2.1");
    EXPECT_EQ(values["ipv4NextHop2"], "192.0.2.2");
    EXPECT_EQ(values["lstIdx"], 1501);
    EXPECT_EQ(values["ruleIdx"], 10);
}

TEST(RuleRecord, NamesFollowTheProtocolTheVersionAndTheAction) {
    RuleRecord entry = ruleRecord(3501, 1);
    entry[ACL_DEV_IP_VER] = 2;
    entry[ACL_DEV_PROTO_SUB_TYPE + 1] = 1;
    entry[ACL_DEV_SRC_ADDR] = 0x20;
    entry[ACL_DEV_ACTION] = 0x08; // bit 4
    entry[ACL_DEV_IPV4_NEXT_HOPS + 3] = 9;
    std::map<std::string, json> values;
    const json shown = ruleRecordShow(7, entry.data());
    for (const json &field : shown["fields"]) {
        values[field["name"]] = field["value"];
    }
    EXPECT_EQ(values["srcAddr"], "2000::");
    EXPECT_EQ(values["outIfUnit"], 9);
    for (const char *pName : {"icmpType", "icmpCode", "hopLimit", "trafficClass"}) {
        EXPECT_EQ(values.count(pName), 1u) << pName;
    }
    entry[ACL_DEV_IP_VER] = 0;
    EXPECT_EQ(ruleRecordShow(7, entry.data())["fields"][2]["value"], "20000000000000000000000000000000");
}

TEST(MemoryRecord, NamesEveryFieldAsPublished) {
    std::string names;
    const json shown = memoryRecordShow(record(7, 1501, 7, {10, 0, 0, 1}).data());
    for (const json &field : shown["fields"]) {
        names += field["name"].get<std::string>() + " ";
    }
    EXPECT_EQ(names, "ifUnit lstIndex direction action newIpPri vrfId nextHops ");
}

TEST(MemoryDevice, ShowsDesiredEntriesBesideRecords) {
    fakeview::reset();
    MemoryDevice device(1);
    fakeview::next = {
        {{"wan", {fakeview::nextHop(7, 1, 1), fakeview::nextHop(7, 2, 1), fakeview::nextHop(7, 3, 1)}}},
        false};
    device.storeChanged();
    const Record a = record(7, 1501, 7, {192, 0, 2, 1}), b = record(7, 1502, 7, {192, 0, 2, 1});
    EXPECT_EQ(device.add(7, 1501, a.data()), 0);
    EXPECT_EQ(device.add(7, 1502, b.data()), NO_ROOM);
    const json shown = device.show();
    ASSERT_EQ(shown["entries"].size(), 3u);
    EXPECT_EQ(shown["entries"][0]["installed"], true);
    EXPECT_EQ(shown["entries"][0]["error"], "");
    EXPECT_EQ(shown["entries"][1]["installed"], false);
    EXPECT_EQ(shown["entries"][1]["error"], "the last add returned 0x03E80001: no room for a record");
    EXPECT_EQ(shown["entries"][2]["installed"], false);
    EXPECT_EQ(shown["entries"][2]["error"], "");
    ASSERT_EQ(shown["records"].size(), 1u);
    EXPECT_EQ(shown["records"][0]["hex"].get<std::string>().size(), 160u);
    EXPECT_EQ(shown["capacity"], 1);
}

TEST(MemoryDevice, TakesTheWholeViewFirstAndThenWhatIsMarked) {
    fakeview::reset();
    MemoryDevice device(0);
    device.storeChanged();
    device.storeChanged();
    EXPECT_EQ(fakeview::takes, (std::vector<bool>{true, false}));
}

TEST(MemoryDevice, FlushForgetsTheRecordsAndNotTheDesiredState) {
    fakeview::reset();
    MemoryDevice device(0);
    fakeview::next = {{{"wan", {fakeview::nextHop(7, 1, 1)}}}, false};
    device.storeChanged();
    const Record a = record(7, 1501, 7);
    ASSERT_EQ(device.add(7, 1501, a.data()), 0);
    EXPECT_EQ(device.flush(), "");
    EXPECT_TRUE(device.records().empty());
    EXPECT_EQ(device.show()["entries"].size(), 1u);
}

TEST(MemoryDevice, NeedsNothingToStartAndToSettle) {
    MemoryDevice device(0);
    EXPECT_EQ(device.start(), "");
    EXPECT_EQ(device.settle(), "");
    device.aclChanged(1501);
    EXPECT_EQ(device.show()["counters"]["aclChanges"], 1);
}

TEST(MemoryRecord, NamesActionsAndAddresses) {
    const auto shown = [](uint8_t action, std::vector<uint8_t> area) {
        return memoryRecordShow(record(7, 1501, action, std::move(area)).data());
    };
    EXPECT_EQ(shown(4, {0, 0x0F, 0x42, 0x3F})["outInterface"], "if999999");
    EXPECT_EQ(shown(4, {0, 0, 0, 1})["action"], "out-interface");
    EXPECT_EQ(shown(7, {10, 0, 0, 1})["nextHops"], json({"10.0.0.1"}));
    EXPECT_EQ(shown(7, {10, 0, 0, 1})["action"], "next-hop-ipv4");
    EXPECT_EQ(shown(8, {10, 0, 0, 1, 10, 0, 0, 2})["nextHops"], json({"10.0.0.1", "10.0.0.2"}));
    EXPECT_EQ(shown(8, {10, 0, 0, 1, 10, 0, 0, 2})["action"], "ecmp-ipv4");
    std::vector<uint8_t> full;
    for (uint8_t i = 0; i < 64; i++) {
        full.push_back(static_cast<uint8_t>(i + 1));
    }
    EXPECT_EQ(shown(8, full)["nextHops"].size(), 16u);
    EXPECT_EQ(shown(50, full)["nextHops"].size(), 4u);
    EXPECT_EQ(shown(50, full)["action"], "ecmp-ipv6");
    EXPECT_EQ(shown(46, {0x20, 1, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1})["nextHops"],
              json({"2001:db8::1"}));
    EXPECT_EQ(shown(46, full)["action"], "next-hop-ipv6");
    EXPECT_EQ(shown(99, {})["action"], "unknown");
}

TEST(MemoryRecord, LeavesTheAddressesOfActionNoneUnread) {
    const json shown = memoryRecordShow(record(7, 1501, 0, {10, 0, 0, 1, 10, 0, 0, 2}).data());
    EXPECT_EQ(shown["action"], "none");
    EXPECT_FALSE(shown.contains("nextHops"));
    EXPECT_EQ(shown["area"].get<std::string>().substr(0, 18), "0a0000010a00000200");
    EXPECT_EQ(shown["acl"], 1501);
    EXPECT_EQ(shown["ifUnit"], 7);
}

// The process's own device, chosen by option.
class ChosenDevice : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(optionLoad({"host.device=memory", "host.memory-capacity=3", "host.log=stderr"}, ""), "");
        ASSERT_EQ(hostDeviceStart(), "");
    }
    void SetUp() override { fakeview::reset(); }
};

TEST_F(ChosenDevice, IsTheMemoryDeviceWithItsCapacity) {
    EXPECT_EQ(hostDevice().show()["kind"], "memory");
    EXPECT_EQ(hostDevice().show()["capacity"], 3);
}

TEST_F(ChosenDevice, IsToldOfTheStoreOnlyWhenSomethingIsMarked) {
    const uint64_t before = hostDevice().show()["counters"]["storeChanges"];
    devSyncStore();
    EXPECT_EQ(hostDevice().show()["counters"]["storeChanges"], before);
    fakeview::changed = 1;
    devSyncStore();
    EXPECT_EQ(hostDevice().show()["counters"]["storeChanges"], before + 1);
    fakeview::changed = 2;
    devSyncStore();
    EXPECT_EQ(hostDevice().show()["counters"]["storeChanges"], before + 2);
    devSyncStore();
    EXPECT_EQ(hostDevice().show()["counters"]["storeChanges"], before + 2);
}

} // namespace
