// The probe service: answers the daemon's questions about probes on the route bus.
//
// A probe is named by (administrator, test). The daemon asks for the state of each that its next hops
// name; every question is answered. Probes cannot be configured yet: the answer is always "failing", so
// that a next hop tied to a probe carries no traffic before something watches it.
#ifndef HOST_NQA_NQA_SERVICE_H
#define HOST_NQA_NQA_SERVICE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/qrv_rtm.h"

namespace host {

constexpr uint8_t NQA_STATUS_PASSING = 1;
constexpr uint8_t NQA_STATUS_FAILING = 2;

// A probe that was asked for.
struct NqaProbe {
    std::string admin;
    std::string test;
    uint8_t status = NQA_STATUS_FAILING;
    uint64_t requests = 0;
};

// All of them, by name. Any thread. Lock: none (takes the service's own)
std::vector<NqaProbe> nqaProbes();

// The status message that answers a request. request: a whole message; none when it is not one (other
// type, too short, or a name of no or more than 32 bytes). Lock: none
std::optional<NqaStatusMsg> nqaAnswer(const std::vector<uint8_t> &request, uint8_t status);

// Listens to the bus and registers the operation "probes". Before the first request. Lock: none
void nqaStart();

} // namespace host

#endif
