// The compiled ingress program (ingress.bpf.c), as the build put it into this one.
#ifndef HOST_DEVICE_EBPF_EBPF_CODE_H
#define HOST_DEVICE_EBPF_EBPF_CODE_H

#include <cstddef>

namespace host {

extern const unsigned char ebpfCode[];
extern const size_t ebpfCodeSize;

} // namespace host

#endif
