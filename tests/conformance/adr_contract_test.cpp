// The contract of platform/adr.h: numbers most significant byte first, bytes as they are.
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "platform/adr.h"

namespace {

TEST(Serialiser, NumbersAreWrittenMostSignificantByteFirst) {
    uint8_t buffer[9] = {};
    AdrStream stream;
    adr_start(&stream, buffer + 1); // not aligned
    adr_uint32(&stream, 0x01020304);
    adr_uint32(&stream, 0xFFFEFDFC);
    const uint8_t expected[9] = {0, 1, 2, 3, 4, 0xFF, 0xFE, 0xFD, 0xFC};
    EXPECT_EQ(0, memcmp(expected, buffer, sizeof(buffer)));
    EXPECT_EQ(8u, adr_count(&stream));
}

TEST(Serialiser, BytesAreAppendedAsTheyAre) {
    uint8_t buffer[8] = {};
    AdrStream stream;
    adr_start(&stream, buffer);
    EXPECT_EQ(0u, adr_count(&stream));
    adr_char(&stream, "a\0b", 3);
    adr_char(&stream, nullptr, 0);
    adr_uint32(&stream, 7);
    const uint8_t expected[8] = {'a', 0, 'b', 0, 0, 0, 7, 0};
    EXPECT_EQ(0, memcmp(expected, buffer, sizeof(buffer)));
    EXPECT_EQ(7u, adr_count(&stream));
}

} // namespace
