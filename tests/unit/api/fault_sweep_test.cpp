// Every set is repeated with the first, second, third ... platform call failing, until none fails: the
// published result comes back, a refused set has changed nothing, the store stays whole.
#include <functional>

#include "core/pbr_start.h"
#include "tests/support/store_checker.h"
#include "tests/unit/api/api_calls.h"

using namespace api_test;

namespace {

struct SweepCase {
    const char *what;
    std::function<void()> given;
    std::function<uint32_t()> when;
    // What is answered when that platform call fails; PBR_OK: the failure does not stop the set.
    std::function<uint32_t(const std::string &call)> expected;
    uint32_t faults;    // platform calls that can fail
    uint32_t allow = 0; // of the store checker, where a published half-way stop shows
};

uint32_t call(IcmFieldHandler handler, Key key, uint32_t field, uint32_t number) {
    PbrApiValue value = {number, 0};
    return handler(key.data(), field, &value);
}
uint32_t call(IcmFieldHandler handler, Key key, uint32_t field, const std::string &bytes) {
    PbrApiValue value = {reinterpret_cast<uintptr_t>(bytes.data()), static_cast<uint32_t>(bytes.size())};
    return handler(key.data(), field, &value);
}

std::function<uint32_t(const std::string &)> refusals(std::vector<std::pair<std::string, uint32_t>> codes) {
    return [codes](const std::string &name) -> uint32_t {
        if (name == "qrvHwilCmdSyncApi") {
            return SYNC_REFUSAL;
        }
        for (const auto &[callName, code] : codes) {
            if (callName == name) {
                return code;
            }
        }
        ADD_FAILURE() << "unexpected platform call " << name;
        return PBR_OK;
    };
}

void nothing() {}
void haveWeb() { haveList("web"); }
void haveNode10() {
    haveWeb();
    haveNode("web", 10, 1501, 1);
}
void haveWeb10Hop() {
    haveNode10();
    haveNextHop("web", 10, 1, "10.0.0.1");
}
void haveTwoUsableLists() {
    haveWeb10Hop();
    haveList("other");
    haveNode("other", 5, 1502);
    EXPECT_EQ(setNumber(pbrNodeSetApi, nodeKey("other", 5), PBR_NODE_OUT_IF_UNIT, 99), PBR_OK);
}

uint32_t expectRun(const SweepCase &one, uint32_t nth) {
    fake::reset();
    EXPECT_EQ(pbrInit(0, 0, 0), PBR_OK);
    one.given();
    const std::string before = storeImage();
    fake::failNth(nth);
    const uint32_t code = one.when();
    const std::string failed = fake::faultCall();
    fake::failNth(0);
    EXPECT_FALSE(fake::locked()) << one.what;
    checkStore(one.allow);
    if (failed.empty()) {
        EXPECT_EQ(code, PBR_OK) << one.what;
        return nth;
    }
    const std::string where = std::string(one.what) + ": " + failed;
    EXPECT_EQ(code, one.expected(failed)) << where;
    if (code != PBR_OK && one.allow == 0) {
        EXPECT_EQ(storeImage(), before) << where;
    }
    return 0;
}

void expectSweep(const SweepCase &one) {
    uint32_t last = 0;
    uint32_t nth = 0;
    while (last == 0 && nth < 50) {
        last = expectRun(one, ++nth);
    }
    EXPECT_EQ(last, one.faults + 1) << one.what << ": platform calls that can fail, plus one";
}

TEST(FaultSweep, SetsOfListsAreRefusedWhole) {
    const auto pools = refusals({{"silMemPoolInit", PBR_ERR_NO_RECORD}, {"silMemPoolAlloc", PBR_ERR_NO_RECORD}});
    const Key key = listKey("web");
    const SweepCase cases[] = {
        {"create the first", nothing, [&] { return call(pbrListSetApi, key, 1, 2); }, pools, 8},
        {"create another", [] { haveList("a"); }, [&] { return call(pbrListSetApi, key, 1, 2); }, pools, 2},
        {"activate", haveWeb, [&] { return call(pbrListSetApi, key, 1, 1); }, refusals({}), 1},
        {"deactivate", haveWeb, [&] { return call(pbrListSyncApi, key, 1, 3); }, refusals({}), 1},
        {"destroy", haveWeb10Hop, [&] { return call(pbrListSetApi, key, 1, 4); }, refusals({}), 1},
    };
    for (const SweepCase &one : cases) {
        expectSweep(one);
    }
}

TEST(FaultSweep, SetsOfNodesAreRefusedWhole) {
    const Key key = nodeKey("web", 10);
    const SweepCase cases[] = {
        {"create", haveWeb, [&] { return call(pbrNodeSetApi, key, 1, 2); },
         refusals({{"silMemPoolAlloc", PBR_ERR_NO_RECORD}}), 2},
        {"destroy", haveWeb10Hop, [&] { return call(pbrNodeSetApi, key, 1, 4); }, refusals({}), 1},
        {"aclNum", haveNode10, [&] { return call(pbrNodeSetApi, key, 4, 1600); },
         refusals({{"aclLstGetApi", PBR_ERR_ACL_MISSING}}), 2},
        {"clear", haveWeb10Hop, [&] { return call(pbrNodeSetApi, key, 13, 1); }, refusals({}), 1},
        {"bind a time range", haveNode10, [&] { return call(pbrNodeSetApi, key, 19, 5); },
         refusals({{"timerangeBind", PBR_ERR_BAD_ARGUMENT}}), 2},
        {"unbind a time range",
         [&] {
             haveNode10();
             EXPECT_EQ(call(pbrNodeSetApi, key, 19, 5), PBR_OK);
         },
         [&] { return call(pbrNodeSetApi, key, 19, 0xFFFFFFFFu); },
         refusals({{"timerangeUnbind", SYNC_REFUSAL}}), 2},
    };
    for (const SweepCase &one : cases) {
        expectSweep(one);
    }
    for (uint32_t field : {2u, 3u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u}) {
        expectSweep({"plain field", haveNode10, [&] { return call(pbrNodeSetApi, key, field, 1); }, refusals({}), 1});
    }
    expectSweep({"event", haveNode10, [&] { return call(pbrNodeSetApi, key, 16, 0); }, refusals({}), 0});
}

TEST(FaultSweep, SetsOfNextHopsAreRefusedWhole) {
    const Key key = nodeKey("web", 10, 1);
    const auto haveProbe = [&] {
        haveWeb10Hop();
        EXPECT_EQ(call(pbrNextHopSetApi, key, 4, std::string("ops")), PBR_OK);
        EXPECT_EQ(call(pbrNextHopSetApi, key, 5, std::string("isp")), PBR_OK);
    };
    const SweepCase cases[] = {
        {"create", haveNode10, [&] { return call(pbrNextHopSetApi, key, 1, 2); },
         refusals({{"silMemPoolAlloc", PBR_ERR_NO_RECORD}}), 2},
        {"destroy", haveProbe, [&] { return call(pbrNextHopSetApi, key, 1, 4); }, refusals({}), 1},
        {"activate with a probe", haveProbe, [&] { return call(pbrNextHopSetApi, key, 1, 1); },
         refusals({{"silMemPoolAlloc", PBR_OK}, {"qrvNetlinkSGrpSend", PBR_OK}}), 3},
        {"address", haveWeb10Hop, [&] { return call(pbrNextHopSetApi, key, 2, address("10.0.0.9")); }, refusals({}), 1},
        {"admin name", haveWeb10Hop, [&] { return call(pbrNextHopSetApi, key, 4, std::string("x")); }, refusals({}), 1},
        {"test name", haveWeb10Hop, [&] { return call(pbrNextHopSetApi, key, 5, std::string("x")); }, refusals({}), 1},
    };
    for (const SweepCase &one : cases) {
        expectSweep(one);
    }
}

TEST(FaultSweep, SetsOfInterfacesGiveThePublishedResults) {
    const Key key = unitKey(7);
    const auto pools = refusals({{"silMemPoolInit", PBR_ERR_NO_RECORD}, {"silMemPoolAlloc", PBR_ERR_NO_RECORD}});
    // Device and protocol failures do not change the result of binding; running out of links does.
    const auto binding = refusals({{"silMemPoolAlloc", PBR_ERR_BIND}, {"aclIfSetApi", PBR_OK}, {"qrvIfSetApi", PBR_OK}});
    const SweepCase cases[] = {
        {"create the first", nothing, [&] { return call(pbrIfSetApi, key, 1, 1); }, pools, 8},
        {"destroy without list", [] { haveInterface(7); }, [&] { return call(pbrIfSetApi, key, 1, 2); }, refusals({}), 1},
        {"destroy with list",
         [] {
             haveTwoUsableLists();
             haveBinding(7, "other");
         },
         [&] { return call(pbrIfSetApi, key, 1, 2); }, binding, 3},
        {"bind a list with next hops",
         [] {
             haveTwoUsableLists();
             haveInterface(7);
         },
         [&] { return call(pbrIfSetApi, key, 2, std::string("web")); }, binding, 3, STORE_ALLOW_COUNTS},
        {"bind a list with an out interface",
         [] {
             haveTwoUsableLists();
             haveInterface(7);
         },
         [&] { return call(pbrIfSetApi, key, 2, std::string("other")); }, binding, 4, STORE_ALLOW_COUNTS},
        {"bind another list",
         [] {
             haveTwoUsableLists();
             haveBinding(7, "other");
         },
         [&] { return call(pbrIfSetApi, key, 2, std::string("web")); }, binding, 5, STORE_ALLOW_COUNTS},
    };
    for (const SweepCase &one : cases) {
        expectSweep(one);
    }
}

TEST(FaultSweep, TheDebugFlagsAreRefusedWhole) {
    expectSweep({"debug flags", nothing, [] { return call(pbrScalarSetApi, {}, 4, 64); }, refusals({}), 1});
}

} // namespace
