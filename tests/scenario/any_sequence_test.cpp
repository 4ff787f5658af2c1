// After any sequence of commands and events the redirect view answers what the configuration and the
// world imply: the answer is recomputed here from what the test itself did, never from the store.
#include <random>

#include "tests/scenario/world.h"

namespace {

enum Kind { SINGLE, ECMP, OUT_IF, PRIORITY };

struct NodeModel {
    uint32_t index, acl;
    Kind kind;
    uint32_t rangeId; // 0: none
    std::vector<std::string> hops;
};

class AnySequence : public World, public ::testing::WithParamInterface<uint32_t> {
protected:
    static constexpr uint32_t UNITS = 4, PEERS = 4, RANGES = 2;

    void SetUp() override {
        World::SetUp();
        random_.seed(GetParam());
        uint32_t acl = 1001;
        for (const char *pList : {"a", "b", "c"}) {
            for (uint32_t index : {5u, 10u, 15u, 20u}) {
                addNode(pList, index, acl++);
            }
        }
    }
    uint32_t pick(uint32_t count) { return std::uniform_int_distribution<uint32_t>(0, count - 1)(random_); }
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
            if (isUp(hop)) {
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
        const uint32_t unit = 1 + pick(UNITS), what = pick(100);
        if (what < 35) {
            const std::string hop = address(pick(PEERS));
            const bool up = pick(2) == 1;
            peer(hop, up);
            return hop + (up ? " up" : " down");
        }
        if (what < 40) {
            peerChanges(address(pick(PEERS)));
            return "change";
        }
        if (what < 60) {
            second();
            return "second";
        }
        if (what < 70) {
            const uint32_t id = 1 + pick(RANGES);
            const bool isActive = pick(2) == 1;
            isActive ? (void)active_.insert(id) : (void)active_.erase(id);
            range(id, isActive);
            return "range";
        }
        if (what < 80) {
            failingUnits_.count(unit) != 0 ? (void)failingUnits_.erase(unit) : (void)failingUnits_.insert(unit);
            return "device";
        }
        if (what < 92) {
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
    std::set<uint32_t> active_;
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
