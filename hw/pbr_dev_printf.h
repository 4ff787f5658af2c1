// The debug dump of a device rule record.
#ifndef HW_PBR_DEV_PRINTF_H
#define HW_PBR_DEV_PRINTF_H

#include <cstdint>

#include "core/pbr_store_lock.h"

// Writes the record, ACL_DEV_ENTRY_BYTES bytes, as debug texts, one a field group, while debug bit
// PBR_DEBUG_DUMP is set. Some lines come twice: published output. Lock: held by caller
void pbrDevPrintf(const uint8_t *pEntry) PBR_LOCK_HELD;

#endif
