// Rules of one form as a map: cells of the key's space that do not overlap, each with the rules that a packet
// there meets, in their order. Pure.
//
// Where rules overlap, their boxes are split, so that a cell's answer is that of asking the rules one by
// one: a permit rule ends the asking, a deny rule passes over the rest of its node. The split is bounded;
// what would grow beyond it is left over for the caller to ask in another way.
#ifndef HOST_CLASSIFY_CLASS_CELLS_H
#define HOST_CLASSIFY_CLASS_CELLS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/classify/class_field.h"

namespace host {

// One rule among those of the form.
struct ClassMember {
    uint32_t rule = 0;            // the caller's number of it, ascending
    uint32_t node = 0;            // the node's place, ascending with the rules
    bool permit = true;
    std::vector<ClassRange> key;  // a range for each field of the key
};

struct ClassCell {
    std::vector<ClassRange> key;
    std::vector<uint32_t> rules; // the caller's numbers: deny rules, at last perhaps a permit rule; never empty
    bool isDecided = false;      // the last one is a permit rule
};

struct ClassCells {
    std::vector<ClassCell> cells;
    std::vector<uint32_t> left; // rules (the caller's numbers, ascending) to be asked behind the cells
    std::string refusal;        // why there are no cells; empty: there are
};

// members: ascending, all with keys of the same size, at least one field. Lock: none
ClassCells classCells(const std::vector<ClassMember> &members);

} // namespace host

#endif
