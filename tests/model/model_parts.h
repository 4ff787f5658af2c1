// What the files of the model share: texts, bytes, published numbers.
#ifndef TESTS_MODEL_MODEL_PARTS_H
#define TESTS_MODEL_MODEL_PARTS_H

#include <arpa/inet.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>

#include "tests/model/model.h"

namespace model {

std::string format(const char *pattern, va_list args);
std::string format(const char *pattern, ...) __attribute__((format(printf, 1, 2)));
std::string quoted(const std::string &bytes);
std::string hexOf(const std::string &bytes);

// Modules and switches of texts.
constexpr uint32_t GENERAL = 0x044B0000, EVENT = 0x044B0002, HARDWARE = 0x044B0003, TABLE = 0x044B0004;
constexpr uint32_t BIT_HARDWARE = 4, BIT_DUMP = 8, BIT_GENERAL = 64;
constexpr uint32_t PRIORITIES[7] = {7, 7, 6, 6, 3, 0, 0};

constexpr uint32_t NO_RANGE = 0xFFFFFFFFu;
constexpr uint32_t FAILED = 0xFFFFFFFFu;
constexpr uint32_t NO_RECORD = 0x03E80001, NO_ROW = 0x03E80002, IN_USE = 0x03E8000C, BAD_ARGUMENT = 0x03E8001A;
constexpr uint32_t NO_LIST_TO_UNBIND = 65536002;
constexpr uint32_t PRI_NONE = 9;

inline std::string ifName(uint32_t unit) {
    return "if" + std::to_string(unit);
}
inline std::string text4(const uint8_t *p) {
    return std::to_string(p[0]) + "." + std::to_string(p[1]) + "." + std::to_string(p[2]) + "." + std::to_string(p[3]);
}
inline std::string text6(const uint8_t *p) {
    char buffer[64];
    return inet_ntop(AF_INET6, p, buffer, sizeof(buffer));
}
inline uint32_t bigEndian(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | p[3];
}
inline uint32_t native32(const uint8_t *p) {
    uint32_t value;
    memcpy(&value, p, 4);
    return value;
}
inline uint16_t native16(const uint8_t *p) {
    uint16_t value;
    memcpy(&value, p, 2);
    return value;
}
inline void raise(uint32_t &count) { count = (count + 1) % 16; }
inline void lower(uint32_t &count) { count = (count + 15) % 16; }

// Bytes of an address that count, by IP version.
inline size_t addressBytes(uint32_t ipVer) { return ipVer == 1 ? 4 : 16; }

} // namespace model

#endif
