// See acl_mgmt.h. Handlers run on the event thread, one at a time.
#include "host/acl/acl_mgmt.h"

#include <set>
#include <stdexcept>
#include <utility>

#include "host/acl/acl_store.h"
#include "host/bus/bus.h"
#include "host/device/device.h"
#include "host/journal/journal.h"
#include "host/mgmt/mgmt.h"
#include "host/mgmt/mgmt_args.h"
#include "host/mgmt/watch_feed.h"
#include "platform/qrv_rtm.h"
#include "platform/qrv_socket.h"

namespace host {

namespace {

using nlohmann::json;

constexpr const char *JOURNAL_SERVICE = "acl";
constexpr uint32_t NUMBER_MAX = 0xFFFFFFFFu;

std::string aclName(uint32_t aclNum) {
    return "ACL " + std::to_string(aclNum);
}

uint32_t checkedAcl(uint32_t aclNum) {
    if (!aclVersion(aclNum)) {
        throw std::runtime_error(
            "ACL number " + std::to_string(aclNum) +
            " cannot be used: IPv4 ACLs are 1001 to 2000, IPv6 ACLs 3001 to 4000, ACLs of "
            "either version 5001 and up");
    }
    return aclNum;
}

uint32_t aclOf(const json &request) {
    return checkedAcl(mgmtArgNumber(request, "acl", 1, NUMBER_MAX));
}

AclRule ruleOf(uint32_t aclNum, uint32_t ruleNum, const std::string &text) {
    std::string error;
    const auto rule = aclRuleParse(aclNum, text, &error);
    if (!rule) {
        throw std::runtime_error(aclName(aclNum) + " rule " + std::to_string(ruleNum) + ": " + error);
    }
    return *rule;
}

// {"10": "permit ...", ...}
AclRules rulesOf(uint32_t aclNum, const json &texts) {
    AclRules rules;
    for (const auto &[key, text] : texts.items()) {
        const uint32_t ruleNum = mgmtKeyNumber(key, "rule number", 1, NUMBER_MAX);
        if (!text.is_string()) {
            throw std::runtime_error(aclName(aclNum) + " rule " + key + " must be a text");
        }
        rules[ruleNum] = ruleOf(aclNum, ruleNum, text.get<std::string>());
    }
    return rules;
}

AclStore::Contents contentsOf(const json &acls) {
    AclStore::Contents contents;
    for (const auto &[key, rules] : acls.items()) {
        const uint32_t aclNum = checkedAcl(mgmtKeyNumber(key, "ACL number", 1, NUMBER_MAX));
        if (!rules.is_object()) {
            throw std::runtime_error(aclName(aclNum) + " must be an object of rule numbers and texts");
        }
        contents[aclNum] = rulesOf(aclNum, rules);
    }
    return contents;
}

void watchChange(const AclChange &change) {
    if (!watchIsOn()) {
        return;
    }
    nlohmann::json members = {{"acl", change.aclNum}};
    if (change.kind == AclChange::ACL_GONE) {
        members["change"] = "gone";
        return watchTell("acl", aclName(change.aclNum) + " is gone", std::move(members));
    }
    const bool isNew = change.kind == AclChange::RULE_NEW;
    const auto rules = aclSnapshot(change.aclNum);
    const bool isKnown = isNew && rules && rules->count(change.ruleNum) != 0;
    const std::string text = isKnown ? aclRuleFormat(change.aclNum, rules->at(change.ruleNum)) : "";
    members.update({{"rule", change.ruleNum}, {"change", isNew ? "rule new" : "rule gone"}, {"ruleText", text}});
    watchTell("acl", aclName(change.aclNum) + " rule " + std::to_string(change.ruleNum) +
                         (isNew ? " is new: " + text : " is gone"), std::move(members));
}

void publish(const AclChange &change) {
    if (change.kind == AclChange::ACL_GONE) {
        const AclNumMsg payload{change.aclNum};
        const auto message = busMessage(QRV_RTM_ACL_DELACL, &payload, sizeof payload);
        busPublish(QRV_RTNLGRP_ACL, message.data(), message.size());
        return;
    }
    const AclRuleMsg payload{change.aclNum, change.ruleNum};
    const uint16_t type =
        change.kind == AclChange::RULE_NEW ? QRV_RTM_ACL_ADDACLRULE : QRV_RTM_ACL_DELACLRULE;
    const auto message = busMessage(type, &payload, sizeof payload);
    busPublish(QRV_RTNLGRP_ACL, message.data(), message.size());
}

// What the journal keeps of an ACL; none: it does not exist.
std::optional<std::string> journalText(uint32_t aclNum) {
    const auto rules = aclStore().snapshot(aclNum);
    if (rules == nullptr) {
        return std::nullopt;
    }
    json texts = json::object();
    for (const auto &[ruleNum, rule] : *rules) {
        texts[std::to_string(ruleNum)] = aclRuleFormat(aclNum, rule);
    }
    return texts.dump();
}

void keep(const std::set<uint32_t> &aclNums) {
    JournalTexts texts;
    for (const uint32_t aclNum : aclNums) {
        texts[std::to_string(aclNum)] = journalText(aclNum);
    }
    journalKeep(JOURNAL_SERVICE, texts);
}

// Tells the device and the bus. Result: the warnings about ACLs that went away while in use.
json tell(const AclStore::Changes &changes) {
    std::set<uint32_t> changed;
    json warnings = json::array();
    for (const AclChange &change : changes) {
        changed.insert(change.aclNum);
        const int64_t users = aclStore().users(change.aclNum);
        if (change.kind == AclChange::ACL_GONE && users > 0) {
            warnings.push_back(aclName(change.aclNum) + " had " + std::to_string(users) +
                               " users: their entries match nothing until it is made again");
        }
    }
    for (const uint32_t aclNum : changed) {
        hostDevice().aclChanged(aclNum);
    }
    for (const AclChange &change : changes) {
        publish(change);
        watchChange(change);
    }
    return warnings;
}

// also: an ACL that may be new without a rule of its own.
json answerOf(const AclStore::Changes &changes, const std::set<uint32_t> &also = {}) {
    json warnings = tell(changes);
    std::set<uint32_t> changed = also;
    for (const AclChange &change : changes) {
        changed.insert(change.aclNum);
    }
    keep(changed);
    json answer = {{"changes", changes.size()}};
    if (!warnings.empty()) {
        answer["warnings"] = std::move(warnings);
    }
    return answer;
}

json opCreate(const json &request) {
    mgmtArgsOnly(request, {"acl"});
    const uint32_t aclNum = aclOf(request);
    const bool isNew = aclStore().create(aclNum);
    if (isNew) {
        hostDevice().aclChanged(aclNum);
    }
    keep({aclNum});
    return {{"created", isNew}};
}

json opSet(const json &request) {
    mgmtArgsOnly(request, {"acl", "rule", "text"});
    const uint32_t aclNum = aclOf(request);
    const uint32_t ruleNum = mgmtArgNumber(request, "rule", 1, NUMBER_MAX);
    const AclRule rule = ruleOf(aclNum, ruleNum, mgmtArgText(request, "text"));
    json answer = answerOf(aclStore().ruleSet(aclNum, ruleNum, rule));
    answer["text"] = aclRuleFormat(aclNum, rule);
    return answer;
}

json opDel(const json &request) {
    mgmtArgsOnly(request, {"acl", "rule"});
    const uint32_t aclNum = aclOf(request);
    const uint32_t ruleNum = mgmtArgNumber(request, "rule", 1, NUMBER_MAX);
    const auto changes = aclStore().ruleDel(aclNum, ruleNum);
    if (!changes) {
        throw std::runtime_error(aclName(aclNum) + " has no rule " + std::to_string(ruleNum));
    }
    return answerOf(*changes);
}

json opDestroy(const json &request) {
    mgmtArgsOnly(request, {"acl"});
    const uint32_t aclNum = aclOf(request);
    const auto changes = aclStore().destroy(aclNum);
    if (!changes) {
        throw std::runtime_error(aclName(aclNum) + " does not exist");
    }
    return answerOf(*changes);
}

json opReplace(const json &request) {
    mgmtArgsOnly(request, {"acl", "rules"});
    const uint32_t aclNum = aclOf(request);
    const AclRules rules = rulesOf(aclNum, mgmtArgObject(request, "rules"));
    return answerOf(aclStore().replace({{aclNum, rules}}, false), {aclNum});
}

json opReplaceAll(const json &request) {
    mgmtArgsOnly(request, {"acls", "keepOthers"});
    const bool others = !mgmtArgFlag(request, "keepOthers", false);
    const AclStore::Contents contents = contentsOf(mgmtArgObject(request, "acls"));
    std::set<uint32_t> named;
    for (const auto &[aclNum, rules] : contents) {
        named.insert(aclNum);
    }
    return answerOf(aclStore().replace(contents, others), named);
}

// Changes nothing: refuses as replaceAll would, or answers the canonical texts.
json opCheck(const json &request) {
    mgmtArgsOnly(request, {"acls"});
    json answer = {{"acls", json::object()}};
    for (const auto &[aclNum, rules] : contentsOf(mgmtArgObject(request, "acls"))) {
        json &texts = answer["acls"][std::to_string(aclNum)] = json::object();
        for (const auto &[ruleNum, rule] : rules) {
            texts[std::to_string(ruleNum)] = aclRuleFormat(aclNum, rule);
        }
    }
    return answer;
}

json rowShow(const AclRow &row) {
    json rules = json::array();
    for (const auto &[ruleNum, rule] : *row.rules) {
        rules.push_back({{"rule", ruleNum}, {"text", aclRuleFormat(row.aclNum, rule)}});
    }
    return {{"acl", row.aclNum}, {"users", row.users}, {"rules", std::move(rules)}};
}

json opShow(const json &request) {
    mgmtArgsOnly(request, {"acl"});
    const uint32_t wanted = mgmtArgNumber(request, "acl", 1, NUMBER_MAX, 0);
    json shown = json::array();
    for (const AclRow &row : aclStore().rows()) {
        if (wanted == 0 || row.aclNum == wanted) {
            shown.push_back(rowShow(row));
        }
    }
    if (wanted != 0 && shown.empty()) {
        throw std::runtime_error(aclName(wanted) + " does not exist");
    }
    return {{"acls", std::move(shown)}};
}

// An operation that changes something: not made when it could not be kept.
MgmtHandler kept(json (*op)(const json &)) {
    return [op](const json &request) {
        journalMustBeReady();
        return op(request);
    };
}

} // namespace

void aclRestore() {
    for (const auto &[key, text] : journalTexts(JOURNAL_SERVICE)) {
        try {
            const uint32_t aclNum = checkedAcl(mgmtKeyNumber(key, "ACL number", 1, NUMBER_MAX));
            (void)aclStore().replace({{aclNum, rulesOf(aclNum, json::parse(text))}}, false);
        } catch (const std::exception &refusal) {
            journalNotRestored("ACL " + key, refusal.what());
        }
    }
}

void aclMgmtRegister() {
    mgmtRegister("acl.create", true, kept(opCreate));
    mgmtRegister("acl.set", true, kept(opSet));
    mgmtRegister("acl.del", true, kept(opDel));
    mgmtRegister("acl.destroy", true, kept(opDestroy));
    mgmtRegister("acl.replace", true, kept(opReplace));
    mgmtRegister("acl.replaceAll", true, kept(opReplaceAll));
    mgmtRegister("acl.check", false, opCheck);
    mgmtRegister("acl.show", false, opShow);
}

} // namespace host
