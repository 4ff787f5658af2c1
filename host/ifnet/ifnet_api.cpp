// The interface layer of the seam (platform/qrv_if.h) on the kernel's interfaces.
//
// Called with the daemon's mutex held: look-ups and notes only, under locks of the host's own.
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "host/ifnet/ifnet.h"
#include "host/ifnet/ifnet_state.h"
#include "host/logging/host_log.h"
#include "platform/qrv_if.h"

namespace {

constexpr uint32_t AGG_PORT_ADDED = 0x03E80135u;   // function word of a dispatch question
constexpr uint32_t AGG_PORT_REMOVED = 0x03E80136u;
constexpr size_t AGG_ANSWER_OFFSET = 8;            // u8; bit 0: the port needs entries of its own
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

// A unit that is gone is forgotten all the same: its number may come back as another interface.
int32_t protocolDisable(uint32_t ifUnit, uint32_t protocol) {
    {
        const std::lock_guard guard(layer().lock);
        const auto found = layer().protocols.find(ifUnit);
        if (found != layer().protocols.end()) {
            found->second.erase(protocol);
            if (found->second.empty()) {
                layer().protocols.erase(found);
            }
        }
    }
    if (!host::ifnetByUnit(ifUnit)) {
        return refuse(ifUnit, QRV_IF_PROTO_DISABLE, "no such interface");
    }
    const std::lock_guard guard(layer().lock);
    ++layer().counters.protocolDisables;
    return DONE;
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
    // Entries live on the aggregation device: no member port needs entries of its own.
    static_cast<uint8_t *>(pValue)[AGG_ANSWER_OFFSET] &= 0xFEu;
    return DONE;
}

int32_t qrvIfSetApi(uint32_t ifUnit, uint32_t command, void *pValue) {
    if (pValue == nullptr) {
        return refuse(ifUnit, command, "no value");
    }
    if (command == QRV_IF_RULE_DEVICE) {
        // The ACL module expands the rules of bound ACLs by itself: the record has nothing to add.
        const std::lock_guard guard(layer().lock);
        ++layer().counters.ruleRecords;
        return DONE;
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
