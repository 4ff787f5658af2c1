// Operations "device.explain" of the management socket: what would happen to a packet; "device.counters" and
// "device.countersClear": what happened to those that came.
#ifndef HOST_MGMT_EXPLAIN_OPS_H
#define HOST_MGMT_EXPLAIN_OPS_H

#include <nlohmann/json.hpp>

#include "host/device/device.h"

namespace host {

// The packet of a request; throws std::runtime_error for a refusal. Lock: none
PacketQuestion packetQuestionOf(const nlohmann::json &request);

// Registers the operations. Lock: none
void explainOpsRegister();

} // namespace host

#endif
