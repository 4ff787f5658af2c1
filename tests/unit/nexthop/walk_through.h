// What the walk-throughs share: list "a" with node 10 (ACL 1501, next hops A and B) and short steps.
#ifndef TESTS_UNIT_NEXTHOP_WALK_THROUGH_H
#define TESTS_UNIT_NEXTHOP_WALK_THROUGH_H

#include "hw/pbr_if_node_hw.h"
#include "nexthop/pbr_ready_table.h"
#include "nexthop/pbr_timerange.h"
#include "store/pbr_nqa_entry.h"
#include "store/pbr_view_mark.h"
#include "tests/unit/hw/steps.h"

namespace walk {

using steps::Lines;
using steps::marks;
using steps::view;

class WalkThrough : public steps::StoreTest {
protected:
    // List "a", node 10, ACL 1501, next hops A and B.
    void SetUp() override {
        StoreTest::SetUp();
        pList_ = makeList("a");
        pNode_ = node(10, 1501, {A, B});
    }
    PbrNodeEntry *node(uint32_t index, uint32_t acl, std::initializer_list<const char *> addresses) {
        PbrNodeEntry *pNode = makeNode("a", index, {.acl = acl, .ipVer = 1});
        uint32_t hopIndex = 1;
        for (const char *pAddress : addresses) {
            makeNextHop(pNode, hopIndex++, pAddress);
        }
        return pNode;
    }
    static PbrNextHopEntry *hop(const PbrNodeEntry *pNode, uint32_t index) {
        PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode);
        while (pHop->nextHopIndex != index) {
            pHop = pbrNodeNextHopNext(pNode, pHop);
        }
        return pHop;
    }
    void bound(std::initializer_list<uint32_t> units) {
        for (uint32_t unit : units) {
            ASSERT_EQ(0, bind(unit, "a"));
        }
    }
    void start() {
        (void)pbrStartTimerange(pNode_);
        checked();
    }
    void stop() {
        (void)pbrStopTimerange(pNode_);
        checked();
    }
    std::string refCnts() const {
        char text[32];
        snprintf(text, sizeof(text), "%02x %02x", hop(pNode_, 1)->refCntByte, hop(pNode_, 2)->refCntByte);
        return text;
    }
    static constexpr char A[] = "10.0.0.1", B[] = "10.0.0.2", C[] = "10.0.0.3";
    static constexpr char X[] = "10.0.0.24", Y[] = "10.0.0.25";
    PbrListEntry *pList_ = nullptr;
    PbrNodeEntry *pNode_ = nullptr;
};

} // namespace walk

#endif
