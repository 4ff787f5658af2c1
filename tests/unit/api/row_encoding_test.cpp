// The whole-row reads: records of {field id, length, value}, cut where the buffer ends.
#include "api/pbr_field.h"
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

class RowEncoding : public ApiTest {};

std::string number(uint32_t field, uint32_t value) { return word(field) + word(4) + word(value); }
std::string text(uint32_t field, const std::string &bytes) {
    return word(field) + word(static_cast<uint32_t>(bytes.size())) + bytes;
}

// What a table's row reads as at every capacity: the records before the first that has no room.
struct Record {
    std::string bytes;
    uint32_t need; // free bytes without which it is not written
};
void expectRow(IcmFieldHandler get, const Key &key, uint32_t field, const std::vector<Record> &records) {
    uint32_t full = 0;
    for (const Record &record : records) {
        full += static_cast<uint32_t>(record.bytes.size());
    }
    for (uint32_t capacity = 0; capacity <= full + 30; ++capacity) {
        std::string expected;
        for (const Record &record : records) {
            if (capacity < expected.size() + record.need) {
                break;
            }
            expected += record.bytes;
        }
        const Answer answer = getBytes(get, key, field, capacity, true);
        EXPECT_EQ(answer.code, PBR_OK) << "capacity " << capacity;
        EXPECT_EQ(answer.bytes, expected) << "capacity " << capacity;
    }
}

TEST_F(RowEncoding, AListIsItsStateAndItsUseCount) {
    haveList("web");
    haveBinding(7, "web");

    expectRow(pbrListGetApi, listKey("web"), PBR_LIST_ROW, {{number(1, 2), 12}, {number(2, 1), 12}});
}

TEST_F(RowEncoding, ANodeIsElevenRecordsInPublishedOrder) {
    haveList("web");
    haveNode("web", 10, 3500, 2);
    PbrNodeEntry *pNode = node("web", 10);
    pNode->status = 1;
    pNode->matchValue1 = 0xFFFE;
    pNode->matchValue2 = 7;
    pNode->outIfUnit = 0x80000001;
    pNode->vrfid = 12;
    pNode->nodeField7 = 0xFFFFFFFF;
    pbrNodeIpPriSet(pNode, 6);
    pbrNodeForwardFlagSet(pNode, 2);
    pbrNodeIsEcmpSet(pNode, 1);
    pNode->timeRangeId = 5; // not part of the row

    expectRow(pbrNodeGetApi, nodeKey("web", 10), PBR_NODE_ROW,
              {{number(1, 1), 12},
               {number(2, 0xFFFE), 12},
               {number(3, 7), 12},
               {number(4, 3500), 12},
               {number(10, 2), 12},
               {number(5, 6), 12},
               {number(6, 0x80000001), 12},
               {number(11, 12), 12},
               {number(7, 0xFFFFFFFF), 12},
               {number(8, 2), 12},
               {number(9, 1), 12}});
}

TEST_F(RowEncoding, AnInterfaceWithoutListHasAnEmptyName) {
    haveInterface(7);

    expectRow(pbrIfGetApi, unitKey(7), PBR_IF_ROW, {{number(1, 1), 12}, {text(2, ""), 12}});
}

TEST_F(RowEncoding, AnInterfacesNameNeedsTwelveFreeBytesAndIsWrittenWhole) {
    haveList("0123456789abcdef");
    haveBinding(7, "0123456789abcdef");
    haveList("a");
    haveBinding(8, "a");

    expectRow(pbrIfGetApi, unitKey(7), PBR_IF_ROW, {{number(1, 1), 12}, {text(2, "0123456789abcdef"), 12}});
    expectRow(pbrIfGetApi, unitKey(8), PBR_IF_ROW, {{number(1, 1), 12}, {text(2, "a"), 12}});
}

TEST_F(RowEncoding, TheScalarsEndWithTheVersionWhichNeedsTwentyThreeFreeBytes) {
    haveList("web");
    gPbrInfo.debugFlags = 4;

    expectRow(pbrScalarGetApi, {}, PBR_SCALAR_ROW,
              {{number(1, 64), 12},
               {number(2, 128), 12},
               {number(3, 1), 12},
               {number(4, 4), 12},
               {text(5, "PBR_V7.00.00.00"), 23}});
}

TEST_F(RowEncoding, ABufferOfLessThanTwelveBytesStaysEmptyAndSucceeds) {
    haveList("web");

    for (uint32_t capacity = 0; capacity < 12; ++capacity) {
        const Answer answer = getBytes(pbrListGetApi, listKey("web"), PBR_LIST_ROW, capacity);
        EXPECT_EQ(answer.code, PBR_OK);
        EXPECT_EQ(answer.len, 0u);
    }
}

TEST_F(RowEncoding, NoBufferFails) {
    haveList("web");
    haveNode("web", 10);
    haveInterface(7);
    Key listOfRow = listKey("web"), nodeOfRow = nodeKey("web", 10), unitOfRow = unitKey(7);
    PbrApiValue none = {0, 4096};

    EXPECT_EQ(pbrListGetApi(listOfRow.data(), PBR_LIST_ROW, &none), PBR_FAIL);
    EXPECT_EQ(pbrNodeGetApi(nodeOfRow.data(), PBR_NODE_ROW, &none), PBR_FAIL);
    EXPECT_EQ(pbrIfGetApi(unitOfRow.data(), PBR_IF_ROW, &none), PBR_FAIL);
    EXPECT_EQ(pbrScalarGetApi(nullptr, PBR_SCALAR_ROW, &none), PBR_FAIL);
    EXPECT_FALSE(fake::locked());
}

TEST_F(RowEncoding, ANextHopHasNoWholeRow) {
    haveList("web");
    haveNode("web", 10, 0, 1);
    haveNextHop("web", 10, 1);

    for (uint32_t field : {3u, 6u, 15u}) {
        EXPECT_EQ(getBytes(pbrNextHopGetApi, nodeKey("web", 10, 1), field, 256).code, PBR_FAIL);
    }
}

} // namespace
