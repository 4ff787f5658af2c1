// The interface layer: names of interfaces and commands on one interface.
#ifndef PLATFORM_QRV_IF_H
#define PLATFORM_QRV_IF_H

#include "platform/platform_types.h"

constexpr uint32_t QRV_IF_RULE_DEVICE = 44;       // set: write a device rule record (PbrDevRuleDesc)
constexpr uint32_t QRV_IF_HWAPIFUNCDISPATCH = 47; // get: hardware-function dispatch (AggDispatchReq)
constexpr uint32_t QRV_IF_PROTO_ENABLE = 56;      // set: switch a protocol on (u32 protocol id)
constexpr uint32_t QRV_IF_PROTO_DISABLE = 57;     // set: switch a protocol off (u32 protocol id)

constexpr uint32_t QRV_PROTO_POLICY_ROUTE = 206;  // the daemon's protocol id, "policy-route"

extern "C" {

// Asks about, or acts on, interface unit ifUnit; pValue is the command's own record, read or filled
// during the call. Result: 0, else failure. Lock: held by caller; takes the layer's own
int32_t qrvIfGetApi(uint32_t ifUnit, uint32_t command, void *pValue);
int32_t qrvIfSetApi(uint32_t ifUnit, uint32_t command, void *pValue);

// Writes the printable name of an interface, terminated, into buffer of size bytes (QrvIfUnit2Name)
// or of size + 1 bytes (qrvIfIndex2Name: at most size characters). An unknown unit gives "if" and its
// number. Result: buffer. Lock: none
char *qrvIfUnit2Name(uint32_t ifUnit, char *buffer, uint32_t size);
char *qrvIfIndex2Name(uint32_t ifIndex, char *buffer, uint32_t size);
}

#endif
