// The memory device: exactly the redirect records it was given, for tests, for learning, and for running
// without privileges. No packet is forwarded by it.
//
// Records are keyed by (interface unit, ACL): an add inserts or replaces, a delete goes by key alone and
// succeeds for an absent one. The records of member ports of an aggregation are such records too. The
// record of a single rule is keyed by (interface unit, ACL, rule); adding or deleting the record of
// (interface unit, ACL), which stands for all rules that the ACL has then, lets go of its rule records. The
// number of records can be limited, and failures can be scripted, so that the daemon's retries can be seen.
// Beside the records it holds the desired state of the redirect view; what both say is shown side by side,
// nothing is corrected.
#ifndef HOST_DEVICE_MEMORY_MEMORY_DEVICE_H
#define HOST_DEVICE_MEMORY_MEMORY_DEVICE_H

#include <array>
#include <map>
#include <mutex>
#include <optional>
#include <tuple>
#include <vector>

#include "host/device/desired/desired_show.h"
#include "host/device/device.h"
#include "platform/acl.h"
#include "platform/acl_dev_entry.h"

namespace host {

// A scripted failure: of the calls that it is about, the first `after` succeed and the next `count` fail.
struct MemoryFault {
    uint32_t count = 1;
    uint32_t after = 0;
    std::optional<uint32_t> ifUnit; // none: any
    std::optional<uint32_t> aclNum; // none: any
    uint32_t command = PBR_HW_ACL_ADD; // or PBR_HW_ACL_DEL, ACL_DEV_RULE_ADD, ACL_DEV_RULE_DEL
    int32_t code = 0;                  // what the call returns, not 0
};

class MemoryDevice : public Device {
public:
    using Record = std::array<uint8_t, PBR_HW_ACL_CONTENT_BYTES>;
    using Key = std::pair<uint32_t, uint32_t>; // interface unit, ACL

    using RuleRecord = std::array<uint8_t, ACL_DEV_ENTRY_BYTES>;
    using RuleKey = std::tuple<uint32_t, uint32_t, uint32_t>; // interface unit, ACL, rule

    // capacity: most records held (without those of rules), 0 without limit; an add beyond it returns
    // QRV_ERR_NO_RECORD. memberEntries: what needsMemberEntries answers.
    explicit MemoryDevice(size_t capacity, bool memberEntries = false);

    std::string start() override;
    int32_t add(uint32_t ifUnit, uint32_t aclNum, const uint8_t *pRecord) override;
    int32_t del(uint32_t ifUnit, uint32_t aclNum, const uint8_t *pRecord) override;
    int32_t rule(uint32_t ifUnit, uint32_t command, const uint8_t *pEntry) override;
    bool needsMemberEntries() const override { return hasMemberEntries; }
    void storeChanged() override PBR_LOCK_HELD;
    void aclChanged(uint32_t aclNum) override;
    std::string settle() override;

    // Forgets the records; the daemon still counts its entries as programmed, as after any flush.
    std::string flush() override;
    nlohmann::json show() override;
    nlohmann::json explain(const PacketQuestion &question) override;
    nlohmann::json recordsShow() override;

    // Adds a scripted failure behind those that are there; a count of 0 removes them all. Lock: takes
    void faultAdd(const MemoryFault &fault);

    // The records now. Lock: takes
    std::map<Key, Record> records() const;
    std::map<RuleKey, RuleRecord> ruleRecords() const;

private:
    int32_t faultOf(uint32_t command, const Key &key);
    void rulesForget(const Key &key);
    bool isMember(const Key &key) const;
    nlohmann::json recordRows() const;
    EntryStatus statusOf(const RedirectEntry &entry) const;

    mutable std::mutex lock;
    const size_t capacity;
    const bool hasMemberEntries;
    std::map<Key, Record> held;
    std::map<RuleKey, RuleRecord> heldRules;
    std::map<Key, int32_t> failed; // code of the last add, when it failed
    std::vector<MemoryFault> faults;
    bool hasState = false; // the whole view was taken once
    DesiredState desired;
    struct {
        uint64_t adds = 0, addErrors = 0, dels = 0, delErrors = 0, delsAbsent = 0, storeChanges = 0,
                 aclChanges = 0, settles = 0, flushes = 0, ruleAdds = 0, ruleAddErrors = 0, ruleDels = 0,
                 ruleDelErrors = 0, ruleDelsAbsent = 0;
    } counters;
};

// Registers "device.fail" for the device, which outlives the event thread. Lock: none
void memoryDeviceMgmtRegister(MemoryDevice &device);

} // namespace host

#endif
