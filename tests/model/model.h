// An independent model of the daemon: what it must answer, call, write and remember, rule by rule.
//
// It is written from the daemon's published behaviour and shares nothing with its code: no header, no
// constant, no helper. Where the daemon has pools, links and marks in records, the model has standard
// containers. A test drives both with the same steps and compares everything after each one.
//
// The trace has one line a platform call or text, in the order in which they happen, spelled as the
// recording platform of the tests spells them. Records in texts (which the daemon prints as addresses)
// are written as node(list,index) and hop(list,node,index).
#ifndef TESTS_MODEL_MODEL_H
#define TESTS_MODEL_MODEL_H

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/model/image.h"
#include "tests/model/step.h"

namespace model {

using Address = std::array<uint8_t, 16>;

struct List;
struct Node;

struct Hop {
    uint8_t index = 0;
    uint32_t status = 2;
    Address address = {};
    std::string admin, test; // names of the probe
    uint32_t arp = 0, hw = 0, last = 0, cur = 0;
    uint32_t delRef = 0, addRef = 0; // modulo 16
};

struct Node {
    List *pList = nullptr;
    const Hop *pBest = nullptr; // may belong to another node
    uint32_t index = 0, status = 2;
    uint32_t match1 = 0, match2 = 0, acl = 0;
    uint32_t forwardFlag = 0, ecmp = 0, pri = 9, ipVer = 0;
    uint32_t hopUp = 0, field12 = 0, stateChange = 0;
    uint32_t vrf = 0, outIf = 0, field7 = 0;
    uint32_t range = 0xFFFFFFFFu, rangeMatched = 0;
    std::vector<std::unique_ptr<Hop>> hops; // ascending index
};

struct Link { // a node on one interface
    Node *pNode = nullptr;
    uint32_t unit = 0, hwStatus = 0, stateChange = 0, emptyAcl = 0, aclNoAction = 0;
};

struct Interface {
    uint32_t unit = 0, status = 1;
    std::string listName; // empty: none
    std::vector<std::unique_ptr<Link>> links;
};

struct List {
    std::string name;
    uint32_t status = 2, refCnt = 0; // refCnt modulo 16
    std::vector<std::unique_ptr<Node>> nodes; // ascending index
    std::vector<Interface *> bound;           // most recently bound first
};

struct Probe {
    std::string admin, test;
    uint32_t status = 2;
};

struct Limits {
    uint32_t lists, nodes, interfaces;
};

// The services around the daemon: what they will answer, what waits in the route socket.
struct Services {
    std::map<std::string, int64_t> always;
    std::map<std::string, std::map<uint32_t, int64_t>> nth; // by calls still to come
    std::map<uint32_t, bool> acls;
    std::vector<std::vector<uint8_t>> reads;
    struct Range {
        uint32_t id;
        std::string name;
        Key key;
    };
    std::vector<Range> ranges;
    std::vector<uint8_t> translation; // 508 bytes of a rule
    uint64_t nowMs = 0;
};

// Slots in use, by kind.
struct Slots {
    uint32_t lists = 0, nodes = 0, hops = 0, interfaces = 0, links = 0, probes = 0;
};

class Model {
public:
    explicit Model(const Limits &limits, const std::vector<uint8_t> &translation);

    // ---- steps ----
    Answer command(const Command &command);
    void deliver(const std::vector<uint8_t> &read);    // waits in the route socket
    void pass(uint32_t ms);                            // time goes on, then the main loop makes one pass
    void range(size_t binding, uint32_t action);       // the service reports: 0 start, 1 stop, 2 unbind
    void arm(const std::string &call, uint32_t nth, int64_t value);
    void answer(const std::string &call, int64_t value);
    void aclExists(uint32_t acl, bool exists) { services_.acls[acl] = exists; }
    void selfLog(uint32_t value) { selfLog_ = value; }
    void waiting(size_t link, uint32_t mark);
    size_t ranges() const { return services_.ranges.size(); }
    size_t reads() const { return services_.reads.size(); }

