// See acl_store.h.
#include "host/acl/acl_store.h"

#include <utility>

namespace host {

namespace {

const AclRules NO_RULES;

// What leads from one set of rules to the other: rules gone or changed first, then new and changed ones.
AclStore::Changes differences(uint32_t aclNum, const AclRules &before, const AclRules &after) {
    AclStore::Changes changes;
    for (const auto &[number, rule] : before) {
        const auto now = after.find(number);
        if (now == after.end() || now->second != rule) {
            changes.push_back({AclChange::RULE_GONE, aclNum, number});
        }
    }
    for (const auto &[number, rule] : after) {
        const auto then = before.find(number);
        if (then == before.end() || then->second != rule) {
            changes.push_back({AclChange::RULE_NEW, aclNum, number});
        }
    }
    return changes;
}

void append(AclStore::Changes &to, const AclStore::Changes &more) {
    to.insert(to.end(), more.begin(), more.end());
}

} // namespace

// Swaps the rules of one ACL; a null pointer destroys it. The lock is held.
AclStore::Changes AclStore::put(uint32_t aclNum, std::shared_ptr<const AclRules> rules) {
    if (rules == nullptr) {
        return acls.erase(aclNum) == 0 ? Changes{} : Changes{{AclChange::ACL_GONE, aclNum, 0}};
    }
    std::shared_ptr<const AclRules> &held = acls[aclNum];
    Changes changes = differences(aclNum, held == nullptr ? NO_RULES : *held, *rules);
    held = std::move(rules);
    return changes;
}

bool AclStore::create(uint32_t aclNum) {
    const std::lock_guard guard(lock);
    return acls.try_emplace(aclNum, std::make_shared<const AclRules>()).second;
}

AclStore::Changes AclStore::ruleSet(uint32_t aclNum, uint32_t ruleNum, const AclRule &rule) {
    const std::lock_guard guard(lock);
    const auto held = acls.find(aclNum);
    auto rules = std::make_shared<AclRules>(held == acls.end() ? NO_RULES : *held->second);
    (*rules)[ruleNum] = rule;
    return put(aclNum, std::move(rules));
}

std::optional<AclStore::Changes> AclStore::ruleDel(uint32_t aclNum, uint32_t ruleNum) {
    const std::lock_guard guard(lock);
    const auto held = acls.find(aclNum);
    if (held == acls.end() || held->second->count(ruleNum) == 0) {
        return std::nullopt;
    }
    auto rules = std::make_shared<AclRules>(*held->second);
    rules->erase(ruleNum);
    return put(aclNum, std::move(rules));
}

std::optional<AclStore::Changes> AclStore::destroy(uint32_t aclNum) {
    const std::lock_guard guard(lock);
    Changes changes = put(aclNum, nullptr);
    if (changes.empty()) {
        return std::nullopt;
    }
    return changes;
}

AclStore::Changes AclStore::replace(const Contents &contents, bool others) {
    const std::lock_guard guard(lock);
    Changes changes;
    std::vector<uint32_t> gone;
    for (const auto &[aclNum, rules] : acls) {
        if (others && contents.count(aclNum) == 0) {
            gone.push_back(aclNum);
        }
    }
    for (const uint32_t aclNum : gone) {
        append(changes, put(aclNum, nullptr));
    }
    for (const auto &[aclNum, rules] : contents) {
        append(changes, put(aclNum, std::make_shared<const AclRules>(rules)));
    }
    return changes;
}

std::shared_ptr<const AclRules> AclStore::snapshot(uint32_t aclNum) const {
    const std::lock_guard guard(lock);
    const auto held = acls.find(aclNum);
    return held == acls.end() ? nullptr : held->second;
}

std::vector<AclRow> AclStore::rows() const {
    const std::lock_guard guard(lock);
    std::vector<AclRow> rows;
    for (const auto &[aclNum, rules] : acls) {
        const auto count = userCounts.find(aclNum);
        rows.push_back({aclNum, count == userCounts.end() ? 0 : count->second, rules});
    }
    return rows;
}

int64_t AclStore::usersAdd(uint32_t aclNum, int32_t delta) {
    const std::lock_guard guard(lock);
    const auto held = userCounts.find(aclNum);
    const int64_t count = (held == userCounts.end() ? 0 : held->second) + delta;
    if (count <= 0) {
        userCounts.erase(aclNum);
        return 0;
    }
    return userCounts[aclNum] = count;
}

int64_t AclStore::users(uint32_t aclNum) const {
    const std::lock_guard guard(lock);
    const auto held = userCounts.find(aclNum);
    return held == userCounts.end() ? 0 : held->second;
}

AclStore &aclStore() {
    // Never destroyed: the daemon's tasks may still ask while the process ends.
    static AclStore *pStore = new AclStore;
    return *pStore;
}

std::shared_ptr<const AclRules> aclSnapshot(uint32_t aclNum) {
    return aclStore().snapshot(aclNum);
}

} // namespace host
