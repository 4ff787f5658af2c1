// In the place of the eBPF device, in builds without clang or libbpf.
#include "host/device/device.h"

namespace host {

std::unique_ptr<Device> ebpfDeviceMake() { return nullptr; }

} // namespace host
