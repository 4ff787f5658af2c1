// The maps of flat lists: their names, the layout that a name tells, keys, and the expressions that look a
// packet up. Pure.
//
//   mapF/LIST/N/KIND.FIELD.FIELD...    "map4/wan/0/hash.saddr.dport"; N tells maps of one layout apart
//
// KIND is hash (single keys), range (of one field) or ranges (of several). In a key each field has its bytes in
// network order; with several fields each is filled up to whole words, as the kernel's registers are. Keys of
// ranges are their first key and their last key, one behind the other.
#ifndef HOST_DEVICE_KERNEL_KERNEL_MAP_H
#define HOST_DEVICE_KERNEL_KERNEL_MAP_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/classify/class_plan.h"
#include "host/device/kernel/nft_value.h"

namespace host {

inline constexpr size_t KERNEL_MAP_FIELDS = 5; // that nft can list

struct KernelMapLayout {
    ClassStepKind kind = ClassStepKind::Hash; // never Linear
    int family = 4;                           // 4 or 6
    std::vector<ClassField> fields;
    size_t sizeOf(ClassField field) const;    // bytes of the field's value
    size_t roomOf(ClassField field) const;    // the same, filled up when there are several fields
    size_t keySize() const;                   // bytes of one key; a range's has twice as many
};

// label: the list's part of the name. Lock: none
std::string kernelMapName(const KernelMapLayout &layout, const std::string &label, size_t number);

// What a name tells; none: it is no map's name. Lock: none
std::optional<KernelMapLayout> kernelMapLayout(const std::string &name);

// The key bytes of a cell. Lock: none
std::string kernelMapKey(const KernelMapLayout &layout, const ClassCell &cell);

// Loads a packet's fields where the look-up wants them; ends the rule for packets that do not carry them.
// guard: what the rule compares already. Lock: none
std::vector<NftExpr> kernelMapLoads(const KernelMapLayout &layout, const aclrule::AclRule &guard);

} // namespace host

#endif
