// The scalar commands: the daemon's limits, counters, version and pending work; its debug flags.
//
// Called by the command server. Fields are PbrScalarField: maxListNum 1, maxNodeNum 2, listCount 3,
// debugFlags 4 (the only one that can be set), version text 5 (15 bytes), pending work 6 (three u32,
// machine order: 1, 0, 2 while no list waits for the periodic update, else 2, 2, 2), whole row 7.
// There is no key: pKey is not read and may be null.
#ifndef API_PBR_SCALAR_API_H
#define API_PBR_SCALAR_API_H

#include "platform/icm.h"

constexpr char PBR_VERSION_TEXT[] = "PBR_V7.00.00.00";

// Reads a scalar. pValue: number, or byte buffer with its capacity; the version is cut to the capacity.
// Result: 0, also for ids without a scalar (the value stays as it is; published); PBR_ERR_BAD_ARGUMENT
// null value, version without buffer; PBR_FAIL the row without buffer, or pending work without value or
// buffer or with less than 12 bytes. Lock: takes
[[nodiscard]] uint32_t pbrScalarGetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// Replaces the debug flags as a whole.
// Result: 0; PBR_ERR_BAD_ARGUMENT null value; PBR_FAIL any other id; codes of the synchronisation
// service. Lock: takes
[[nodiscard]] uint32_t pbrScalarSetApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

// As pbrScalarSetApi, with the origin "sync" in the synchronisation record. Lock: takes
[[nodiscard]] uint32_t pbrScalarSyncApi(const void *pKey, uint32_t fieldId, PbrApiValue *pValue);

#endif
