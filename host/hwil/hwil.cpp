// The hardware layer of a host (platform/qrv_hwil.h): one system, no slots or cards that could be away.
//
// Readiness is answered with 1: the kernel and the memory device take entries at any time. The daemon's
// protocol id is the one scalar that can be written; it is kept and can be read back. Anything else is
// refused (set) or reads 0 (get).
#include "platform/qrv_hwil.h"

#include <atomic>

#include "platform/qrv_rtm.h"

namespace {

// Card and slot messages carry their length where the system's index is read: those that are a header
// alone, which holds all that is read of them, are about this host.
constexpr uint32_t SELF_SYS_INDEX = QRV_RTM_HEADER_BYTES;
constexpr uint32_t READY = 1;

std::atomic<uint32_t> gProtocol{0};

} // namespace

uint32_t qrvHwilScalarSet(uint32_t unit, uint32_t scalar, const uint32_t *pValue, uint32_t) {
    if (unit != 0 || scalar != QRV_SCALAR_PROTOCOL || pValue == nullptr) {
        return QRV_FAIL;
    }
    gProtocol = *pValue;
    return QRV_OK;
}

uint32_t qrvHwilScalarGet(uint32_t unit, uint32_t scalar, uint32_t *pValue) {
    uint32_t value = 0;
    if (unit == 0 && (scalar == QRV_SCALAR_READY || scalar == QRV_SCALAR_ARP_REFRESH)) {
        value = READY; // neighbours are refreshed by the host-route detection on its own time
    } else if (unit == 0 && scalar == QRV_SCALAR_PROTOCOL) {
        value = gProtocol;
    }
    if (pValue != nullptr) {
        *pValue = value;
    }
    return value;
}

uint32_t qrvHwilSlotGet(const uint32_t *, uint32_t, uint32_t *pValue) {
    if (pValue != nullptr) {
        *pValue = READY;
    }
    return READY;
}

uint32_t qrvHwilCardGet(const uint32_t *pKey, uint32_t attribute, uint32_t *pValue) {
    return qrvHwilSlotGet(pKey, attribute, pValue);
}

uint32_t qrvSelfSysIndex(void) {
    return SELF_SYS_INDEX;
}
