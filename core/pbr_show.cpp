// The built-in report of the store, one renderer of the rows of core/pbr_show_rows.
//
// A header is printed before every row, not once a table, and the used table ends every ACL's line:
// published output, kept byte for byte for those who parse it.
#include "core/pbr_show.h"

#include <cstdio>

#include "core/pbr_info.h"
#include "core/pbr_show_rows.h"
#include "platform/qrv_if.h"
#include "platform/sil_process.h"

namespace {

constexpr char TEXT_INFO[] = "\n\r ---------show pbr information :\n\r";
constexpr char TEXT_LIMITS[] = "maxPbrNum=%d,maxPbrNodeNum=%d,maxIfNum=%d \r\n";
constexpr char TEXT_COUNTERS[] = "hwacladdcnt=%d,hwacldelcnt=%d,adderr %d, delerr %d\r\n";
constexpr char TEXT_MESSAGES[] = "rcvRtmAclAddCnt=%d,rcvRtmAclDelCnt=%d\r\n";
constexpr char TEXT_IFBIND[] = "\n\r ---------show pbr ifbind table :";
constexpr char TEXT_SHORT_HEAD[] =
    "\n\r num\t\t --interface\t\t --pbrName\t --nodeIndex--outIfUnit--ipPri--hwStatus \n\r";
constexpr char TEXT_SHORT_ROW[] = "\n\r %-6d --%-21s --%10s--%-13d --%-13d--%-13d--%-4d \n\r";
constexpr char TEXT_LONG_HEAD[] =
    "\n\r num        --interface         --pbrName   --nodeIndex--nextHopIndex--nexthopHwState"
    "--nexthopArpState --lastSelected --curSelected--hwStatus --pPbrNhopBest --hwDelRefCnt "
    "--hwAddRefCnt--timerangeId--match\n\r";
constexpr char TEXT_LONG_ROW[] =
    "\n\r %-6d --%-21s --%10s--%-13d --%-13d--%-13d --%-14d--%-14d  --%-8d  --%-4d --%p --%-8d--%-8d"
    "--%8u--%d \n\r";
constexpr char TEXT_READY[] = "\n\r ---------show pbr ready table :";
constexpr char TEXT_USED[] = "\n\r ---------show pbr used table :";
constexpr char TEXT_LIST_HEAD[] = "\n\r num        --name        --refCnt  \n\r";
constexpr char TEXT_LIST_ROW[] = "\n\r %-6d --%-21s --%-13d\n\r";
constexpr char TEXT_ACL[] = "acl %d ";
constexpr char TEXT_NQA[] = "\n\r ---------show nqa table :";
constexpr char TEXT_NQA_HEAD[] = "\n\r admin/len      tag/len      status";
constexpr char TEXT_NQA_ROW[] = "\n\r %s/%d  %15s/%d         %d";
constexpr char LINE_END[] = "\r"; // of puts, which adds the newline

constexpr uint32_t IF_NAME_SIZE = 128;

// A name without terminator, as a text.
struct NameText {
    char text[PBR_NQA_NAME_BYTES + 1];
};

NameText nameText(const uint8_t *pName, uint32_t nameLen, uint32_t nameBytes) {
    NameText out = {};
    const uint32_t len = nameLen < nameBytes ? nameLen : nameBytes;
    for (uint32_t i = 0; i < len; i++) {
        out.text[i] = static_cast<char>(pName[i]);
    }
    return out;
}

NameText listName(const PbrListEntry *pList) {
    return nameText(pList->name, pList->nameLen, PBR_NAME_BYTES);
}

void infoShow() PBR_LOCK_HELD {
    printf(TEXT_INFO);
    printf(TEXT_LIMITS, static_cast<int32_t>(gPbrInfo.maxListNum), static_cast<int32_t>(gPbrInfo.maxNodeNum),
           static_cast<int32_t>(gPbrInfo.maxIfNum));
    printf(TEXT_COUNTERS, static_cast<int32_t>(gPbrInfo.hwAclAddCnt), static_cast<int32_t>(gPbrInfo.hwAclDelCnt),
           static_cast<int32_t>(gPbrInfo.hwAclAddErr), static_cast<int32_t>(gPbrInfo.hwAclDelErr));
    printf(TEXT_MESSAGES, static_cast<int32_t>(gPbrInfo.rcvRtmAclAddCnt),
           static_cast<int32_t>(gPbrInfo.rcvRtmAclDelCnt));
}

void shortRowShow(const PbrShowIfBindRow *pRow, const char *pIfName) {
    const PbrNodeEntry *pNode = pRow->pNode;
    printf(TEXT_SHORT_HEAD);
    printf(TEXT_SHORT_ROW, static_cast<int32_t>(pRow->number), pIfName, listName(pNode->pPbrList).text,
           static_cast<int32_t>(pNode->nodeIndex), static_cast<int32_t>(pNode->outIfUnit),
           static_cast<int32_t>(pbrNodeIpPriGet(pNode)),
           static_cast<int32_t>(pbrIfNodeHwStatusGet(pRow->pLink)));
}

void longRowShow(const PbrShowIfBindRow *pRow, const char *pIfName) {
    const PbrNodeEntry *pNode = pRow->pNode;
    const PbrNextHopEntry *pHop = pRow->pNextHop;
    printf(TEXT_LONG_HEAD);
    printf(TEXT_LONG_ROW, static_cast<int32_t>(pRow->number), pIfName, listName(pNode->pPbrList).text,
           static_cast<int32_t>(pNode->nodeIndex), pHop->nextHopIndex, pHop->nexthopHwState,
           pHop->nexthopArpState, pHop->lastSelected, pHop->curSelected,
           static_cast<int32_t>(pbrIfNodeHwStatusGet(pRow->pLink)),
           static_cast<const void *>(pNode->pPbrNhopBest), static_cast<int32_t>(pbrNextHopHwDelRefCntGet(pHop)),
           static_cast<int32_t>(pbrNextHopHwAddRefCntGet(pHop)), pNode->timeRangeId,
           static_cast<int32_t>(pNode->timeRangeMatched));
}

void ifBindRowShow(const PbrShowIfBindRow *pRow) {
    char ifName[IF_NAME_SIZE] = {};
    (void)qrvIfUnit2Name(pRow->pIf->ifUnit, ifName, IF_NAME_SIZE);
    (pRow->pNextHop == nullptr ? shortRowShow : longRowShow)(pRow, ifName);
}

void readyRowShow(const PbrShowListRow *pRow) {
    printf(TEXT_LIST_HEAD);
    printf(TEXT_LIST_ROW, static_cast<int32_t>(pRow->number), listName(pRow->pList).text,
           static_cast<int32_t>(pbrListRefCntGet(pRow->pList)));
}

// Every ACL ends its line: a counter meant to break them into lines of six is never advanced.
void usedRowShow(const PbrShowListRow *pRow) {
    readyRowShow(pRow);
    for (const PbrNodeEntry *pNode = pbrListNodeFirst(pRow->pList); pNode != nullptr;
         pNode = pbrListNodeNext(pRow->pList, pNode)) {
        printf(TEXT_ACL, static_cast<int32_t>(pNode->aclNum));
        puts(LINE_END);
    }
    puts(LINE_END);
}

// The administrator name's length stands in the tag's place too: published.
void nqaRowShow(const PbrNqaEntry *pNqa) {
    printf(TEXT_NQA_ROW, nameText(pNqa->adminName, pNqa->adminNameLen, PBR_NQA_NAME_BYTES).text,
           pNqa->adminNameLen, nameText(pNqa->testName, pNqa->testNameLen, PBR_NQA_NAME_BYTES).text,
           pNqa->adminNameLen, static_cast<int32_t>(pNqa->status));
}

} // namespace

int32_t pbrInfoShow() {
    (void)pbrLock(); // waits without limit
    infoShow();
    printf(TEXT_IFBIND);
    pbrShowIfBindRows(ifBindRowShow);
    printf(TEXT_READY);
    pbrShowReadyRows(readyRowShow);
    printf(TEXT_USED);
    pbrShowUsedRows(usedRowShow);
    printf(TEXT_NQA);
    printf(TEXT_NQA_HEAD);
    pbrShowNqaRows(nqaRowShow);
    puts(LINE_END);
    return pbrUnlock();
}

int32_t pbrdebug() {
    gPbrDebug = 1;
    return 0;
}

const ProcShellCommand gProcShellCommands[] = {
    {"pbrInfoShow", pbrInfoShow},
    {"pbrdebug", pbrdebug},
};
const uint32_t gProcShellCommandCount = sizeof(gProcShellCommands) / sizeof(gProcShellCommands[0]);

const ProcShellVariable gProcShellVariables[] = {
    {"pbrselflog", &gPbrSelfLog},
    {"pbrDebug", &gPbrDebug},
};
const uint32_t gProcShellVariableCount = sizeof(gProcShellVariables) / sizeof(gProcShellVariables[0]);
