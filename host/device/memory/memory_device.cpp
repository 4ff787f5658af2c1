// See memory_device.h.
#include "host/device/memory/memory_device.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>

#include "host/device/memory/memory_record.h"
#include "host/device/memory/record_text.h"
#include "host/device/memory/rule_record.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"
#include "host/option/option.h"

namespace host {

namespace {

using nlohmann::json;

std::string failureText(int32_t code) {
    char text[64];
    std::snprintf(text, sizeof text, "the last add returned 0x%08" PRIX32, static_cast<uint32_t>(code));
    return code == static_cast<int32_t>(QRV_ERR_NO_RECORD) ? std::string(text) + ": no room for a record"
                                                           : text;
}

} // namespace

MemoryDevice::MemoryDevice(size_t mostRecords, bool memberEntries)
    : capacity(mostRecords), hasMemberEntries(memberEntries) {}

std::string MemoryDevice::start() {
    return "";
}

// The scripted result of a call, 0 when none applies. The lock is held.
int32_t MemoryDevice::faultOf(uint32_t command, const Key &key) {
    for (auto fault = faults.begin(); fault != faults.end(); ++fault) {
        const bool applies = fault->command == command && fault->ifUnit.value_or(key.first) == key.first &&
                             fault->aclNum.value_or(key.second) == key.second;
        if (!applies) {
            continue;
        }
        if (fault->after > 0) {
            fault->after--;
            continue;
        }
        const int32_t code = fault->code;
        if (--fault->count == 0) {
            faults.erase(fault);
        }
        return code;
    }
    return 0;
}

int32_t MemoryDevice::add(uint32_t ifUnit, uint32_t aclNum, const uint8_t *pRecord) {
    const std::lock_guard guard(lock);
    const Key key{ifUnit, aclNum};
    int32_t result = faultOf(PBR_HW_ACL_ADD, key);
    if (result == 0 && capacity != 0 && held.size() >= capacity && held.count(key) == 0) {
        result = static_cast<int32_t>(QRV_ERR_NO_RECORD);
    }
    if (result != 0) {
        failed[key] = result;
        counters.addErrors++;
        return result;
    }
    std::copy_n(pRecord, PBR_HW_ACL_CONTENT_BYTES, held[key].begin());
    rulesForget(key);
    failed.erase(key);
    counters.adds++;
    return 0;
}

int32_t MemoryDevice::del(uint32_t ifUnit, uint32_t aclNum, const uint8_t *) {
    const std::lock_guard guard(lock);
    const Key key{ifUnit, aclNum};
    const int32_t result = faultOf(PBR_HW_ACL_DEL, key);
    if (result != 0) {
        counters.delErrors++;
        return result;
    }
    if (held.erase(key) == 0) {
        counters.delsAbsent++;
    }
    rulesForget(key);
    failed.erase(key);
    counters.dels++;
    return 0;
}

// The lock is held.
void MemoryDevice::rulesForget(const Key &key) {
    const auto &[ifUnit, aclNum] = key;
    heldRules.erase(heldRules.lower_bound({ifUnit, aclNum, 0}),
                    heldRules.upper_bound({ifUnit, aclNum, UINT32_MAX}));
}

int32_t MemoryDevice::rule(uint32_t ifUnit, uint32_t command, const uint8_t *pEntry) {
    const std::lock_guard guard(lock);
    const uint32_t aclNum = loadBe32(pEntry + ACL_DEV_LST_IDX);
    const RuleKey key{ifUnit, aclNum, loadBe32(pEntry + ACL_DEV_RULE_IDX)};
    const int32_t result = faultOf(command, {ifUnit, aclNum});
    const bool isAdd = command == ACL_DEV_RULE_ADD;
    if (result != 0) {
        (isAdd ? counters.ruleAddErrors : counters.ruleDelErrors)++;
        return result;
    }
    if (isAdd) {
        std::copy_n(pEntry, ACL_DEV_ENTRY_BYTES, heldRules[key].begin());
        counters.ruleAdds++;
        return 0;
    }
    if (heldRules.erase(key) == 0) {
        counters.ruleDelsAbsent++; // came with the whole ACL, or was never there
    }
    counters.ruleDels++;
    return 0;
}

void MemoryDevice::storeChanged() {
    const std::lock_guard guard(lock);
    desiredStateTake(desired, !hasState);
    hasState = true;
    counters.storeChanges++;
}

void MemoryDevice::aclChanged(uint32_t) {
    const std::lock_guard guard(lock);
    counters.aclChanges++;
}

std::string MemoryDevice::settle() {
    const std::lock_guard guard(lock);
    counters.settles++;
    return "";
}

std::string MemoryDevice::flush() {
    const std::lock_guard guard(lock);
    held.clear();
    heldRules.clear();
    counters.flushes++;
    return "";
}

EntryStatus MemoryDevice::statusOf(const RedirectEntry &entry) const {
    const Key key{entry.ifUnit, entry.aclNum};
    const auto failure = failed.find(key);
    return {held.count(key) != 0, failure == failed.end() ? "" : failureText(failure->second)};
}

// Whether a record is there for a member of an aggregation: its ACL is bound, on other interfaces only.
// The lock is held.
bool MemoryDevice::isMember(const Key &key) const {
    bool isElsewhere = false;
    for (const auto &[list, entries] : desired.lists) {
        for (const auto &[place, entry] : entries) {
            if (entry.aclNum == key.second && entry.ifUnit == key.first) {
                return false;
            }
            isElsewhere = isElsewhere || entry.aclNum == key.second;
        }
    }
    return isElsewhere;
}

// The lock is held.
json MemoryDevice::recordRows() const {
    json rows = json::array();
    for (const auto &[key, record] : held) {
        rows.push_back(memoryRecordShow(record.data()));
        rows.back()["member"] = isMember(key);
    }
    return rows;
}

json MemoryDevice::recordsShow() {
    const std::lock_guard guard(lock);
    json rules = json::array();
    for (const auto &[key, record] : heldRules) {
        rules.push_back(ruleRecordShow(std::get<0>(key), record.data()));
    }
    return {{"records", recordRows()}, {"ruleRecords", std::move(rules)}};
}

json MemoryDevice::show() {
    const std::lock_guard guard(lock);
    const auto status = [this](const RedirectEntry &entry) { return statusOf(entry); };
    return {{"kind", "memory"},
            {"capacity", capacity},
            {"faults", faults.size()},
            {"entries", desiredStateShow(desired, status)},
            {"records", recordRows()},
            {"counters",
             {{"records", held.size()},
              {"ruleRecords", heldRules.size()},
              {"ruleAdds", counters.ruleAdds},
              {"ruleAddErrors", counters.ruleAddErrors},
              {"ruleDels", counters.ruleDels},
              {"ruleDelErrors", counters.ruleDelErrors},
              {"ruleDelsAbsent", counters.ruleDelsAbsent},
              {"adds", counters.adds},
              {"addErrors", counters.addErrors},
              {"dels", counters.dels},
              {"delErrors", counters.delErrors},
              {"delsAbsent", counters.delsAbsent},
              {"storeChanges", counters.storeChanges},
              {"aclChanges", counters.aclChanges},
              {"settles", counters.settles},
              {"flushes", counters.flushes}}}};
}

void MemoryDevice::faultAdd(const MemoryFault &fault) {
    const std::lock_guard guard(lock);
    if (fault.count == 0) {
        faults.clear();
        return;
    }
    faults.push_back(fault);
}

std::map<MemoryDevice::Key, MemoryDevice::Record> MemoryDevice::records() const {
    const std::lock_guard guard(lock);
    return held;
}

std::map<MemoryDevice::RuleKey, MemoryDevice::RuleRecord> MemoryDevice::ruleRecords() const {
    const std::lock_guard guard(lock);
    return heldRules;
}

namespace {

// The call that a scripted failure is about, by its name; throws the refusal.
uint32_t commandOf(const std::string &call) {
    const std::pair<const char *, uint32_t> known[] = {{"add", PBR_HW_ACL_ADD},
                                                       {"del", PBR_HW_ACL_DEL},
                                                       {"rule-add", ACL_DEV_RULE_ADD},
                                                       {"rule-del", ACL_DEV_RULE_DEL}};
    for (const auto &[pName, command] : known) {
        if (call == pName) {
            return command;
        }
    }
    throw std::runtime_error("member \"call\" must be \"add\", \"del\", \"rule-add\" or \"rule-del\"");
}

} // namespace

void memoryDeviceMgmtRegister(MemoryDevice &device) {
    mgmtRegister("device.fail", true, [&device](const json &request) -> json {
        mgmtArgsOnly(request, {"count", "after", "unit", "acl", "call", "code"});
        constexpr uint32_t most = 0xFFFFFFFFu;
        MemoryFault fault;
        fault.count = mgmtArgNumber(request, "count", 0, most);
        fault.after = mgmtArgNumber(request, "after", 0, most, 0);
        if (request.contains("unit")) {
            fault.ifUnit = mgmtArgNumber(request, "unit", 1, most);
        }
        if (request.contains("acl")) {
            fault.aclNum = mgmtArgNumber(request, "acl", 1, most);
        }
        fault.command = commandOf(request.contains("call") ? mgmtArgText(request, "call") : "add");
        if (fault.count > 0) {
            fault.code = static_cast<int32_t>(mgmtArgNumber(request, "code", 1, most));
        }
        device.faultAdd(fault);
        return json::object();
    });
}

std::unique_ptr<Device> memoryDeviceMake() {
    auto pDevice = std::make_unique<MemoryDevice>(optionNumber("host.memory-capacity"),
                                                  optionGet("host.memory-member-entries") == "on");
    memoryDeviceMgmtRegister(*pDevice); // the process keeps its device for good
    return pDevice;
}

} // namespace host
