// Tests of client/command_codec.cpp: frames against bytes, rows, keys.
#include "client/command_codec.h"

#include <gtest/gtest.h>

#include "cli/numbers.h"
#include "core/pbr_types.h"

using namespace client;
using cli::hexRead;
using cli::hexWrite;

namespace {

CommandRequest nodeAclSet() {
    CommandRequest request;
    request.commandId = PBR_CMD_NODE_SET;
    request.kind = COMMAND_VALUE_NUMBER;
    request.fieldId = PBR_NODE_ACL_NUM;
    request.number = 1501;
    request.key = keyOfList("a");
    return request;
}

Bytes answerBytes(const std::string &hex) { return *hexRead(hex); }

TEST(CommandFrame, NumberSetHasTheHeaderInNetworkOrder) {
    const auto frame = commandFrameMake(nodeAclSet(), 0x01020304);

    ASSERT_TRUE(frame);
    EXPECT_EQ(hexWrite(Bytes(frame->begin(), frame->begin() + 24)), "0000002601"
                                                                    "01000d01020304"
                                                                    "00000004"
                                                                    "000005dd"
                                                                    "00120000");
    EXPECT_EQ(Bytes(frame->begin() + 24, frame->end()), keyOfList("a"));
}

TEST(CommandFrame, BytesOfASetFollowTheKeyAndTheirCountIsTheNumber) {
    CommandRequest request;
    request.commandId = PBR_CMD_NEXT_HOP_SET;
    request.kind = COMMAND_VALUE_BYTES;
    request.fieldId = PBR_NEXT_HOP_ADDRESS;
    request.key = {0xAA, 0xBB};
    request.bytes = {198, 51, 100, 1};

    const auto frame = commandFrameMake(request, 7);

    ASSERT_TRUE(frame);
    EXPECT_EQ(hexWrite(*frame), "0000001a0102001300000007000000020000000400020000aabbc6336401");
}

TEST(CommandFrame, AGetOfBytesCarriesItsCapacity) {
    CommandRequest request;
    request.commandId = PBR_CMD_SCALAR_GET;
    request.kind = COMMAND_VALUE_BYTES;
    request.fieldId = PBR_SCALAR_VERSION;
    request.number = 4;
    EXPECT_EQ(hexWrite(*commandFrameMake(request, 1)), "000000140102001500000001000000050000000400000000");
}

TEST(CommandFrame, LongestFrameIsMadeAndOneByteMoreIsRefused) {
    CommandRequest request;
    request.bytes.assign(65536 - 20, 1);
    EXPECT_TRUE(commandFrameMake(request, 1));
    request.bytes.push_back(1);
    EXPECT_FALSE(commandFrameMake(request, 1));
}

TEST(CommandFrame, AnswerIsTakenWholeAndWhatFollowsIsLeft) {
    const Bytes bytes = answerBytes("00000018" "01" "02" "0012" "00000009" "00000000" "00000004" "0000" "0000"
                                    "c6336401" "ffff");
    CommandAnswer answer;
    size_t used = 0;
    ASSERT_EQ(commandAnswerTake(bytes.data(), bytes.size(), answer, used), COMMAND_TAKE_DONE);
    EXPECT_EQ(used, 28u);
    EXPECT_EQ(answer.requestId, 9u);
    EXPECT_EQ(answer.commandId, PBR_CMD_NEXT_HOP_GET);
    EXPECT_EQ(answer.result, PBR_OK);
    EXPECT_EQ(answer.bytes, (Bytes{198, 51, 100, 1}));
}

TEST(CommandFrame, EveryCutAnswerNeedsMore) {
    const Bytes bytes = answerBytes("000000180102001200000009000000000000000400000000c6336401");
    for (size_t size = 0; size < bytes.size(); size++) {
        CommandAnswer answer;
        size_t used = 99;
        EXPECT_EQ(commandAnswerTake(bytes.data(), size, answer, used), COMMAND_TAKE_NEED_MORE) << size;
        EXPECT_EQ(used, 99u);
    }
}

TEST(CommandFrame, AnswersThatAreNoFramesAreBad) {
    const char *pBad[] = {
        "00000013010200120000000900000000000000000000000000000000", // shorter than a header
        "00010001010200120000000900000000000000000000000000000000", // longer than allowed
        "000000140202001200000009000000000000000000000000",         // another version
        "000000140103001200000009000000000000000000000000",         // unknown kind
        "000000140102001200000009000000000000000000010000",         // key longer than the frame
        "000000180102001200000009000000000000000500000000c6336401", // byte count disagrees
    };
    for (const char *pHex : pBad) {
        const Bytes bytes = answerBytes(pHex);
        CommandAnswer answer;
        size_t used = 0;
        EXPECT_EQ(commandAnswerTake(bytes.data(), bytes.size(), answer, used), COMMAND_TAKE_BAD) << pHex;
    }
}

TEST(RowDecode, RecordsComeInOrderWithTheirValues) {
    std::vector<RowField> rows;
    ASSERT_TRUE(rowDecode(answerBytes("00000001" "00000004" "00000002" "00000002" "00000003" "77616e"), rows));
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rowNumber(rows, 1), 2u);
    EXPECT_EQ(rowBytes(rows, 2), (Bytes{'w', 'a', 'n'}));
    EXPECT_EQ(rowNumber(rows, 2), std::nullopt);
    EXPECT_EQ(rowNumber(rows, 3), std::nullopt);
}

