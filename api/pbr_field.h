// Field tables: what the get, set and sync handlers and the whole-row encoding of every table share.
//
// A table of the management plane is a `const` array with one row a field: {id, name, kind, width, rank,
// get, set, check}. The handlers look rows up here; a special field is a row with functions of its own.
// Numbers are PbrApiValue.word0 taken as 32 bits; byte strings are the buffer at word0 with the length or
// capacity word1. A set goes check -> synchronisation service -> set, so that a refused or rejected set
// has changed nothing; fields that are published to be checked after the service was told check in `set`.
// `Row` is a table's own structure: the decoded key and the records that it names.
#ifndef API_PBR_FIELD_H
#define API_PBR_FIELD_H

#include <cstdint>

#include "core/pbr_info.h"
#include "core/pbr_trace.h"
#include "core/pbr_types.h"
#include "platform/adr.h"
#include "platform/icm.h"
#include "platform/qrv_hwil.h"
#include "store/pbr_records.h"

// A debug text of the management plane.
#define PBR_API_TRACE(...) PBR_TRACE(PBR_DEBUG_GENERAL, PBR_LOG_GENERAL, __VA_ARGS__)

// Origin of a set, the low bits of the synchronisation record's flags.
constexpr uint32_t PBR_ORIGIN_SYNC = 1;
constexpr uint32_t PBR_ORIGIN_SET = 3;
constexpr uint32_t PBR_SYNC_FLAG_IF = 0x10000000u;    // interface table
constexpr uint32_t PBR_SYNC_FLAG_BYTES = 0x80000000u; // the value is a byte string

// What the synchronisation service is told of a table.
struct PbrApiTable {
    uint32_t codeBase;  // command code = base + field id
    uint32_t keyLen;    // bytes of the key
    uint32_t syncFlags; // added to the origin
};

// One call of a set, as it came in.
struct PbrApiCall {
    const PbrApiTable *pTable;
    const void *pKey;          // the caller's key, any alignment; null for scalars
    uint32_t fieldId;
    const PbrApiValue *pValue; // never null
    uint32_t origin;           // PBR_ORIGIN_
};

enum PbrFieldKind : uint8_t {
    PBR_FIELD_NUMBER, // word0 is the value
    PBR_FIELD_BYTES,  // byte string
    PBR_FIELD_ROW,    // the whole row, read only: record run of the fields that have a rank
    PBR_FIELD_EVENT,  // set only, not synchronised: calls a routine
};

// One field. get null: cannot be read; set null: cannot be set.
template <class Row> struct PbrField {
    uint32_t id;
    const char *pName;
    PbrFieldKind kind;
    uint8_t width; // bits of a number; bytes of a byte string, 0 when they vary
    uint8_t rank;  // place in the whole row, from 1; 0: not part of it
    uint32_t (*get)(const Row *pRow, PbrApiValue *pValue);      // record -> value
    uint32_t (*set)(const PbrApiCall *pCall, Row *pRow);        // value -> record, after the service
    uint32_t (*check)(const PbrApiCall *pCall, const Row *pRow); // before the service; null: no check
};

// Holds the daemon's mutex from its making to the end of its scope, on every return path.
struct LOCK_SCOPE PbrApiLock {
    PbrApiLock() LOCK_TAKES(gPbrStoreLock) { (void)pbrLock(); } // waits without limit; there is no other answer
    ~PbrApiLock() LOCK_GIVES() { (void)pbrUnlock(); }           // likewise
    PbrApiLock(const PbrApiLock &) = delete;
    PbrApiLock &operator=(const PbrApiLock &) = delete;
};

inline uint32_t pbrApiNumber(const PbrApiValue *pValue) { return static_cast<uint32_t>(pValue->word0); }
inline uint8_t *pbrApiBytes(const PbrApiValue *pValue) { return reinterpret_cast<uint8_t *>(pValue->word0); }

// Whether a byte-string value claims bytes without a buffer. Lock: none
inline bool pbrApiBytesMissing(const PbrApiValue *pValue) {
    return pValue->word0 == 0 && pValue->word1 != 0;
}

// Answers with a byte string: copies len bytes to the buffer, whatever its capacity, and sets word1.
// Result: 0, or PBR_ERR_BAD_ARGUMENT for bytes without buffer. Lock: none
[[nodiscard]] uint32_t pbrApiBytesGet(const void *pBytes, uint32_t len, PbrApiValue *pValue);

// Bytes of a key's list name that may be printed: never beyond the key, however wild the length.
// Lock: none
inline int pbrApiNameLen(uint16_t nameLen) {
    return nameLen < PBR_NAME_BYTES ? nameLen : static_cast<int>(PBR_NAME_BYTES);
}

// Tells the synchronisation service of a set: the call's key and value, the table's code for the field
// and a PbrSyncCtx. kind: of the field. Result: the service's; the handler returns it when it is not 0.
// Lock: held by caller
[[nodiscard]] uint32_t pbrApiSync(const PbrApiCall *pCall, PbrFieldKind kind) PBR_LOCK_HELD;

