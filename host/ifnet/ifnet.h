// Interfaces of the kernel: units are kernel interface indexes, names are the kernel's.
#ifndef HOST_IFNET_IFNET_H
#define HOST_IFNET_IFNET_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace host {

struct IfnetLink {
    uint32_t unit = 0;   // kernel interface index
    std::string name;
    bool up = false;     // administratively up and with carrier
    bool operator==(const IfnetLink &) const = default;
};

std::optional<IfnetLink> ifnetByUnit(uint32_t unit);           // any thread
std::optional<IfnetLink> ifnetByName(const std::string &name); // any thread
std::vector<IfnetLink> ifnetAll();                             // any thread

// The name of a unit; "if" and the number for one that does not exist.
std::string ifnetName(uint32_t unit);

// Calls `changed(link)` on the event thread when a link comes, changes (name, up) or goes (up = false, name kept).
void ifnetOnChange(std::function<void(const IfnetLink &)> changed);

// Starts following the kernel's link messages and reads the present links. Result: empty, or why not.
std::string ifnetStart();

} // namespace host

#endif