TEST(RowDecode, CutInputYieldsTheWholeRecordsAndSaysThatItIsCut) {
    const Bytes row = answerBytes("000000010000000400000002000000020000000377616e");
    for (size_t size = 0; size <= row.size(); size++) {
        std::vector<RowField> rows;
        const bool whole = rowDecode(Bytes(row.begin(), row.begin() + static_cast<ptrdiff_t>(size)), rows);
        EXPECT_EQ(whole, size == 0 || size == 12 || size == row.size()) << size;
        EXPECT_EQ(rows.size(), size == row.size() ? 2u : size >= 12 ? 1u : 0u) << size;
    }
}

TEST(RowDecode, ALengthBeyondTheBytesIsRefusedAlsoNearItsLimit) {
    std::vector<RowField> rows;
    EXPECT_FALSE(rowDecode(answerBytes("00000001fffffffc00000002"), rows));
    EXPECT_TRUE(rows.empty());
}

TEST(Keys, HaveThePublishedSizesAndComeBack) {
    EXPECT_EQ(keyOfList("wan").size(), 18u);
    EXPECT_EQ(keyOfNode("wan", 10, 2).size(), 28u);
    EXPECT_EQ(listOfKey(keyOfList("wan")), "wan");
    const auto place = nodeOfKey(keyOfNode("0123456789abcdef", 4000000000u, 255));
    ASSERT_TRUE(place);
    EXPECT_EQ(place->list, "0123456789abcdef");
    EXPECT_EQ(place->nodeIndex, 4000000000u);
    EXPECT_EQ(place->nextHopIndex, 255);
    EXPECT_EQ(interfaceOfKey(keyOfInterface(7)), 7u);
    EXPECT_FALSE(listOfKey(Bytes(17)));
    EXPECT_FALSE(nodeOfKey(Bytes(29)));
    EXPECT_FALSE(interfaceOfKey(Bytes(3)));
}

TEST(Keys, WalkFilterStandsInTheMaskByte) {
    EXPECT_EQ(keyOfNode("a", 1, 0, PBR_KEY_LIST_FIXED | PBR_KEY_NODE_FIXED)[24], 0xC0);
}

TEST(Keys, AnOverlongNameKeepsItsLengthSoThatTheDaemonRefusesIt) {
    const Bytes key = keyOfList(std::string(17, 'x'));
    PbrListKey listKey;
    memcpy(&listKey, key.data(), sizeof(listKey));
    EXPECT_EQ(listKey.listNameLen, 17);
}

} // namespace
