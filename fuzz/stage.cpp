// See stage.h.
#include "fuzz/stage.h"

#include <gtest/gtest.h>

#include "core/pbr_info.h"
#include "fuzz/fuzz_input.h"
#include "tests/fake/fake.h"
#include "tests/model/generator.h"
#include "tests/support/store_checker.h"

namespace fuzz {

namespace {

constexpr uint32_t LIST_SET = 10, NODE_SET = 13, IF_SET = 16, HOP_SET = 19, SCALAR_SET = 22;

class FailureEnds : public testing::EmptyTestEventListener {
    void OnTestPartResult(const testing::TestPartResult &result) override {
        if (result.failed()) {
            finding(result.summary());
        }
    }
};

model::Driver started(const model::Limits &limits) {
    static const bool isListening = [] {
        testing::UnitTest::GetInstance()->listeners().Append(new FailureEnds);
        return true;
    }();
    (void)isListening;
    return {limits, model::ruleTranslation()};
}

model::Key keyOf(const std::string &list, uint32_t node = 0, uint8_t hop = 0) {
    model::Key key;
    key.list = list;
    key.nameLen = static_cast<uint16_t>(list.size());
    key.node = node;
    key.hop = hop;
    return key;
}

model::Key keyOf(uint32_t unit) {
    model::Key key;
    key.unit = unit;
    return key;
}

const std::string FOUR_1("\x0a\0\0\x01", 4), FOUR_2("\x0a\0\0\x02", 4);
const std::string SIX_1("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16);

} // namespace

Stage::Stage(const model::Limits &limits) : driver(started(limits)) {
    model::Command command;
    command.id = SCALAR_SET;
    command.field = 4;
    command.hasKey = false;
    command.number = 0xFFFFFFFFu;
    (void)driver.command(command);
}

void Stage::setNumber(uint32_t id, const model::Key &key, uint32_t field, uint32_t number) {
    model::Command command;
    command.id = id;
    command.key = key;
    command.field = field;
    command.number = number;
    require(driver.command(command).code == 0, "the policy of the stage is refused");
}

void Stage::setBytes(uint32_t id, const model::Key &key, uint32_t field, const std::string &bytes) {
    model::Command command;
    command.id = id;
    command.key = key;
    command.field = field;
    command.isBytes = true;
    command.bytes = bytes;
    require(driver.command(command).code == 0, "the policy of the stage is refused");
}

void Stage::havePolicy() {
    const auto node = [&](const std::string &list, uint32_t index, uint32_t acl, uint32_t version) {
        setNumber(NODE_SET, keyOf(list, index), 1, 2);
        setNumber(NODE_SET, keyOf(list, index), 4, acl);
        if (version != 0) {
            setNumber(NODE_SET, keyOf(list, index), 10, version);
        }
    };
    const auto hop = [&](const std::string &list, uint32_t index, uint8_t number, const std::string &address) {
        setNumber(HOP_SET, keyOf(list, index, number), 1, 2);
        setBytes(HOP_SET, keyOf(list, index, number), 2, address);
    };
    for (const char *pList : {"a", "b", "c"}) {
        setNumber(LIST_SET, keyOf(pList), 1, 2);
    }
    node("a", 5, 1501, 1); // the best of two, the first guarded by a probe
    hop("a", 5, 1, FOUR_1);
    hop("a", 5, 2, FOUR_2);
    setBytes(HOP_SET, keyOf("a", 5, 1), 4, "ops");
    setBytes(HOP_SET, keyOf("a", 5, 1), 5, "t");
    setNumber(HOP_SET, keyOf("a", 5, 1), 1, 1);
    node("a", 10, 3501, 2); // IPv6
    hop("a", 10, 1, SIX_1);
    node("b", 5, 1502, 1); // a set, within a time range
    setNumber(NODE_SET, keyOf("b", 5), 9, 1);
    setNumber(NODE_SET, keyOf("b", 5), 19, 7);
    hop("b", 5, 1, FOUR_1);
    hop("b", 5, 2, FOUR_2);
    node("c", 5, 5001, 0); // out of an interface
    setNumber(NODE_SET, keyOf("c", 5), 6, 21);
    node("c", 10, 5002, 0); // priority only
    setNumber(NODE_SET, keyOf("c", 10), 5, 3);
    const std::pair<uint32_t, const char *> bindings[] = {{3, "a"}, {7, "b"}, {9, "c"}};
    for (const auto &[unit, pList] : bindings) {
        setNumber(IF_SET, keyOf(unit), 1, 1);
        setBytes(IF_SET, keyOf(unit), 2, pList);
    }
    check();
}

void Stage::check(uint32_t allow) {
    require(!fake::locked(), "the mutex was not given back");
    checkStore(allow);
    (void)fake::takeTrace();
}

} // namespace fuzz
