// Framing of route messages: what is one message, what is skipped, what ends a read.
#include "rtmsg/pbr_rtm_walk.h"

#include <gtest/gtest.h>

#include <cstring>

#include "core/pbr_info.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"

namespace {

struct Seen {
    uint16_t type;
    int32_t payloadLen;
    size_t offset;
    bool operator==(const Seen &other) const {
        return type == other.type && payloadLen == other.payloadLen && offset == other.offset;
    }
};
std::ostream &operator<<(std::ostream &out, const Seen &seen) {
    return out << seen.type << " payloadLen " << seen.payloadLen << " at " << seen.offset;
}

std::vector<Seen> gSeen;
const uint8_t *gStart;

bool see(PbrRtmRead *, const uint8_t *pMessage, int32_t payloadLen) {
    uint16_t type;
    memcpy(&type, pMessage + 4, 2);
    gSeen.push_back({type, payloadLen, static_cast<size_t>(pMessage - gStart)});
    return type != 9; // 9 ends the read
}

const PbrRtmRow ROWS[] = {{1, "one", 0, see}, {2, "two", 24, see}, {9, "last", 0, see}};

using Bytes = std::vector<uint8_t>;

Bytes message(uint16_t type, uint32_t bytes, uint32_t lengthWord = 0) {
    const Bytes payload(bytes - 24, 0xAB);
    return fake::message(type, payload.data(), bytes - 24, lengthWord);
}

std::vector<Seen> walk(std::initializer_list<Bytes> messages, int32_t got = -1) {
    Bytes read;
    for (const Bytes &one : messages) {
        read.insert(read.end(), one.begin(), one.end());
    }
    alignas(4) static uint8_t buffer[4096];
    memset(buffer, 0, sizeof(buffer));
    memcpy(buffer, read.data(), read.size());
    gSeen.clear();
    gStart = buffer;
    pbrRtmWalk(ROWS, 3, buffer, got < 0 ? static_cast<int32_t>(read.size()) : got);
    return gSeen;
}

class RtmWalk : public ::testing::Test {
protected:
    void SetUp() override { startDaemon(); }
};

TEST_F(RtmWalk, EveryMessageOfAReadIsSeenWithWhatIsLeftOfTheReadAsItsPayloadLength) {
    EXPECT_EQ(walk({message(1, 40), message(2, 44), message(1, 48)}),
              (std::vector<Seen>{{1, 132 - 24, 0}, {2, 132 - 40 - 24, 40}, {1, 48 - 24, 84}}));
}

TEST_F(RtmWalk, TheNextMessageStartsAtTheNextMultipleOfFour) {
    Bytes padded = message(1, 28, 26);
    EXPECT_EQ(walk({padded, message(1, 24)}), (std::vector<Seen>{{1, 28, 0}, {1, 0, 28}}));
    for (uint32_t length = 25; length <= 28; ++length) {
        EXPECT_EQ(walk({message(1, 28, length), message(1, 24)}).size(), 2u) << length;
    }
}

TEST_F(RtmWalk, AMessageCutByTheRoundingEndsTheRead) {
    EXPECT_EQ(walk({message(1, 28, 26)}, 26), (std::vector<Seen>{{1, 2, 0}}));
}

TEST_F(RtmWalk, ALengthWordBelowAHeaderEndsTheReadSilently) {
    gPbrInfo.debugFlags = 0xFFFFFFFFu;
    EXPECT_EQ(walk({message(1, 24), message(1, 24, 23), message(1, 24)}), (std::vector<Seen>{{1, 48, 0}}));
    EXPECT_EQ(walk({message(1, 24, 1)}), std::vector<Seen>{});
    EXPECT_EQ(fake::takeTrace(), std::vector<std::string>{});
}

TEST_F(RtmWalk, ALengthWordOfZeroEndsTheRead) {
    Bytes zero(24, 0);
    EXPECT_EQ(walk({zero, message(1, 24)}), std::vector<Seen>{});
}

TEST_F(RtmWalk, ALengthWordBeyondWhatIsLeftEndsTheReadSilently) {
    gPbrInfo.debugFlags = 0xFFFFFFFFu;
    EXPECT_EQ(walk({message(1, 24), message(1, 24, 25)}), (std::vector<Seen>{{1, 24, 0}}));
    EXPECT_EQ(walk({message(1, 24, 0xFFFFFFFFu)}), std::vector<Seen>{});
    EXPECT_EQ(walk({message(1, 24, 0xFFFFFFFDu)}), std::vector<Seen>{}) << "rounding up would wrap";
    EXPECT_EQ(walk({message(1, 24, 0x80000000u)}), std::vector<Seen>{});
    EXPECT_EQ(fake::takeTrace(), std::vector<std::string>{});
}

TEST_F(RtmWalk, AReadShorterThanAHeaderHoldsNothing) {
    for (int32_t got = 0; got < 24; ++got) {
        EXPECT_EQ(walk({message(1, 24)}, got), std::vector<Seen>{}) << got;
    }
}

TEST_F(RtmWalk, ATypeWithoutARowIsSkipped) {
    EXPECT_EQ(walk({message(350, 92), message(0, 24), message(0xFFFF, 24), message(1, 24)}),
              (std::vector<Seen>{{1, 0, 140}}));
}

TEST_F(RtmWalk, ARowsLeastPayloadIsComparedWithWhatIsLeftOfTheRead) {
    EXPECT_EQ(walk({message(2, 44)}), std::vector<Seen>{}) << "20 bytes are left";
    EXPECT_EQ(walk({message(2, 24), message(1, 24)}), (std::vector<Seen>{{2, 24, 0}, {1, 0, 24}}))
        << "the next message's bytes count";
}

TEST_F(RtmWalk, AHandlerMayDropTheRestOfTheRead) {
    EXPECT_EQ(walk({message(1, 24), message(9, 24), message(1, 24)}), (std::vector<Seen>{{1, 48, 0}, {9, 24, 24}}));
}

TEST_F(RtmWalk, AMessageCutOffAtTheEndOfAReadIsLost) {
    EXPECT_EQ(walk({message(1, 24), message(1, 48)}, 60), (std::vector<Seen>{{1, 36, 0}}));
}

} // namespace
