// The process's forwarding plane: chosen by option host.device, told when the daemon's store changed.
#include <nlohmann/json.hpp>

#include "host/device/device.h"
#include "host/option/option.h"
#include "platform/dev_sync.h"

namespace host {

namespace {

struct Chosen {
    std::unique_ptr<Device> pDevice;
    std::string error; // of start
};

std::unique_ptr<Device> make(const std::string &kind) {
    if (kind == "kernel") {
        return kernelDeviceMake();
    }
    return memoryDeviceMake(); // also for an unknown kind: it touches nothing
}

Chosen choose() {
    const std::string kind = optionGet("host.device").value_or("kernel");
    Chosen chosen{make(kind), ""};
    if (kind != "kernel" && kind != "memory") {
        chosen.error = "option host.device=" + kind + ": it must be kernel or memory";
    } else {
        chosen.error = chosen.pDevice->start();
    }
    return chosen;
}

const Chosen &chosenDevice() {
    // Never destroyed: the daemon's tasks may still call while the process ends.
    static const Chosen *pChosen = new Chosen(choose());
    return *pChosen;
}

} // namespace

int32_t Device::rule(uint32_t, uint32_t, const uint8_t *) {
    return 0;
}

bool Device::needsMemberEntries() const {
    return false;
}

nlohmann::json Device::recordsShow() {
    return {{"records", nullptr},
            {"note", "this device keeps no records: it follows the policy itself; show device has its entries"}};
}

std::string hostDeviceStart() {
    return chosenDevice().error;
}

Device &hostDevice() {
    return *chosenDevice().pDevice;
}

} // namespace host

extern "C" void devSyncStore(void) {
    // The daemon says this at every unlock; most of the time nothing was marked.
    if (pbrRedirectViewChanged() != 0) {
        host::hostDevice().storeChanged();
    }
}
