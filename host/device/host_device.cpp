// The process's forwarding plane: chosen by option host.device, told when the daemon's store changed.
#include <atomic>

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
    if (kind == "ebpf") {
        return ebpfDeviceMake();
    }
    return memoryDeviceMake(); // also for an unknown kind: it touches nothing
}

Chosen choose() {
    const std::string kind = optionGet("host.device").value_or("kernel");
    Chosen chosen{make(kind), ""};
    if (!chosen.pDevice) {
        chosen.pDevice = memoryDeviceMake();
        chosen.error = "option host.device=" + kind + ": this program was built without it (clang, libbpf)";
    } else if (kind != "kernel" && kind != "ebpf" && kind != "memory") {
        chosen.error = "option host.device=" + kind + ": it must be kernel, ebpf or memory";
    } else {
        chosen.error = chosen.pDevice->start();
    }
    return chosen;
}

std::atomic<bool> &storeAsked() {
    static std::atomic<bool> asked{false};
    return asked;
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

nlohmann::json deviceNoticesShow(const std::vector<DeviceNotice> &notices) {
    nlohmann::json shown = nlohmann::json::array();
    for (const DeviceNotice &notice : notices) {
        shown.push_back({{"code", notice.code}, {"text", notice.text}, {"advice", notice.advice}});
    }
    return shown;
}

void Device::check(std::function<void(nlohmann::json)> done) {
    const nlohmann::json none = nlohmann::json::array();
    done({{"compared", false}, {"entries", 0}, {"interfaces", 0}, {"repairs", 0}, {"differences", none},
          {"warnings", none}});
}

void hostStoreAsk() {
    storeAsked() = true;
}

nlohmann::json Device::costs(std::optional<uint32_t>) {
    return {{"costs", nlohmann::json::array()}, {"note", "this device forwards nothing and costs no packet anything"}};
}
nlohmann::json Device::policyCounters() {
    return {{"counters", nlohmann::json::array()}, {"note", "this device forwards nothing and counts no packets"}};
}

std::string Device::policyCountersClear() {
    return "this device forwards nothing and counts no packets";
}

std::string hostDeviceStart() {
    return chosenDevice().error;
}

Device &hostDevice() {
    return *chosenDevice().pDevice;
}

} // namespace host

extern "C" void devSyncStore(void) PBR_LOCK_HELD {
    // The daemon says this at every unlock; most of the time nothing was marked.
    if (pbrRedirectViewChanged() != 0) {
        host::hostDevice().storeChanged();
    }
    if (host::storeAsked().exchange(false)) {
        host::hostDevice().storeCompare();
    }
}
