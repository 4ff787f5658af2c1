// Short words for what the daemon asked and left: see the header.
#include "tests/scenario/scene.h"

#include <cstdarg>
#include <sstream>

namespace {

std::string textOf(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string textOf(const char *format, ...) {
    va_list args;
    va_start(args, format);
    char buffer[200];
    vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return buffer;
}

bool isCall(const std::string &line, const char *pName) {
    return line.rfind(std::string(pName) + "(", 0) == 0;
}

// A word of a next-hop area: the peer's letter, else the number of an interface.
std::string wordText(uint32_t word) {
    if ((word >> 8) == 0x0A0000 && (word & 0xFF) >= 1 && (word & 0xFF) <= 26) {
        return std::string(1, static_cast<char>('A' + (word & 0xFF) - 1));
    }
    return word < 0x10000 ? std::to_string(word) : textOf("%08x", word);
}

std::string wordsText(const std::string &hexWords) {
    std::stringstream in(hexWords);
    std::string word, out;
    while (std::getline(in, word, ',')) {
        out += (out.empty() ? "" : ",") + wordText(static_cast<uint32_t>(std::stoul(word, nullptr, 16)));
    }
    return out;
}

std::string entryText(const std::string &line) {
    uint32_t unit, command, recordUnit, acl, direction, action, priority, vrf;
    EXPECT_EQ(8, sscanf(line.c_str(), "aclIfSetApi(%u, %u, if=%u acl=%u dir=%u act=%u pri=%u vrf=%u", &unit, &command,
                        &recordUnit, &acl, &direction, &action, &priority, &vrf)) << line;
    EXPECT_EQ(unit, recordUnit) << line;
    EXPECT_EQ(0u, direction) << line;
    const size_t hops = line.find("hops=") + 5;
    std::string out = textOf("%s %u/%u act=%u", command == 20 ? "ADD" : "DEL", unit, acl, action);
    out += priority == 0 ? "" : textOf(" pri=%u", priority);
    out += vrf == 0 ? "" : textOf(" vrf=%u", vrf);
    return out + (action == 4 ? " if=" : " hops=") + wordsText(line.substr(hops, line.size() - hops - 1));
}

// The word at a byte offset of a rule record, 0 when the trace does not show it.
uint32_t ruleWord(const std::string &line, uint32_t offset) {
    const size_t found = line.find(textOf(" %u:", offset));
    return found == std::string::npos
               ? 0
               : static_cast<uint32_t>(std::stoul(line.substr(line.find(':', found) + 1, 8), nullptr, 16));
}

std::string ruleText(const std::string &line, uint32_t unit) {
    std::string out = textOf("%s %u %u/%u", line.find("type=0x03e80135") != std::string::npos ? "RADD" : "RDEL", unit,
                             ruleWord(line, 476), ruleWord(line, 480));
    for (uint32_t slot = 0; slot < 4; slot++) {
        const uint32_t word = ruleWord(line, 276 + 4 * slot);
        out += word == 0 ? "" : (slot == 0 ? " " : ",") + wordText(word);
    }
    return out;
}

std::string interfaceText(const std::string &line) {
    uint32_t unit = 0, command = 0;
    EXPECT_EQ(2, sscanf(line.c_str(), "qrvIfSetApi(%u, %u", &unit, &command)) << line;
    if (command == 44) {
        return ruleText(line, unit);
    }
    return command == 56 ? textOf("ON %u", unit) : command == 57 ? textOf("OFF %u", unit) : line;
}

std::string peerText(const std::string &line) {
    uint32_t head = 0, vrf = 0, reserved = 0, word[4] = {};
    const int count = sscanf(line.c_str(), "hrdScalarSetApi(0, 6, %x %x %x %x %x %x %x)", &head, &vrf, &reserved,
                             &word[0], &word[1], &word[2], &word[3]);
    EXPECT_LE(4, count) << line;
    const uint32_t last = word[count == 4 ? 0 : 3];
    std::string out = (head >> 24) == 1 ? "WATCH " : "UNWATCH ";
    out += count == 4 ? wordText(last) : textOf("::%x", last);
    return out + (vrf == 0 ? "" : textOf(" vrf=%u", vrf));
}

std::string between(const std::string &line, const char *pBefore, char after) {
    const size_t begin = line.find(pBefore) + strlen(pBefore);
    return line.substr(begin, line.find(after, begin) - begin);
}

bool isNoise(const std::string &line) {
    for (const char *pName : {"qrv_recvfrom", "qrv_ioctl", "silTimerStart", "silMemPoolInit", "qrvHwilCmdSyncApi",
                              "aclLstGetApi", "aclRuleDevTrans"}) {
        if (isCall(line, pName)) {
            return true;
        }
    }
    return false;
}

std::string workText(const std::string &line) {
    uint32_t number = 0, more = 0;
    int32_t delta = 0;
    if (isCall(line, "aclIfSetApi")) {
        return entryText(line);
    }
    if (isCall(line, "qrvIfSetApi")) {
        return interfaceText(line);
    }
    if (isCall(line, "hrdScalarSetApi")) {
        return peerText(line);
    }
    if (sscanf(line.c_str(), "aclLstSyncApi(%u, 2, %d)", &number, &delta) == 2) {
        return textOf("USE %u %+d", number, delta);
    }
    if (sscanf(line.c_str(), "qrvIfGetApi(%u, 47, 0x%x)", &number, &more) == 2) {
        return textOf("ASK %u %s", number, more == 0x03E80135 ? "added" : "removed");
    }
    if (sscanf(line.c_str(), "timerangeBind(%u", &number) == 1) {
        return textOf("RANGE+ %u ", number) + between(line, "\"", '"');
    }
    if (sscanf(line.c_str(), "timerangeUnbind(%u", &number) == 1) {
        return textOf("RANGE- %u ", number) + between(line, "\"", '"');
    }
    if (isCall(line, "qrvNetlinkSGrpSend")) {
        return "STATE? " + between(line, "admin=\"", '"') + "/" + between(line, "test=\"", '"');
    }
    return line;
}

PbrListEntry *listOf(const std::string &list) {
    PbrListEntry *pList = pbrListEntryGet(reinterpret_cast<const uint8_t *>(list.data()),
                                          static_cast<uint32_t>(list.size()));
    EXPECT_NE(nullptr, pList) << list;
    return pList;
}

PbrNodeEntry *nodeOf(const std::string &list, uint32_t index) {
    PbrListEntry *pList = listOf(list);
    for (PbrNodeEntry *pNode = pList == nullptr ? nullptr : pbrListNodeFirst(pList); pNode != nullptr;
         pNode = pbrListNodeNext(pList, pNode)) {
        if (pNode->nodeIndex == index) {
            return pNode;
        }
    }
    ADD_FAILURE() << "no node " << list << "/" << index;
    return nullptr;
}

} // namespace

Scene::Lines Scene::work() {
    Lines out;
    for (const std::string &line : fake::takeCalls()) {
        if (!isNoise(line)) {
            out.push_back(workText(line));
        }
    }
    return out;
}

std::string Scene::marks(const std::string &list, uint32_t index) {
    const PbrNodeEntry *pNode = nodeOf(list, index);
    if (pNode == nullptr) {
        return "";
    }
    std::string add, del;
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(pNode); pHop != nullptr;
         pHop = pbrNodeNextHopNext(pNode, pHop)) {
        add += textOf("%x", pbrNextHopHwAddRefCntGet(pHop));
        del += textOf("%x", pbrNextHopHwDelRefCntGet(pHop));
    }
    return steps::marks(pNode) + " add=" + add + " del=" + del;
}

