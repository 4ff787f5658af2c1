// Builders of records and the started daemon.
#include "tests/support/builders.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>

#include "core/pbr_info.h"
#include "core/pbr_start.h"
#include "hw/pbr_if_bind.h"
#include "store/pbr_if_entry.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_next_hop_entry.h"
#include "store/pbr_node_entry.h"
#include "store/pbr_nqa_entry.h"
#include "tests/fake/fake.h"

void startDaemon(uint32_t maxListNum, uint32_t maxNodeNum, uint32_t maxIfNum) {
    fake::reset();
    gPbrDebug = 0;
    gPbrSelfLog = 0;
    ASSERT_EQ(pbrInit(maxListNum, maxNodeNum, maxIfNum), PBR_OK);
    fake::takeTrace();
}

std::vector<uint8_t> bytes(const std::string &text) {
    std::vector<uint8_t> out;
    out.reserve(text.size() + 1); // data() is an address even of an empty name
    out.assign(text.begin(), text.end());
    return out;
}

std::vector<uint8_t> addressBytes(const std::string &address) {
    std::vector<uint8_t> out(16);
    const int family = address.find(':') != std::string::npos ? AF_INET6 : AF_INET;
    EXPECT_EQ(inet_pton(family, address.c_str(), out.data()), 1) << address;
    return out;
}

std::string nameOf(const PbrListEntry *pList) {
    return std::string(reinterpret_cast<const char *>(pList->name), pList->nameLen);
}

PbrListEntry *makeList(const std::string &name) {
    PbrListEntry *pList = pbrListEntryAdd(bytes(name).data(), static_cast<uint32_t>(name.size()));
    EXPECT_NE(pList, nullptr) << name;
    return pList;
}

PbrNodeEntry *makeNode(const std::string &listName, uint32_t nodeIndex, const NodeSpec &spec) {
    PbrNodeEntry *pNode =
        pbrNodeEntryAdd(bytes(listName).data(), static_cast<uint32_t>(listName.size()), nodeIndex);
    EXPECT_NE(pNode, nullptr) << listName << " " << nodeIndex;
    if (pNode == nullptr) {
        return nullptr;
    }
    pNode->aclNum = spec.acl;
    pNode->policyRouteIpVer = static_cast<uint8_t>(spec.ipVer);
    pNode->vrfid = spec.vrf;
    pbrNodeIsEcmpSet(pNode, spec.ecmp);
    pNode->outIfUnit = spec.outIf;
    pbrNodeIpPriSet(pNode, spec.pri);
    pbrNodeForwardFlagSet(pNode, spec.forwardFlag);
    pNode->timeRangeId = spec.timeRangeId;
    pNode->timeRangeMatched = spec.timeRangeMatched;
    pNode->matchValue1 = static_cast<uint16_t>(spec.match1);
    pNode->matchValue2 = static_cast<uint16_t>(spec.match2);
    return pNode;
}

PbrNextHopEntry *makeNextHop(PbrNodeEntry *pNode, uint32_t index, const std::string &address) {
    PbrNextHopEntry *pHop = pbrNextHopEntryAdd(pNode, index);
    EXPECT_NE(pHop, nullptr) << index;
    if (pHop != nullptr) {
        memcpy(pHop->nextHop, addressBytes(address).data(), sizeof(pHop->nextHop));
    }
    return pHop;
}

void nameTest(PbrNextHopEntry *pHop, const std::string &admin, const std::string &test) {
    ASSERT_LE(admin.size(), PBR_NQA_NAME_BYTES);
    ASSERT_LE(test.size(), PBR_NQA_NAME_BYTES);
    memset(pHop->nqaAdminName, 0, sizeof(pHop->nqaAdminName));
    memset(pHop->nqaTestName, 0, sizeof(pHop->nqaTestName));
    memcpy(pHop->nqaAdminName, admin.data(), admin.size());
    memcpy(pHop->nqaTestName, test.data(), test.size());
    pHop->nqaAdminNameLen = static_cast<uint16_t>(admin.size());
    pHop->nqaTestNameLen = static_cast<uint16_t>(test.size());
}

PbrNqaEntry *makeNqa(const std::string &admin, const std::string &test) {
    PbrNqaEntry *pNqa = pbrNqaEntryAdd(bytes(admin).data(), static_cast<uint8_t>(admin.size()),
                                       bytes(test).data(), static_cast<uint8_t>(test.size()));
    EXPECT_NE(pNqa, nullptr) << admin << " " << test;
    return pNqa;
}

PbrIfEntry *makeIf(uint32_t ifUnit) {
    PbrIfEntry *pIf = pbrIfEntryAdd(ifUnit);
    EXPECT_NE(pIf, nullptr) << ifUnit;
    return pIf;
}

void nameList(PbrIfEntry *pIf, const std::string &listName) {
    ASSERT_LE(listName.size(), PBR_NAME_BYTES);
    memset(pIf->pbrName, 0, sizeof(pIf->pbrName));
    memcpy(pIf->pbrName, listName.data(), listName.size());
    pIf->pbrNameLen = static_cast<uint16_t>(listName.size());
}

PbrIfEntry *bindIf(uint32_t ifUnit, const std::string &listName) {
    PbrIfEntry *pIf = pbrIfEntryGet(ifUnit);
    pIf = pIf != nullptr ? pIf : makeIf(ifUnit);
    nameList(pIf, listName);
    EXPECT_EQ(pbrIfEntryBind(pIf), 0) << ifUnit << " " << listName;
    return pIf;
}

std::vector<PbrListEntry *> usedLists() {
    std::vector<PbrListEntry *> lists;
    for (PbrLink *p = listFirst(&gPbrInfo.usedTable); p != nullptr; p = listNext(&gPbrInfo.usedTable, p)) {
        lists.push_back(pbrListFromUsedLink(p));
    }
    return lists;
}

std::vector<PbrListEntry *> readyLists() {
    std::vector<PbrListEntry *> lists;
    for (PbrLink *p = listFirst(&gPbrInfo.readyTable); p != nullptr; p = listNext(&gPbrInfo.readyTable, p)) {
        lists.push_back(pbrListFromReadyLink(p));
    }
    return lists;
}
