// One redirect record decoded for people.
#ifndef HOST_DEVICE_MEMORY_MEMORY_RECORD_H
#define HOST_DEVICE_MEMORY_MEMORY_RECORD_H

#include <cstdint>

#include <nlohmann/json.hpp>

namespace host {

// {"ifUnit", "interface", "acl", "action", "actionCode", "priority", "vrf", "outInterface" | "nextHops",
// "fields": [{"offset", "name", "value"}...] under the record's published names, "hex"}. The record does not tell
// the IP version of action 0: its next-hop area stays hexadecimal in "area". pRecord: PBR_HW_ACL_CONTENT_BYTES bytes. Lock: none
nlohmann::json memoryRecordShow(const uint8_t *pRecord);

} // namespace host

#endif
