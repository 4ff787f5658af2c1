// Route messages: types and layouts, as they travel on the route bus.
//
// All fields are in machine order and are copied with memcpy; a message starts at a 4-byte boundary.
// Every message begins with the 24-byte header; its payload starts at QRV_RTM_HEADER_BYTES.
#ifndef PLATFORM_QRV_RTM_H
#define PLATFORM_QRV_RTM_H

#include "platform/platform_types.h"

enum QrvRtmType : uint16_t {
    QRV_RTM_NEWLINK = 32,         // LinkInfo, then attributes
    QRV_RTM_DELLINK_FINAL = 34,   // LinkInfo
    QRV_RTM_CARD_UP = 97,         // SlotCardMsg, read over the header
    QRV_RTM_SLOT_UP = 108,        // SlotCardMsg, read over the header
    QRV_RTM_ACL_DELACL = 248,     // AclNumMsg
    QRV_RTM_ACL_ADDACLRULE = 250, // AclRuleMsg
    QRV_RTM_ACL_DELACLRULE = 251, // AclRuleMsg
    QRV_RTM_HRD_UP = 305,         // HrdPeerMsg
    QRV_RTM_HRD_DOWN = 306,       // HrdPeerMsg
    QRV_RTM_HRD_CHANGE = 307,     // HrdPeerMsg
    QRV_RTM_RESETPORTCONFIG = 324,// PortResetMsg
    QRV_RTM_NQA = 349,            // NqaStatusMsg
    QRV_RTM_NQA_STATEREQ = 350,   // NqaStatusMsg without status; sent by the daemon
};

constexpr uint32_t QRV_RTM_HEADER_BYTES = 24;
constexpr uint32_t QRV_RTM_ALIGN = 4;

struct RtMsgHeader {
    uint32_t length;  // bytes of the whole message, header included
    uint16_t type;    // QrvRtmType
    uint8_t rest[18]; // not read; zero in messages that are sent
};
static_assert(sizeof(RtMsgHeader) == QRV_RTM_HEADER_BYTES);

struct LinkInfo {
    uint32_t word0;   // not read
    uint32_t ifIndex; // interface unit
    uint8_t rest[16]; // not read
};
static_assert(sizeof(LinkInfo) == 24);

// Attributes of QRV_RTM_NEWLINK; the data of each is a u32 interface unit.
enum QrvRtmLinkAttr : uint16_t {
    QRV_RTM_LINK_JOINED = 52,       // LinkInfo names a port, the data the aggregation that it joined
    QRV_RTM_LINK_PORT_ADDED = 66,   // LinkInfo names an aggregation, the data the port added to it
    QRV_RTM_LINK_PORT_REMOVED = 67, // LinkInfo names an aggregation, the data the port removed from it
};

struct RtAttr {
    uint16_t length; // attribute header included
    uint16_t type;   // QrvRtmLinkAttr; others are skipped
};
static_assert(sizeof(RtAttr) == 4);

struct PortResetMsg {
    uint32_t word0;   // not read
    uint32_t ifIndex; // interface unit
};

struct AclRuleMsg {
    uint32_t listNum; // ACL number
    uint32_t ruleNum; // rule within that ACL
};

struct AclNumMsg {
    uint32_t aclNum;
};

struct HrdPeerMsg {
    uint8_t address[16]; // IPv4 in the first 4 bytes, or IPv6; network order
    uint8_t family;      // 1 IPv4, anything else IPv6
    uint8_t pad[3];
    uint32_t vrId;       // VRF of the peer
};
static_assert(sizeof(HrdPeerMsg) == 24);

constexpr uint32_t NQA_NAME_BYTES = 32;
struct NqaStatusMsg {
    uint8_t adminName[NQA_NAME_BYTES]; // not terminated
    uint8_t testName[NQA_NAME_BYTES];  // not terminated
    uint8_t adminNameLen;
    uint8_t testNameLen;
    uint8_t status; // 1 passing, 2 failing, 3 no result; 0 in a request
    uint8_t pad;
};
static_assert(sizeof(NqaStatusMsg) == 68);

#endif
