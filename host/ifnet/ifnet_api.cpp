// The interface layer of the seam (platform/qrv_if.h) on the kernel's interfaces.
//
// Called with the daemon's mutex held: look-ups and notes only, under locks of the host's own.
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "host/device/device.h"
#include "host/ifnet/ifnet.h"
#include "host/ifnet/ifnet_state.h"
#include "host/logging/host_log.h"
#include "platform/acl_dev_entry.h"
#include "platform/qrv_if.h"
#include "platform/qrv_if_agg.h"

namespace {

constexpr int32_t DONE = 0;
constexpr int32_t REFUSED = -1;

struct Layer {
    std::mutex lock;
    std::map<uint32_t, std::set<uint32_t>> protocols; // unit -> protocol ids that are on
    host::IfnetCounters counters;
};

Layer &layer() {
    static Layer *pLayer = new Layer;
    return *pLayer;
}

int32_t refuse(uint32_t ifUnit, uint32_t command, const char *reason) {
    {
        const std::lock_guard guard(layer().lock);
        ++layer().counters.refused;
    }
    host::hostLog(host::LOG_LEVEL_WARNING, "ifnet", "interface %u: command %u refused: %s", ifUnit, command,
                  reason);
    return REFUSED;
}

int32_t protocolEnable(uint32_t ifUnit, uint32_t protocol) {
    if (!host::ifnetByUnit(ifUnit)) {
        return refuse(ifUnit, QRV_IF_PROTO_ENABLE, "no such interface");
    }
    const std::lock_guard guard(layer().lock);
    layer().protocols[ifUnit].insert(protocol);
    ++layer().counters.protocolEnables;
    return DONE;
}

// Of a unit that is gone too: what was on is off then, and its number may come back as another interface.
int32_t protocolDisable(uint32_t ifUnit, uint32_t protocol) {
    bool wasOn = false;
    {
        const std::lock_guard guard(layer().lock);
        const auto found = layer().protocols.find(ifUnit);
        if (found != layer().protocols.end()) {
            wasOn = found->second.erase(protocol) != 0;
            if (found->second.empty()) {
                layer().protocols.erase(found);
            }
        }
    }
    host::ifnetPolicyForget(ifUnit);
    if (!wasOn && !host::ifnetByUnit(ifUnit)) {
        return refuse(ifUnit, QRV_IF_PROTO_DISABLE, "no such interface");
    }
    const std::lock_guard guard(layer().lock);
    ++layer().counters.protocolDisables;
    return DONE;
}

int32_t ruleRecord(uint32_t ifUnit, const PbrDevRuleDesc *pDesc) {
    const bool isKnown = pDesc->type == ACL_DEV_RULE_ADD || pDesc->type == ACL_DEV_RULE_DEL;
    if (!isKnown || pDesc->pEntry == nullptr || pDesc->len != ACL_DEV_ENTRY_BYTES) {
        return refuse(ifUnit, QRV_IF_RULE_DEVICE, "the descriptor does not hold a 508-byte rule record");
    }
    const int32_t result =
        host::hostDevice().rule(ifUnit, pDesc->type, static_cast<const uint8_t *>(pDesc->pEntry));
    const std::lock_guard guard(layer().lock);
    ++(result == DONE ? layer().counters.ruleRecords : layer().counters.refused);
    return result;
}

// Name and terminator into `room` bytes, room > 0.
char *nameInto(uint32_t ifUnit, char *buffer, size_t room) {
    std::snprintf(buffer, room, "%s", host::ifnetName(ifUnit).c_str());
    return buffer;
}

} // namespace

namespace host {

IfnetCounters ifnetCounters() {
    const std::lock_guard guard(layer().lock);
    IfnetCounters counters = layer().counters;
    counters.resyncs = ifnetResyncs();
    return counters;
}

std::vector<uint32_t> ifnetProtocols(uint32_t unit) {
    const std::lock_guard guard(layer().lock);
    const auto found = layer().protocols.find(unit);
    return found == layer().protocols.end() ? std::vector<uint32_t>()
                                            : std::vector<uint32_t>(found->second.begin(), found->second.end());
}

bool ifnetHasPolicy(uint32_t unit) {
    const std::lock_guard guard(layer().lock);
    const auto found = layer().protocols.find(unit);
    return found != layer().protocols.end() && found->second.count(QRV_PROTO_POLICY_ROUTE) != 0;
}

std::vector<uint32_t> ifnetPolicyUnits() {
    const std::lock_guard guard(layer().lock);
    std::vector<uint32_t> units;
    for (const auto &[unit, protocols] : layer().protocols) {
        if (protocols.count(QRV_PROTO_POLICY_ROUTE) != 0) {
            units.push_back(unit);
        }
    }
    return units;
}

} // namespace host

extern "C" {

int32_t qrvIfGetApi(uint32_t ifUnit, uint32_t command, void *pValue) {
    if (command != QRV_IF_HWAPIFUNCDISPATCH || pValue == nullptr) {
        return refuse(ifUnit, command, "unknown command");
    }
    uint32_t function;
    std::memcpy(&function, pValue, sizeof(function));
    if (function != AGG_PORT_ADDED && function != AGG_PORT_REMOVED) {
        return refuse(ifUnit, command, "unknown function");
    }
    if (!host::ifnetByUnit(ifUnit)) {
        return refuse(ifUnit, command, "no such interface");
    }
    // The kernel's entries live on the aggregation; a device that copies a switch's may want more.
    uint8_t &answer = static_cast<uint8_t *>(pValue)[offsetof(AggDispatchReq, answer)];
    answer = static_cast<uint8_t>(host::hostDevice().needsMemberEntries() ? answer | AGG_MEMBER_ENTRIES
                                                                          : answer & ~AGG_MEMBER_ENTRIES);
    return DONE;
}

int32_t qrvIfSetApi(uint32_t ifUnit, uint32_t command, void *pValue) {
    if (pValue == nullptr) {
        return refuse(ifUnit, command, "no value");
    }
    if (command == QRV_IF_RULE_DEVICE) {
        return ruleRecord(ifUnit, static_cast<const PbrDevRuleDesc *>(pValue));
    }
    if (command != QRV_IF_PROTO_ENABLE && command != QRV_IF_PROTO_DISABLE) {
        return refuse(ifUnit, command, "unknown command");
    }
    uint32_t protocol;
    std::memcpy(&protocol, pValue, sizeof(protocol));
    return command == QRV_IF_PROTO_ENABLE ? protocolEnable(ifUnit, protocol)
                                          : protocolDisable(ifUnit, protocol);
}

char *qrvIfUnit2Name(uint32_t ifUnit, char *buffer, uint32_t size) {
    return size == 0 ? buffer : nameInto(ifUnit, buffer, size);
}

char *qrvIfIndex2Name(uint32_t ifIndex, char *buffer, uint32_t size) {
    return nameInto(ifIndex, buffer, static_cast<size_t>(size) + 1);
}
}
