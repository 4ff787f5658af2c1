// Link and aggregation events: see the header.
#include "rtmsg/pbr_link_msg.h"

#include "core/pbr_bytes.h"
#include "core/pbr_trace.h"
#include "hw/pbr_agg_node_hw.h"
#include "hw/pbr_if_bind.h"
#include "platform/qrv_if.h"
#include "platform/qrv_if_agg.h"
#include "platform/qrv_rtm.h"
#include "store/pbr_if_entry.h"

namespace {

constexpr char TEXT_JOIN_AGG[] =
    "phy join agg,so pbr unbind on phy(phy=[%s],agg=[%s],pbr=[%.*s]).\r\n";
constexpr char TEXT_ADD_PHY[] = "agg add phy,so pbr bind on phy(agg=[%s],phy=[%s],pbr=[%.*s]).\r\n";
constexpr char TEXT_REMOVE_PHY[] =
    "agg remove phy,so pbr unbind on phy(agg=[%s],phy=[%s],pbr=[%.*s]).\r\n";
constexpr char TEXT_REMOVE_MSG[] = "pbr receive agg %d remove phy %d msg.\r\n";
constexpr char TEXT_DISPATCH[] =
    "agg %d call qrvIfGetApi failed with cmd QRV_IF_HWAPIFUNCDISPATCH.\r\n";
constexpr char TEXT_DELLINK[] = "pbr receive QRV_RTM_DELLINK_FINAL message.\r\n";
constexpr char TEXT_UNREGISTER[] =
    "Interface unregister,so pbr unbind(Interface=[%s],pbr=[%.*s]).\r\n";
constexpr char TEXT_RESET[] = "pbr receive QRV_RTM_RESETPORTCONFIG message.\r\n";
constexpr char TEXT_RESET_UNBIND[] =
    "pbr receive QRV_RTM_RESETPORTCONFIG,so pbr unbind(Interface=[%s],pbr=[%.*s]).\r\n";

#define TRACE(...) PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_EVENT, __VA_ARGS__)

constexpr int32_t LEAST_PAYLOAD = sizeof(LinkInfo);
constexpr uint32_t ATTRIBUTES_OFFSET = QRV_RTM_HEADER_BYTES + sizeof(LinkInfo);

struct IfName {
    char text[128];
};

IfName nameOf(uint32_t ifIndex) {
    IfName name = {};
    (void)qrvIfIndex2Name(ifIndex, name.text, sizeof(name.text) - 1);
    return name;
}

// A list's name for "%.*s".
#define LIST_ARGS(pIf) static_cast<int>((pIf)->pbrNameLen), (pIf)->pbrName

// Takes an interface out of policy routing. Result: of the unbind, or 0 of the delete.
uint32_t entryDrop(PbrIfEntry *pIf) PBR_LOCK_HELD {
    const uint32_t result = pbrIfEntryUnBind(pIf);
    return result != 0 ? result : static_cast<uint32_t>(pbrIfEntryDel(pIf));
}

void portJoined(uint32_t port, uint32_t agg) PBR_LOCK_HELD {
    PbrIfEntry *pIf = pbrIfEntryGet(port);
    if (pIf == nullptr) {
        return;
    }
    TRACE(TEXT_JOIN_AGG, nameOf(port).text, nameOf(agg).text, LIST_ARGS(pIf));
    (void)entryDrop(pIf); // an entry whose unbind fails stays; the next event finds it again
}

// Whether a member port needs entries of its own; a question that fails is answered no.
bool memberAsk(uint32_t agg, uint32_t function) PBR_LOCK_HELD {
    AggDispatchReq request = {};
    request.function = function;
    if (qrvIfGetApi(agg, QRV_IF_HWAPIFUNCDISPATCH, &request) != 0) {
        TRACE(TEXT_DISPATCH, static_cast<int32_t>(agg));
        return false;
    }
    return (request.answer & AGG_MEMBER_ENTRIES) != 0;
}

// Adding covers only programmed links.
void portAdded(uint32_t agg, uint32_t port) PBR_LOCK_HELD {
    const PbrIfEntry *pIf = pbrIfEntryGet(agg);
    if (pIf == nullptr || !memberAsk(agg, AGG_PORT_ADDED)) {
        return;
    }
    for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
         pLink = pbrIfIfNodeNext(pIf, pLink)) {
        if (pbrIfNodeHwStatusGet(pLink) == PBR_HW_PROGRAMMED) {
            TRACE(TEXT_ADD_PHY, nameOf(agg).text, nameOf(port).text, LIST_ARGS(pIf));
            (void)pbrAggNodeHwAdd(pLink, port); // logged there, not retried
        }
    }
}