    std::vector<std::string> trace; // since the last clear
    std::map<std::string, uint64_t> *pReached = nullptr; // counts what was reached, by name
    void write(Sink &sink) const;

private:
    // ---- the platform: answers, lines ----
    int64_t ask(const char *call, int64_t normal);
    void line(const char *format, ...) __attribute__((format(printf, 2, 3)));
    void debug(uint32_t bit, uint32_t module, const char *format, ...) __attribute__((format(printf, 4, 5)));
    void log(uint32_t module, uint32_t priority, uint32_t flags, const char *format, ...)
        __attribute__((format(printf, 5, 6)));
    void reached(const char *what) { if (pReached != nullptr) { ++(*pReached)[what]; } }
    bool sync(const std::string &key, uint32_t code, uint32_t flags, uint32_t number, uint32_t &result);
    bool sync(const std::string &key, uint32_t code, uint32_t flags, const std::string &bytes, uint32_t &result);
    bool slot(uint32_t taken, uint32_t capacity);

    // ---- tables ----
    bool poolsMake();
    void poolsFreeWhenEmpty();
    List *listGet(const std::string &name) const;
    Node *nodeGet(const std::string &name, uint32_t index) const;
    static Hop *hopGet(const Node *pNode, uint32_t index);
    Interface *interfaceGet(uint32_t unit) const;
    Probe *probeGet(const std::string &admin, const std::string &test) const;
    List *listAdd(const std::string &name);
    void listDel(List *pList);
    Node *nodeAdd(const std::string &name, uint32_t index);
    void nodeDel(Node *pNode);
    Hop *hopAdd(Node *pNode, uint32_t index);
    void hopDel(Node *pNode, const Hop *pHop);
    bool probeUsedElsewhere(const Hop *pHop) const;
    void probeAdd(const std::string &admin, const std::string &test);
    void probeRequest(const Probe &probe);
    Interface *interfaceAdd(uint32_t unit);
    void interfaceDel(Interface *pIf);
    Link *linkAdd(Interface *pIf, Node *pNode);
    void linkDel(Interface *pIf, const Link *pLink);
    bool aclUsed(uint32_t acl) const;
    uint32_t validate(const List *pList);

    // ---- next hops ----
    void queue(List *pList);
    void unqueue(const List *pList);
    uint32_t probeStatus(const Hop *pHop) const;
    bool usableAlone(const Hop *pHop) const;
    const Hop *select(Node *pNode); // null: nothing; for an ECMP node the marks are set and null is given
    void detect(uint32_t ipVer, uint32_t vrf, const Hop *pHop);
    void unDetect(uint32_t ipVer, uint32_t vrf, const Hop *pHop);
    bool neededElsewhere(const Interface *pIf, uint32_t ipVer, uint32_t vrf, const Hop *pHop);
    void copyArpState(List *pList, uint32_t ipVer, uint32_t vrf, Hop *pHop);
    void peerUp(uint32_t family, uint32_t vrf, const Address &address);
    void peerDown(uint32_t family, uint32_t vrf, const Address &address);
    void peerChange(uint32_t family, uint32_t vrf, const Address &address);
    void peerSelfLog(const char *what, const Node *pNode, const Hop *pHop);
    void peerOpening(const char *what, uint32_t family, uint32_t vrf, const Address &address);
    uint32_t rangeReport(Node *pNode, uint32_t action);
    void update();
    bool updateList(List *pList, const Hop *&pSaved);
    void updateLink(Node *pNode, Link *pLink, uint32_t changed, uint32_t &failed, const Hop *&pSaved);

