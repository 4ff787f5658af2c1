// Changes of several steps that the kernel takes over in one: hold, trial, release of the kernel device.
#include <utility>

#include "host/device/kernel/kernel_device.h"

namespace host {

void KernelDevice::hold(const std::set<std::string> &lists) {
    std::lock_guard guard(lock_);
    kept_.insert(lists.begin(), lists.end());
}

std::vector<Device::EntryError> KernelDevice::release() {
    std::lock_guard guard(lock_);
    const std::set<std::string> lists = std::exchange(kept_, {});
    refusedRetry();
    listsCompile({lists.begin(), lists.end()});
    if (!isFlushed_) {
        apply();
    }
    std::vector<EntryError> errors = errorsOf(plane_.model(), lists);
    if (!error_.empty()) {
        errors.insert(errors.begin(), {"", 0, 0, error_});
    }
    return errors;
}

// Why the entry cannot be expressed, looked at without its list; empty when it can.
std::string KernelDevice::aloneRefused(const RedirectEntry &entry) const {
    const EntryKey key{entry.ifUnit, entry.nodeIndex};
    return programCompile(entry.list, {{key, entry}}, hooks_.env).entries.at(key).error;
}

// Of a list that is kept, what can be said of the entry alone: the kernel sees it only later.
KernelEntryStatus KernelDevice::statusOf(const std::string &list, const EntryKey &key) const {
    if (kept_.count(list) == 0) {
        return plane_.model().status(list, key);
    }
    KernelEntryStatus status;
    status.error = aloneRefused(state_.lists.at(list).at(key));
    status.reason = "waits for the end of a change";
    return status;
}

// A copy of the model takes the lists: it refuses all that is not the kernel's to refuse.
std::vector<Device::EntryError> KernelDevice::trial() {
    std::lock_guard guard(lock_);
    KernelModel model = plane_.model();
    for (const std::string &list : kept_) {
        model.listSet(list, listCompile(list));
    }
    return errorsOf(model, kept_);
}

std::vector<Device::EntryError> KernelDevice::errorsOf(const KernelModel &model, const std::set<std::string> &lists) const {
    std::vector<EntryError> errors;
    for (const std::string &list : lists) {
        const auto entries = state_.lists.find(list);
        if (entries == state_.lists.end()) {
            continue;
        }
        for (const auto &[key, entry] : entries->second) {
            const std::string error = model.status(list, key).error;
            if (!error.empty()) {
                errors.push_back({list, key.second, key.first, error});
            }
        }
    }
    return errors;
}

} // namespace host
