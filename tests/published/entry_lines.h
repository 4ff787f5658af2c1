// The lines that one device operation leaves, in the order in which they are published: entries of links,
// entries of member ports, rules of single ACL rules.
#ifndef TESTS_PUBLISHED_ENTRY_LINES_H
#define TESTS_PUBLISHED_ENTRY_LINES_H

#include "tests/published/stage.h"

namespace published {

// A node as it is written; the hops are those that the operation takes, in order.
struct Entry {
    uint32_t action = 0;
    std::vector<std::string> hops = {};
    uint32_t acl = 1501;
    uint32_t ver = 0;
    uint32_t vrf = 0;
    uint32_t ecmp = 0;
    uint32_t outIf = 0;
    uint32_t pri = 9;
    uint32_t forwardFlag = 0;
    bool isEmpty = false; // the node has no next hops at all
    int32_t result = 0;   // of the device
};

// "aclNum=1501,...,policyRouteIpVer = 1."; equals: " = " or "=".
std::string settingsText(const Entry &entry, const std::string &equals);

// Adding ("add") or removing ("del") the entry of a link.
Lines linkLines(const std::string &verb, uint32_t unit, const Entry &entry);
// The same on a member port of an aggregation.
Lines memberLines(const std::string &verb, uint32_t port, uint32_t aggregation, const Entry &entry);
// Writing or removing one rule (ACL entry.acl, rule 5): the words of the record between its type and its
// closing bracket, "" when nothing is sent.
Lines ruleLines(const std::string &verb, uint32_t unit, const Entry &entry, const std::string &words);

// One list of the periodic update from its name to its first interface; changed: of the node's text, "" when
// nothing is rewritten. select: the line about the choice, "" for none.
Lines updateLines(const std::string &list, uint32_t node, const std::string &select, const std::string &changed);
// An interface of the update and its only link.
Lines updateLink(uint32_t unit, const PbrNodeEntry *pNode);

} // namespace published

#endif
