// One device rule record (platform/acl_dev_entry.h) decoded for people.
#ifndef HOST_DEVICE_MEMORY_RULE_RECORD_H
#define HOST_DEVICE_MEMORY_RULE_RECORD_H

#include <cstdint>

#include <nlohmann/json.hpp>

namespace host {

// {"ifUnit", "interface", "acl", "rule", "actions": texts, "fields": [{"offset", "name", "value"}...] in
// the record's order, "hex"}. Numbers are numbers, addresses texts, bit sets lists of their bits, other
// bytes hexadecimal. pEntry: ACL_DEV_ENTRY_BYTES bytes. Lock: none
nlohmann::json ruleRecordShow(uint32_t ifUnit, const uint8_t *pEntry);

} // namespace host

#endif
