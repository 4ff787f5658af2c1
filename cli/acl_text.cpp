// ACL rules in the operator's tool: see acl_text.h. Called by the policy file's reader, the reader of the
// running policy and the planner; calls the shared parser.
#include "cli/acl_text.h"

namespace cli {

std::optional<int> aclVersionOf(uint32_t aclNum) { return aclrule::aclVersion(aclNum); }

std::optional<AclRule> aclRuleRead(uint32_t aclNum, const std::string &text, std::string &error) {
    return aclrule::aclRuleParse(aclNum, text, &error);
}

AclRuleText aclRuleText(uint32_t aclNum, const std::string &text) {
    std::string ignored;
    return {text, aclRuleRead(aclNum, text, ignored)};
}

} // namespace cli
