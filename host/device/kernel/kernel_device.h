// The kernel device: the forwarding plane that steers real packets with nftables and policy routing.
//
// Level-triggered: it holds the desired state (what the redirect view says of all bound links) and
// keeps the kernel equal to it. Whatever the reason of a change, the lists concerned are compiled
// again and the differences applied. Everything it asks of the world comes through KernelDeviceHooks.
//
// States:
//   held      an earlier run's objects were found at start and are left as they are; leaves by release
//             (settle, or host.adopt-wait-ms after start, and then as soon as no peer is undetermined,
//             HOLD_EXTRA_MS at most); the desired state is only collected, add answers by what can be
//             expressed
//   live      every change is applied at once; but of lists that are kept (hold) the kernel keeps what it
//             has and the desired state is only collected, until release applies it in one step
//   flushed   flush removed everything; the next change of the desired state, add or settle goes back
//             to live
// Lock: its own, after the daemon's mutex; reading back and show ask the kernel without it.
#ifndef HOST_DEVICE_KERNEL_KERNEL_DEVICE_H
#define HOST_DEVICE_KERNEL_KERNEL_DEVICE_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/device/device.h"
#include "host/device/kernel/kernel_front.h"
#include "host/device/kernel/kernel_plane.h"
#include "host/device/kernel/surroundings.h"
#include "host/device/kernel/program_explain.h"
#include "host/event/event_loop.h"
#include "host/netlink/netlink_monitor.h"

namespace host {

struct KernelDeviceHooks {
    KernelOptions options;
    std::chrono::milliseconds adoptWait{10000};
    EventLoop *pLoop = nullptr;
    ProgramEnv env;
    std::function<std::vector<std::string>(DesiredState &, bool all)> take;      // desiredStateTake
    std::function<std::optional<RedirectEntry>(uint32_t ifUnit, uint32_t aclNum)> get; // the view's answer
    std::function<bool()> isUndetermined;                    // some peer's state is not known yet
    std::function<void()> askStore = [] {};                  // storeCompare is wanted soon
    std::function<std::chrono::steady_clock::time_point()> now = std::chrono::steady_clock::now;
    std::function<void(std::function<void()>)> onWorldChange; // routes or links changed; may be empty
    std::shared_ptr<KernelFront> pFront; // decides packets before our rules; null: the rules decide all
};
KernelDeviceHooks kernelDeviceHooks(); // on the real world, without a front

class KernelDevice : public Device {
public:
    static constexpr unsigned READ_NFT = 1, READ_RT = 2, READ_ALL = 3;

    explicit KernelDevice(KernelDeviceHooks hooks);
    ~KernelDevice() override; // event thread; stops its timers and notifications; leaves the kernel as it is

    std::string start() override;
    int32_t add(uint32_t ifUnit, uint32_t aclNum, const uint8_t *pRecord) override;
    int32_t del(uint32_t ifUnit, uint32_t aclNum, const uint8_t *pRecord) override;
    void storeChanged() override PBR_LOCK_HELD;
    void aclChanged(uint32_t aclNum) override;
    std::string settle() override;
    void hold(const std::set<std::string> &lists) override;
    std::vector<EntryError> release() override;
    std::vector<EntryError> trial() override;
    std::string flush() override;
    void listsChanged(const std::set<std::string> &lists) override;
    void check(std::function<void(nlohmann::json)> done) override;
    void storeCompare() override PBR_LOCK_HELD;
    std::vector<DeviceNotice> warnings() override;
    nlohmann::json show() override;
    nlohmann::json explain(const PacketQuestion &question) override;
    nlohmann::json costs(std::optional<uint32_t> ifUnit) override;
    nlohmann::json policyCounters() override;
    std::string policyCountersClear() override;

    // Routes or links changed: resolves everything again and looks what the kernel dropped. Event thread.
    void worldChanged();

    // Reads back what the kernel holds, repairs it, and removes what is not used any more. Event thread.
    void readBack(unsigned parts = READ_ALL);

    // Whether an earlier run's objects are still kept as they were found. Any thread. Lock: takes
    bool isHeld() const override;
    KernelCounters counters() const; // any thread. Lock: takes

private:
    using Place = std::pair<std::string, EntryKey>;

