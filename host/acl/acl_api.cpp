// The daemon's side of the ACL module (platform/acl.h): existence, users, redirect records, and the
// device record of one rule.
//
// Called with the daemon's mutex held. Redirect records are checked here and handed to the device; the
// ACL itself need not exist: an entry whose ACL is empty or missing matches nothing.
#include "platform/acl.h"

#include <cstring>

#include "host/acl/acl_dev_entry.h"
#include "host/acl/acl_store.h"
#include "host/device/device.h"
#include "host/logging/host_log.h"

namespace {

constexpr int32_t RESULT_NO_ROW = static_cast<int32_t>(QRV_ERR_NO_ROW);
constexpr int32_t RESULT_BAD_ARGUMENT = static_cast<int32_t>(QRV_ERR_BAD_ARGUMENT);

uint32_t loadBe32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}

// Why a redirect call cannot be carried out; null when it can.
const char *redirectRefusal(uint32_t ifUnit, uint32_t command, const PbrHwAclDesc *pDesc) {
    if (command != PBR_HW_ACL_ADD && command != PBR_HW_ACL_DEL) {
        return "unknown command";
    }
    if (pDesc == nullptr || pDesc->pContent == nullptr || pDesc->len != PBR_HW_ACL_CONTENT_BYTES) {
        return "the descriptor does not hold an 80-byte record";
    }
    const auto *pRecord = static_cast<const uint8_t *>(pDesc->pContent);
    if (loadBe32(pRecord + PBR_HW_ACL_IF_UNIT) != ifUnit) {
        return "the record is of another interface";
    }
    if (loadBe32(pRecord + PBR_HW_ACL_LST_INDEX) == 0) {
        return "the record names no ACL";
    }
    return nullptr;
}

} // namespace

extern "C" {

int32_t aclIfSetApi(uint32_t ifUnit, uint32_t command, PbrHwAclDesc *pDesc) {
    const char *pRefusal = redirectRefusal(ifUnit, command, pDesc);
    if (pRefusal != nullptr) {
        host::hostLog(host::LOG_LEVEL_ERROR, "acl", "redirect of interface %u refused: %s (command %u)",
                      ifUnit, pRefusal, command);
        return RESULT_BAD_ARGUMENT;
    }
    const auto *pRecord = static_cast<const uint8_t *>(pDesc->pContent);
    const uint32_t aclNum = loadBe32(pRecord + PBR_HW_ACL_LST_INDEX);
    return command == PBR_HW_ACL_ADD ? host::hostDevice().add(ifUnit, aclNum, pRecord)
                                     : host::hostDevice().del(ifUnit, aclNum, pRecord);
}

int32_t aclLstSyncApi(uint32_t aclNum, uint32_t command, int32_t *pDelta) {
    if (command != ACL_LST_USERS || pDelta == nullptr) {
        return RESULT_BAD_ARGUMENT;
    }
    if (aclNum != 0) { // 0: the node has no ACL
        host::aclStore().usersAdd(aclNum, *pDelta);
    }
    return 0;
}

int32_t aclLstGetApi(uint32_t aclNum, uint32_t command, uint32_t *pValue) {
    if (command != ACL_LST_READ || pValue == nullptr) {
        return RESULT_BAD_ARGUMENT;
    }
    const auto rules = host::aclStore().snapshot(aclNum);
    if (rules == nullptr) {
        return RESULT_NO_ROW;
    }
    *pValue = static_cast<uint32_t>(rules->size());
    return 0;
}

int32_t aclRuleDevTrans(const uint32_t *pRuleKey, void *pEntry) {
    if (pRuleKey == nullptr || pEntry == nullptr) {
        return RESULT_BAD_ARGUMENT;
    }
    uint32_t key[3];
    std::memcpy(key, pRuleKey, sizeof key);
    const auto rules = host::aclStore().snapshot(key[0]);
    if (rules == nullptr || rules->count(key[1]) == 0) {
        // Gone since it was announced: it matches nothing, but its removal must find it.
        host::aclDevEntryName(key[0], key[1], static_cast<uint8_t *>(pEntry));
        return RESULT_NO_ROW;
    }
    host::aclDevEntryFill(key[0], key[1], rules->at(key[1]), static_cast<uint8_t *>(pEntry));
    return 0;
}
}
