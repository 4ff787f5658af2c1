// See timerange_service.h. This file has the bindings and the delivery; timerange_ranges.cpp has the ranges.
#include "host/timerange/timerange_service.h"

#include <pthread.h>
#include <signal.h>

namespace host {

TimerangeService::TimerangeService(std::unique_ptr<TimerangeClock> pOfTime) : pClock(std::move(pOfTime)) {
    // Signals are for the program's own threads.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread = std::thread([this] { run(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_setname_np(thread.native_handle(), "hosttimerange");
    pClock->wakeSet([this](bool isJump) { wake(isJump); });
}

TimerangeService::~TimerangeService() {
    pClock->wakeSet(nullptr);
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
    if (isActiveNow(id)) {
        queue(binding);
    }
}

void TimerangeService::unbind(uint32_t id, const std::string &name) {
    const std::lock_guard guard(lock);
    drop({id, name});
}

// Queues the bindings of a range. The lock is held.
void TimerangeService::tell(uint32_t id, bool isRemoved) {
    for (auto held = bindings.lower_bound({id, ""}); held != bindings.end() && held->first.first == id;
         ++held) {
        held->second->isRemoved = held->second->isRemoved || isRemoved;
        queue(held->second);
    }
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

// What a binding is to be told now, taken down as told; none when it knows all. The lock is held.
TimerangeCallback TimerangeService::callbackFor(Binding &binding) const {
    if (!binding.isBound) {
        return nullptr;
    }
    if (binding.isRemoved) {
        binding.isRemoved = false;
        binding.told = false;
        return binding.callbacks.unbind;
    }
    const bool isActive = isActiveNow(binding.id);
    if (binding.told == isActive && !binding.repeat) {
        return nullptr;
    }
    binding.told = isActive;
    binding.repeat = false;
    return isActive ? binding.callbacks.start : binding.callbacks.stop;
}

// Tells one binding what it does not know. The lock is given up during the call.
void TimerangeService::deliver(const BindingPtr &binding, std::unique_lock<std::mutex> &guard) {
    const TimerangeCallback callback = callbackFor(*binding);
    if (callback == nullptr) {
        return;
    }
    isDelivering = true;
    guard.unlock();
    callback(binding->context.data()); // no result to act on
    guard.lock();
    isDelivering = false;
    if (!binding->isBound) {
        retellName(binding->name);
    } else if (binding->told != isActiveNow(binding->id) || binding->repeat) {
        queue(binding); // a range that was removed and is there again already
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
    static TimerangeService *pService = new TimerangeService(systemClock());
    return *pService;
}

} // namespace host
