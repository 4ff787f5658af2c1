// The process's diagnostic shell: its name.
#include "host/process/shell.h"

#include <mutex>

#include "platform/sil_process.h"

namespace host {
namespace {

std::mutex gLock;
std::string gName;

} // namespace

std::string shellName() {
    const std::lock_guard<std::mutex> guard(gLock);
    return gName;
}

} // namespace host

int32_t procShellInit(const char *name, uint32_t, uint32_t) {
    if (name == nullptr) {
        return -1;
    }
    const std::lock_guard<std::mutex> guard(host::gLock);
    host::gName = name;
    return 0;
}
