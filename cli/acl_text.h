// ACL rules in the operator's tool: texts with what they mean (aclrule/acl_rule.h). pbrctl checks the rules
// of a policy file before anything is changed, and compares rules by what they match, not by how they are
// spelled.
#ifndef CLI_ACL_TEXT_H
#define CLI_ACL_TEXT_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "aclrule/acl_rule.h"

namespace cli {

using aclrule::AclRule;

// Rules of an ACL by rule number: the text as given, and its value (none when it cannot be read, which
// happens only to texts that the daemon holds). Two are equal when they match the same.
struct AclRuleText {
    std::string text;
    std::optional<AclRule> value;
    bool operator==(const AclRuleText &other) const {
        return value && other.value ? *value == *other.value : text == other.text;
    }
};
using AclRules = std::map<uint32_t, AclRuleText>;

// IP version told by an ACL's number: 4 (1001..2000), 6 (3001..4000), 0 either (5001 and up); none for a
// number that a node can never use. Lock: none
std::optional<int> aclVersionOf(uint32_t aclNum);

// Reads a rule of ACL aclNum. Result: the rule, or none with error saying what is wrong. Lock: none
std::optional<AclRule> aclRuleRead(uint32_t aclNum, const std::string &text, std::string &error);

// As aclRuleRead, keeping the text; for texts of the daemon. Lock: none
AclRuleText aclRuleText(uint32_t aclNum, const std::string &text);

} // namespace cli

#endif
