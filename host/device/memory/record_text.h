// Bytes of big-endian records as numbers and texts, for the files of this folder.
#ifndef HOST_DEVICE_MEMORY_RECORD_TEXT_H
#define HOST_DEVICE_MEMORY_RECORD_TEXT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace host {

inline uint32_t loadBe16(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) << 8 | p[1];
}

inline uint32_t loadBe32(const uint8_t *p) {
    return loadBe16(p) << 16 | loadBe16(p + 2);
}

// Two digits a byte. Lock: none
inline std::string hexText(const uint8_t *p, size_t len) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < len; i++) {
        text += {digits[p[i] >> 4], digits[p[i] & 15]};
    }
    return text;
}

} // namespace host

#endif
