// What may stand in front of the kernel device's nftables rules: a stage that decides packets sooner where it can do
// so exactly, and leaves all others to the rules. The rules are always complete; a stage may be off at any time.
//
// The kernel device calls everything with its lock held, around each change of the kernel:
//   before   the model is as wanted, the kernel is not yet: the stage lets go of what will not hold any more
//   after    the kernel is as the model: the stage makes itself equal to it
#ifndef HOST_DEVICE_KERNEL_KERNEL_FRONT_H
#define HOST_DEVICE_KERNEL_KERNEL_FRONT_H

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <linux/netlink.h>
#include <nlohmann/json_fwd.hpp>

#include "host/device/kernel/kernel_model.h"
#include "host/device/kernel/nft_codec.h"

namespace host {

class KernelFront {
public:
    virtual ~KernelFront() = default;

    // Result: empty, or why there can be no such stage.
    virtual std::string open(const KernelOptions &options) = 0;

    // Groups of NETLINK_ROUTE that the stage wants to hear beside those of the device.
    virtual std::vector<uint32_t> groups() const = 0;
    // A notification of the kernel, of nftables too. Event thread, without the lock. Result: work() is wanted.
    virtual bool hears(int protocol, const nlmsghdr *pMessage) = 0;

    // lists: those that were compiled since the latest call.
    virtual void before(const KernelModel &model, const std::set<std::string> &lists) = 0;
    // isDone: false: the kernel did not take the change, what it holds is not known.
    virtual void after(const KernelModel &model, const std::set<std::string> &lists, bool isDone) = 0;

    // Does what was put off, and looks again at what may have changed around. Result: when it wants to be called
    // again; 0: never. Also asked for after each `after` by the time that workDelay tells.
    virtual std::chrono::milliseconds work(const KernelModel &model) = 0;
    virtual std::chrono::milliseconds workDelay() const = 0; // 0: there is nothing to do

    // Removes everything of ours; the next `after` begins anew. Result: empty, or why not.
    virtual std::string flush() = 0;

    // What rules matched in front; to be added to what the rules behind counted.
    using CountKey = std::tuple<NodeKey, uint32_t, uint32_t>; // node, ACL, rule
    virtual std::map<CountKey, NftCount> counts() const = 0;
    virtual void countsClear() = 0;

    virtual nlohmann::json show() const = 0; // more fields of `show device`: "front" and "frontError"
    virtual std::vector<std::string> differences() = 0; // of the kernel, as KernelPlane::differences has them
    virtual std::vector<DeviceNotice> warnings() const = 0; // of what is around
};

} // namespace host

#endif
