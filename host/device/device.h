// A forwarding plane of the host: what the daemon's entries end up in.
//
// Two kinds of input. (1) The daemon's own calls, record by record (add, del): a strict device keeps
// just those. (2) The redirect view: after every change of the store the daemon says so, and a
// level-triggered device makes the plane equal to the desired state computed from the view.
// Calls (1) and storeChanged come with the daemon's mutex held; everything else comes on the event
// thread without it. A device has a lock of its own.
#ifndef HOST_DEVICE_DEVICE_H
#define HOST_DEVICE_DEVICE_H

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "aclrule/acl_packet.h"
#include "hw/pbr_redirect_view.h"

namespace host {

using IpAddress = std::array<uint8_t, 16>; // network order; IPv4 in the first 4 bytes, rest 0

// A redirect of the view as a value.
struct RedirectEntry {
    std::string list;
    uint32_t nodeIndex = 0;
    uint32_t ifUnit = 0;
    uint32_t aclNum = 0;
    PbrRedirectKind kind = PBR_REDIRECT_ABSENT;
    uint8_t ipVer = 0; // 1, 2, 0 unknown
    bool ecmp = false;
    uint8_t newIpPri = 0;
    uint32_t vrfid = 0;
    uint32_t outIfUnit = 0;
    uint32_t configuredCount = 0;
    std::vector<IpAddress> nextHops;
    uint64_t choice = 0;              // see PbrRedirect
    std::optional<IpAddress> standby; // the next hop that follows when the one of nextHops is lost
    bool operator==(const RedirectEntry &) const = default;
};
RedirectEntry redirectEntryFrom(const PbrRedirect &redirect); // host/device/desired

// The desired state: for each list its entries, for each interface unit and node index.
struct DesiredState {
    // list name -> (ifUnit, nodeIndex) -> entry
    std::map<std::string, std::map<std::pair<uint32_t, uint32_t>, RedirectEntry>> lists;
};

// Brings `state` up to date from the redirect view. Result: names of the lists whose entries differ from
// before. Lock: held by caller (the daemon's mutex)
std::vector<std::string> desiredStateTake(DesiredState &state, bool all) PBR_LOCK_HELD; // host/device/desired

// Something that an operator should know, and what to do about it.
struct DeviceNotice {
    std::string code;   // one word for programs, such as "forwarding-off"
    std::string text;   // what is the case
    std::string advice; // what to do
    bool operator==(const DeviceNotice &) const = default;
};
nlohmann::json deviceNoticesShow(const std::vector<DeviceNotice> &notices); // [{"code", "text", "advice"}...]

// A packet that is thought of, on its way in.
struct PacketQuestion {
    uint32_t ifUnit = 0;     // the interface it enters through
    uint32_t mark = 0;       // its mark, as another program may have set it
    aclrule::AclPacket packet;
};

class Device {
public:
    virtual ~Device() = default;

    // Opens the plane; adopts what an earlier run left. Result: empty, or why it cannot be used.
    virtual std::string start() = 0;

    // aclIfSetApi: record is the 80-byte redirect record. Result: 0, or a code that the daemon counts
    // and retries; lastError then tells the text. Lock: held by caller (the daemon's mutex)
    virtual int32_t add(uint32_t ifUnit, uint32_t aclNum, const uint8_t *pRecord) = 0;
    virtual int32_t del(uint32_t ifUnit, uint32_t aclNum, const uint8_t *pRecord) = 0;

    // QRV_IF_RULE_DEVICE: the record of one rule of an ACL (platform/acl_dev_entry.h, 508 bytes); command:
    // ACL_DEV_RULE_ADD or ACL_DEV_RULE_DEL. A device that follows the rules of bound ACLs by itself has
    // nothing to do. Result: 0, or a code that the daemon counts. Lock: held by caller (the daemon's mutex)
    virtual int32_t rule(uint32_t ifUnit, uint32_t command, const uint8_t *pEntry);

    // Whether a member port of an aggregation needs entries of its own; false unless a device says so.
    // Any thread. Lock: none
    virtual bool needsMemberEntries() const;

    // devSyncStore found marks. Lock: held by caller (the daemon's mutex)
    virtual void storeChanged() PBR_LOCK_HELD = 0;

    // The rules of an ACL changed. Event thread.
    virtual void aclChanged(uint32_t aclNum) = 0;

    // The configuration is complete for now (end of an apply): a plane that keeps adopted state may let
    // go of what is no longer wanted. Event thread. Result: empty, or what could not be made right.
    virtual std::string settle() = 0;

    // Whether what an earlier run left is still kept as it was found, and the present configuration waits: it
    // ends some moments after settle at the latest. Any thread. Lock: takes the device's own
    virtual bool isHeld() const { return false; }

