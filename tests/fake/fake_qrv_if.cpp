// The interface layer of the fake.
#include "platform/qrv_if.h"

#include <cstdio>
#include <cstring>

#include "tests/fake/fake_state.h"

namespace fake {

void nameInterface(uint32_t unit, const std::string &name) {
    state().interfaceNames[unit] = name;
}

namespace {

std::string nameOf(uint32_t unit) {
    auto found = state().interfaceNames.find(unit);
    return found == state().interfaceNames.end() ? text("if%u", unit) : found->second;
}

} // namespace
} // namespace fake

using namespace fake;

extern "C" int32_t qrvIfGetApi(uint32_t ifUnit, uint32_t command, void *) {
    return static_cast<int32_t>(call("qrvIfGetApi", text("qrvIfGetApi(%u, %u)", ifUnit, command), 0));
}

extern "C" int32_t qrvIfSetApi(uint32_t ifUnit, uint32_t command, void *pValue) {
    std::string line = text("qrvIfSetApi(%u, %u", ifUnit, command);
    if (command == QRV_IF_PROTO_ENABLE || command == QRV_IF_PROTO_DISABLE) {
        uint32_t protocol;
        memcpy(&protocol, pValue, sizeof(protocol));
        line += text(", %u", protocol);
    }
    return static_cast<int32_t>(fallible("qrvIfSetApi", line + ")", 0, FAULT_CODE));
}

extern "C" char *qrvIfUnit2Name(uint32_t ifUnit, char *buffer, uint32_t size) {
    snprintf(buffer, size, "%s", nameOf(ifUnit).c_str());
    return buffer;
}

extern "C" char *qrvIfIndex2Name(uint32_t ifIndex, char *buffer, uint32_t size) {
    snprintf(buffer, size + 1, "%s", nameOf(ifIndex).c_str());
    return buffer;
}
