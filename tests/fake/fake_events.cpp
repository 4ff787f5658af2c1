// Route messages as the services send them: real bytes, so that the parser is always in the path.
#include <arpa/inet.h>

#include <cstring>

#include "platform/qrv_rtm.h"
#include "tests/fake/fake_state.h"

namespace fake {

std::vector<uint8_t> message(uint16_t type, const void *pPayload, uint32_t payloadLen, uint32_t lengthWord) {
    RtMsgHeader header = {};
    header.length = lengthWord != 0 ? lengthWord : QRV_RTM_HEADER_BYTES + payloadLen;
    header.type = type;
    std::vector<uint8_t> bytes(QRV_RTM_HEADER_BYTES + payloadLen);
    memcpy(bytes.data(), &header, sizeof(header));
    if (payloadLen != 0) {
        memcpy(bytes.data() + sizeof(header), pPayload, payloadLen);
    }
    return bytes;
}

std::vector<uint8_t> hrd(uint16_t type, const std::string &address, uint32_t vrf) {
    HrdPeerMsg msg = {};
    const bool isIpv6 = address.find(':') != std::string::npos;
    if (inet_pton(isIpv6 ? AF_INET6 : AF_INET, address.c_str(), msg.address) != 1) {
        misuse("not an address: " + address);
    }
    msg.family = isIpv6 ? 2 : 1;
    msg.vrId = vrf;
    return message(type, &msg, sizeof(msg));
}

void whenPeerGoesUp(const std::string &address, uint32_t vrf) {
    deliver(hrd(QRV_RTM_HRD_UP, address, vrf));
}
void whenPeerGoesDown(const std::string &address, uint32_t vrf) {
    deliver(hrd(QRV_RTM_HRD_DOWN, address, vrf));
}
void whenPeerChanges(const std::string &address, uint32_t vrf) {
    deliver(hrd(QRV_RTM_HRD_CHANGE, address, vrf));
}

} // namespace fake
