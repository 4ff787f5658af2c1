// The walks over the four tables: api/pbr_walk.cpp. The orders are proved against simple models over
// every small store and every key: prefixes, missing rows, keys before the start and behind the end.
#include <algorithm>
#include <set>
#include <tuple>

#include "core/pbr_start.h"
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

class Walk : public ApiTest {};

const std::vector<std::string> NAMES = {"a", "ab", "abc", "b"};
// Names of keys: every list, names between, before and behind; with a byte above 127.
const std::vector<std::string> KEY_NAMES = {"",  "a", "aa", "ab", "abb", "abc", "abcd",
                                            "b", "c", "\xFF", "0123456789abcdef"};

std::vector<std::string> rowsSeen(IcmFirstHandler first, IcmNextHandler next, Key key) {
    std::vector<std::string> rows;
    uint32_t code = walkFirst(first, key);
    while (code == PBR_OK && rows.size() < 100) {
        rows.push_back(show(key));
        const Key in = key;
        code = walkNext(next, in, key);
    }
    EXPECT_EQ(code, PBR_FAIL);
    return rows;
}

// ---- lists ----

TEST_F(Walk, ListsComeInNameOrderWhateverTheOrderOfCreation) {
    std::vector<std::string> order = NAMES;
    do {
        SetUp();
        for (const std::string &name : order) {
            haveList(name);
        }
        std::vector<std::string> seen;
        Key key(sizeof(PbrListKey));
        for (uint32_t code = walkFirst(pbrListGetFirst, key); code == PBR_OK;) {
            seen.push_back(listName(key));
            const Key in = key;
            code = walkNext(pbrListGetNext, in, key);
        }
        EXPECT_EQ(seen, NAMES);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(Walk, TheListAfterAKeyIsTheNextGreaterNameAlsoWhenTheKeyIsNoList) {
    for (unsigned subset = 0; subset < 16; ++subset) {
        SetUp();
        std::set<std::string> model;
        for (unsigned i = 0; i < NAMES.size(); ++i) {
            if ((subset >> i & 1) != 0) {
                haveList(NAMES[i]);
                model.insert(NAMES[i]);
            }
        }
        for (const std::string &name : KEY_NAMES) {
            const auto expected = model.upper_bound(name);
            Key out(sizeof(PbrListKey), 0xEE);
            const uint32_t code = walkNext(pbrListGetNext, listKey(name), out);
            ASSERT_EQ(code, expected == model.end() ? PBR_FAIL : PBR_OK) << name;
            EXPECT_EQ(expected == model.end() ? out == Key(sizeof(PbrListKey), 0xEE) : listName(out) == *expected,
                      true)
                << name;
        }
    }
}

TEST_F(Walk, APrefixOfAnExistingNameComesBeforeIt) {
    haveList("abc");
    Key out(sizeof(PbrListKey));

    EXPECT_EQ(walkNext(pbrListGetNext, listKey("ab"), out), PBR_OK);

    EXPECT_EQ(listName(out), "abc");
}

TEST_F(Walk, AListKeyWithAWildLengthIsTakenAsALongerName) {
    haveList("0123456789abcdef");
    haveList("1");
    Key out(sizeof(PbrListKey));

    EXPECT_EQ(walkNext(pbrListGetNext, listKey("0123456789abcdef", 65535), out), PBR_OK);
    EXPECT_EQ(listName(out), "1");
    EXPECT_EQ(walkNext(pbrListGetNext, listKey("0123456789abcdef", 0), out), PBR_OK);
    EXPECT_EQ(listName(out), "0123456789abcdef");
}

TEST_F(Walk, AnEmptyStoreHasNoRows) {
    Key listRow = listKey("a"), nodeRow = nodeKey("a", 1), unitRow = unitKey(1);
    const Key listIn = listRow, nodeIn = nodeRow, unitIn = unitRow;

    EXPECT_EQ(walkFirst(pbrListGetFirst, listRow), PBR_FAIL);
    EXPECT_EQ(walkNext(pbrListGetNext, listIn, listRow), PBR_FAIL);
    EXPECT_EQ(walkFirst(pbrNodeGetFirst, nodeRow), PBR_FAIL);
    EXPECT_EQ(walkNext(pbrNodeGetNext, nodeIn, nodeRow), PBR_FAIL);
    EXPECT_EQ(walkFirst(pbrNextHopGetFirst, nodeRow), PBR_FAIL);
    EXPECT_EQ(walkNext(pbrNextHopGetNext, nodeIn, nodeRow), PBR_FAIL);
    EXPECT_EQ(walkFirst(pbrIfGetFirst, unitRow), PBR_FAIL);
    EXPECT_EQ(walkNext(pbrIfGetNext, unitIn, unitRow), PBR_FAIL);
    EXPECT_EQ(listRow, listIn) << "a key stays as it is at the end";
    EXPECT_EQ(nodeRow, nodeIn);
    EXPECT_EQ(unitRow, unitIn);
}

TEST_F(Walk, MissingKeysEndTheWalk) {
    haveList("a");
    haveNode("a", 1, 0, 1);
    haveNextHop("a", 1, 1);
    haveInterface(7);
    uint8_t key[28] = {};

    for (IcmFirstHandler first : {pbrListGetFirst, pbrNodeGetFirst, pbrNextHopGetFirst, pbrIfGetFirst}) {
        EXPECT_EQ(first(nullptr), PBR_FAIL);
    }
    for (IcmNextHandler next : {pbrListGetNext, pbrNodeGetNext, pbrNextHopGetNext, pbrIfGetNext}) {
        EXPECT_EQ(next(nullptr, key), PBR_FAIL);
        EXPECT_EQ(next(key, nullptr), PBR_FAIL);
    }
    EXPECT_FALSE(fake::locked());
}

TEST_F(Walk, InAndOutMayBeTheSameKey) {
    haveList("a");
    haveList("b");
    haveNode("a", 1, 0, 1);
    haveNode("a", 2, 0, 1);
    haveNextHop("a", 1, 1);
    haveNextHop("a", 1, 2);
    haveInterface(3);
    haveInterface(5);
    Key listRow = listKey("a"), nodeRow = nodeKey("a", 1), hopRow = nodeKey("a", 1, 1), unitRow = unitKey(3);

    EXPECT_EQ(pbrListGetNext(listRow.data(), listRow.data()), PBR_OK);
    EXPECT_EQ(pbrNodeGetNext(nodeRow.data(), nodeRow.data()), PBR_OK);
    EXPECT_EQ(pbrNextHopGetNext(hopRow.data(), hopRow.data()), PBR_OK);
    EXPECT_EQ(pbrIfGetNext(unitRow.data(), unitRow.data()), PBR_OK);

    EXPECT_EQ(listName(listRow), "b");
    EXPECT_EQ(show(nodeRow), "a\\2\\0");
    EXPECT_EQ(show(hopRow), "a\\1\\2");
    EXPECT_EQ(unit(unitRow), 5u);
}

// ---- interfaces ----

TEST_F(Walk, InterfacesComeInUnitOrderUnsigned) {
    std::vector<uint32_t> order = {3, 7, 0x80000001u, 0xFFFFFFFFu};
    const std::vector<uint32_t> sorted = order;
    do {
        SetUp();
        for (uint32_t ifUnit : order) {
            haveInterface(ifUnit);
        }
        std::vector<uint32_t> seen;
        Key key = unitKey(0);
        for (uint32_t code = walkFirst(pbrIfGetFirst, key); code == PBR_OK;) {
            seen.push_back(unit(key));
            const Key in = key;
            code = walkNext(pbrIfGetNext, in, key);
        }
        EXPECT_EQ(seen, sorted);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(Walk, TheInterfaceAfterAMissingUnitIsTheNextGreaterOne) {
    const std::set<uint32_t> units = {3, 7, 0x80000001u};
    for (uint32_t ifUnit : units) {
        haveInterface(ifUnit);
    }
    for (uint32_t in : {0u, 2u, 3u, 4u, 6u, 7u, 8u, 0x7FFFFFFFu, 0x80000000u, 0x80000001u, 0x80000002u, 0xFFFFFFFFu}) {
        const auto expected = units.upper_bound(in);
        Key out = unitKey(0xEEEEEEEE);
        EXPECT_EQ(walkNext(pbrIfGetNext, unitKey(in), out), expected == units.end() ? PBR_FAIL : PBR_OK) << in;
        EXPECT_EQ(unit(out), expected == units.end() ? 0xEEEEEEEEu : *expected) << in;
    }
}

// ---- nodes ----

using Row = std::tuple<std::string, uint32_t>;
const std::vector<Row> NODE_ROWS = {{"a", 10}, {"a", 20}, {"ab", 10}, {"b", 5}, {"b", 20}};
const std::vector<uint32_t> KEY_INDEXES = {0, 4, 5, 10, 15, 20, 25, 0xFFFFFFFFu};
constexpr uint8_t MASKS[] = {0, PBR_KEY_LIST_FIXED, PBR_KEY_NODE_FIXED, PBR_KEY_LIST_FIXED | PBR_KEY_NODE_FIXED};

bool wanted(const Row &row, const std::string &name, uint32_t index, uint8_t mask) {
    return ((mask & PBR_KEY_LIST_FIXED) == 0 || std::get<0>(row) == name) &&
           ((mask & PBR_KEY_NODE_FIXED) == 0 || std::get<1>(row) == index);
}

// Stores with every subset of the rows; lists exist also without nodes.
template <class Check> void forEveryNodeStore(Check check) {
    for (unsigned subset = 0; subset < 32; ++subset) {
        fake::reset();
        ASSERT_EQ(pbrInit(0, 0, 0), PBR_OK);
        for (const char *name : {"ab", "b", "a"}) {
            haveList(name);
        }
        std::set<Row> model;
        for (unsigned i = 0; i < NODE_ROWS.size(); ++i) {
            if ((subset >> i & 1) != 0) {
                haveNode(std::get<0>(NODE_ROWS[i]), std::get<1>(NODE_ROWS[i]));
                model.insert(NODE_ROWS[i]);
            }
        }
        check(model);
    }
}

template <class Check> void forEveryNodeKey(Check check) {
    for (const std::string &name : KEY_NAMES) {
        for (uint32_t index : KEY_INDEXES) {
            for (uint8_t mask : MASKS) {
                check(name, index, mask);
            }
        }
    }
}

TEST_F(Walk, TheFirstNodeIsTheFirstThatTheFiltersLetPass) {
    forEveryNodeStore([](const std::set<Row> &model) {
        forEveryNodeKey([&](const std::string &name, uint32_t index, uint8_t mask) {
            const auto expected = std::find_if(model.begin(), model.end(), [&](const Row &row) {
                return wanted(row, name, index, mask);
            });
            Key key = nodeKey(name, index, 77, mask);
            const Key before = key;
            ASSERT_EQ(walkFirst(pbrNodeGetFirst, key), expected == model.end() ? PBR_FAIL : PBR_OK);
            if (expected == model.end()) {
                ASSERT_EQ(key, before);
                return;
            }
            ASSERT_EQ(Row(listName(key), nodeIndex(key)), *expected) << name << index << int(mask);
            ASSERT_EQ(key[24], mask) << "the mask stays";
            ASSERT_EQ(hopIndex(key), 77) << "the next-hop index stays";
        });
    });
}

TEST_F(Walk, TheNodeAfterAKeyIsTheNextThatTheFiltersLetPass) {
    forEveryNodeStore([](const std::set<Row> &model) {
        forEveryNodeKey([&](const std::string &name, uint32_t index, uint8_t mask) {
            auto expected = model.upper_bound(Row(name, index));
            while (expected != model.end() && !wanted(*expected, name, index, mask)) {
                ++expected;
            }
            Key out(sizeof(PbrNodeKey), 0xEE);
            ASSERT_EQ(walkNext(pbrNodeGetNext, nodeKey(name, index, 77, mask), out),
                      expected == model.end() ? PBR_FAIL : PBR_OK)
                << name << " " << index << " mask " << int(mask);
            if (expected == model.end()) {
                ASSERT_EQ(out, Key(sizeof(PbrNodeKey), 0xEE)) << "nothing is written at the end";
                return;
            }
            ASSERT_EQ(Row(listName(out), nodeIndex(out)), *expected) << name << " " << index << " " << int(mask);
            ASSERT_EQ(out[24], mask) << "copied from the input";
            ASSERT_EQ(hopIndex(out), 77) << "copied from the input";
        });
    });
}

TEST_F(Walk, AFixedNodeIsVisitedOnceInEveryList) {
    for (const char *name : {"a", "b", "c"}) {
        haveList(name);
        for (uint32_t index : {5u, 10u, 20u}) {
            haveNode(name, index);
        }
    }

    EXPECT_EQ(rowsSeen(pbrNodeGetFirst, pbrNodeGetNext, nodeKey("", 10, 0, PBR_KEY_NODE_FIXED)),
              (Lines{"a\\10\\0", "b\\10\\0", "c\\10\\0"}));
}

TEST_F(Walk, AFixedListIsNotLeft) {
    for (const char *name : {"a", "ab", "b"}) {
        haveList(name);
        haveNode(name, 5);
        haveNode(name, 10);
    }

    EXPECT_EQ(rowsSeen(pbrNodeGetFirst, pbrNodeGetNext, nodeKey("ab", 0, 0, PBR_KEY_LIST_FIXED)),
              (Lines{"ab\\5\\0", "ab\\10\\0"}));
    EXPECT_EQ(rowsSeen(pbrNodeGetFirst, pbrNodeGetNext, nodeKey("x", 0, 0, PBR_KEY_LIST_FIXED)), Lines{});
}

TEST_F(Walk, ANodeKeyWithAWildLengthIsTakenAsALongerName) {
    haveList("0123456789abcdef");
    haveNode("0123456789abcdef", 1);
    haveList("1");
    haveNode("1", 1, 0, 1);
    haveNextHop("1", 1, 4);
    Key key = nodeKey("0123456789abcdef", 1);
    const uint16_t wild = 65535;
    memcpy(key.data() + 16, &wild, sizeof wild);
    Key out(sizeof(PbrNodeKey));

    EXPECT_EQ(walkNext(pbrNodeGetNext, key, out), PBR_OK);
    EXPECT_EQ(show(out), "1\\1\\0");
    EXPECT_EQ(walkNext(pbrNextHopGetNext, key, out), PBR_OK);
    EXPECT_EQ(listName(out), "1");
    key[24] = PBR_KEY_LIST_FIXED;
    EXPECT_EQ(walkFirst(pbrNodeGetFirst, key), PBR_FAIL);
    EXPECT_EQ(walkFirst(pbrNextHopGetFirst, key), PBR_FAIL);
}

// ---- next hops ----

struct HopStore {
    std::string list;
    uint32_t node;
    std::vector<uint8_t> hops;
};
// Nodes without next hops before, between and behind; the same node index in two lists.
const std::vector<HopStore> HOP_STORE = {
    {"a", 5, {}}, {"a", 10, {1, 3}}, {"a", 15, {}}, {"a", 20, {2}}, {"ab", 10, {}}, {"b", 10, {7, 9}}, {"b", 20, {}},
};

void haveHopStore() {
    for (const char *name : {"b", "a", "empty", "ab"}) {
        haveList(name);
    }
    for (const HopStore &row : HOP_STORE) {
        haveNode(row.list, row.node, 0, 1);
        for (uint8_t index : row.hops) {
            haveNextHop(row.list, row.node, index);
        }
    }
}

TEST_F(Walk, TheFirstNextHopIsThatOfTheFirstNodeWithOne) {
    haveHopStore();
    forEveryNodeKey([](const std::string &name, uint32_t index, uint8_t mask) {
        std::string expected;
        for (const HopStore &row : HOP_STORE) {
            if (expected.empty() && !row.hops.empty() && wanted({row.list, row.node}, name, index, mask)) {
                expected = row.list + "\\" + std::to_string(row.node) + "\\" + std::to_string(row.hops.front());
            }
        }
        Key key = nodeKey(name, index, 77, mask);
        const Key before = key;
        ASSERT_EQ(walkFirst(pbrNextHopGetFirst, key), expected.empty() ? PBR_FAIL : PBR_OK);
        ASSERT_EQ(expected.empty() ? key == before : show(key) == expected, true) << show(key) << expected;
        ASSERT_EQ(key[24], mask);
    });
}

// The published rule, straight from its words. "": the end.
std::string hopAfterModel(const std::string &name, uint32_t index, uint8_t hopNumber, uint8_t mask) {
    uint32_t examined = 0;
    for (const HopStore &row : HOP_STORE) {
        if (row.list < name || !wanted({row.list, row.node}, name, index, mask)) {
            continue;
        }
        const std::string place = row.list + "\\" + std::to_string(row.node) + "\\";
        if (row.list != name) {
            return place + std::to_string(examined);
        }
        if (row.node < index) {
            continue;
        }
        for (uint8_t candidate : row.hops) {
            examined = candidate;
            if (row.node > index || candidate > hopNumber) {
                return place + std::to_string(candidate);
            }
        }
    }
    return "";
}

TEST_F(Walk, TheNextHopAfterAKeyFollowsThePublishedRule) {
    haveHopStore();
    forEveryNodeKey([](const std::string &name, uint32_t index, uint8_t mask) {
        if (name.empty()) {
            return;
        }
        for (uint8_t hopNumber : {0, 1, 2, 3, 7, 9, 255}) {
            const std::string expected = hopAfterModel(name, index, hopNumber, mask);
            Key out(sizeof(PbrNodeKey), 0xEE);
            ASSERT_EQ(walkNext(pbrNextHopGetNext, nodeKey(name, index, hopNumber, mask), out),
                      expected.empty() ? PBR_FAIL : PBR_OK)
                << name << " " << index << " " << int(hopNumber) << " mask " << int(mask);
            if (expected.empty()) {
                ASSERT_EQ(out, Key(sizeof(PbrNodeKey), 0xEE));
                return;
            }
            ASSERT_EQ(show(out), expected) << name << " " << index << " " << int(hopNumber) << " " << int(mask);
            ASSERT_EQ(out[24], mask);
        }
    });
}

TEST_F(Walk, ALaterListAnswersWithItsFirstNodeAndTheIndexExaminedLast) {
    haveHopStore();
    Key out(sizeof(PbrNodeKey));

    EXPECT_EQ(walkNext(pbrNextHopGetNext, nodeKey("a", 20, 2), out), PBR_OK);
    EXPECT_EQ(show(out), "ab\\10\\2") << "node 10 of ab has no next hop; 2 was examined in a";
    EXPECT_EQ(walkNext(pbrNextHopGetNext, nodeKey("a", 10, 3, PBR_KEY_NODE_FIXED), out), PBR_OK);
    EXPECT_EQ(show(out), "ab\\10\\3");
}

TEST_F(Walk, WhereNoNextHopWasExaminedTheIndexIsZero) {
    haveHopStore();
    Key out(sizeof(PbrNodeKey));

    EXPECT_EQ(walkNext(pbrNextHopGetNext, nodeKey("aa", 1, 9), out), PBR_OK);

    EXPECT_EQ(show(out), "ab\\10\\0");
}

TEST_F(Walk, ANextHopKeyWithoutListNameEndsAtOnce) {
    haveHopStore();
    const Key before(sizeof(PbrNodeKey), 0xEE);
    Key out = before;

    EXPECT_EQ(walkNext(pbrNextHopGetNext, nodeKey("", 0, 0), out), PBR_FAIL);

    EXPECT_EQ(out, before);
}

TEST_F(Walk, TheNextHopsOfOneListAreVisitedInOrder) {
    haveHopStore();

    EXPECT_EQ(rowsSeen(pbrNextHopGetFirst, pbrNextHopGetNext, nodeKey("a", 0, 0, PBR_KEY_LIST_FIXED)),
              (Lines{"a\\10\\1", "a\\10\\3", "a\\20\\2"}));
    EXPECT_EQ(rowsSeen(pbrNextHopGetFirst, pbrNextHopGetNext,
                       nodeKey("b", 10, 0, PBR_KEY_LIST_FIXED | PBR_KEY_NODE_FIXED)),
              (Lines{"b\\10\\7", "b\\10\\9"}));
}

} // namespace
