// The record serialiser (platform/adr.h): big-endian numbers and plain bytes, one behind the other.
//
// The writer does not know how much room there is: callers compare the count with their capacity before
// they append. The fake platform of the tests is linked with this file too.
#include "platform/adr.h"

#include <cstring>

void adr_start(AdrStream *pStream, void *pBuffer) {
    pStream->pStart = static_cast<uint8_t *>(pBuffer);
    pStream->pNext = pStream->pStart;
}

void adr_uint32(AdrStream *pStream, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        *pStream->pNext++ = static_cast<uint8_t>(value >> shift);
    }
}

void adr_char(AdrStream *pStream, const void *pBytes, uint32_t count) {
    if (count == 0) {
        return; // pBytes may be null then
    }
    memcpy(pStream->pNext, pBytes, count);
    pStream->pNext += count;
}

uint32_t adr_count(const AdrStream *pStream) {
    return static_cast<uint32_t>(pStream->pNext - pStream->pStart);
}
