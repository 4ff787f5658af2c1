// What an ACL rule asks of a packet, as ranges of numbers: the values that the classifier works with. Pure.
//
// A rule is a *box*, one range for each field that it names, and a *rest*: the conditions that no range can
// say (TCP flags, fragments, wildcard masks). A packet matches the rule when it carries every field named,
// each inside its range, and the rest holds. Rules that name the same fields and have the same rest are of
// one *form*: one look-up can serve them all.
//
// Used by the plan (class_plan.h) and by those who install one; calls nothing but the values of aclrule/.
#ifndef HOST_CLASSIFY_CLASS_FIELD_H
#define HOST_CLASSIFY_CLASS_FIELD_H

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>

#include "aclrule/acl_rule.h"

namespace host {

// A field's value as a number of 128 bits: an address, a port, a length.
struct ClassNumber {
    uint64_t high = 0, low = 0;
    auto operator<=>(const ClassNumber &) const = default;
};

ClassNumber classNext(const ClassNumber &number);     // the one after; that of the greatest is 0
ClassNumber classPrevious(const ClassNumber &number); // the one before; that of 0 is the greatest

// Both ends inclusive, last not below first.
struct ClassRange {
    ClassNumber first, last;
    auto operator<=>(const ClassRange &) const = default;
    bool isOne() const { return first == last; }
};

// In the order of the headers; the order of a look-up's key.
enum class ClassField : uint8_t {
    SourceMac, Dscp, Length, Source, Destination, Protocol, SourcePort, DestinationPort, IcmpType, IcmpCode
};
inline constexpr size_t CLASS_FIELD_COUNT = 10;

// "saddr", "proto": plain letters. Lock: none
const char *classFieldName(ClassField field);

struct ClassBox {
    uint32_t fields = 0; // bit N: field N is named
    std::array<ClassRange, CLASS_FIELD_COUNT> ranges{};
    aclrule::AclRule rest; // a permit rule of version 0 with nothing but the rest's conditions
    bool has(ClassField field) const { return (fields >> static_cast<unsigned>(field) & 1u) != 0; }
    const ClassRange &range(ClassField field) const { return ranges[static_cast<size_t>(field)]; }
};

// The box of a rule for packets of a family (4 or 6) that the rule is of. A precedence is a range of
// DSCPs; a prefix and a port range are ranges. Lock: none
ClassBox classBox(const aclrule::AclRule &rule, int family);

// Whether some packet may match both; false only when none can. Lock: none
bool classMayMeet(const ClassBox &left, const ClassBox &right);

bool classSameForm(const ClassBox &left, const ClassBox &right);

// Lets `rest` ask for one field as `rule` does. Lock: none
void classConditionCopy(aclrule::AclRule &rest, const aclrule::AclRule &rule, ClassField field);

// What a rest asks for, in words ("TCP flags"); empty: nothing. Lock: none
std::string classRestText(const aclrule::AclRule &rest);

} // namespace host

#endif
