// What ifnet_links.cpp and ifnet_api.cpp share: counters of the interface layer. Not for others.
#ifndef HOST_IFNET_IFNET_STATE_H
#define HOST_IFNET_IFNET_STATE_H

#include <cstdint>

namespace host {

uint64_t ifnetResyncs(); // any thread

} // namespace host

#endif
