// The ACLs of this process: rules by number, users, and what each change means for others.
//
// An ACL's rules are an immutable map behind a shared pointer; a change makes a new map and swaps the
// pointer, so that readers keep a consistent ACL at the cost of one pointer. Every change is made whole
// or not at all and reports what it changed; whoever called it tells the device and the route bus.
// Changes come from the event thread; the daemon's tasks read and count users.
#ifndef HOST_ACL_ACL_STORE_H
#define HOST_ACL_ACL_STORE_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/acl/acl_rule.h"

namespace host {

// One thing that changed, as the route bus tells it.
struct AclChange {
    enum Kind : uint8_t { RULE_GONE, RULE_NEW, ACL_GONE };
    Kind kind = RULE_NEW;
    uint32_t aclNum = 0;
    uint32_t ruleNum = 0; // 0 with ACL_GONE
    bool operator==(const AclChange &) const = default;
};

struct AclRow {
    uint32_t aclNum = 0;
    int64_t users = 0; // nodes that hold it, once per bound interface
    std::shared_ptr<const AclRules> rules;
};

class AclStore {
public:
    using Changes = std::vector<AclChange>;
    using Contents = std::map<uint32_t, AclRules>; // by ACL number

    // Makes an empty ACL; an existing one stays as it is. Result: whether it is new. Lock: takes
    bool create(uint32_t aclNum);

    // Inserts or replaces one rule; makes the ACL when it does not exist. A replaced rule is reported
    // as gone and new, one that stays the same not at all. Lock: takes
    Changes ruleSet(uint32_t aclNum, uint32_t ruleNum, const AclRule &rule);

    // Removes one rule. Result: none when there is no such ACL or rule. Lock: takes
    std::optional<Changes> ruleDel(uint32_t aclNum, uint32_t ruleNum);

    // Removes the ACL, also one with users: the bound entries then match nothing. Its rules go with it
    // and are not reported one by one. Result: none when it does not exist. Lock: takes
    std::optional<Changes> destroy(uint32_t aclNum);

    // Gives each named ACL exactly these rules, making it when needed; with `others` the ACLs not named
    // are destroyed. Readers see all of it or nothing. Lock: takes
    Changes replace(const Contents &contents, bool others);

    // The rules now, null when the ACL does not exist. Lock: takes
    std::shared_ptr<const AclRules> snapshot(uint32_t aclNum) const;

    // All ACLs ascending. Lock: takes
    std::vector<AclRow> rows() const;

    // One user more or less (delta), also of an ACL that does not exist. Result: users now, never
    // negative. Lock: takes
    int64_t usersAdd(uint32_t aclNum, int32_t delta);
    int64_t users(uint32_t aclNum) const;

private:
    Changes put(uint32_t aclNum, std::shared_ptr<const AclRules> rules);

    mutable std::mutex lock;
    std::map<uint32_t, std::shared_ptr<const AclRules>> acls;
    std::map<uint32_t, int64_t> userCounts; // outlives its ACL: the nodes are still bound
};

// The process's ACLs.
AclStore &aclStore();

} // namespace host

#endif
