// Bitmaps of ports: bit n is mask 0x80 >> (n mod 8) of byte n / 8.
#ifndef STORE_PBR_PORT_BIT_H
#define STORE_PBR_PORT_BIT_H

#include <cstdint>

#include "core/pbr_store_lock.h"

// Sets, clears bit n. pBitmap: at least n / 8 + 1 bytes; there is no bound check. Lock: held by caller
void pbrPortBitSet(uint8_t *pBitmap, uint32_t n) PBR_LOCK_HELD;
void pbrPortBitClear(uint8_t *pBitmap, uint32_t n) PBR_LOCK_HELD;

#endif