// The run of records of a whole row while it is written: u32 field id, u32 length, value.
struct PbrRowStream {
    AdrStream adr;
    uint32_t capacity;   // bytes that the caller's buffer holds
    PbrApiValue *pValue; // word1: bytes written so far
};

// Starts a run at the value's buffer. Result: 0, or PBR_FAIL without buffer. Lock: none
[[nodiscard]] uint32_t pbrRowStart(PbrRowStream *pStream, PbrApiValue *pValue);

// Whether a record of a field of this kind and width still has room. A byte string of varying length is
// taken to need 12 bytes, whatever it holds: published; buffers have room behind their capacity.
// Lock: none
[[nodiscard]] bool pbrRowRoom(const PbrRowStream *pStream, PbrFieldKind kind, uint8_t width);

// Appends one record. Lock: none
void pbrRowNumber(PbrRowStream *pStream, uint32_t fieldId, uint32_t number);
void pbrRowBytes(PbrRowStream *pStream, uint32_t fieldId, const uint8_t *pBytes, uint32_t len);
constexpr uint32_t PBR_ROW_BYTES = 16; // longest byte string in a whole row

// The table's row of a field id, or null. Lock: none
template <class Row, size_t N>
const PbrField<Row> *pbrFieldFind(const PbrField<Row> (&fields)[N], uint32_t fieldId) {
    for (const PbrField<Row> &field : fields) {
        if (field.id == fieldId) {
            return &field;
        }
    }
    return nullptr;
}

// The field at a place of the whole row, or null behind the last. Lock: none
template <class Row, size_t N>
const PbrField<Row> *pbrFieldAtRank(const PbrField<Row> (&fields)[N], uint32_t rank) {
    for (const PbrField<Row> &field : fields) {
        if (field.rank == rank) {
            return &field;
        }
    }
    return nullptr;
}

// Appends one field of a row to the run, read through the field's own get. Lock: held by caller
template <class Row>
void pbrRowAppend(PbrRowStream *pStream, const PbrField<Row> *pField, const Row *pRow) PBR_LOCK_HELD {
    uint8_t bytes[PBR_ROW_BYTES];
    PbrApiValue part = {0, 0};
    if (pField->kind == PBR_FIELD_NUMBER) {
        (void)pField->get(pRow, &part); // reading a number cannot fail
        pbrRowNumber(pStream, pField->id, pbrApiNumber(&part));
        return;
    }
    part = {reinterpret_cast<uintptr_t>(bytes), PBR_ROW_BYTES};
    (void)pField->get(pRow, &part); // the buffer is large enough for every field with a rank
    pbrRowBytes(pStream, pField->id, bytes, part.word1);
}

// Writes the whole row: the fields in rank order, as many as fit. Result: 0 also when cut, word1 the
// bytes written; PBR_FAIL without buffer. Lock: held by caller
template <class Row, size_t N>
uint32_t pbrRowGet(const PbrField<Row> (&fields)[N], const Row *pRow, PbrApiValue *pValue) PBR_LOCK_HELD {
    PbrRowStream stream;
    const uint32_t result = pbrRowStart(&stream, pValue);
    if (result != PBR_OK) {
        return result;
    }
    uint32_t rank = 1;
    const PbrField<Row> *pField = pbrFieldAtRank(fields, rank);
    while (pField != nullptr && pbrRowRoom(&stream, pField->kind, pField->width)) {
        pbrRowAppend(&stream, pField, pRow);
        pField = pbrFieldAtRank(fields, ++rank);
    }
    return PBR_OK;
}

// Reads one field of a row. Result: of the field's get; PBR_FAIL for a field that cannot be read.
// Lock: held by caller
template <class Row, size_t N>
uint32_t pbrFieldGet(const PbrField<Row> (&fields)[N], uint32_t fieldId, const Row *pRow,
                     PbrApiValue *pValue) PBR_LOCK_HELD {
    const PbrField<Row> *pField = pbrFieldFind(fields, fieldId);
    if (pField != nullptr && pField->kind == PBR_FIELD_ROW) {
        return pbrRowGet(fields, pRow, pValue);
    }
    if (pField == nullptr || pField->get == nullptr) {
        return PBR_FAIL;
    }
    return pField->get(pRow, pValue);
}

// Sets one field: check, synchronisation service, set. Result: of the first that is not 0; PBR_FAIL for
// a field that cannot be set, which the service never sees. Lock: held by caller
template <class Row, size_t N>
uint32_t pbrFieldSet(const PbrField<Row> (&fields)[N], const PbrApiCall *pCall, Row *pRow) PBR_LOCK_HELD {
    const PbrField<Row> *pField = pbrFieldFind(fields, pCall->fieldId);
    if (pField == nullptr || pField->set == nullptr) {
        return PBR_FAIL;
    }
    uint32_t result = pField->check == nullptr ? PBR_OK : pField->check(pCall, pRow);
    if (result != PBR_OK) {
        return result;
    }
    result = pbrApiSync(pCall, pField->kind);
    if (result != PBR_OK) {
        return result;
    }
    return pField->set(pCall, pRow);
}

#endif
