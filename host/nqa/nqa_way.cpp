// See nqa_way.h.
#include "host/nqa/nqa_way.h"

#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <vector>

#include "host/device/kernel/rt_codec.h"
#include "host/event/event_loop.h"
#include "host/ifnet/ifnet.h"
#include "host/logging/host_log.h"
#include "host/netlink/netlink_monitor.h"
#include "host/netlink/netlink_socket.h"

namespace host {

struct NqaWays::Kernel {
    std::unique_ptr<NetlinkSocket> pSocket;
    std::unique_ptr<NetlinkMonitor> pMonitor;
};

namespace {

constexpr uint16_t ADD = NLM_F_CREATE | NLM_F_EXCL;
constexpr uint16_t SET = NLM_F_CREATE | NLM_F_REPLACE;

uint8_t familyNumber(int version) {
    return version == 6 ? AF_INET6 : AF_INET;
}

int versionOf(uint8_t family) {
    return family == AF_INET6 ? 6 : 4;
}

size_t addressBytes(int version) {
    return version == 6 ? 16 : 4;
}

// table 0: the rule that says unreachable.
NetlinkMessage ruleMessageOf(bool isAdd, int version, const NqaWay &way, uint32_t table) {
    NetlinkMessage message(isAdd ? RTM_NEWRULE : RTM_DELRULE, isAdd ? ADD : uint16_t{0});
    fib_rule_hdr header = {};
    header.family = familyNumber(version);
    header.action = table == 0 ? FR_ACT_UNREACHABLE : FR_ACT_TO_TBL;
    message.header(header);
    message.putU32(FRA_PRIORITY, way.preference).putU32(FRA_FWMARK, way.mark).putU32(FRA_FWMASK, way.mask);
    if (table != 0) {
        message.putU32(FRA_TABLE, table);
    }
    message.putU8(FRA_PROTOCOL, NQA_PROTO);
    return message;
}

NetlinkMessage routeDelMessage(int version, uint32_t table) {
    NetlinkMessage message(RTM_DELROUTE, 0);
    rtmsg header = {};
    header.rtm_family = familyNumber(version);
    header.rtm_protocol = NQA_PROTO;
    header.rtm_scope = version == 6 ? RT_SCOPE_UNIVERSE : RT_SCOPE_NOWHERE; // nowhere: any
    message.header(header);
    message.putU32(RTA_TABLE, table);
    return message;
}

struct LeftRule {
    int version;
    uint32_t table; // 0: unreachable
    NqaWay way;
};

// Rules of one family: `foreign` of each that is not ours, `own` of ours.
NetlinkError rulesDump(NetlinkSocket &socket, int version, const std::function<void(uint32_t)> &foreign,
                       const std::function<void(const LeftRule &)> &own) {
    NetlinkMessage message(RTM_GETRULE, 0);
    fib_rule_hdr header = {};
    header.family = familyNumber(version);
    message.header(header);
    return socket.dump(message, [&](const nlmsghdr *pMessage) {
        const auto *pHeader = netlinkHeader<fib_rule_hdr>(pMessage);
        if (pMessage->nlmsg_type != RTM_NEWRULE || pHeader == nullptr) {
            return;
        }
        const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
        LeftRule rule{versionOf(pHeader->family), 0, {}};
        rule.way.preference = attrs.u32(FRA_PRIORITY).value_or(0);
        if (attrs.u8(FRA_PROTOCOL).value_or(0) != NQA_PROTO) {
            return foreign(rule.way.preference);
        }
        rule.way.mark = attrs.u32(FRA_FWMARK).value_or(0);
        rule.way.mask = attrs.u32(FRA_FWMASK).value_or(0);
        rule.table = pHeader->action == FR_ACT_TO_TBL ? attrs.u32(FRA_TABLE).value_or(pHeader->table) : 0;
        own(rule);
    }).error;
}

// Tables of one family that hold routes of ours, once for each.
std::vector<uint32_t> routesDump(NetlinkSocket &socket, int version) {
    NetlinkMessage message(RTM_GETROUTE, 0);
    rtmsg header = {};
    header.rtm_family = familyNumber(version);
    header.rtm_protocol = NQA_PROTO;
    message.header(header);
    std::vector<uint32_t> tables;
    // A failure leaves routes that no rule leads to.
    (void)socket.dump(message, [&](const nlmsghdr *pMessage) {
        const auto *pHeader = netlinkHeader<rtmsg>(pMessage);
        if (pMessage->nlmsg_type == RTM_NEWROUTE && pHeader != nullptr && pHeader->rtm_protocol == NQA_PROTO) {
            tables.push_back(NetlinkAttrs(pMessage, sizeof *pHeader).u32(RTA_TABLE).value_or(pHeader->rtm_table));
        }
    });
    return tables;
}

std::string vrfText(uint32_t vrf) {
    return vrf == 0 ? "" : " in VRF " + std::to_string(vrf);
}

} // namespace

NqaWays::NqaWays(const KernelOptions &options) : options_(options) {}

NqaWays::~NqaWays() = default;

std::string NqaWays::open() {
    try {
        auto pKernel = std::make_unique<Kernel>();
        pKernel->pSocket = std::make_unique<NetlinkSocket>(NETLINK_ROUTE);
        pKernel->pMonitor = std::make_unique<NetlinkMonitor>(
            NETLINK_ROUTE, std::vector<uint32_t>{RTNLGRP_IPV4_RULE, RTNLGRP_IPV6_RULE},
            [this](const nlmsghdr *pMessage) { ruleMessage(pMessage); }, [this] { rulesStale_ = repairNeeded_ = true; });
        pKernel_ = std::move(pKernel);
    } catch (const std::exception &error) {
        return error.what();
    }
    leftoversRemove();
    pKernel_->pMonitor->start(hostEventLoop(), [this] {
        if (std::exchange(repairNeeded_, false)) {
            refresh();
        }
    });
    return "";
}

void NqaWays::ruleMessage(const nlmsghdr *pMessage) {
    const auto *pHeader = netlinkHeader<fib_rule_hdr>(pMessage);
    const bool isOwn = pMessage->nlmsg_pid == pKernel_->pSocket->portId();
    if (isOwn || pHeader == nullptr || (pMessage->nlmsg_type != RTM_NEWRULE && pMessage->nlmsg_type != RTM_DELRULE)) {
        return;
    }
    rulesStale_ = true;
    const NetlinkAttrs attrs(pMessage, sizeof *pHeader);
    repairNeeded_ = repairNeeded_ || attrs.u8(FRA_PROTOCOL).value_or(0) == NQA_PROTO;
}

void NqaWays::leftoversRemove() {
    for (const int version : {4, 6}) {
        std::vector<LeftRule> left;
        const NetlinkError error = rulesDump(*pKernel_->pSocket, version, [](uint32_t) {},
                                             [&](const LeftRule &rule) { left.push_back(rule); });
        if (error) {
            hostLog(LOG_LEVEL_WARNING, "nqa", "rules of an earlier run cannot be read: %s", error.text.c_str());
        }
        for (const LeftRule &rule : left) {
            // Gone already or not permitted: then nothing is lost, the marks have no senders.
            NetlinkMessage message = ruleMessageOf(false, version, rule.way, rule.table);
            (void)pKernel_->pSocket->request(message);
        }
        for (const uint32_t table : routesDump(*pKernel_->pSocket, version)) {
            NetlinkMessage message = routeDelMessage(version, table);
            (void)pKernel_->pSocket->request(message);
        }
    }
}

void NqaWays::rulesRead() {
    if (!std::exchange(rulesStale_, false)) {
        return;
    }
    taken_.clear();
    for (const int version : {4, 6}) {
        const NetlinkError error = rulesDump(*pKernel_->pSocket, version,
                                             [&](uint32_t preference) { taken_.insert({version, preference}); },
                                             [](const LeftRule &) {});
        rulesStale_ = rulesStale_ || error;
    }
}

// From the end of the numbers: decisions of the kernel device begin with 1.
void NqaWays::idTake(const NqaWayKey &key, Held &held) {
    rulesRead();
    for (uint32_t id = kernelMarkLimit(options_); id > 0; id--) {
        const uint32_t preference = options_.rulePreference + id - 1;
        const uint32_t table = options_.tableBase + id;
        if (ids_.count({key.version, id}) != 0 || taken_.count({key.version, preference}) != 0 ||
            rtTableIsForeign(*pKernel_->pSocket, key.version, table)) {
            continue;
        }
        ids_.insert({key.version, id});
        held.way = {id, id << kernelMarkShift(options_), options_.markMask, preference, table, ""};
        return;
    }
    held.refusal = "no packet mark is left for its way (host.mark-mask, host.rule-preference)";
}

void NqaWays::resolve(const NqaWayKey &key, Held &held) {
    held.path.reset();
    held.way.problem.clear();
    if (!key.via) {
        return;
    }
    if (!key.interface.empty()) {
        if (const auto link = ifnetByName(key.interface)) {
            held.path = {link->unit, *key.via};
        } else {
            held.way.problem = "no interface " + key.interface;
        }
        return;
    }
    const auto egress = fibLookup(key.vrf, key.version, key.via->bytes);
    if (!egress) {
        held.way.problem = "no route to next hop " + nqaAddressText(*key.via) + vrfText(key.vrf);
        return;
    }
    held.path = {egress->ifIndex, *key.via};
    if (egress->hasGateway) {
        held.path->gateway = {egress->gatewayVersion, egress->gateway};
    }
}

// A route that stands as it should is told by EEXIST, without any notification of a change.
NetlinkError NqaWays::routeInstall(const NqaWayKey &key, Held &held) {
    if (!held.path) {
        return {};
    }
    const bool isSame = held.installed == held.path;
    NetlinkMessage message(RTM_NEWROUTE, isSame ? ADD : SET);
    rtmsg header = {};
    header.rtm_family = familyNumber(key.version);
    header.rtm_protocol = NQA_PROTO;
    header.rtm_type = RTN_UNICAST;
    header.rtm_flags = RTNH_F_ONLINK;
    message.header(header);
    message.putU32(RTA_TABLE, held.way.table).putU32(RTA_OIF, held.path->ifIndex);
    const NqaAddress &gateway = held.path->gateway;
    const size_t bytes = addressBytes(gateway.version);
    if (gateway.version == key.version) {
        message.put(RTA_GATEWAY, gateway.bytes.data(), bytes);
    } else {
        std::vector<uint8_t> value(sizeof(uint16_t) + bytes);
        const uint16_t family = familyNumber(gateway.version);
        std::memcpy(value.data(), &family, sizeof family);
        std::memcpy(value.data() + sizeof family, gateway.bytes.data(), bytes);
        message.put(RTA_VIA, value.data(), value.size());
    }
    NetlinkError error = pKernel_->pSocket->request(message);
    if (isSame && error.code == EEXIST) {
        error = {};
    }
    held.installed = error ? std::nullopt : held.path;
    return error;
}

// The look-up stands before the refusal: one that had to be made anew puts the other behind itself.
NetlinkError NqaWays::rulesInstall(const NqaWayKey &key, const Held &held) {
    const uint32_t table = key.via ? held.way.table : fibTableOfVrf(key.vrf);
    NetlinkMessage lookUp = ruleMessageOf(true, key.version, held.way, table);
    const NetlinkError error = pKernel_->pSocket->request(lookUp);
    if (error && error.code != EEXIST) {
        return error;
    }
    if (!error) {
        NetlinkMessage gone = ruleMessageOf(false, key.version, held.way, 0);
        (void)pKernel_->pSocket->request(gone); // usually there is none
    }
    NetlinkMessage refuse = ruleMessageOf(true, key.version, held.way, 0);
    const NetlinkError second = pKernel_->pSocket->request(refuse);
    return second.code == EEXIST ? NetlinkError() : second;
}

void NqaWays::install(const NqaWayKey &key, Held &held) {
    if (held.way.id == 0) {
        idTake(key, held);
    }
    if (held.way.id == 0) {
        return;
    }
    resolve(key, held);
    NetlinkError error = rulesInstall(key, held);
    const char *pWhat = "policy rule of its way";
    if (!error) {
        error = routeInstall(key, held);
        pWhat = "route of its way";
    }
    const bool isLinkDown = error.code == ENETDOWN; // get() says so while it is
    held.refusal = error && !isLinkDown ? netlinkErrorText(pWhat, error) : "";
}

void NqaWays::acquire(const NqaWayKey &key) {
    Held &held = held_[key];
    if (held.users++ > 0) {
        return;
    }
    const std::string error = isOpen() ? "" : open();
    if (!error.empty()) {
        held.refusal = "the kernel cannot be reached: " + error;
        return;
    }
    install(key, held);
}

void NqaWays::remove(const NqaWayKey &key, const Held &held) {
    if (held.way.id == 0) {
        return;
    }
    for (const uint32_t table : {key.via ? held.way.table : fibTableOfVrf(key.vrf), 0u}) {
        NetlinkMessage message = ruleMessageOf(false, key.version, held.way, table);
        (void)pKernel_->pSocket->request(message); // somebody may have taken it away
    }
    if (held.installed) {
        NetlinkMessage message = routeDelMessage(key.version, held.way.table);
        (void)pKernel_->pSocket->request(message); // gone with its link, perhaps
    }
    ids_.erase({key.version, held.way.id});
}

void NqaWays::release(const NqaWayKey &key) {
    const auto found = held_.find(key);
    if (found != held_.end() && --found->second.users == 0) {
        remove(key, found->second);
        held_.erase(found);
    }
}

NqaWay NqaWays::get(const NqaWayKey &key) const {
    const auto found = held_.find(key);
    if (found == held_.end()) {
        return {};
    }
    const Held &held = found->second;
    NqaWay way = held.way;
    const auto link = held.path ? ifnetByUnit(held.path->ifIndex) : std::nullopt;
    if (!held.refusal.empty()) {
        way.problem = held.refusal;
    } else if (held.path && (!link || !link->up)) {
        way.problem = "interface " + ifnetName(held.path->ifIndex) + " to next hop " + nqaAddressText(*key.via) + " is down";
    }
    return way;
}

void NqaWays::refresh() {
    if (!isOpen()) {
        return;
    }
    for (auto &[key, held] : held_) {
        install(key, held);
    }
}

} // namespace host
