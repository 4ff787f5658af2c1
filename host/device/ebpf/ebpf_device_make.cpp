// The eBPF device: the kernel device with the ingress stage in front of its rules.
#include "host/device/ebpf/ebpf_front.h"
#include "host/device/kernel/kernel_device.h"
#include "host/option/option.h"

namespace host {

std::unique_ptr<Device> ebpfDeviceMake() {
    const std::string redirect = optionGet("host.ebpf-redirect").value_or("auto");
    KernelDeviceHooks hooks = kernelDeviceHooks();
    hooks.pFront = std::make_shared<EbpfFront>(redirect == "on"    ? EbpfRedirect::On
                                               : redirect == "off" ? EbpfRedirect::Off
                                                                   : EbpfRedirect::Auto);
    return std::make_unique<KernelDevice>(std::move(hooks));
}

} // namespace host
