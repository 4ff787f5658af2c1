// Intrusive lists, and words in byte images.
#include "core/pbr_link.h"

#include <gtest/gtest.h>

#include <vector>

#include "core/pbr_bytes.h"

namespace {

std::vector<const PbrLink *> walk(const PbrLink *pHead) {
    std::vector<const PbrLink *> links;
    for (PbrLink *p = listFirst(pHead); p != nullptr; p = listNext(pHead, p)) {
        links.push_back(p);
    }
    return links;
}

TEST(Link, AnEmptyHeadPointsToItself) {
    PbrLink head = {};
    listInit(&head);

    EXPECT_EQ(head.pNext, &head);
    EXPECT_EQ(head.pPrev, &head);
    EXPECT_TRUE(listEmpty(&head));
    EXPECT_EQ(listFirst(&head), nullptr);
}

TEST(Link, BehindTheHeadIsTheFrontAndBehindItsPreviousIsTheEnd) {
    PbrLink head = {}, a = {}, b = {}, c = {};
    listInit(&head);
    listInsertAfter(&a, &head);
    listInsertAfter(&b, &head);
    listInsertAfter(&c, head.pPrev);

    EXPECT_EQ(walk(&head), (std::vector<const PbrLink *>{&b, &a, &c}));
    EXPECT_EQ(head.pPrev, &c);
    EXPECT_EQ(c.pPrev, &a);
}

TEST(Link, UnlinkingANeverLinkedLinkDoesNothing) {
    PbrLink link = {};

    listUnlink(&link);

    EXPECT_EQ(link.pNext, nullptr);
    EXPECT_EQ(link.pPrev, nullptr);
}

TEST(Link, UnlinkingClosesTheRingAndKeepsTheLinksOwnWords) {
    PbrLink head = {}, a = {}, b = {};
    listInit(&head);
    listInsertAfter(&a, &head);
    listInsertAfter(&b, &a);

    listUnlink(&a);

    EXPECT_EQ(walk(&head), (std::vector<const PbrLink *>{&b}));
    EXPECT_EQ(b.pPrev, &head);
    EXPECT_EQ(a.pNext, &b);
}

TEST(Link, UnlinkingAndMakingEmptyMayBeRepeated) {
    PbrLink head = {}, a = {}, b = {};
    listInit(&head);
    listInsertAfter(&a, &head);
    listInsertAfter(&b, &a);

    listUnlinkInit(&a);
    listUnlinkInit(&a);

    EXPECT_TRUE(listEmpty(&a));
    EXPECT_EQ(walk(&head), (std::vector<const PbrLink *>{&b}));
}

TEST(Link, TheLastLinkLeavesTheHeadEmpty) {
    PbrLink head = {}, a = {};
    listInit(&head);
    listInsertAfter(&a, &head);

    listUnlink(&a);

    EXPECT_TRUE(listEmpty(&head));
}

TEST(Bytes, BigEndianWordsAreTheSameOnEveryMachine) {
    uint8_t image[7] = {};

    pbrStoreBe32(image + 1, 0x01020304u);
    pbrStoreBe16(image + 5, 0xA0B0u);

    const uint8_t expected[7] = {0, 1, 2, 3, 4, 0xA0, 0xB0};
    EXPECT_EQ(memcmp(image, expected, sizeof(image)), 0);
    EXPECT_EQ(pbrLoadBe32(image + 1), 0x01020304u);
    EXPECT_EQ(pbrLoadBe16(image + 5), 0xA0B0u);
}

TEST(Bytes, MachineOrderWordsNeedNoAlignment) {
    uint8_t image[16] = {};
    const uint32_t word = 0x01020304u;
    const uint16_t half = 0x0506u;

    pbrStoreU32(image + 1, word);
    pbrStoreU16(image + 7, half);

    EXPECT_EQ(memcmp(image + 1, &word, 4), 0);
    EXPECT_EQ(memcmp(image + 7, &half, 2), 0);
    EXPECT_EQ(pbrLoadU32(image + 1), word);
    EXPECT_EQ(pbrLoadU16(image + 7), half);
}

} // namespace
