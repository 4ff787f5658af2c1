// What host.device=kernel is in a build without netlink: a device that says so and does not start. See
// host/device/device.h.
#include <nlohmann/json.hpp>

#include "host/device/device.h"

namespace host {

namespace {

class NoKernelDevice : public Device {
public:
    std::string start() override {
        return "this build has no kernel device: use --option host.device=memory";
    }
    int32_t add(uint32_t, uint32_t, const uint8_t *) override { return -1; }
    int32_t del(uint32_t, uint32_t, const uint8_t *) override { return 0; }
    void storeChanged() override PBR_LOCK_HELD {}
    void aclChanged(uint32_t) override {}
    std::string settle() override { return start(); }
    std::string flush() override { return start(); }
    nlohmann::json show() override {
        return {{"kind", "kernel"}, {"entries", nlohmann::json::array()}, {"counters", nlohmann::json::object()}};
    }
    nlohmann::json explain(const PacketQuestion &) override {
        return {{"verdict", "unknown"}, {"why", start()}, {"nodes", nlohmann::json::array()}};
    }
};

} // namespace

std::unique_ptr<Device> kernelDeviceMake() {
    return std::make_unique<NoKernelDevice>();
}

} // namespace host
