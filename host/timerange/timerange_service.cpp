// See timerange_service.h.
#include "host/timerange/timerange_service.h"

#include <pthread.h>
#include <signal.h>

namespace host {

TimerangeService::TimerangeService() {
    // Signals are for the program's own threads.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_setname_np(thread.native_handle(), "hosttimerange");
}

TimerangeService::~TimerangeService() {
    {
        const std::lock_guard guard(lock);
        isEnding = true;
    }
    work.notify_one();
    thread.join();
}

// Puts a binding in the delivery queue, once. The lock is held.
void TimerangeService::queue(const BindingPtr &binding) {
    if (!binding->isQueued) {
        binding->isQueued = true;
        queued.push_back(binding);
        work.notify_one();
    }
}

// Removes a binding if it is there. The lock is held; a delivery under way keeps its own reference.
void TimerangeService::drop(const Key &key) {
    const auto held = bindings.find(key);
    if (held != bindings.end()) {
        held->second->isBound = false;
        bindings.erase(held);
    }
}

void TimerangeService::bind(uint32_t id, const std::string &name, const TimerangeCallbacks &callbacks,
                            std::vector<uint8_t> context) {
    auto binding = std::make_shared<Binding>();
    binding->id = id;
    binding->name = name;
    binding->callbacks = callbacks;
    binding->context = std::move(context);
    const std::lock_guard guard(lock);
    drop({id, name});
    bindings[{id, name}] = binding;
    if (active.count(id) != 0) {
        queue(binding);
    }
}

void TimerangeService::unbind(uint32_t id, const std::string &name) {
    const std::lock_guard guard(lock);
    drop({id, name});
}

void TimerangeService::set(uint32_t id, bool isActive) {
    const std::lock_guard guard(lock);
    const bool changes = isActive ? active.insert(id).second : active.erase(id) != 0;
    if (!changes) {
        return;
    }
    for (auto held = bindings.lower_bound({id, ""}); held != bindings.end() && held->first.first == id;
         ++held) {
        queue(held->second);
    }
}

std::vector<TimerangeRow> TimerangeService::rows() const {
    const std::lock_guard guard(lock);
    std::map<uint32_t, TimerangeRow> rows;
    for (const uint32_t id : active) {
        rows[id].active = true;
    }
    for (const auto &[key, binding] : bindings) {
        rows[key.first].names.push_back(key.second);
    }
    std::vector<TimerangeRow> list;
    for (auto &[id, row] : rows) {
        row.id = id;
        list.push_back(std::move(row));
    }
    return list;
}

void TimerangeService::drain() {
    std::unique_lock guard(lock);
    idle.wait(guard, [this] { return queued.empty() && !isDelivering; });
}

void TimerangeService::run() {
    std::unique_lock guard(lock);
    while (!isEnding) {
        if (queued.empty()) {
            work.wait(guard);
            continue;
        }
        const BindingPtr binding = queued.front();
        queued.pop_front();
        binding->isQueued = false;
        deliver(binding, guard);
        if (queued.empty()) {
            idle.notify_all();
        }
    }
}

// Tells one binding its range's state if it does not know it. The lock is given up during the call.
void TimerangeService::deliver(const BindingPtr &binding, std::unique_lock<std::mutex> &guard) {
    const bool isActive = active.count(binding->id) != 0;
    if (!binding->isBound || (binding->told == isActive && !binding->repeat)) {
        return;
    }
    binding->told = isActive;
    binding->repeat = false;
    const TimerangeCallback callback = isActive ? binding->callbacks.start : binding->callbacks.stop;
    isDelivering = true;
    guard.unlock();
    callback(binding->context.data()); // no result to act on
    guard.lock();
    isDelivering = false;
    if (!binding->isBound) {
        retellName(binding->name);
    }
}

// The context of a removed binding was called: who took its name may have been told wrongly by that.
void TimerangeService::retellName(const std::string &name) {
    for (const auto &[key, binding] : bindings) {
        if (key.second == name) {
            binding->repeat = true;
            queue(binding);
        }
    }
}

TimerangeService &timerangeService() {
    // Never destroyed: the daemon's tasks may still call while the process ends.
    static TimerangeService *pService = new TimerangeService;
    return *pService;
}

} // namespace host
