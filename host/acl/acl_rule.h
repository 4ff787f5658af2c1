// ACL rules as the host uses them: the shared values (aclrule/acl_rule.h) under the host's names, and the
// rules of an ACL now.
#ifndef HOST_ACL_ACL_RULE_H
#define HOST_ACL_ACL_RULE_H

#include <cstdint>
#include <memory>

#include "aclrule/acl_rule.h"

namespace host {

using aclrule::AclAddress;
using aclrule::AclLength;
using aclrule::AclMac;
using aclrule::AclPorts;
using aclrule::AclPrefix;
using aclrule::AclRule;
using aclrule::AclRules;
using aclrule::aclPrefixMask;
using aclrule::aclRuleFormat;
using aclrule::aclRuleParse;
using aclrule::aclRuleVersion;
using aclrule::aclVersion;

// The rules of an ACL now, a snapshot; null when the ACL does not exist. Any thread. Lock: none
// (takes the module's own)
std::shared_ptr<const AclRules> aclSnapshot(uint32_t aclNum);

} // namespace host

#endif