    void monitorsStart();
    std::vector<std::string> provisionalMerge(bool all, uint32_t ifUnit, uint32_t aclNum);
    std::string entryMerge(const RedirectEntry &entry);
    bool isDone(const RedirectEntry &wanted) const;
    ProgramList listCompile(const std::string &list) const;
    void listsCompile(const std::vector<std::string> &lists);
    void allCompile();
    void apply();
    std::string applyBehindFront();
    void compiledSet(const std::string &list, ProgramList program, bool isMore);
    void refusedRetry();
    void frontSoon();
    void frontHears(int protocol, const nlmsghdr *pMessage);
    std::vector<DeviceNotice> frontDifferences();
    NftCount frontCount(const std::map<KernelFront::CountKey, NftCount> &counts, const NodeKey &key, const ProgramNode &node) const;
    void readBackSoon(std::chrono::milliseconds delay, unsigned parts);
    void holdPoll();
    void adoptionEnd();
    std::vector<DeviceNotice> differencesNow();
    std::vector<DeviceNotice> entriesRefused() const;
    void checksAnswer(const std::vector<DeviceNotice> &storeNotices);
    Surroundings surroundingsBegin() const;
    uint32_t repairsLately() const;
    std::vector<EntryError> errorsOf(const KernelModel &model, const std::set<std::string> &lists) const;
    std::string aloneRefused(const RedirectEntry &entry) const;
    KernelEntryStatus statusOf(const std::string &list, const EntryKey &key) const;
    std::string firstError() const;
    std::string linkName(uint32_t unit) const;
    nlohmann::json entriesShow(const std::map<std::string, std::vector<uint64_t>> &packets) const;
    nlohmann::json decisionsShow() const;
    nlohmann::json listsShow() const;
    nlohmann::json stepsShow(const KernelCost &cost, bool isWithText) const;
    std::string passedBy(const PacketQuestion &question) const;
    void deciderShow(const ExplainNode &node, nlohmann::json &shown) const;
    uint64_t packetsOf(const std::string &list, const EntryKey &key,
                       const std::map<std::string, std::vector<uint64_t>> &packets,
                       const std::map<KernelFront::CountKey, NftCount> &front) const;

    KernelDeviceHooks hooks_;
    mutable std::mutex lock_;
    KernelPlane plane_;
    DesiredState state_;
    std::set<std::pair<uint32_t, uint32_t>> provisional_; // (unit, ACL) added, perhaps not in the view's lists yet
    std::set<std::string> merged_; // lists with entries that add put in; compiled when the store has changed
    std::string error_;    // of the latest apply, when it concerns no single entry
    std::set<std::string> compiled_; // lists that the front has not been told of
    bool isFrontAll_ = false;        // it is told of all
    std::set<std::string> kept_; // lists between hold and release
    std::deque<std::chrono::steady_clock::time_point> repairs_; // when drift was found, the latest last
    bool isStarted_ = false;
    bool isHeld_ = false;
    bool isFlushed_ = false;

    // Work that was posted looks whether the device still lives; it ends on the event thread.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);

    // Event thread only.
    std::unique_ptr<KernelSockets> readers_;
    std::unique_ptr<NetlinkMonitor> nftMonitor_, rtMonitor_;
    EventLoop::TimerId readBackTimer_ = 0, holdTimer_ = 0, frontTimer_ = 0;
    std::vector<std::pair<nlohmann::json, std::function<void(nlohmann::json)>>> checks_; // wait for the store
    EventLoop::TimerId checkTimer_ = 0;
    unsigned readParts_ = 0;      // what the appointed read-back reads
    bool isReadUrgent_ = false;   // it was appointed for a change of others
    std::set<uint32_t> linksLost_; // interfaces that went down since the routes were read back: not others' doing
    std::chrono::milliseconds held_{0};      // time spent in holdPoll
    std::chrono::milliseconds determined_{0}; // how long every peer has been known
};

// Checks of the hold are this far apart; a peer's first report needs a moment to reach the daemon.
constexpr std::chrono::milliseconds HOLD_POLL_MS{50}, HOLD_GRACE_MS{200}, HOLD_EXTRA_MS{5000};
constexpr std::chrono::milliseconds READ_BACK_MS{50}, FOREIGN_CHANGE_MS{5};

// A check waits so long for the store; the daemon gives its mutex back every three seconds at least.
constexpr std::chrono::milliseconds STORE_WAIT_MS{5000};
// Repairs of so long ago are of no interest to a check.
constexpr std::chrono::seconds REPAIRS_SPAN{60};

} // namespace host

#endif
