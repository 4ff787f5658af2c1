// The daemon's calls into the ACL module, over the memory device.
#include <gtest/gtest.h>

#include <cstring>

#include "host/acl/acl_dev_entry.h"
#include "host/acl/acl_store.h"
#include "host/device/memory/memory_device.h"
#include "platform/acl.h"
#include "tests/unit/host_acl/host_environment.h"

namespace {

using namespace host;

using hosttest::rule;

struct Redirect {
    uint8_t record[PBR_HW_ACL_CONTENT_BYTES] = {};
    PbrHwAclDesc desc{record, sizeof record};

    Redirect(uint8_t ifUnit, uint16_t aclNum, uint8_t action) {
        record[3] = ifUnit;
        record[6] = static_cast<uint8_t>(aclNum >> 8);
        record[7] = static_cast<uint8_t>(aclNum);
        record[PBR_HW_ACL_ACTION] = action;
    }
};

class AclApi : public testing::Test {
protected:
    void SetUp() override {
        aclStore().replace({}, true);
        ASSERT_EQ(hostDevice().flush(), "");
    }
    std::map<MemoryDevice::Key, MemoryDevice::Record> records() {
        return dynamic_cast<MemoryDevice &>(hostDevice()).records();
    }
};

constexpr int32_t BAD_ARGUMENT = static_cast<int32_t>(QRV_ERR_BAD_ARGUMENT);

TEST_F(AclApi, TellsWhetherAnAclExistsAndHowManyRulesItHas) {
    uint32_t count = 77;
    EXPECT_NE(aclLstGetApi(1501, ACL_LST_READ, &count), 0);
    EXPECT_EQ(count, 77u);
    aclStore().create(1501);
    EXPECT_EQ(aclLstGetApi(1501, ACL_LST_READ, &count), 0);
    EXPECT_EQ(count, 0u);
    aclStore().ruleSet(1501, 10, rule(1501, "permit ip"));
    EXPECT_EQ(aclLstGetApi(1501, ACL_LST_READ, &count), 0);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(aclLstGetApi(1501, 5, &count), BAD_ARGUMENT);
    EXPECT_EQ(aclLstGetApi(1501, ACL_LST_READ, nullptr), BAD_ARGUMENT);
}

TEST_F(AclApi, CountsUsersOfAnAclButNotOfNone) {
    int32_t more = 1, less = -1;
    const int64_t before = aclStore().users(1777);
    EXPECT_EQ(aclLstSyncApi(1777, ACL_LST_USERS, &more), 0);
    EXPECT_EQ(aclStore().users(1777), before + 1);
    EXPECT_EQ(aclLstSyncApi(1777, ACL_LST_USERS, &less), 0);
    EXPECT_EQ(aclStore().users(1777), before);
    EXPECT_EQ(aclLstSyncApi(0, ACL_LST_USERS, &more), 0);
    EXPECT_EQ(aclStore().users(0), 0);
    EXPECT_EQ(aclLstSyncApi(1777, 3, &more), BAD_ARGUMENT);
    EXPECT_EQ(aclLstSyncApi(1777, ACL_LST_USERS, nullptr), BAD_ARGUMENT);
}

TEST_F(AclApi, AnAddInsertsAndThenReplacesTheRecord) {
    Redirect first(7, 1501, PBR_HW_ACTION_IPV4), second(7, 1501, PBR_HW_ACTION_NONE);
    EXPECT_EQ(aclIfSetApi(7, PBR_HW_ACL_ADD, &first.desc), 0);
    EXPECT_EQ(aclIfSetApi(7, PBR_HW_ACL_ADD, &second.desc), 0);
    const auto held = records();
    ASSERT_EQ(held.size(), 1u);
    EXPECT_EQ(std::memcmp(held.at({7, 1501}).data(), second.record, sizeof second.record), 0);
}

TEST_F(AclApi, ADeleteGoesByKeyAloneAndAnAbsentKeyIsDone) {
    Redirect added(7, 1501, PBR_HW_ACTION_IPV4), deleted(7, 1501, PBR_HW_ACTION_NONE), other(8, 1501, 0);
    EXPECT_EQ(aclIfSetApi(7, PBR_HW_ACL_ADD, &added.desc), 0);
    EXPECT_EQ(aclIfSetApi(8, PBR_HW_ACL_DEL, &other.desc), 0);
    EXPECT_EQ(records().size(), 1u);
    EXPECT_EQ(aclIfSetApi(7, PBR_HW_ACL_DEL, &deleted.desc), 0);
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(aclIfSetApi(7, PBR_HW_ACL_DEL, &deleted.desc), 0);
}

TEST_F(AclApi, RefusesRecordsThatDoNotFitTheCall) {
    Redirect good(7, 1501, PBR_HW_ACTION_IPV4), noAcl(7, 0, PBR_HW_ACTION_IPV4);
    PbrHwAclDesc shortDesc{good.record, 79}, nullDesc{nullptr, 80};
    EXPECT_EQ(aclIfSetApi(7, PBR_HW_ACL_ADD, nullptr), BAD_ARGUMENT);
    EXPECT_EQ(aclIfSetApi(7, PBR_HW_ACL_ADD, &shortDesc), BAD_ARGUMENT);
    EXPECT_EQ(aclIfSetApi(7, PBR_HW_ACL_ADD, &nullDesc), BAD_ARGUMENT);
    EXPECT_EQ(aclIfSetApi(8, PBR_HW_ACL_ADD, &good.desc), BAD_ARGUMENT);
    EXPECT_EQ(aclIfSetApi(7, PBR_HW_ACL_ADD, &noAcl.desc), BAD_ARGUMENT);
    EXPECT_EQ(aclIfSetApi(7, 22, &good.desc), BAD_ARGUMENT);
    EXPECT_TRUE(records().empty());
}

std::vector<uint8_t> translated(uint32_t aclNum, uint32_t ruleNum, const std::string &text) {
    aclStore().ruleSet(aclNum, ruleNum, rule(aclNum, text));
    const uint32_t key[3] = {aclNum, ruleNum, 0};
    std::vector<uint8_t> entry(ACL_DEV_ENTRY_BYTES);
    EXPECT_EQ(aclRuleDevTrans(key, entry.data()), 0);
    return entry;
}

std::vector<uint8_t> part(const std::vector<uint8_t> &entry, uint32_t offset, uint32_t bytes) {
    return {entry.begin() + offset, entry.begin() + offset + bytes};
}

TEST_F(AclApi, ARuleRecordCarriesItsKeyAndPriority) {
    const auto entry = translated(1501, 0x00012345, "permit ip");
    EXPECT_EQ(part(entry, 476, 12),
              (std::vector<uint8_t>{0, 0, 5, 0xDD, 0, 1, 0x23, 0x45, 0x23, 0x45, 0, 0}));
    EXPECT_EQ(entry[71], 2);
    EXPECT_EQ(entry[72], 1);
}

TEST_F(AclApi, ARuleRecordCarriesPrefixesMasksAndPorts) {
    const auto entry =
        translated(1501, 10, "permit tcp from 10.1.128.0/17 port 5 to 192.0.2.0/24 port 80-90");
    EXPECT_EQ(part(entry, 0, 4), (std::vector<uint8_t>{0, 6, 0, 0}));
    EXPECT_EQ(part(entry, 4, 8), (std::vector<uint8_t>{10, 1, 128, 0, 0, 0, 0, 0}));
    EXPECT_EQ(part(entry, 20, 8), (std::vector<uint8_t>{192, 0, 2, 0, 0, 0, 0, 0}));
    EXPECT_EQ(part(entry, 36, 8), (std::vector<uint8_t>{255, 255, 128, 0, 0, 0, 0, 0}));
    EXPECT_EQ(part(entry, 52, 8), (std::vector<uint8_t>{255, 255, 255, 0, 0, 0, 0, 0}));
    EXPECT_EQ(part(entry, 68, 2), (std::vector<uint8_t>{17, 24}));
    EXPECT_EQ(part(entry, 74, 8), (std::vector<uint8_t>{0, 5, 0, 5, 0, 80, 0, 90}));
}

TEST_F(AclApi, AnIcmp6RuleRecordNamesItsNextHeader) {
    const auto entry = translated(3501, 10, "permit icmp to 2001:db8::/33");
    EXPECT_EQ(part(entry, 0, 4), (std::vector<uint8_t>{0, 58, 0, 1}));
    EXPECT_EQ(entry[72], 2);
    EXPECT_EQ(entry[92], 58);
    EXPECT_EQ(part(entry, 20, 6), (std::vector<uint8_t>{0x20, 0x01, 0x0d, 0xb8, 0, 0}));
    EXPECT_EQ(part(entry, 52, 6), (std::vector<uint8_t>{255, 255, 255, 255, 128, 0}));
    EXPECT_EQ(part(entry, 74, 8), std::vector<uint8_t>(8));
}

TEST_F(AclApi, ARuleRecordCarriesFlagsWithTheBitsThatAreCompared) {
    const auto entry = translated(1501, 10, "permit tcp flags syn,!ack established");
    EXPECT_EQ(entry[73], 0x02);
    EXPECT_EQ(part(entry, 96, 2), (std::vector<uint8_t>{0x12, 0x14}));
    EXPECT_EQ(part(translated(1501, 10, "permit tcp"), 96, 12), std::vector<uint8_t>(12));
}

TEST_F(AclApi, ARuleRecordCarriesTypeAndCodeInThePortFields) {
    const auto entry = translated(1501, 10, "permit icmp type 3 code 4");
    EXPECT_EQ(part(entry, 0, 4), (std::vector<uint8_t>{0, 1, 0, 1}));
    EXPECT_EQ(part(entry, 74, 8), (std::vector<uint8_t>{0, 3, 0, 3, 0, 4, 0, 4}));
    EXPECT_EQ(entry[99], 3);
    EXPECT_EQ(translated(3501, 10, "permit icmp type 128")[99], 1);
    EXPECT_EQ(translated(1501, 10, "permit icmp")[99], 0) << "type 0 is a type, too";
}

TEST_F(AclApi, ARuleRecordCarriesClassFragmentsLengthAndMac) {
    const auto entry = translated(1501, 10, "permit ip dscp ef length 100-300 source-mac 02:00:5e:00:53:01");
    EXPECT_EQ(entry[83], 0xb8);
    EXPECT_EQ(entry[98], 0xfc);
    EXPECT_EQ(entry[85], 0);
    EXPECT_EQ(part(entry, 100, 8), (std::vector<uint8_t>{0, 0, 0, 100, 0, 0, 1, 44}));
    EXPECT_EQ(part(entry, 144, 7), (std::vector<uint8_t>{0x02, 0, 0x5e, 0, 0x53, 0x01, 48}));
    EXPECT_EQ(part(entry, 162, 6), std::vector<uint8_t>(6, 0xff));
    const auto other = translated(3501, 10, "permit ip precedence 5 fragments");
    EXPECT_EQ(other[83], 0xa0);
    EXPECT_EQ(other[98], 0xe0);
    EXPECT_EQ(other[85], 1);
    EXPECT_EQ(translated(1501, 10, "permit ip dscp cs0")[98], 0xfc) << "class 0 is a class";
}

TEST_F(AclApi, ARuleRecordCarriesWildcardsAsMasks) {
    const auto entry = translated(1501, 10, "permit ip from 10.1.0.5 mask 0.0.254.0");
    EXPECT_EQ(part(entry, 4, 5), (std::vector<uint8_t>{10, 1, 0, 5, 0}));
    EXPECT_EQ(part(entry, 36, 5), (std::vector<uint8_t>{255, 255, 1, 255, 0}));
    EXPECT_EQ(entry[68], 0);
    EXPECT_EQ(part(translated(1501, 10, "permit sctp to any port 9"), 78, 4), (std::vector<uint8_t>{0, 9, 0, 9}));
}

TEST_F(AclApi, ARuleRecordWritesNothingBesideItsFields) {
    const auto entry = translated(1501, 10, "permit tcp from 10.1.2.3 port 5 to 192.0.2.1 port 80");
    EXPECT_EQ(part(entry, 93, 476 - 93), std::vector<uint8_t>(476 - 93));
    EXPECT_EQ(part(entry, 486, 508 - 486), std::vector<uint8_t>(508 - 486));
}

TEST_F(AclApi, AnAbsentRuleHasNoRecord) {
    aclStore().create(1501);
    const uint32_t noRule[3] = {1501, 10, 0}, noAcl[3] = {1502, 10, 0};
    std::vector<uint8_t> entry(ACL_DEV_ENTRY_BYTES);
    EXPECT_NE(aclRuleDevTrans(noRule, entry.data()), 0);
    EXPECT_NE(aclRuleDevTrans(noAcl, entry.data()), 0);
    EXPECT_EQ(aclRuleDevTrans(nullptr, entry.data()), BAD_ARGUMENT);
    EXPECT_EQ(part(entry, 476, 10), (std::vector<uint8_t>{0, 0, 5, 0xDE, 0, 0, 0, 10, 0, 10})) << "its name";
    std::fill_n(entry.begin() + 476, 10, 0);
    EXPECT_EQ(entry, std::vector<uint8_t>(ACL_DEV_ENTRY_BYTES)) << "and nothing else";
}

} // namespace
