// The record serialiser: appends numbers and bytes to a buffer. Numbers are written most significant
// byte first, whatever the machine's order, so that one wire form serves all clients.
#ifndef PLATFORM_ADR_H
#define PLATFORM_ADR_H

#include "platform/platform_types.h"

extern "C" {

// State of one run of writes; lives on the caller's stack.
struct AdrStream {
    uint8_t *pStart; // first byte of the buffer
    uint8_t *pNext;  // next byte to be written
};

// Starts writing at pBuffer. The caller answers for its size. Lock: none
void adr_start(AdrStream *pStream, void *pBuffer);

// Appends four bytes, network order. Lock: none
void adr_uint32(AdrStream *pStream, uint32_t value);

// Appends count bytes as they are. Lock: none
void adr_char(AdrStream *pStream, const void *pBytes, uint32_t count);

// Bytes written since adr_start. Lock: none
uint32_t adr_count(const AdrStream *pStream);
}

#endif
