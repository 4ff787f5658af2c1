// After any sequence of commands and events the redirect view answers what the configuration and the
// world imply: the answer is recomputed here from what the test itself did, never from the store.
#include <random>

#include "tests/scenario/events.h"
#include "tests/scenario/world.h"

namespace {

enum Kind { SINGLE, ECMP, OUT_IF, PRIORITY };

struct NodeModel {
    uint32_t index, acl;
    Kind kind;
    uint32_t rangeId; // 0: none
    std::vector<std::string> hops;
    uint32_t probed = 0; // its first next hop's probe, 0: none
};

class AnySequence : public World, public ::testing::WithParamInterface<uint32_t> {
protected:
    static constexpr uint32_t UNITS = 4, PEERS = 4, RANGES = 2, PROBES = 2, AGGREGATION = 3;

    void SetUp() override {
        World::SetUp();
        random_.seed(GetParam());
        fake::answer("aggAnswer", 1);
        fake::answer("qrvSelfSysIndex", events::OWN_SYSTEM);
        uint32_t acl = 1001;
        for (const char *pList : {"a", "b", "c"}) {
            for (uint32_t index : {5u, 10u, 15u, 20u}) {
                addNode(pList, index, acl++);
            }
        }
    }
    uint32_t pick(uint32_t count) { return std::uniform_int_distribution<uint32_t>(0, count - 1)(random_); }
    static std::string probeName(uint32_t n) { return "probe" + std::to_string(n); }
    static std::string address(uint32_t n) { return "10.0.0." + std::to_string(n + 1); }

    void addNode(const std::string &list, uint32_t index, uint32_t acl) {
        NodeModel node = {index, acl, static_cast<Kind>(pick(4)), pick(3) == 0 ? 1 + pick(RANGES) : 0, {}};
        haveNode(list, index, acl, node.kind <= ECMP ? 1 : 0);
        if (node.kind == OUT_IF) {
            ASSERT_EQ(PBR_OK, nodeSet(list, index, PBR_NODE_OUT_IF_UNIT, 99));
        } else if (node.kind == PRIORITY) {
            ASSERT_EQ(PBR_OK, nodeSet(list, index, PBR_NODE_IP_PRI, 3));
        } else {
            const uint32_t count = 1 + pick(3), start = pick(PEERS);
            for (uint32_t i = 0; i < count; i++) {
                node.hops.push_back(address((start + i) % PEERS));
            }
            haveHops(list, index, node.hops);
            node.probed = pick(3) == 0 ? 1 + pick(PROBES) : 0;
            if (node.probed != 0) {
                ASSERT_EQ(PBR_OK, hopText(list, index, 1, PBR_NEXT_HOP_NQA_ADMIN_NAME, "ops"));
                ASSERT_EQ(PBR_OK, hopText(list, index, 1, PBR_NEXT_HOP_NQA_TEST_NAME, probeName(node.probed)));
                ASSERT_EQ(PBR_OK, hopSet(list, index, 1, PBR_ROW_ACTIVE));
            }
            ASSERT_EQ(PBR_OK, nodeSet(list, index, PBR_NODE_IS_ECMP, node.kind == ECMP ? 1 : 0));
        }
        if (node.rangeId != 0) {
            ASSERT_EQ(PBR_OK, nodeSet(list, index, PBR_NODE_TIME_RANGE_ID, node.rangeId));
        }
        lists_[list].push_back(node);
    }

    std::string expected(const NodeModel &node) const {
        if (node.rangeId != 0 && active_.count(node.rangeId) == 0) {
            return "absent";
        }
        if (node.kind == OUT_IF) {
            return "out 99";
        }
        if (node.kind == PRIORITY) {
            return "priority 3";
        }
        std::string up;
        for (const std::string &hop : node.hops) {
            const bool isHeld = &hop == &node.hops[0] && node.kind == SINGLE && node.probed != 0 &&
                                passing_.count(node.probed) == 0;
            if (isUp(hop) && !isHeld) {
                up += static_cast<char>('A' + hop.back() - '1');
            }
        }
        return up.empty() ? "inert" : (node.kind == ECMP ? up : up.substr(0, 1));
    }

    void compare() {
        std::map<std::string, steps::ViewMirror::Entries> all;
        for (const auto &[unit, list] : bound_) {
            for (const NodeModel &node : lists_[list]) {
                all[list][{unit, node.index}] = expected(node);
            }
        }
        ASSERT_EQ(all, mirror().lists());
    }

