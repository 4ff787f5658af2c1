// The single-change commands: what an operator asks for is looked at against the running policy first,
// so that a refusal tells more than a code, then done with cli/operate.h.
//
// Failures are thrown: Refused, Usage, NoDaemon. Nothing is changed then.
#ifndef CLI_CHANGE_H
#define CLI_CHANGE_H

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "cli/daemon.h"

namespace cli {

struct NodeChange { // options that were not given stay as they are (a new node: none)
    std::string list;
    uint32_t index = 0;
    std::optional<uint32_t> acl;
    std::optional<int> ipVersion;
    std::optional<uint32_t> priority;
    std::optional<std::string> interface;
    bool noInterface = false;
    std::optional<bool> ecmp;
    std::optional<std::string> vrf;       // a number or a name
    std::optional<std::string> timeRange; // a number, or "none"
};

struct NextHopChange {
    std::string list;
    uint32_t node = 0;
    std::string address;           // removal: or its number
    std::optional<uint32_t> index;
    std::optional<std::string> probe;
};

void changeAclCreate(Daemon &daemon, uint32_t acl);
void changeAclDestroy(Daemon &daemon, uint32_t acl);
void changeAclAdd(Daemon &daemon, uint32_t acl, uint32_t rule, const std::vector<std::string> &words);
void changeAclDel(Daemon &daemon, uint32_t acl, uint32_t rule);

void changeListAdd(Daemon &daemon, const std::string &name);
void changeListDel(Daemon &daemon, const std::string &name);

void changeNodeAdd(Daemon &daemon, const NodeChange &change);
void changeNodeSet(Daemon &daemon, const NodeChange &change);
// What its packets do while nothing of it is usable: "drop" or "normal". Also of a bound list.
void changeNodeOtherwise(Daemon &daemon, const std::string &list, uint32_t index, const std::string &what);
void changeNodeClear(Daemon &daemon, const std::string &list, uint32_t index);
void changeNodeDel(Daemon &daemon, const std::string &list, uint32_t index);

// Warnings go to `err`.
void changeNextHopAdd(Daemon &daemon, const NextHopChange &change, std::ostream &err);
void changeNextHopDel(Daemon &daemon, const NextHopChange &change);
void changeBind(Daemon &daemon, const std::string &interface, const std::string &list, std::ostream &err);
void changeUnbind(Daemon &daemon, const std::string &interface);

// what: hw, event, dump separated by commas, or off.
void changeDebug(Daemon &daemon, const std::string &what);

} // namespace cli

#endif
