// The probe service: probes that run (nqa_probes.h) and their operations on the management socket, whose
// members docs/management-socket.md lists.
#ifndef HOST_NQA_NQA_SERVICE_H
#define HOST_NQA_NQA_SERVICE_H

#include "host/nqa/nqa_probes.h"

namespace host {

// Listens to the bus and registers probes, probe.set, probe.del, probe.replaceAll and probe.clear. Before
// the first request. Lock: none
void nqaStart();

// Brings back the probes that the journal has. Event thread.
void nqaRestore();

} // namespace host

#endif
