// The hand-over between events and the device.
#include "nexthop/pbr_ready_table.h"

#include "tests/unit/hw/steps.h"

namespace {

class ReadyTable : public steps::StoreTest {};

TEST_F(ReadyTable, TheLatestQueuedListStandsFirst) {
    PbrListEntry *pA = makeList("a");
    PbrListEntry *pB = makeList("b");
    PbrListEntry *pC = makeList("c");
    pbrReadyTableAdd(pA);
    pbrReadyTableAdd(pC);
    pbrReadyTableAdd(pB);
    EXPECT_EQ("b,c,a", readyLists());
}

TEST_F(ReadyTable, AListStandsThereOnceAndMovesToTheFrontWhenQueuedAgain) {
    PbrListEntry *pA = makeList("a");
    PbrListEntry *pB = makeList("b");
    pbrReadyTableAdd(pA);
    pbrReadyTableAdd(pB);
    pbrReadyTableAdd(pA);
    EXPECT_EQ("a,b", readyLists());
    pbrReadyTableAdd(pA);
    EXPECT_EQ("a,b", readyLists());
}

TEST_F(ReadyTable, AListThatLeftCanBeQueuedAgain) {
    PbrListEntry *pA = makeList("a");
    pbrReadyTableAdd(pA);
    listUnlinkInit(&pA->readyLink);
    EXPECT_EQ("", readyLists());
    pbrReadyTableAdd(pA);
    EXPECT_EQ("a", readyLists());
}

} // namespace