    // One random command or event; its name.
    std::string step() {
        const uint32_t what = pick(100);
        if (what < 30) {
            return peerStep();
        }
        if (what < 50) {
            second();
            return "second";
        }
        if (what < 65) {
            return serviceStep();
        }
        if (what < 75) {
            return deviceStep();
        }
        if (what < 80) {
            return aclStep();
        }
        return what < 85 ? linkStep() : bindingStep();
    }

    std::string peerStep() {
        const std::string hop = address(pick(PEERS));
        if (pick(8) == 0) {
            peerChanges(hop);
            return hop + " change";
        }
        const bool up = pick(2) == 1;
        peer(hop, up);
        return hop + (up ? " up" : " down");
    }

    std::string serviceStep() {
        const uint32_t id = 1 + pick(RANGES);
        const bool isGood = pick(2) == 1;
        if (pick(2) == 0) {
            isGood ? (void)active_.insert(id) : (void)active_.erase(id);
            range(id, isGood);
            return "range " + std::to_string(id) + (isGood ? " start" : " stop");
        }
        const uint32_t test = 1 + pick(PROBES);
        isGood ? (void)passing_.insert(test) : (void)passing_.erase(test);
        receive(events::probe("ops", probeName(test), isGood ? 1 : static_cast<uint8_t>(2 + pick(2))));
        return probeName(test) + (isGood ? " passes" : " fails");
    }

    // The device takes or refuses adds or deletes of an interface from now on, or a card starts.
    std::string deviceStep() {
        const uint32_t unit = 1 + pick(UNITS), what = pick(4);
        if (what == 0) {
            receive(pick(2) == 0 ? events::slotStarted() : events::cardStarted());
            return "start";
        }
        std::set<uint32_t> &failing = what == 1 ? failingDeletes_ : failingUnits_;
        failing.count(unit) != 0 ? (void)failing.erase(unit) : (void)failing.insert(unit);
        return (what == 1 ? "deletes " : "adds ") + std::to_string(unit);
    }

    // One rule or two in a read; the last number belongs to no node.
    std::string aclStep() {
        const uint32_t acl = 1001 + pick(13);
        events::Bytes read = pick(2) == 0 ? events::ruleAdded(acl, 1) : events::ruleRemoved(acl, 1);
        if (pick(2) == 0) { // two in one read
            const events::Bytes more = events::ruleAdded(1001 + pick(13), 2);
            read.insert(read.end(), more.begin(), more.end());
        }
        receive(read);
        return "rules " + std::to_string(acl);
    }

    std::string linkStep() {
        const uint32_t unit = 1 + pick(UNITS);
        switch (pick(5)) {
        case 0: receive(events::memberAdded(AGGREGATION, 50)); return "member added";
        case 1: receive(events::memberRemoved(AGGREGATION, 50)); return "member removed";
        case 2: receive(events::portJoins(unit, AGGREGATION)); break;
        case 3: receive(events::portReset(unit)); break;
        default: receive(events::interfaceGone(unit)); break;
        }
        bound_.erase(unit);
        return std::to_string(unit) + " gone";
    }

    std::string bindingStep() {
        const uint32_t unit = 1 + pick(UNITS);
        if (pick(5) < 3) {
            const std::string list(1, static_cast<char>('a' + pick(3)));
            EXPECT_EQ(PBR_OK, bind(unit, list));
            bound_[unit] = list;
            return "bind " + std::to_string(unit) + " " + list;
        }
        EXPECT_EQ(PBR_OK, unbind(unit));
        bound_.erase(unit);
        return "unbind " + std::to_string(unit);
    }

    std::mt19937 random_;
    std::map<std::string, std::vector<NodeModel>> lists_;
    std::map<uint32_t, std::string> bound_;
    std::set<uint32_t> active_;  // time ranges
    std::set<uint32_t> passing_; // probes
};

TEST_P(AnySequence, LeavesTheViewRight) {
    std::string history;
    for (int i = 0; i < 250 && !HasFailure(); i++) {
        history += step() + "; ";
        compare();
    }
    EXPECT_FALSE(HasFailure()) << history;
}

INSTANTIATE_TEST_SUITE_P(Seeds, AnySequence, ::testing::Range(1u, 21u));

} // namespace
