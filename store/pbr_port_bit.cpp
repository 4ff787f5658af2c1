// Bitmaps of ports.
#include "store/pbr_port_bit.h"

namespace {

uint8_t maskOf(uint32_t n) {
    return static_cast<uint8_t>(0x80u >> (n % 8));
}

} // namespace

void pbrPortBitSet(uint8_t *pBitmap, uint32_t n) {
    pBitmap[n / 8] = static_cast<uint8_t>(pBitmap[n / 8] | maskOf(n));
}

void pbrPortBitClear(uint8_t *pBitmap, uint32_t n) {
    pBitmap[n / 8] = static_cast<uint8_t>(pBitmap[n / 8] & ~maskOf(n));
}
