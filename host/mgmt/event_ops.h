// Operation "event" of the management socket: publishes a route message that has no source on this host
// (line cards, slots, port resets), or of which one more is wanted (links, probes), as its source would.
#ifndef HOST_MGMT_EVENT_OPS_H
#define HOST_MGMT_EVENT_OPS_H

#include <cstdint>
#include <vector>

#include <nlohmann/json.hpp>

namespace host {

struct EventMessage {
    uint32_t group;             // of the route bus
    std::vector<uint8_t> bytes; // one whole message
};

// The message for a request {"event": NAME, ...}; throws std::runtime_error for a refusal. Lock: none
EventMessage eventMessageOf(const nlohmann::json &request);

// Registers the operation. Before mgmtStart. Lock: none
void eventOpsRegister();

} // namespace host

#endif
