// The whole daemon on the recording fake, with the services beside it acted as they are meant.
//
// Commands go through the command map as the command server calls it; peer reports and time ranges come
// in as real messages and callbacks; time is virtual. The host-route-detection service of this world
// posts a peer's present state after every registration. Two forwarding planes are kept:
//   calls  what the daemon's own device calls leave in a device that does just as it is told;
//   view   what the redirect view answers, kept up to date by marks alone, as a plane that follows the
//          store does it.
// After every step the store is checked and the view's plane is compared with a full take.
#ifndef TESTS_SCENARIO_WORLD_H
#define TESTS_SCENARIO_WORLD_H

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "api/pbr_keys.h"
#include "tests/unit/hw/steps.h"

// Peers, and next hops of lists.
inline constexpr char A[] = "10.0.0.1", B[] = "10.0.0.2", C[] = "10.0.0.3", D[] = "10.0.0.4";

class World : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // ---- commands; the result code ----
    uint32_t listSet(const std::string &list, uint32_t command);
    uint32_t nodeSet(const std::string &list, uint32_t index, uint32_t field, uint32_t number);
    uint32_t hopSet(const std::string &list, uint32_t index, uint8_t hop, uint32_t command);
    uint32_t hopAddress(const std::string &list, uint32_t index, uint8_t hop, const std::string &address);
    uint32_t hopText(const std::string &list, uint32_t index, uint8_t hop, uint32_t fieldId, const std::string &text);
    uint32_t bind(uint32_t unit, const std::string &list); // makes the interface entry when absent
    uint32_t unbind(uint32_t unit);                        // destroys the interface entry
    uint32_t ifSet(uint32_t unit, uint32_t command);       // the interface entry alone
    uint32_t ifList(uint32_t unit, const std::string &list); // names the list of an entry that exists

    // ---- configuration that is expected to be accepted ----
    void haveNode(const std::string &list, uint32_t index, uint32_t acl, uint32_t ipVer = 0, uint32_t vrf = 0);
    void haveHops(const std::string &list, uint32_t index, const std::vector<std::string> &addresses);

    // ---- events ----
    void peer(const std::string &address, bool isUp, uint32_t vrf = 0); // changes, and reports if registered
    void peerChanges(const std::string &address, uint32_t vrf = 0);
    void range(uint32_t id, bool isActive);                             // reported to every binding of it
    void rangeGone(uint32_t id);                                        // the service drops every binding of it
    void receive(const std::vector<uint8_t> &read);                     // one read of the route socket
    void second();                                                      // the update timer fires

    // ---- single steps, for tests that must not come to rest ----
    void peerIs(const std::string &address, bool isUp, uint32_t vrf = 0); // changes, and nobody is told
    void pass();                                                          // one pass of the loop, checked
    void settle();                                                        // until nothing waits, checked

    // ---- the forwarding planes: (unit, acl or node) -> what happens ----
    using Plane = std::map<std::pair<uint32_t, uint32_t>, std::string>;
    const Plane &calls() const { return calls_; } // by ACL: "act=7 ... hops=..."
    std::string view(uint32_t unit, const std::string &list, uint32_t node) const; // "" when not there
    const steps::ViewMirror &mirror() const { return mirror_; }
    bool isPeerRegistered(const std::string &address, uint32_t vrf = 0) const;
    bool isUp(const std::string &address, uint32_t vrf = 0) const;

    std::set<uint32_t> failingUnits_;   // interfaces whose device adds fail
    std::set<uint32_t> failingDeletes_; // interfaces whose device deletes fail
    uint32_t failingDetection_ = 0;     // the n-th registration or release of a peer from now fails; 0: none
    uint32_t allowed_ = 0;              // oddities that the test is about, for the store checker
    uint32_t checkedPasses_ = 1;        // the store is checked after each so many passes, and at rest
    uint32_t maxLists_ = 0, maxNodes_ = 0, maxIfs_ = 0; // limits, 0: the defaults; set before SetUp

private:
    using Peer = std::pair<std::string, uint32_t>; // address, VRF
    uint32_t field(uint32_t command, const void *pKey, uint32_t fieldId, PbrApiValue value);
    int64_t deviceCall(const std::string &line);
    int64_t detectionCall(const std::string &line);
    void post(const Peer &peer);

    int32_t maxFd_ = 0;
    uint32_t passes_ = 0;
    std::map<Peer, bool> peers_;
    std::set<Peer> registered_;
    std::vector<Peer> posted_;
    Plane calls_;
    steps::ViewMirror mirror_;
};

#endif
