// What a group of rules reaches, field by field: tells quickly that a rule can meet none of them. Pure.
#ifndef HOST_CLASSIFY_CLASS_REACH_H
#define HOST_CLASSIFY_CLASS_REACH_H

#include <array>
#include <cstdint>
#include <map>

#include "host/classify/class_field.h"

namespace host {

class ClassReach {
public:
    void add(const ClassBox &box);

    // Whether one of the group may match what `box` does; false only when none can, true may be wrong.
    bool mayMeet(const ClassBox &box) const;

    void clear() { *this = {}; }

private:
    using Union = std::map<ClassNumber, ClassNumber>; // first -> last of ranges that do not touch
    bool isEmpty_ = true;
    uint32_t fields_ = 0; // that all of the group name
    std::array<Union, CLASS_FIELD_COUNT> unions_;
};

} // namespace host

#endif
