// The kernel device and the stage in front of its rules (kernel_front.h), where there is one.
#include <utility>

#include <linux/netlink.h>
#include <nlohmann/json.hpp>

#include "host/device/kernel/kernel_device.h"

namespace host {

// Lock: held by caller
void KernelDevice::compiledSet(const std::string &list, ProgramList program, bool isMore) {
    if (hooks_.pFront) {
        compiled_.insert(list);
    }
    plane_.model().listSet(list, std::move(program), isMore);
}

// What was refused may act otherwise from now on. Lock: held by caller
void KernelDevice::refusedRetry() {
    isFrontAll_ = isFrontAll_ || plane_.hasRefused();
    plane_.retryRefused();
}

// Lock: held by caller
std::string KernelDevice::applyBehindFront() {
    std::set<std::string> lists = std::exchange(compiled_, {});
    const auto allAdd = [&] {
        for (const auto &[list, program] : plane_.model().lists()) {
            lists.insert(list);
        }
    };
    if (std::exchange(isFrontAll_, false)) {
        allAdd();
    }
    const bool wasRefused = plane_.hasRefused();
    const uint64_t refusals = plane_.counters().refusals;
    hooks_.pFront->before(plane_.model(), lists);
    std::string error = plane_.apply();
    if (wasRefused || plane_.hasRefused() || plane_.counters().refusals != refusals) {
        allAdd();
        hooks_.pFront->before(plane_.model(), lists); // nodes that were refused are left out
    }
    hooks_.pFront->after(plane_.model(), lists, error.empty());
    isFrontAll_ = !error.empty();
    frontSoon();
    return error;
}

// Appoints the front's next work. Any thread. Lock: held by caller
void KernelDevice::frontSoon() {
    const std::chrono::milliseconds delay = hooks_.pFront->workDelay();
    if (delay.count() == 0) {
        return;
    }
    hooks_.pLoop->post([this, alive = std::weak_ptr(alive_), delay] {
        if (alive.expired() || frontTimer_ != 0) {
            return;
        }
        frontTimer_ = hooks_.pLoop->timerStart(delay, [this] {
            frontTimer_ = 0;
            std::lock_guard guard(lock_);
            if (!isHeld_ && !isFlushed_) {
                (void)hooks_.pFront->work(plane_.model()); // it is asked again below
                frontSoon();
            }
        });
    });
}

// Event thread, without the lock.
void KernelDevice::frontHears(int protocol, const nlmsghdr *pMessage) {
    if (hooks_.pFront && hooks_.pFront->hears(protocol, pMessage)) {
        std::lock_guard guard(lock_);
        frontSoon();
    }
}

// What packets of a node were counted in front. Lock: held by caller
NftCount KernelDevice::frontCount(const std::map<KernelFront::CountKey, NftCount> &counts, const NodeKey &key,
                                  const ProgramNode &node) const {
    NftCount sum;
    for (auto it = counts.lower_bound({key, node.aclNum, 0}); it != counts.end(); ++it) {
        const auto &[ofNode, aclNum, number] = it->first;
        if (ofNode != key || aclNum != node.aclNum) {
            break;
        }
        const auto rule = node.rules ? node.rules->find(number) : AclRules::const_iterator{};
        if (node.rules && rule != node.rules->end() && rule->second.permit) {
            sum.packets += it->second.packets;
            sum.bytes += it->second.bytes;
        }
    }
    return sum;
}

// Lock: held by caller
std::vector<DeviceNotice> KernelDevice::frontDifferences() {
    std::vector<DeviceNotice> notices;
    if (hooks_.pFront && !isHeld_ && !isFlushed_) {
        for (const std::string &line : hooks_.pFront->differences()) {
            notices.push_back({"kernel", line, "it is repaired at once; 'pbrctl check' again tells what remains"});
        }
        frontSoon();
    }
    return notices;
}

} // namespace host
