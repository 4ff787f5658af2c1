// What a plan says of a packet, and what the rules say that it was made of.
#ifndef TESTS_UNIT_HOST_CLASSIFY_LINEAR_H
#define TESTS_UNIT_HOST_CLASSIFY_LINEAR_H

#include <string>
#include <vector>

#include "aclrule/acl_packet.h"
#include "host/classify/class_plan.h"

namespace classify_test {

// The way of one packet. Rules by their places, as they count it.
struct Way {
    bool isDecided = false; // the node of the last rule met decides
    std::vector<uint32_t> rules;
    std::string fault; // the plan contradicts itself
    bool operator==(const Way &) const = default;
};

// The rules one by one.
Way linearWay(const std::vector<host::ClassRule> &rules, const aclrule::AclPacket &packet);

// The plan's steps.
Way planWay(const host::ClassPlan &plan, const std::vector<host::ClassRule> &rules, const aclrule::AclPacket &packet);

// "10: permit ..." and so on, for messages.
std::string rulesText(const std::vector<host::ClassRule> &rules);
std::string packetText(const aclrule::AclPacket &packet);
std::string wayText(const Way &way);

} // namespace classify_test

#endif
