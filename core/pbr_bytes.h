// Words in byte images: big-endian ones of device records and registrations, machine-order ones of
// route messages and keys. Nothing is assumed about alignment.
// Lock: none, for all of them.
#ifndef CORE_PBR_BYTES_H
#define CORE_PBR_BYTES_H

#include <cstdint>
#include <cstring>

// Writes value most significant byte first.
inline void pbrStoreBe16(uint8_t *pBytes, uint16_t value) {
    pBytes[0] = static_cast<uint8_t>(value >> 8);
    pBytes[1] = static_cast<uint8_t>(value);
}
inline void pbrStoreBe32(uint8_t *pBytes, uint32_t value) {
    pBytes[0] = static_cast<uint8_t>(value >> 24);
    pBytes[1] = static_cast<uint8_t>(value >> 16);
    pBytes[2] = static_cast<uint8_t>(value >> 8);
    pBytes[3] = static_cast<uint8_t>(value);
}

// Reads a value written most significant byte first; also "an address as one word".
inline uint16_t pbrLoadBe16(const uint8_t *pBytes) {
    return static_cast<uint16_t>((pBytes[0] << 8) | pBytes[1]);
}
inline uint32_t pbrLoadBe32(const uint8_t *pBytes) {
    return (static_cast<uint32_t>(pBytes[0]) << 24) | (static_cast<uint32_t>(pBytes[1]) << 16) |
           (static_cast<uint32_t>(pBytes[2]) << 8) | pBytes[3];
}

// Reads and writes machine order.
inline uint16_t pbrLoadU16(const uint8_t *pBytes) {
    uint16_t value;
    memcpy(&value, pBytes, sizeof(value));
    return value;
}
inline uint32_t pbrLoadU32(const uint8_t *pBytes) {
    uint32_t value;
    memcpy(&value, pBytes, sizeof(value));
    return value;
}
inline void pbrStoreU16(uint8_t *pBytes, uint16_t value) {
    memcpy(pBytes, &value, sizeof(value));
}
inline void pbrStoreU32(uint8_t *pBytes, uint32_t value) {
    memcpy(pBytes, &value, sizeof(value));
}

#endif
