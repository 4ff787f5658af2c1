// Steps to the daemon, and its trace and store as the model's.
#include "tests/model/driver.h"

#include <cinttypes>
#include <cstring>

#include "core/pbr_info.h"
#include "core/pbr_loop.h"
#include "platform/avl.h"
#include "platform/icm.h"
#include "store/pbr_records.h"
#include "tests/fake/fake_state.h"
#include "tests/support/builders.h"

namespace model {
namespace {

constexpr uintptr_t UNTOUCHED = 0xA5A5A5A5u;

std::string nameText(const uint8_t *pName, size_t len) {
    return std::string(reinterpret_cast<const char *>(pName), len);
}

// ---- keys and values ----

struct KeyBytes {
    alignas(8) uint8_t bytes[32] = {};
    template <class Word> void put(size_t offset, Word word) { memcpy(bytes + offset, &word, sizeof(word)); }
    template <class Word> Word get(size_t offset) const {
        Word word;
        memcpy(&word, bytes + offset, sizeof(word));
        return word;
    }
};

enum class Table { List, Node, Hop, Interface, Scalar };

Table tableOf(uint32_t command) {
    if (command <= 8) {
        static const Table walked[] = {Table::List, Table::List, Table::List, Table::Node, Table::Node,
                                       Table::Interface, Table::Interface, Table::Hop, Table::Hop};
        return walked[command];
    }
    static const Table tables[] = {Table::List, Table::Node, Table::Interface, Table::Hop, Table::Scalar};
    return tables[(command - 9) / 3];
}

bool hasBytesField(Table table, uint32_t field) {
    switch (table) {
    case Table::List: return field == 3;
    case Table::Node: return field == 15;
    case Table::Hop: return field == 2 || field == 4 || field == 5;
    case Table::Interface: return field >= 2 && field <= 4;
    case Table::Scalar: return field >= 5 && field <= 7;
    }
    return false;
}

KeyBytes keyBytes(Table table, const Key &key) {
    KeyBytes out;
    if (table == Table::Interface) {
        out.put<uint32_t>(0, key.unit);
        return out;
    }
    memcpy(out.bytes, key.list.data(), key.list.size());
    out.put<uint16_t>(16, key.nameLen);
    if (table != Table::List) {
        out.put<uint32_t>(20, key.node);
        out.put<uint8_t>(24, key.mask);
        out.put<uint8_t>(25, key.hop);
    }
    return out;
}

Key keyRead(Table table, const KeyBytes &bytes, Key key) {
    if (table == Table::Interface) {
        key.unit = bytes.get<uint32_t>(0);
        return key;
    }
    key.nameLen = bytes.get<uint16_t>(16);
    key.list = nameText(bytes.bytes, std::min<size_t>(key.nameLen, 16));
    if (table != Table::List) {
        key.node = bytes.get<uint32_t>(20);
        key.mask = bytes.get<uint8_t>(24);
        key.hop = bytes.get<uint8_t>(25);
    }
    return key;
}

// ---- records by their places ----

template <class Visit> void eachNode(Visit visit) {
    size_t l = 0;
    for (PbrLink *p = listFirst(&gPbrInfo.usedTable); p != nullptr; p = listNext(&gPbrInfo.usedTable, p), ++l) {
        const PbrListEntry *pList = pbrListFromUsedLink(p);
        size_t n = 0;
        for (const PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr; pNode = pbrListNodeNext(pList, pNode), ++n) {
            if (visit(pList, pNode, l, n)) {
                return;
            }
        }
    }
}

uint32_t hopPlace(const PbrNextHopEntry *pHop) {
    uint32_t place = NO_PLACE;
    if (pHop == nullptr) {
        return place;
    }
    eachNode([&](const PbrListEntry *, const PbrNodeEntry *pNode, size_t l, size_t n) {
        size_t h = 0;
        for (const PbrNextHopEntry *p = pbrNodeNextHopFirst(pNode); p != nullptr; p = pbrNodeNextHopNext(pNode, p), ++h) {
            if (p == pHop) {
                place = placeOf(l, n, h);
            }
        }
        return place != NO_PLACE;
    });
    return place;
}

uint32_t nodePlace(const PbrNodeEntry *pNode) {
    uint32_t place = NO_PLACE;
    eachNode([&](const PbrListEntry *, const PbrNodeEntry *p, size_t l, size_t n) {
        place = p == pNode ? placeOf(l, n, 0) : NO_PLACE;
        return place != NO_PLACE;
    });
    return place;
}

// The name of the record at an address, empty when there is none.
std::string recordName(uintptr_t address) {
    std::string name;
    eachNode([&](const PbrListEntry *pList, const PbrNodeEntry *pNode, size_t, size_t) {
        const std::string quoted = fake::quoted(nameText(pList->name, pList->nameLen)); // as in the line
        const std::string place = quoted.substr(1, quoted.size() - 2) + "," + std::to_string(pNode->nodeIndex);
        if (reinterpret_cast<uintptr_t>(pNode) == address) {
            name = "node(" + place + ")";
        }
        for (const PbrNextHopEntry *p = pbrNodeNextHopFirst(pNode); p != nullptr; p = pbrNodeNextHopNext(pNode, p)) {
            if (reinterpret_cast<uintptr_t>(p) == address) {
                name = "hop(" + place + "," + std::to_string(p->nextHopIndex) + ")";
            }
        }
        return !name.empty();
    });
    return name;
}

bool printsRecords(const std::string &line) {
    for (const char *mark : {"pPbrNhopBest:", "pPbrNode(", "check pbr IfNode:", "no change best nexthop"}) {
        if (line.find(mark) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void nameRecords(std::string &line) {
    if (!printsRecords(line)) {
        return;
    }
    const size_t body = line.find('"');
    for (size_t at = line.find("0x", body); at != std::string::npos; at = line.find("0x", at + 1)) {
        size_t end = at + 2;
        while (end < line.size() && isxdigit(static_cast<unsigned char>(line[end])) != 0) {
            ++end;
        }
        const std::string name = recordName(static_cast<uintptr_t>(strtoull(line.c_str() + at, nullptr, 16)));
        if (!name.empty()) {
            line.replace(at, end - at, name);
        }
    }
}

} // namespace

Driver::Driver(const Limits &limits, const std::vector<uint8_t> &translation) {
    startDaemon(limits.lists, limits.nodes, limits.interfaces);
    fake::ruleTranslation(translation);
}

Answer Driver::command(const Command &c) {
    const IcmHandler handler = fake::state().commandServers.at(0).pCommands[c.id].handler;
    const Table table = tableOf(c.id);
    KeyBytes key = keyBytes(table, c.key);
    void *pKey = c.hasKey ? key.bytes : nullptr;
    Answer answer;
    if (c.id <= 8) {
        if (c.id % 2 == 1) {
            answer.code = reinterpret_cast<IcmFirstHandler>(handler)(pKey);
        } else {
            KeyBytes out;
            answer.code = reinterpret_cast<IcmNextHandler>(handler)(pKey, out.bytes);
            key = out;
        }
        answer.hasKey = answer.code == 0;
        if (answer.hasKey) {
            answer.key = keyRead(table, key, c.key);
        }
        return answer;
    }
    PbrApiValue value = {UNTOUCHED, 0};
    const bool isGet = (c.id - 9) % 3 == 0;
    std::vector<uint8_t> buffer;
    if (isGet && hasBytesField(table, c.field)) {
        buffer.resize(c.capacity + 64u);
        value = {c.hasBuffer ? reinterpret_cast<uintptr_t>(buffer.data()) : 0, c.capacity};
    } else if (c.isBytes) {
        buffer.reserve(c.bytes.size() + 1);
        buffer.assign(c.bytes.begin(), c.bytes.end());
        value = {reinterpret_cast<uintptr_t>(buffer.data()), static_cast<uint32_t>(c.bytes.size())};
    } else if (!isGet) {
        value.word0 = c.number;
    }
    answer.code = reinterpret_cast<IcmFieldHandler>(handler)(pKey, c.field, &value);
    if (isGet && answer.code == 0) {
        answer.hasBytes = !buffer.empty();
        answer.hasNumber = buffer.empty() && value.word0 != UNTOUCHED;
        answer.bytes.assign(buffer.begin(), buffer.begin() + (answer.hasBytes ? static_cast<ptrdiff_t>(std::min<size_t>(value.word1, buffer.size())) : 0));
        answer.number = answer.hasNumber ? static_cast<uint32_t>(value.word0) : 0;
    }
    return answer;
}

void Driver::deliver(const std::vector<uint8_t> &read) {
    fake::deliver(read);
}

void Driver::pass(uint32_t ms) {
    fake::advanceMs(ms);
    pbrMainPass(&maxFd_);
    fake::state().selects.clear();
}

void Driver::range(size_t binding, uint32_t action) {
    fake::TimerangeBinding b = fake::state().timeranges.at(binding);
    (void)(action == 0 ? b.start : action == 1 ? b.stop : b.unbind)(b.context.data());
}

void Driver::arm(const std::string &call, uint32_t nth, int64_t value) {
    fake::answerNth(call, nth, value);
}
void Driver::answer(const std::string &call, int64_t value) {
    fake::answer(call, value);
}
void Driver::aclExists(uint32_t acl, bool exists) {
    fake::acl(acl, exists);
}
void Driver::selfLog(uint32_t value) {
    gPbrSelfLog = value;
}
size_t Driver::ranges() const {
    return fake::state().timeranges.size();
}

void Driver::waiting(size_t link, uint32_t mark) {
    for (void *p = avl_first(&gPbrInfo.ifTree); p != nullptr; p = avl_next(&gPbrInfo.ifTree, p)) {
        const PbrIfEntry *pIf = static_cast<PbrIfEntry *>(p);
        for (PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr; pLink = pbrIfIfNodeNext(pIf, pLink)) {
            if (link-- == 0) {
                (mark == 1 ? pLink->emptyAcl : pLink->aclNoAction) = 1;
                return;
            }
        }
    }
}

void Driver::takeTrace(std::vector<std::string> &trace) {
    trace.clear();
    trace.swap(fake::state().trace);
    for (std::string &line : trace) {
        nameRecords(line);
    }
}

namespace {

void writeHop(Sink &sink, const PbrNextHopEntry *p) {
    sink.put("nextHopIndex", p->nextHopIndex);
    sink.put("status", p->status);
    sink.put("address", p->nextHop, 16);
    sink.put("admin", nameText(p->nqaAdminName, p->nqaAdminNameLen));
    sink.put("test", nameText(p->nqaTestName, p->nqaTestNameLen));
    sink.put("nexthopArpState", p->nexthopArpState);
    sink.put("nexthopHwState", p->nexthopHwState);
    sink.put("lastSelected", p->lastSelected);
    sink.put("curSelected", p->curSelected);
    sink.put("hwDelRefCnt", pbrNextHopHwDelRefCntGet(p));
    sink.put("hwAddRefCnt", pbrNextHopHwAddRefCntGet(p));
}

void writeNode(Sink &sink, const std::string &list, const PbrNodeEntry *p) {
    const std::string place = list + "," + std::to_string(p->nodeIndex);
    if (sink.asText) {
        sink.place = "node(" + place + "): ";
    }
    sink.put("nodeIndex", p->nodeIndex);
    sink.put("pPbrNhopBest", hopPlace(p->pPbrNhopBest));
    sink.put("status", p->status);
    sink.put("matchValue1", p->matchValue1);
    sink.put("matchValue2", p->matchValue2);
    sink.put("aclNum", p->aclNum);
    sink.put("forwardFlag", pbrNodeForwardFlagGet(p));
    sink.put("isEcmp", pbrNodeIsEcmpGet(p));
    sink.put("ipPri", pbrNodeIpPriGet(p));
    sink.put("policyRouteIpVer", p->policyRouteIpVer);
    sink.put("nhopArpUp", p->nhopArpUp);
    sink.put("nodeField12", p->nodeField12);
    sink.put("stateChangeFlag", pbrNodeStateChangeGet(p) ? 1 : 0);
    sink.put("vrfid", p->vrfid);
    sink.put("outIfUnit", p->outIfUnit);
    sink.put("nodeField7", p->nodeField7);
    sink.put("timeRangeId", p->timeRangeId);
    sink.put("timeRangeMatched", p->timeRangeMatched);
    uint32_t hops = 0;
    for (const PbrNextHopEntry *h = pbrNodeNextHopFirst(p); h != nullptr; h = pbrNodeNextHopNext(p, h)) {
        ++hops;
    }
    sink.put("hops", hops);
    for (const PbrNextHopEntry *h = pbrNodeNextHopFirst(p); h != nullptr; h = pbrNodeNextHopNext(p, h)) {
        if (sink.asText) {
            sink.place = "hop(" + place + "," + std::to_string(h->nextHopIndex) + "): ";
        }
        writeHop(sink, h);
    }
}

uint32_t lengthOf(const PbrLink *pHead) {
    uint32_t count = 0;
    for (const PbrLink *p = listFirst(pHead); p != nullptr; p = listNext(pHead, p)) {
        ++count;
    }
    return count;
}

void writeLists(Sink &sink) {
    sink.put("lists", lengthOf(&gPbrInfo.usedTable));
    for (PbrLink *p = listFirst(&gPbrInfo.usedTable); p != nullptr; p = listNext(&gPbrInfo.usedTable, p)) {
        const PbrListEntry *pList = pbrListFromUsedLink(p);
        const std::string name = nameText(pList->name, pList->nameLen);
        if (sink.asText) {
            sink.place = "list " + name + ": ";
        }
        sink.put("name", name);
        sink.put("status", pbrListStatusGet(pList));
        sink.put("refCnt", pbrListRefCntGet(pList));
        for (const PbrIfEntry *pIf = pbrListBoundIfFirst(pList); pIf != nullptr; pIf = pbrListBoundIfNext(pList, pIf)) {
            sink.put("bound", pIf->ifUnit);
        }
        sink.put("nodes", lengthOf(&pList->nodeList));
        for (const PbrNodeEntry *pNode = pbrListNodeFirst(pList); pNode != nullptr; pNode = pbrListNodeNext(pList, pNode)) {
            writeNode(sink, name, pNode);
        }
    }
}

void writeInterfaces(Sink &sink) {
    for (void *p = avl_first(&gPbrInfo.ifTree); p != nullptr; p = avl_next(&gPbrInfo.ifTree, p)) {
        const PbrIfEntry *pIf = static_cast<PbrIfEntry *>(p);
        if (sink.asText) {
            sink.place = "interface " + std::to_string(pIf->ifUnit) + ": ";
        }
        sink.put("unit", pIf->ifUnit);
        sink.put("status", pIf->status);
        sink.put("pbrName", nameText(pIf->pbrName, pIf->pbrNameLen));
        for (const PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(pIf); pLink != nullptr; pLink = pbrIfIfNodeNext(pIf, pLink)) {
            sink.put("link to", nodePlace(pLink->pPbrNode));
            sink.put("link unit", pLink->ifUnit);
            sink.put("hwStatus", pbrIfNodeHwStatusGet(pLink));
            sink.put("link stateChangeFlag", pbrIfNodeStateChangeGet(pLink) ? 1 : 0);
            sink.put("emptyAcl", pLink->emptyAcl);
            sink.put("aclNoAction", pLink->aclNoAction);
        }
    }
}

} // namespace

void Driver::write(Sink &sink) const {
    writeLists(sink);
    sink.place.clear();
    for (PbrLink *p = listFirst(&gPbrInfo.readyTable); p != nullptr; p = listNext(&gPbrInfo.readyTable, p)) {
        const PbrListEntry *pList = pbrListFromReadyLink(p);
        sink.put("ready", nameText(pList->name, pList->nameLen));
    }
    writeInterfaces(sink);
    sink.place.clear();
    for (PbrLink *p = listFirst(&gPbrInfo.nqaTable); p != nullptr; p = listNext(&gPbrInfo.nqaTable, p)) {
        const PbrNqaEntry *pNqa = pbrNqaFromNqaLink(p);
        sink.put("probe admin", nameText(pNqa->adminName, pNqa->adminNameLen));
        sink.put("probe test", nameText(pNqa->testName, pNqa->testNameLen));
        sink.put("probe status", pNqa->status);
    }
    sink.put("listCount", gPbrInfo.listCount);
    sink.put("debugFlags", gPbrInfo.debugFlags);
    sink.put("hwAclAddCnt", gPbrInfo.hwAclAddCnt);
    sink.put("hwAclAddErr", gPbrInfo.hwAclAddErr);
    sink.put("hwAclDelCnt", gPbrInfo.hwAclDelCnt);
    sink.put("hwAclDelErr", gPbrInfo.hwAclDelErr);
    sink.put("rcvRtmAclAddCnt", gPbrInfo.rcvRtmAclAddCnt);
    sink.put("rcvRtmAclDelCnt", gPbrInfo.rcvRtmAclDelCnt);
    sink.put("memAllocated", gPbrInfo.memAllocated);
    sink.put("slots of lists", fake::slotsTaken("pbr_list"));
    sink.put("slots of nodes", fake::slotsTaken("pbr_node"));
    sink.put("slots of next hops", fake::slotsTaken("pbr_nexthop"));
    sink.put("slots of interfaces", fake::slotsTaken("pbr_if"));
    sink.put("slots of links", fake::slotsTaken("pbr_ifnode"));
    sink.put("slots of probes", fake::slotsTaken("pbr_nqa"));
}

} // namespace model
