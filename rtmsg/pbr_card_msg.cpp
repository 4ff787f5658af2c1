// A line card or slot came up: see the header.
#include "rtmsg/pbr_card_msg.h"

#include "core/pbr_bytes.h"
#include "core/pbr_trace.h"
#include "hw/pbr_if_node_hw.h"
#include "platform/qrv_hwil.h"

namespace {

constexpr char TEXT_CARD[] =
    "pbr receive QRV_RTM_CARD_UP,rtm_type=%d,sysId=%d,slotId=%d,cardId=%d,type=%d.\r\n";
constexpr char TEXT_SLOT[] = "pbr receive QRV_RTM_SLOT_UP,rtm_type=%d,sysId=%d,slotId=%d,type=%d.\r\n";

constexpr uint32_t SLOT_READY = 0x01F4002Bu; // attribute: non-zero when ready for programming
constexpr uint32_t CARD_READY = 0x02EE002Au;
constexpr uint32_t SLOT_WORDS = 3;
constexpr uint32_t CARD_WORDS = 4;

// The words that name a card or slot. sysId is the header's length word: compared as read.
struct CardKey {
    uint32_t word[CARD_WORDS]; // sysId, slotId, cardId (slot: its type), type
};

CardKey keyRead(const uint8_t *pMessage, uint32_t words) {
    CardKey key = {};
    for (uint32_t i = 0; i < words; i++) {
        key.word[i] = pbrLoadU32(pMessage + i * sizeof(uint32_t));
    }
    return key;
}

void linkRewrite(PbrIfNodeEntry *pLink) PBR_LOCK_HELD {
    const uint32_t hwStatus = pbrIfNodeHwStatusGet(pLink);
    if (hwStatus == PBR_HW_PROGRAMMED || hwStatus == PBR_HW_FAILED) {
        (void)pbrIfNodeHwDel(pLink); // results are counted and logged there
    }
    (void)pbrIfNodeHwAdd(pLink); // also for links that had no entry: published
}

void readyListsRewrite() PBR_LOCK_HELD {
    for (const PbrListEntry *pList = pbrListFromReadyLink(listFirst(&gPbrInfo.readyTable)); pList != nullptr;
         pList = pbrListFromReadyLink(listNext(&gPbrInfo.readyTable, &pList->readyLink))) {
        for (const PbrIfEntry *pIf = pbrListBoundIfFirst(pList); pIf != nullptr;
             pIf = pbrListBoundIfNext(pList, pIf)) {
            for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
                 pLink = pbrIfIfNodeNext(pIf, pLink)) {
                linkRewrite(pLink);
            }
        }
    }
}

bool isHardwareReady() {
    return qrvHwilScalarGet(0, QRV_SCALAR_ARP_REFRESH, nullptr) != 0 ||
           qrvHwilScalarGet(0, QRV_SCALAR_READY, nullptr) != 0;
}

} // namespace

bool pbrCardUpMsgRcv(PbrRtmRead *, const uint8_t *pMessage, int32_t) {
    const CardKey key = keyRead(pMessage, CARD_WORDS);
    const int32_t type = static_cast<int32_t>(key.word[3]);
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_CARD, type, static_cast<int32_t>(key.word[0]),
              static_cast<int32_t>(key.word[1]), static_cast<int32_t>(key.word[2]), type);
    if (qrvSelfSysIndex() == key.word[0] && qrvHwilCardGet(key.word, CARD_READY, nullptr) != 0 &&
        isHardwareReady()) {
        readyListsRewrite();
    }
    return true;
}

bool pbrSlotUpMsgRcv(PbrRtmRead *, const uint8_t *pMessage, int32_t) {
    const CardKey key = keyRead(pMessage, SLOT_WORDS);
    const int32_t type = static_cast<int32_t>(key.word[2]);
    PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, TEXT_SLOT, type, static_cast<int32_t>(key.word[0]),
              static_cast<int32_t>(key.word[1]), type);
    if (qrvSelfSysIndex() == key.word[0] && qrvHwilSlotGet(key.word, SLOT_READY, nullptr) != 0 &&
        isHardwareReady()) {
        readyListsRewrite();
    }
    return true;
}