    // ---- binding and device ----
    int32_t bind(Interface *pIf);
    void bindNode(List *pList, Node *pNode, Link *pLink);
    uint32_t unbind(Interface *pIf);
    void unbindLink(const List *pList, Interface *pIf, Link *pLink);
    int32_t linkHwAdd(Link *pLink);
    int32_t linkHwDel(Link *pLink);
    int32_t memberHw(Link *pLink, uint32_t port, bool add);
    struct Record;
    Record record(const Node *pNode, uint32_t unit, uint32_t Hop::*member, const char *slotText);
    int32_t deviceCall(uint32_t unit, uint32_t code, const Record &record);
    int32_t ruleHw(Link *pLink, uint32_t acl, uint32_t rule, bool add);
    bool ruleActions(std::vector<uint8_t> &entry, const Node *pNode, bool add);
    void ruleHop(const char *what, bool doubled, uint32_t count, uint32_t word);
    void ruleHop6(const char *what, uint32_t count, const Address &address);
    void dump(const std::vector<uint8_t> &entry);

    // ---- route messages ----
    void receive(const std::vector<uint8_t> &read);
    struct Reading;
    bool message(Reading &reading, const uint8_t *p, uint32_t length, uint16_t type, int32_t payloadLen);
    void peerMessage(Reading &reading, const uint8_t *p, uint16_t type);
    void linkMessage(const uint8_t *p, uint32_t length, int32_t payloadLen);
    void attribute(uint32_t type, uint32_t ifIndex, uint32_t data);
    void memberMessage(uint32_t agg, uint32_t port, bool add);
    void linkGone(const uint8_t *p, int32_t payloadLen);
    bool portReset(const uint8_t *p);
    void ruleAdded(Reading &reading, uint32_t acl, uint32_t rule);
    void ruleAddedOn(Reading &reading, const List *pList, Link *pLink, uint32_t acl, uint32_t rule);
    void ruleRemoved(Reading &reading, uint32_t acl, uint32_t rule);
    void aclRemoved(uint32_t acl);
    void probeMessage(const uint8_t *p);
    void cardUp(const uint8_t *p, bool card);

    // ---- commands ----
    Answer listSet(const Command &c, uint32_t origin);
    Answer listGetField(const Command &c);
    Answer nodeSet(const Command &c, uint32_t origin);
    Answer nodeField(const Command &c, uint32_t origin, Node *pNode);
    Answer nodeAcl(const Command &c, uint32_t origin, Node *pNode);
    Answer nodeVersion(const Command &c, uint32_t origin, Node *pNode);
    Answer nodeRange(const Command &c, uint32_t origin, Node *pNode);
    Answer nodeGetField(const Command &c);
    Answer hopSet(const Command &c, uint32_t origin);
    Answer hopStatus(const Command &c, Node *pNode, Hop *pHop);
    Answer hopAddress(const Command &c, const Node *pNode, Hop *pHop);
    Answer hopGetField(const Command &c);
    Answer ifSet(const Command &c, uint32_t origin);
    Answer ifStatus(const Command &c, Interface *pIf);
    Answer ifName(const Command &c, Interface *pIf);
    Answer ifGetField(const Command &c);
    Answer scalarSet(const Command &c, uint32_t origin);
    Answer scalarGet(const Command &c);
    Answer listWalk(const Command &c, bool next);
    Answer nodeFirst(const Command &c);
    Answer nodeNext(const Command &c);
    Answer hopFirst(const Command &c);
    Answer hopNext(const Command &c);
    Answer ifWalk(const Command &c, bool next);

    // ---- writing ----
    uint32_t place(const Hop *pHop) const;
    uint32_t place(const Node *pNode) const;
    std::string name(const Hop *pHop) const;
    std::string name(const Node *pNode) const;

    Limits limits_;
    Services services_;
    Slots slots_;
    bool pools_ = false;
    std::vector<std::unique_ptr<List>> lists_; // name order
    std::vector<List *> ready_;                // most recently queued first
    std::map<uint32_t, std::unique_ptr<Interface>> interfaces_;
    std::vector<std::unique_ptr<Probe>> probes_; // length and bytes of admin, then of test
    uint32_t debugFlags_ = 0, selfLog_ = 0;
    uint32_t addCnt_ = 0, addErr_ = 0, delCnt_ = 0, delErr_ = 0, ruleAddCnt_ = 0, ruleDelCnt_ = 0;
    uint64_t timerDueMs_ = 0;
};

} // namespace model

#endif
