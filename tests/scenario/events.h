// Route messages of the scenarios, as the services send them; whole reads are joined from them.
#ifndef TESTS_SCENARIO_EVENTS_H
#define TESTS_SCENARIO_EVENTS_H

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "platform/qrv_rtm.h"
#include "tests/fake/fake.h"

namespace events {

using Bytes = std::vector<uint8_t>;

inline Bytes joined(std::initializer_list<Bytes> messages) {
    Bytes read;
    for (const Bytes &one : messages) {
        read.insert(read.end(), one.begin(), one.end());
    }
    return read;
}

inline Bytes up(const std::string &address, uint32_t vrf = 0) { return fake::hrd(QRV_RTM_HRD_UP, address, vrf); }
inline Bytes down(const std::string &address, uint32_t vrf = 0) { return fake::hrd(QRV_RTM_HRD_DOWN, address, vrf); }
inline Bytes change(const std::string &address, uint32_t vrf = 0) {
    return fake::hrd(QRV_RTM_HRD_CHANGE, address, vrf);
}

// ---- links ----

// A message about an interface with one attribute; 0: none.
inline Bytes link(uint16_t type, uint32_t unit, uint16_t attribute, uint32_t data) {
    LinkInfo info = {};
    info.ifIndex = unit;
    Bytes payload(sizeof(info) + (attribute == 0 ? 0 : 8));
    memcpy(payload.data(), &info, sizeof(info));
    if (attribute != 0) {
        const RtAttr head = {8, attribute};
        memcpy(payload.data() + sizeof(info), &head, sizeof(head));
        memcpy(payload.data() + sizeof(info) + sizeof(head), &data, sizeof(data));
    }
    return fake::message(type, payload.data(), static_cast<uint32_t>(payload.size()));
}
inline Bytes portJoins(uint32_t port, uint32_t aggregation) { return link(QRV_RTM_NEWLINK, port, 52, aggregation); }
inline Bytes memberAdded(uint32_t aggregation, uint32_t port) { return link(QRV_RTM_NEWLINK, aggregation, 66, port); }
inline Bytes memberRemoved(uint32_t aggregation, uint32_t port) { return link(QRV_RTM_NEWLINK, aggregation, 67, port); }
inline Bytes interfaceGone(uint32_t unit) { return link(QRV_RTM_DELLINK_FINAL, unit, 0, 0); }
inline Bytes portReset(uint32_t unit) {
    const PortResetMsg msg = {0, unit};
    return fake::message(QRV_RTM_RESETPORTCONFIG, &msg, sizeof(msg));
}

// ---- ACLs ----

inline Bytes ruleMessage(uint16_t type, uint32_t acl, uint32_t rule) {
    const AclRuleMsg msg = {acl, rule};
    return fake::message(type, &msg, sizeof(msg));
}
inline Bytes ruleAdded(uint32_t acl, uint32_t rule) { return ruleMessage(QRV_RTM_ACL_ADDACLRULE, acl, rule); }
inline Bytes ruleRemoved(uint32_t acl, uint32_t rule) { return ruleMessage(QRV_RTM_ACL_DELACLRULE, acl, rule); }
inline Bytes aclRemoved(uint32_t acl) {
    const AclNumMsg msg = {acl};
    return fake::message(QRV_RTM_ACL_DELACL, &msg, sizeof(msg));
}

// ---- probes ----

inline Bytes probe(const std::string &admin, const std::string &test, uint8_t status) {
    NqaStatusMsg msg = {};
    memcpy(msg.adminName, admin.data(), admin.size());
    memcpy(msg.testName, test.data(), test.size());
    msg.adminNameLen = static_cast<uint8_t>(admin.size());
    msg.testNameLen = static_cast<uint8_t>(test.size());
    msg.status = status;
    return fake::message(QRV_RTM_NQA, &msg, sizeof(msg));
}

// ---- cards and slots: their words lie over the header, so the system's index is the message's length ----

constexpr uint32_t OWN_SYSTEM = QRV_RTM_HEADER_BYTES;
inline Bytes slotStarted() { return fake::message(QRV_RTM_SLOT_UP, nullptr, 0); }
inline Bytes cardStarted() { return fake::message(QRV_RTM_CARD_UP, nullptr, 0); }

} // namespace events

#endif
