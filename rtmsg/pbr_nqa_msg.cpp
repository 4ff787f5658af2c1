// Probe status: see the header.
#include "rtmsg/pbr_nqa_msg.h"

#include <cstring>

#include "core/pbr_trace.h"
#include "nexthop/pbr_ready_table.h"
#include "platform/qrv_rtm.h"
#include "store/pbr_nqa_entry.h"
#include "store/pbr_view_mark.h"

namespace {

constexpr char TEXT_RECEIVE[] = "pbr receive QRV_RTM_NQA,adminName=%.*s,testName=%.*s,status=%d.\r\n";
constexpr char TEXT_QUEUED[] = "nqa status change add to ready table.\r\n";
constexpr uint32_t NQA_STATUS_NO_RESULT = 3; // stored as failing

#define TRACE(...) PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, __VA_ARGS__)

int nameLen(uint8_t len) {
    return len < NQA_NAME_BYTES ? len : static_cast<int>(NQA_NAME_BYTES);
}

bool namesTest(const PbrNextHopEntry *pHop, const NqaStatusMsg &msg) {
    return pHop->nqaAdminNameLen == msg.adminNameLen && pHop->nqaTestNameLen == msg.testNameLen &&
           memcmp(pHop->nqaAdminName, msg.adminName, msg.adminNameLen) == 0 &&
           memcmp(pHop->nqaTestName, msg.testName, msg.testNameLen) == 0;
}

bool listNamesTest(const PbrListEntry *pList, const NqaStatusMsg &msg) {
    for (const PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr;
         pNode = pbrListNodeNext(pList, pNode)) {
        for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
             pHop = pbrNodeNextHopNext(pNode, pHop)) {
            if (namesTest(pHop, msg)) {
                return true;
            }
        }
    }
    return false;
}

// Once a list uses the test, every bound list behind it is queued as well: published behaviour.
void listsQueue(const NqaStatusMsg &msg) PBR_LOCK_HELD {
    bool matched = false;
    for (PbrListEntry *pList = pbrListFromUsedLink(listFirst(&gPbrInfo.usedTable)); pList != nullptr;
         pList = pbrListFromUsedLink(listNext(&gPbrInfo.usedTable, &pList->usedLink))) {
        const bool isUser = listNamesTest(pList, msg);
        if (isUser) {
            pbrViewMarkList(pList); // also with a use count of 0, which sixteen bindings give
        }
        if (pbrListRefCntGet(pList) == 0) {
            continue;
        }
        matched = matched || isUser;
        if (matched) {
            pbrReadyTableAdd(pList);
            TRACE(TEXT_QUEUED);
        }
    }
}

} // namespace

bool pbrNqaMsgRcv(PbrRtmRead *, const uint8_t *pMessage, int32_t) {
    NqaStatusMsg msg;
    memcpy(&msg, pMessage + QRV_RTM_HEADER_BYTES, sizeof(msg));
    TRACE(TEXT_RECEIVE, nameLen(msg.adminNameLen), msg.adminName, nameLen(msg.testNameLen), msg.testName,
          msg.status);
    PbrNqaEntry *pNqa = pbrNqaEntryGet(msg.adminName, msg.adminNameLen, msg.testName, msg.testNameLen);
    if (pNqa == nullptr || pNqa->status == msg.status) {
        return true;
    }
    // "No result" counts as a change from "failing" although the same is stored: published.
    pNqa->status = msg.status == NQA_STATUS_NO_RESULT ? PBR_NQA_STATUS_FAILING : msg.status;
    listsQueue(msg);
    return true;
}