// Removing covers links whose add failed too.
void portRemoved(uint32_t agg, uint32_t port) PBR_LOCK_HELD {
    TRACE(TEXT_REMOVE_MSG, static_cast<int32_t>(agg), static_cast<int32_t>(port));
    const PbrIfEntry *pIf = pbrIfEntryGet(agg);
    if (pIf == nullptr || !memberAsk(agg, AGG_PORT_REMOVED)) {
        return;
    }
    for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
         pLink = pbrIfIfNodeNext(pIf, pLink)) {
        const uint32_t hwStatus = pbrIfNodeHwStatusGet(pLink);
        if (hwStatus == PBR_HW_PROGRAMMED || hwStatus == PBR_HW_FAILED) {
            TRACE(TEXT_REMOVE_PHY, nameOf(agg).text, nameOf(port).text, LIST_ARGS(pIf));
            (void)pbrAggNodeHwDel(pLink, port);
        }
    }
}

void attributeApply(uint32_t ifIndex, uint16_t type, uint32_t data) PBR_LOCK_HELD {
    if (type == QRV_RTM_LINK_JOINED) {
        portJoined(ifIndex, data);
    } else if (type == QRV_RTM_LINK_PORT_ADDED) {
        portAdded(ifIndex, data);
    } else if (type == QRV_RTM_LINK_PORT_REMOVED) {
        portRemoved(ifIndex, data);
    }
}

uint32_t ifIndexOf(const uint8_t *pMessage) {
    return pbrLoadU32(pMessage + QRV_RTM_HEADER_BYTES + offsetof(LinkInfo, ifIndex));
}

} // namespace

void pbrNewLinkProcess(const uint8_t *pMessage, int32_t payloadLen) {
    const uint32_t length = pbrLoadU32(pMessage + offsetof(RtMsgHeader, length));
    if (payloadLen < LEAST_PAYLOAD || length < ATTRIBUTES_OFFSET) {
        return;
    }
    uint32_t left = length - ATTRIBUTES_OFFSET;
    const uint8_t *pAttr = pMessage + ATTRIBUTES_OFFSET;
    while (left >= sizeof(RtAttr)) {
        const uint32_t attrLen = pbrLoadU16(pAttr + offsetof(RtAttr, length));
        if (attrLen < sizeof(RtAttr) || attrLen > left) {
            return;
        }
        attributeApply(ifIndexOf(pMessage), pbrLoadU16(pAttr + offsetof(RtAttr, type)),
                       pbrLoadU32(pAttr + sizeof(RtAttr)));
        const uint32_t step = (attrLen + QRV_RTM_ALIGN - 1) & ~(QRV_RTM_ALIGN - 1);
        left = step < left ? left - step : 0;
        pAttr += step;
    }
}

uint32_t pbrDelLinkProcess(const uint8_t *pMessage, int32_t payloadLen) {
    if (payloadLen < LEAST_PAYLOAD) {
        return 0;
    }
    PbrIfEntry *pIf = pbrIfEntryGet(ifIndexOf(pMessage));
    if (pIf == nullptr) {
        return 0;
    }
    TRACE(TEXT_UNREGISTER, nameOf(pIf->ifUnit).text, LIST_ARGS(pIf));
    return entryDrop(pIf);
}

bool pbrNewLinkMsgRcv(PbrRtmRead *, const uint8_t *pMessage, int32_t payloadLen) {
    pbrNewLinkProcess(pMessage, payloadLen);
    return true;
}

bool pbrDelLinkMsgRcv(PbrRtmRead *, const uint8_t *pMessage, int32_t payloadLen) {
    TRACE(TEXT_DELLINK);
    (void)pbrDelLinkProcess(pMessage, payloadLen); // an entry that could not be unbound stays
    return true;
}

bool pbrPortResetMsgRcv(PbrRtmRead *, const uint8_t *pMessage, int32_t) {
    TRACE(TEXT_RESET);
    const uint32_t ifIndex = pbrLoadU32(pMessage + QRV_RTM_HEADER_BYTES + offsetof(PortResetMsg, ifIndex));
    PbrIfEntry *pIf = pbrIfEntryGet(ifIndex);
    if (pIf == nullptr) {
        return false; // the rest of the read is dropped, unlike for other events: published
    }
    TRACE(TEXT_RESET_UNBIND, nameOf(ifIndex).text, LIST_ARGS(pIf));
    return entryDrop(pIf) == 0;
}
