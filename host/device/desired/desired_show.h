// Entries of the desired state as JSON, the same for every device.
#ifndef HOST_DEVICE_DESIRED_DESIRED_SHOW_H
#define HOST_DEVICE_DESIRED_DESIRED_SHOW_H

#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "host/device/device.h"

namespace host {

// What a device did with an entry.
struct EntryStatus {
    bool installed = false;
    std::string error; // why not, empty when there is nothing to say
};

// "192.0.2.1". version: 1 IPv4, 2 IPv6. Lock: none
std::string ipAddressText(uint8_t version, const IpAddress &address);

// One entry as device.h describes for Device::show; interface names are the kernel's. Lock: none
nlohmann::json redirectEntryShow(const RedirectEntry &entry, const EntryStatus &status);

// All entries, list by list, interfaces and nodes ascending. Lock: that of the state, held by caller
nlohmann::json desiredStateShow(const DesiredState &state,
                                const std::function<EntryStatus(const RedirectEntry &)> &statusOf);

} // namespace host

#endif