    // Keeps what the plane does for these lists, whatever the store says, until release; more lists may be
    // added. Event thread. A plane that follows the daemon's calls as they come does nothing.
    virtual void hold(const std::set<std::string> &) {}

    // Goes from what was held to what the store says now, in one step. Event thread. Result: the entries
    // of those lists that the plane cannot do; one without list for a failure that concerns none.
    struct EntryError {
        std::string list;
        uint32_t nodeIndex = 0;
        uint32_t ifUnit = 0;
        std::string error;
    };
    virtual std::vector<EntryError> release() { return {}; }

    // What release would answer, as far as it can be told without the plane itself. Event thread.
    virtual std::vector<EntryError> trial() { return {}; }

    // Removes everything of ours from the plane. Event thread. Result: empty, or why not.
    virtual std::string flush() = 0;

    // What the host keeps beside the daemon about nodes of these lists changed (desired/otherwise.h). Event
    // thread.
    virtual void listsChanged(const std::set<std::string> &) {}

    // Compares store, device and plane as they are now, before anything is repaired, and calls `done` once
    // on the event thread with {"compared": bool, "entries", "interfaces", "repairs",
    // "differences": [notice...], "warnings": [notice...]}. Event thread.
    virtual void check(std::function<void(nlohmann::json)> done);

    // The store as it is now is asked for by hostStoreAsk: compares it with what the device took.
    // Lock: held by caller (the daemon's mutex)
    virtual void storeCompare() PBR_LOCK_HELD {}

    // What outside of our own objects breaks forwarding. Event thread.
    virtual std::vector<DeviceNotice> warnings() { return {}; }

    // For `pbrctl show device`: {"kind": "kernel"|"memory", "entries": [{"list","node","interface",
    // "ifUnit","acl","action": "next-hops"|"out-interface"|"priority"|"inert"|"absent","ipVersion",
    // "ecmp","nextHops":[text...],"outInterface","vrf","priority","installed": bool,"error": text}],
    // "counters": {...}, ...device's own}. Event thread.
    virtual nlohmann::json show() = 0;

    // For `pbrctl explain`: what the plane does with such a packet, as programExplainShow has it, and
    // "notes": texts that go with the answer, "verdict" also "not policy" (never compared with the nodes);
    // of verdict "policy": "paths": [{"interface", "gateway", "weight"}] (none: routed as usual, "why"),
    // "action", "nextHops", "priority", "table". Event thread.
    virtual nlohmann::json explain(const PacketQuestion &question) = 0;

    // For `pbrctl explain --cost`: what a packet that enters through an interface (none: any that has a list) is compared
    // with at most, {"costs": [{"interface", "ipVersion", "lists": [name], "flat", "why", "mostLookUps", "mostRules",
    // "sections", "routingRules": {"decisions", "unsteered", "steered"}, "steps": [{"kind", "fields", "rules", "elements",
    // "reason", "first": [{"node", "rule", "text"}]}]}]}; of a device that forwards nothing an empty list and "note".
    // Event thread.
    virtual nlohmann::json costs(std::optional<uint32_t> ifUnit);

    // For `pbrctl show policy-counters`: {"counters": [{"list", "node", "ipVersion", "acl", "packets", "bytes",
    // "rules": [{"rule", "text", "packets", "bytes"}]}]}; of a device that counts nothing an empty list and
    // "note". Event thread.
    virtual nlohmann::json policyCounters();

    // Lets them begin at 0. Event thread. Result: empty, or why not.
    virtual std::string policyCountersClear();

    // For `pbrctl show device --records`: {"records": [...], "ruleRecords": [...]}, each as the daemon wrote
    // it; {"records": null, "note": why} of a device that keeps none. Event thread.
    virtual nlohmann::json recordsShow();
};

// Makers, one a kind; the device is not started. Lock: none
std::unique_ptr<Device> kernelDeviceMake(); // host/device/kernel
std::unique_ptr<Device> ebpfDeviceMake();   // host/device/ebpf; null: it was not built
std::unique_ptr<Device> memoryDeviceMake(); // host/device/memory; registers "device.fail"

// Makes the device that option host.device names and starts it, once. Result: empty, or why it cannot
// be used (the same text again at later calls). Any thread. Lock: none
std::string hostDeviceStart();

// Lets the device compare itself with the store (storeCompare) when the daemon gives its mutex back the next
// time: at its next command, or within three seconds. Any thread. Lock: none
void hostStoreAsk();

// That device; made and started by the first call of this function or of hostDeviceStart. It lives as
// long as the process.
Device &hostDevice();

} // namespace host

#endif
