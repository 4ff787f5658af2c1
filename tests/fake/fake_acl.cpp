// The ACL module of the fake.
#include "platform/acl.h"

#include <algorithm>
#include <cstring>

#include "core/pbr_bytes.h"
#include "platform/acl_dev_entry.h"
#include "tests/fake/fake_state.h"

namespace fake {

void acl(uint32_t aclNum, bool exists) {
    state().acls[aclNum] = exists;
}

void ruleTranslation(const std::vector<uint8_t> &record) {
    state().translation = record;
}

namespace {

std::string hops(const uint8_t *pArea) {
    uint32_t count = PBR_HW_ACL_NEXT_HOPS_BYTES / 4;
    while (count != 0 && pbrLoadBe32(pArea + 4 * (count - 1)) == 0) {
        --count;
    }
    std::string out;
    for (uint32_t i = 0; i < count; ++i) {
        out += text(i == 0 ? "%08x" : ",%08x", pbrLoadBe32(pArea + 4 * i));
    }
    return out;
}

} // namespace
} // namespace fake

using namespace fake;

extern "C" int32_t aclIfSetApi(uint32_t ifUnit, uint32_t command, PbrHwAclDesc *pDesc) {
    const uint8_t *p = static_cast<const uint8_t *>(pDesc->pContent);
    const std::string line =
        text("aclIfSetApi(%u, %u, if=%u acl=%u dir=%u act=%u pri=%u vrf=%u hops=", ifUnit, command,
             pbrLoadBe32(p + PBR_HW_ACL_IF_UNIT), pbrLoadBe32(p + PBR_HW_ACL_LST_INDEX),
             p[PBR_HW_ACL_DIRECTION], p[PBR_HW_ACL_ACTION], p[PBR_HW_ACL_NEW_IP_PRI],
             pbrLoadBe32(p + PBR_HW_ACL_VRF_ID)) +
        hops(p + PBR_HW_ACL_NEXT_HOPS) + ")";
    if (pDesc->len != PBR_HW_ACL_CONTENT_BYTES || p[11] != 0) {
        misuse(line + ": length or reserved byte");
    }
    return static_cast<int32_t>(fallible("aclIfSetApi", line, 0, FAULT_CODE));
}

extern "C" int32_t aclLstSyncApi(uint32_t aclNum, uint32_t command, int32_t *pDelta) {
    return static_cast<int32_t>(
        call("aclLstSyncApi", text("aclLstSyncApi(%u, %u, %d)", aclNum, command, *pDelta), 0));
}

extern "C" int32_t aclLstGetApi(uint32_t aclNum, uint32_t command, uint32_t *pValue) {
    auto found = state().acls.find(aclNum);
    const bool exists = found == state().acls.end() || found->second;
    const int64_t rc = fallible("aclLstGetApi", text("aclLstGetApi(%u, %u)", aclNum, command), exists ? 0 : -1,
                                FAULT_CODE);
    if (rc == 0 && pValue != nullptr) {
        *pValue = 1;
    }
    return static_cast<int32_t>(rc);
}

extern "C" int32_t aclRuleDevTrans(const uint32_t *pRuleKey, void *pEntry) {
    uint8_t *p = static_cast<uint8_t *>(pEntry);
    for (uint32_t i = 0; i < ACL_DEV_ENTRY_BYTES; ++i) {
        if (p[i] != 0) {
            misuse(text("aclRuleDevTrans(%u, %u): the record is not zeroed", pRuleKey[0], pRuleKey[1]));
            break;
        }
    }
    const std::vector<uint8_t> &record = state().translation;
    std::copy_n(record.begin(), std::min<size_t>(record.size(), ACL_DEV_ENTRY_BYTES), p);
    pbrStoreBe32(p + ACL_DEV_LST_IDX, pRuleKey[0]); // the ACL, the rule and its place in it
    pbrStoreBe32(p + ACL_DEV_RULE_IDX, pRuleKey[1]);
    pbrStoreBe16(p + ACL_DEV_PRIORITY, static_cast<uint16_t>(pRuleKey[1]));
    if (pRuleKey[2] != 0) {
        misuse(text("aclRuleDevTrans(%u, %u): third word", pRuleKey[0], pRuleKey[1]));
    }
    return static_cast<int32_t>(
        call("aclRuleDevTrans", text("aclRuleDevTrans(%u, %u)", pRuleKey[0], pRuleKey[1]), 0));
}
