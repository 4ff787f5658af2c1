// Builders with defaults, so that a test names only what it is about. Each fails the test when the
// record cannot be made. Addresses are texts ("10.0.0.1", "2001:db8::1").
#ifndef TESTS_SUPPORT_BUILDERS_H
#define TESTS_SUPPORT_BUILDERS_H

#include <cstdint>
#include <string>
#include <vector>

#include "store/pbr_records.h"

// A fresh fake and a started daemon (default limits unless given), with an empty trace.
void startDaemon(uint32_t maxListNum = 0, uint32_t maxNodeNum = 0, uint32_t maxIfNum = 0);

std::vector<uint8_t> bytes(const std::string &text);
std::vector<uint8_t> addressBytes(const std::string &address); // 16 bytes, network order
std::string nameOf(const PbrListEntry *pList);

struct NodeSpec {
    uint32_t acl = 0;
    uint32_t ipVer = 0;
    uint32_t vrf = 0;
    uint32_t ecmp = 0;
    uint32_t outIf = 0;
    uint32_t pri = PBR_IP_PRI_NONE;
    uint32_t forwardFlag = 0;
    uint32_t timeRangeId = PBR_TIME_RANGE_NONE;
    uint32_t timeRangeMatched = 0;
    uint32_t match1 = 0;
    uint32_t match2 = 0;
};

PbrListEntry *makeList(const std::string &name);
PbrNodeEntry *makeNode(const std::string &listName, uint32_t nodeIndex, const NodeSpec &spec = {});
PbrNextHopEntry *makeNextHop(PbrNodeEntry *pNode, uint32_t index, const std::string &address);
void nameTest(PbrNextHopEntry *pHop, const std::string &admin, const std::string &test); // names only
PbrNqaEntry *makeNqa(const std::string &admin, const std::string &test);
PbrIfEntry *makeIf(uint32_t ifUnit);
void nameList(PbrIfEntry *pIf, const std::string &listName);            // names the list, binds nothing
PbrIfEntry *bindIf(uint32_t ifUnit, const std::string &listName);       // entry made when absent, bound

// The lists of a table, front to back.
std::vector<PbrListEntry *> usedLists();
std::vector<PbrListEntry *> readyLists();

#endif
