// Sequences of calls of the management handlers, route messages, ticks, time-range callbacks and failing
// calls of the platform; the store is checked after each step.
//
//   u8    1 pools that run out soon
//   then steps: u8 kind and what step() takes for it
#include <cstddef>
#include <cstdint>

#include "core/pbr_info.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/stage.h"
#include "platform/icm.h"
#include "tests/fake/fake.h"
#include "tests/support/store_checker.h"

namespace {

using fuzz::Input;
using fuzz::Stage;

const std::string NAMES[] = {"a", "ab", "b", "0123456789abcdef", "", "a%s%n"};
const uint32_t NODES[] = {5, 10, 15, 20, 0, 0xFFFFFFF0u};
const uint32_t UNITS[] = {3, 7, 9, 0x80000001u, 21, 22}; // too few for a use count to wrap: that is published
const uint32_t NUMBERS[] = {0,    1,    2,    3,    4,    5,    9,    15,   16,    255,        1501,
                            1502, 3501, 5001, 1000, 2000, 3000, 4000, 5000, 65535, 0x7FFFFFFF, 0xFFFFFFFFu};
const char *const CALLS[] = {"aclIfSetApi",  "aclLstGetApi",      "timerangeBind",      "timerangeUnbind",
                             "qrvIfSetApi",  "qrvHwilCmdSyncApi", "qrvNetlinkSGrpSend", "qrvIfGetApi",
                             "silMemPoolAlloc", "qrvHwilScalarGet", "qrvHwilSlotGet",    "qrvHwilCardGet",
                             "aggAnswer",    "qrvSelfSysIndex"};
const int64_t ANSWERS[] = {0, 1, 5, -7, 9, 24, 0x03E80099, -1};
const uint16_t TYPES[] = {32, 34, 97, 108, 248, 250, 251, 305, 306, 307, 324, 349, 350};
const std::string ADDRESSES[] = {std::string("\x0a\0\0\x01", 4), std::string("\x0a\0\0\x02", 4),
                                 std::string("\x20\x01\x0d\xb8\0\0\0\0\0\0\0\0\0\0\0\x01", 16),
                                 std::string("\x0a\0\0\x01\0\0\0\0\0\0\0\0\0\0\0\0", 16)};

template <class T, size_t N> const T &one(Input &input, const T (&of)[N]) {
    return of[input.below(N)];
}

// One of a few numbers, or any.
uint32_t number(Input &input) {
    const uint8_t which = input.u8();
    return which < 200 ? NUMBERS[which % std::size(NUMBERS)] : input.u32();
}

model::Key key(Input &input) {
    model::Key made;
    const uint8_t name = input.u8();
    made.list = NAMES[name % std::size(NAMES)];
    made.nameLen = name < 240 ? static_cast<uint16_t>(made.list.size()) : input.u16();
    const uint8_t node = input.u8();
    made.node = node < 250 ? NODES[node % std::size(NODES)] : input.u32();
    made.hop = static_cast<uint8_t>(input.u8() & 0x87);
    made.unit = one(input, UNITS);
    return made;
}

std::string value(Input &input) {
    const uint8_t kind = input.u8();
    if (kind < 100) {
        return ADDRESSES[kind % std::size(ADDRESSES)];
    }
    return kind < 180 ? NAMES[kind % std::size(NAMES)] : input.text(kind - 180u);
}

void command(Input &input, Stage &stage, uint32_t id) {
    const IcmCommandShape &shape = gIcmCommandShapes[id];
    model::Command made;
    made.id = id;
    made.field = input.below(22);
    made.key = key(input);
    made.hasKey = shape.keyBytes != 0;
    made.isBytes = shape.kind == ICM_SHAPE_SET && (shape.byteFields >> made.field & 1) != 0;
    if (made.isBytes) {
        made.bytes = value(input);
    } else if (shape.kind == ICM_SHAPE_SET) {
        made.number = number(input);
    } else {
        made.capacity = input.u8();
        made.key.mask = static_cast<uint8_t>(input.u8() & 0xC0);
    }
    (void)stage.driver.command(made);
}

model::Message message(Input &input) {
    model::Message made;
    made.type = one(input, TYPES);
    for (uint32_t &word : made.word) {
        word = number(input);
    }
    const std::string &address = one(input, ADDRESSES);
    made.family = address.size() == 4 ? 1 : 2;
    std::copy(address.begin(), address.end(), made.address);
    if (made.type == 32 || made.type == 34 || made.type == 324) {
        made.word[0] = one(input, UNITS);
    } else if (made.type >= 305 && made.type <= 307) {
        made.word[0] = input.below(4) == 0 ? 3 : 0;
    } else if (made.type == 349) {
        made.admin = "ops";
        made.test = "t";
        made.adminLen = 3;
        made.testLen = 1;
        made.status = static_cast<uint8_t>(input.below(5));
    }
    for (uint32_t left = input.below(3); left != 0; --left) {
        const uint16_t attributes[] = {52, 66, 67, 1};
        made.attributes.push_back({8, one(input, attributes), one(input, UNITS)});
    }
    return made;
}

// Result: whether slots may run out from now on.
bool step(Input &input, Stage &stage) {
    const uint8_t kind = input.u8();
    if (kind < 150) {
        const uint32_t id = 1 + kind % (gIcmCommandShapeCount - 1);
        if (gIcmCommandShapes[id].kind != ICM_SHAPE_NONE) {
            command(input, stage, id);
        }
    } else if (kind < 190) {
        std::vector<model::Message> messages{message(input)};
        stage.driver.deliver(model::encode(messages));
        stage.driver.pass(0);
    } else if (kind < 210) {
        stage.driver.pass(input.below(4) == 0 ? input.u8() : 1000);
    } else if (kind < 225) {
        const uint8_t which = input.u8();
        if (stage.driver.ranges() != 0) {
            stage.driver.range(which % stage.driver.ranges(), kind % 3);
        }
    } else if (kind < 235) {
        const char *pCall = one(input, CALLS);
        const uint32_t nth = 1 + input.below(4);
        stage.driver.arm(pCall, nth, one(input, ANSWERS));
        return std::string(pCall) == "silMemPoolAlloc";
    } else if (kind < 240) {
        const char *pCall = one(input, CALLS);
        if (std::string(pCall) != "silMemPoolAlloc") { // of pools that never have a slot nothing is to be seen
            stage.driver.answer(pCall, one(input, ANSWERS));
        }
    } else if (kind < 248) {
        fake::failNth(input.u8());
        return true;
    } else if (kind < 252) {
        stage.driver.aclExists(number(input), input.below(2) != 0);
    } else {
        stage.driver.selfLog(kind % 2);
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    Input input(pData, size);
    const bool isTight = (input.u8() & 1) != 0;
    Stage stage(isTight ? model::Limits{3, 4, 2} : model::Limits{16, 64, 12});
    bool maySlotsRunOut = isTight;
    while (!input.ended()) {
        maySlotsRunOut = step(input, stage) || maySlotsRunOut;
        // A binding that finds no slot half-way stops there, as published.
        stage.check(maySlotsRunOut ? STORE_ALLOW_COUNTS | STORE_ALLOW_LEAKS : 0);
    }
    return 0;
}
