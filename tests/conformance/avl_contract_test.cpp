// The contract of platform/avl.h: order, neighbours, equal elements, every order of insertion and removal.
#include <algorithm>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "platform/avl.h"

namespace {

struct Element {
    uint32_t before; // so that the link is not at the start
    AvlNode link;
    uint32_t key;
};

int32_t compare(const void *pA, const void *pB) {
    const uint32_t a = static_cast<const Element *>(pA)->key;
    const uint32_t b = static_cast<const Element *>(pB)->key;
    return a < b ? -1 : a > b;
}

class Tree : public testing::Test {
protected:
    Tree() { avl_create(&tree, compare, sizeof(Element), offsetof(Element, link)); }

    std::vector<Element> make(const std::vector<uint32_t> &keys) {
        std::vector<Element> elements(keys.size());
        for (size_t i = 0; i < keys.size(); ++i) {
            elements[i].key = keys[i];
        }
        return elements;
    }
    void addAll(std::vector<Element> &elements) {
        for (Element &element : elements) {
            avl_add(&tree, &element);
        }
    }
    std::vector<uint32_t> walk() {
        std::vector<uint32_t> keys;
        for (const void *p = avl_first(&tree); p != nullptr; p = avl_next(&tree, p)) {
            keys.push_back(static_cast<const Element *>(p)->key);
        }
        return keys;
    }
    // Key of the neighbour of a place, 0 for none.
    uint32_t nearest(uint32_t key, int32_t direction) {
        Element search{};
        search.key = key;
        const void *p = avl_nearest(&tree, &search, direction);
        return p == nullptr ? 0 : static_cast<const Element *>(p)->key;
    }
    bool isFound(uint32_t key) {
        Element search{};
        search.key = key;
        const void *p = avl_find(&tree, &search);
        return p != nullptr && static_cast<const Element *>(p)->key == key;
    }

    AvlTree tree;
};

TEST_F(Tree, AnEmptyTreeHasNothingToFind) {
    EXPECT_EQ(1, avl_is_empty(&tree));
    EXPECT_EQ(nullptr, avl_first(&tree));
    EXPECT_FALSE(isFound(1));
    EXPECT_EQ(0u, nearest(1, 1));
    EXPECT_EQ(0u, nearest(1, -1));
}

TEST_F(Tree, EveryOrderOfInsertionAndRemovalKeepsTheOrder) {
    std::vector<uint32_t> in = {1, 2, 3, 4, 5, 6};
    do {
        std::vector<uint32_t> out = in;
        std::rotate(out.begin(), out.begin() + in[0] % 5, out.end()); // another order of removal
        std::vector<Element> elements = make(in);
        addAll(elements);
        std::vector<uint32_t> left = {1, 2, 3, 4, 5, 6};
        ASSERT_EQ(left, walk());
        for (const uint32_t key : out) {
            avl_remove(&tree, &*std::find_if(elements.begin(), elements.end(),
                                             [&](const Element &e) { return e.key == key; }));
            left.erase(std::find(left.begin(), left.end(), key));
            ASSERT_EQ(left, walk());
            ASSERT_FALSE(isFound(key));
        }
        ASSERT_EQ(1, avl_is_empty(&tree));
    } while (std::next_permutation(in.begin(), in.end()));
}

TEST_F(Tree, ALargeTreeIsWalkedInOrderAndFindsEveryElement) {
    std::vector<uint32_t> keys(1000);
    std::iota(keys.begin(), keys.end(), 1);
    std::vector<uint32_t> shuffled;
    for (uint32_t i = 0; i < keys.size(); ++i) {
        shuffled.push_back(keys[i * 389 % keys.size()]);
    }
    std::vector<Element> elements = make(shuffled);
    addAll(elements);
    EXPECT_EQ(keys, walk());
    EXPECT_TRUE(std::all_of(keys.begin(), keys.end(), [&](uint32_t key) { return isFound(key); }));
    EXPECT_FALSE(isFound(0));
    EXPECT_FALSE(isFound(1001));
}

TEST_F(Tree, TheNeighboursOfAMissingKeyAreFoundOnBothSides) {
    std::vector<Element> elements = make({10, 20, 30});
    addAll(elements);
    EXPECT_EQ(10u, nearest(5, 1));
    EXPECT_EQ(0u, nearest(5, -1));
    EXPECT_EQ(20u, nearest(15, 1));
    EXPECT_EQ(10u, nearest(15, -1));
    EXPECT_EQ(0u, nearest(35, 1));
    EXPECT_EQ(30u, nearest(35, -1));
    EXPECT_EQ(30u, nearest(0xFFFFFFFF, -1));
}

TEST_F(Tree, AnEqualElementIsPlacedBehindTheOthers) {
    std::vector<Element> elements = make({5, 5, 5, 1});
    addAll(elements);
    const void *p = avl_first(&tree);
    for (const size_t expected : {3u, 0u, 1u, 2u}) {
        ASSERT_EQ(&elements[expected], p);
        p = avl_next(&tree, p);
    }
    EXPECT_EQ(nullptr, p);
}

TEST_F(Tree, ARemovedElementHasAZeroLinkAndCanBeAddedAgain) {
    std::vector<Element> elements = make({2, 1, 3});
    addAll(elements);
    avl_remove(&tree, &elements[0]);
    EXPECT_EQ(nullptr, elements[0].link.pParent);
    EXPECT_EQ(nullptr, elements[0].link.pLeft);
    EXPECT_EQ(nullptr, elements[0].link.pRight);
    EXPECT_EQ(0u, elements[0].link.balance);
    avl_add(&tree, &elements[0]);
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), walk());
}

TEST_F(Tree, TheFirstMemberCanBeTheLink) {
    struct First {
        AvlNode link;
        uint32_t key;
    };
    AvlTree plain;
    avl_create(&plain, [](const void *pA, const void *pB) -> int32_t {
        const uint32_t a = static_cast<const First *>(pA)->key, b = static_cast<const First *>(pB)->key;
        return a < b ? -1 : a > b;
    }, sizeof(First), 0);
    First one{{}, 1}, two{{}, 2};
    avl_add(&plain, &two);
    avl_add(&plain, &one);
    EXPECT_EQ(&one, avl_first(&plain));
    EXPECT_EQ(&two, avl_next(&plain, &one));
    EXPECT_EQ(0, avl_is_empty(&plain));
}

TEST_F(Tree, TheLinkIsFourWords) {
    EXPECT_EQ(4 * sizeof(void *), sizeof(AvlNode));
}

} // namespace
