// A state as a flat run of numbers that compares fast, and as lines that a person reads.
//
// The model and the driver write the same state in the same order into a Sink: numbers when only
// equality is asked, lines when a difference is to be shown.
#ifndef TESTS_MODEL_IMAGE_H
#define TESTS_MODEL_IMAGE_H

#include <cstdint>
#include <string>
#include <vector>

namespace model {

struct Sink {
    bool asText = false;
    std::vector<uint32_t> numbers;
    std::vector<std::string> lines;
    std::string place; // where the next fields stand, in words; lines only

    void clear() {
        numbers.clear();
        lines.clear();
        place.clear();
    }
    void put(const char *field, uint32_t value) {
        if (asText) {
            lines.push_back(place + field + "=" + std::to_string(value));
        } else {
            numbers.push_back(value);
        }
    }
    void put(const char *field, const uint8_t *pBytes, size_t count) {
        put(field, static_cast<uint32_t>(count));
        for (size_t i = 0; i < count; i += 4) {
            uint32_t four = 0;
            for (size_t j = i; j < i + 4; ++j) {
                four = four << 8 | (j < count ? pBytes[j] : 0u);
            }
            put(field, four);
        }
    }
    void put(const char *field, const std::string &bytes) {
        if (asText) {
            lines.push_back(place + field + "=\"" + bytes + "\"");
        } else {
            put(field, reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
        }
    }
};

// A next hop or node by its place in the store: list, node and next hop counted from 0; none is all ones.
constexpr uint32_t NO_PLACE = 0xFFFFFFFFu;
inline uint32_t placeOf(size_t list, size_t node, size_t hop) {
    return static_cast<uint32_t>(list << 16 | node << 8 | hop);
}

} // namespace model

#endif
