// A world whose expectations are whole: everything that the daemon asked of the platform since the last
// look, in order and in short words, and the marks that it left.
//
// Words of work(), by the peers' last byte (10.0.0.1 is A):
//   USE 1501 +1                     the ACL has one user more
//   WATCH A, UNWATCH A              a peer is registered, deleted ("WATCH A vrf=7")
//   ADD 1/1501 act=0 hops=A,B       an entry of interface 1 (" pri=3", " vrf=7" when set; "if=12": out of 12)
//   DEL 1/1501 act=0 hops=A,B
//   RADD 1 1501/3 A, RDEL ...       an entry of one rule, with what its slots hold
//   ON 1, OFF 1                     the protocol switch of an interface
//   ASK 5 added, ASK 5 removed      whether a member of the aggregation needs entries of its own
//   RANGE+ 7 pbrwan-10, RANGE- ...  a node is bound to a time range, released
//   STATE? ops/isp                  a probe's state is asked for
// Everything else stands as in the trace of the fake. Left out: reads, the question for waiting bytes,
// timers, the making of pools, the synchronisation service, questions for an ACL and its translations.
#ifndef TESTS_SCENARIO_SCENE_H
#define TESTS_SCENARIO_SCENE_H

#include "tests/scenario/world.h"

class Scene : public World {
protected:
    using Lines = steps::Lines;

    static Lines work(); // since the last look

    // "best=A cur=10 last=01 hw=11 add=00 del=11": the node's choice, the marks and the four-bit counts of
    // its next hops in list order.
    static std::string marks(const std::string &list, uint32_t node);
    // "1:1 2:0": what each interface's link to the node knows of its entry (0 none, 1 programmed, 2 failed).
    static std::string statuses(const std::string &list, uint32_t node);
    static std::string queued(); // the ready table, front first: "a,b"
    // Counters since the last look: "add 1/0 del 2/0 rules 0/0" (done/failed; rules: added/removed messages).
    std::string counted();

    // Destroys what was configured; expects the pools to go with it.
    void haveNothingLeft(std::initializer_list<const char *> lists);

private:
    struct Counters {
        uint32_t add = 0, addErr = 0, del = 0, delErr = 0, ruleAdd = 0, ruleDel = 0;
    };
    Counters last_;
};

#endif