std::string Scene::statuses(const std::string &list, uint32_t index) {
    const PbrNodeEntry *pNode = nodeOf(list, index);
    std::string out;
    for (const PbrIfEntry *pIf = pbrIfEntryFirst(); pIf != nullptr; pIf = pbrIfEntryNext(pIf)) {
        for (const PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr;
             pLink = pbrIfIfNodeNext(pIf, pLink)) {
            if (pLink->pPbrNode == pNode) {
                out += textOf("%s%u:%u", out.empty() ? "" : " ", pIf->ifUnit, pbrIfNodeHwStatusGet(pLink));
            }
        }
    }
    return out;
}

std::string Scene::queued() {
    std::string out;
    for (const PbrListEntry *pList : readyLists()) {
        out += (out.empty() ? "" : ",") + nameOf(pList);
    }
    return out;
}

std::string Scene::counted() {
    const Counters now = {gPbrInfo.hwAclAddCnt, gPbrInfo.hwAclAddErr,     gPbrInfo.hwAclDelCnt,
                          gPbrInfo.hwAclDelErr, gPbrInfo.rcvRtmAclAddCnt, gPbrInfo.rcvRtmAclDelCnt};
    const std::string out =
        textOf("add %u/%u del %u/%u rules %u/%u", now.add - last_.add, now.addErr - last_.addErr, now.del - last_.del,
               now.delErr - last_.delErr, now.ruleAdd - last_.ruleAdd, now.ruleDel - last_.ruleDel);
    last_ = now;
    return out;
}

void Scene::haveNothingLeft(std::initializer_list<const char *> lists) {
    for (const char *pList : lists) {
        EXPECT_EQ(PBR_OK, listSet(pList, PBR_ROW_DESTROY)) << pList;
    }
    for (const char *pPool : {"pbr_if", "pbr_list", "pbr_node", "pbr_nexthop", "pbr_ifnode", "pbr_nqa"}) {
        EXPECT_FALSE(fake::poolExists(pPool)) << pPool;
    }
    EXPECT_EQ("", queued());
}
