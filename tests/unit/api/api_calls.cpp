// Keys, calls and the store's image: see the header.
#include "tests/unit/api/api_calls.h"

#include <arpa/inet.h>

#include <cstdarg>
#include <cstdio>

#include "core/pbr_start.h"
#include "store/pbr_if_entry.h"
#include "store/pbr_list_entry.h"
#include "store/pbr_next_hop_entry.h"
#include "store/pbr_node_entry.h"
#include "tests/support/store_checker.h"

namespace api_test {
namespace {

constexpr uint8_t PATTERN = 0xA5;

template <class Record> Key bytesOfRecord(const Record &record) {
    Key key(sizeof record);
    memcpy(key.data(), &record, sizeof record);
    return key;
}

template <class Record> Record recordOf(const Key &key) {
    Record record;
    memcpy(&record, key.data(), sizeof record);
    return record;
}

// A key at an odd address, behind which nothing may be read.
struct OddKey {
    explicit OddKey(const Key &key) : bytes(key.size() + 1) {
        bytes.shrink_to_fit();
        if (!key.empty()) {
            memcpy(bytes.data() + 1, key.data(), key.size());
        }
    }
    void *data() { return bytes.size() == 1 ? nullptr : bytes.data() + 1; }
    Key key() const { return Key(bytes.begin() + 1, bytes.end()); }
    std::vector<uint8_t> bytes;
};

void afterCall() {
    EXPECT_FALSE(fake::locked()) << "the mutex was not given back";
    checkStore();
}

void ok(uint32_t code, const char *what) { EXPECT_EQ(code, PBR_OK) << what; }

std::string line(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string line(const char *format, ...) {
    char text[512];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return std::string(text) + "\n";
}

std::string hexOf(const void *pBytes, size_t count) {
    std::string out;
    for (size_t i = 0; i < count; ++i) {
        char two[3];
        snprintf(two, sizeof two, "%02x", static_cast<const uint8_t *>(pBytes)[i]);
        out += two;
    }
    return out;
}

std::string hopImage(const PbrNextHopEntry *p) {
    return line("  hop %u status %u %s admin %u %s test %u %s arp %u hw %u last %u cur %u cnt %02x",
                p->nextHopIndex, p->status, hexOf(p->nextHop, 16).c_str(), p->nqaAdminNameLen,
                hexOf(p->nqaAdminName, 32).c_str(), p->nqaTestNameLen, hexOf(p->nqaTestName, 32).c_str(),
                p->nexthopArpState, p->nexthopHwState, p->lastSelected, p->curSelected, p->refCntByte);
}

std::string nodeImage(const PbrNodeEntry *p) {
    std::string out = line(" node %u status %u match %u %u acl %u flags %02x ver %u up %u f12 %u word %04x "
                           "vrf %u out %u f7 %u range %u matched %u",
                           p->nodeIndex, p->status, p->matchValue1, p->matchValue2, p->aclNum, p->flagByte,
                           p->policyRouteIpVer, p->nhopArpUp, p->nodeField12, p->flagWord, p->vrfid,
                           p->outIfUnit, p->nodeField7, p->timeRangeId, p->timeRangeMatched);
    for (const PbrNextHopEntry *pHop = pbrNodeNextHopFirst(p); pHop != nullptr;
         pHop = pbrNodeNextHopNext(p, pHop)) {
        out += hopImage(pHop);
    }
    return out;
}

std::string listImage(const PbrListEntry *p) {
    std::string out = line("list %u %s state %02x", p->nameLen, hexOf(p->name, 16).c_str(), p->statusRefCnt);
    for (const PbrNodeEntry *pNode = pbrListNodeFirst(p); pNode != nullptr; pNode = pbrListNodeNext(p, pNode)) {
        out += nodeImage(pNode);
    }
    return out;
}

std::string interfaceImage(const PbrIfEntry *p) {
    std::string out = line("if %u status %u name %u %s", p->ifUnit, p->status, p->pbrNameLen,
                           hexOf(p->pbrName, 16).c_str());
    for (const PbrIfNodeEntry *pLink = pbrIfIfNodeFirst(p); pLink != nullptr; pLink = pbrIfIfNodeNext(p, pLink)) {
        out += line(" link to %u hw %08x", pLink->pPbrNode->nodeIndex, pLink->hwWord);
    }
    return out;
}

} // namespace

Key listKey(const std::string &bytes16, uint16_t nameLen) {
    PbrListKey key = {};
    memcpy(key.listName, bytes16.data(), bytes16.size() < 16 ? bytes16.size() : 16);
    key.listNameLen = nameLen;
    return bytesOfRecord(key);
}

Key listKey(const std::string &name) { return listKey(name, static_cast<uint16_t>(name.size())); }

Key nodeKey(const std::string &listName, uint32_t index, uint8_t hopNumber, uint8_t mask) {
    PbrNodeKey key = {};
    memcpy(key.listName, listName.data(), listName.size() < 16 ? listName.size() : 16);
    key.listNameLen = static_cast<uint16_t>(listName.size());
    key.nodeIndex = index;
    key.keyMask = mask;
    key.nextHopIndex = hopNumber;
    return bytesOfRecord(key);
}

Key unitKey(uint32_t ifUnit) { return bytesOfRecord(ifUnit); }

std::string listName(const Key &key) {
    uint16_t len;
    memcpy(&len, key.data() + 16, sizeof len);
    return std::string(reinterpret_cast<const char *>(key.data()), len > 16 ? 16 : len);
}
uint32_t nodeIndex(const Key &key) { return recordOf<PbrNodeKey>(key).nodeIndex; }
uint8_t hopIndex(const Key &key) { return recordOf<PbrNodeKey>(key).nextHopIndex; }
uint32_t unit(const Key &key) { return recordOf<uint32_t>(key); }
std::string show(const Key &key) {
    return listName(key) + "\\" + std::to_string(nodeIndex(key)) + "\\" + std::to_string(hopIndex(key));
}

uint32_t setNumber(IcmFieldHandler handler, const Key &key, uint32_t field, uint32_t number) {
    OddKey odd(key);
    PbrApiValue value = {number, 0};
    const uint32_t code = handler(odd.data(), field, &value);
    EXPECT_EQ(odd.key(), key) << "a set must not write its key";
    afterCall();
    return code;
}

uint32_t setBytes(IcmFieldHandler handler, const Key &key, uint32_t field, const std::string &bytes) {
    OddKey odd(key);
    std::vector<uint8_t> data(bytes.begin(), bytes.end());
    data.push_back(0); // an address also for no bytes
    PbrApiValue value = {reinterpret_cast<uintptr_t>(data.data()), static_cast<uint32_t>(bytes.size())};
    const uint32_t code = handler(odd.data(), field, &value);
    afterCall();
    return code;
}

Answer getNumber(IcmFieldHandler handler, const Key &key, uint32_t field) {
    OddKey odd(key);
    PbrApiValue value = {0x5A5A5A5Au, 0};
    const uint32_t code = handler(odd.data(), field, &value);
    afterCall();
    return {code, static_cast<uint32_t>(value.word0), 0, ""};
}

Answer getBytes(IcmFieldHandler handler, const Key &key, uint32_t field, uint32_t capacity, bool mayExceed) {
    OddKey odd(key);
    std::vector<uint8_t> buffer(capacity + 64, PATTERN);
    PbrApiValue value = {reinterpret_cast<uintptr_t>(buffer.data()), capacity};
    const uint32_t code = handler(odd.data(), field, &value);
    EXPECT_LE(value.word1, buffer.size());
    for (size_t i = capacity; !mayExceed && i < buffer.size(); ++i) {
        EXPECT_EQ(buffer[i], PATTERN) << "written behind the capacity, byte " << i;
    }
    afterCall();
    return {code, 0, value.word1, std::string(buffer.begin(), buffer.begin() + value.word1)};
}

uint32_t walkFirst(IcmFirstHandler handler, Key &key) {
    OddKey odd(key);
    const uint32_t code = handler(odd.data());
    key = odd.key();
    afterCall();
    return code;
}

uint32_t walkNext(IcmNextHandler handler, const Key &in, Key &out) {
    OddKey oddIn(in), oddOut(out);
    const uint32_t code = handler(oddIn.data(), oddOut.data());
    EXPECT_EQ(oddIn.key(), in) << "a walk must not write the key that it starts from";
    out = oddOut.key();
    afterCall();
    return code;
}

void haveList(const std::string &name) {
    ok(setNumber(pbrListSetApi, listKey(name), PBR_LIST_STATUS, PBR_ROW_CREATED), "list");
}

void haveNode(const std::string &listOfNode, uint32_t index, uint32_t aclNum, uint32_t ipVer) {
    const Key key = nodeKey(listOfNode, index);
    ok(setNumber(pbrNodeSetApi, key, PBR_NODE_STATUS, PBR_ROW_CREATED), "node");
    if (aclNum != 0) {
        ok(setNumber(pbrNodeSetApi, key, PBR_NODE_ACL_NUM, aclNum), "acl");
    }
    if (ipVer != 0) {
        ok(setNumber(pbrNodeSetApi, key, PBR_NODE_IP_VERSION, ipVer), "version");
    }
}

void haveNextHop(const std::string &listOfHop, uint32_t index, uint8_t number, const std::string &text) {
    const Key key = nodeKey(listOfHop, index, number);
    ok(setNumber(pbrNextHopSetApi, key, PBR_NEXT_HOP_STATUS, PBR_ROW_CREATED), "next hop");
    if (!text.empty()) {
        ok(setBytes(pbrNextHopSetApi, key, PBR_NEXT_HOP_ADDRESS, address(text)), "address");
    }
}

void haveInterface(uint32_t ifUnit) {
    ok(setNumber(pbrIfSetApi, unitKey(ifUnit), PBR_IF_STATUS, PBR_IF_CREATE), "interface");
}

void haveBinding(uint32_t ifUnit, const std::string &name) {
    haveInterface(ifUnit);
    ok(setBytes(pbrIfSetApi, unitKey(ifUnit), PBR_IF_PBR_NAME, name), "binding");
}

PbrListEntry *list(const std::string &name) {
    return pbrListEntryGet(reinterpret_cast<const uint8_t *>(name.data()), static_cast<uint32_t>(name.size()));
}
PbrNodeEntry *node(const std::string &name, uint32_t index) {
    return pbrNodeEntryGet(reinterpret_cast<const uint8_t *>(name.data()), static_cast<uint32_t>(name.size()),
                           index);
}
PbrNextHopEntry *hop(const std::string &name, uint32_t index, uint8_t number) {
    PbrNodeEntry *pNode = node(name, index);
    return pNode == nullptr ? nullptr : pbrNextHopEntryGet(pNode, number);
}
PbrIfEntry *interface(uint32_t ifUnit) { return pbrIfEntryGet(ifUnit); }

std::string address(const std::string &text) {
    const bool six = text.find(':') != std::string::npos;
    char bytes[16];
    EXPECT_EQ(inet_pton(six ? AF_INET6 : AF_INET, text.c_str(), bytes), 1) << text;
    return std::string(bytes, six ? 16 : 4);
}

std::string bytesOf(std::initializer_list<int> bytes) {
    std::string out;
    for (int byte : bytes) {
        out.push_back(static_cast<char>(byte));
    }
    return out;
}

std::string word(uint32_t value) {
    return bytesOf({static_cast<int>(value >> 24), static_cast<int>(value >> 16 & 0xFF),
                    static_cast<int>(value >> 8 & 0xFF), static_cast<int>(value & 0xFF)});
}

std::string storeImage() {
    std::string out = line("lists %u flags %u", gPbrInfo.listCount, gPbrInfo.debugFlags);
    for (PbrLink *p = listFirst(&gPbrInfo.usedTable); p != nullptr; p = listNext(&gPbrInfo.usedTable, p)) {
        out += listImage(pbrListFromUsedLink(p));
    }
    for (const PbrIfEntry *p = pbrIfEntryFirst(); p != nullptr; p = pbrIfEntryNext(p)) {
        out += interfaceImage(p);
    }
    for (PbrLink *p = listFirst(&gPbrInfo.nqaTable); p != nullptr; p = listNext(&gPbrInfo.nqaTable, p)) {
        const PbrNqaEntry *pNqa = pbrNqaFromNqaLink(p);
        out += line("nqa %s %s %u", hexOf(pNqa->adminName, pNqa->adminNameLen).c_str(),
                    hexOf(pNqa->testName, pNqa->testNameLen).c_str(), pNqa->status);
    }
    for (PbrLink *p = listFirst(&gPbrInfo.readyTable); p != nullptr; p = listNext(&gPbrInfo.readyTable, p)) {
        out += "ready " + hexOf(pbrListFromReadyLink(p)->name, 16) + "\n";
    }
    return out;
}

std::string debugLine(const std::string &text) {
    return "debug 0x044B0000 7 0 \"" + text + "\\r\\n\"";
}

std::string syncLine(const std::string &key, uint32_t code, uint32_t flags, uint32_t value) {
    char text[256];
    snprintf(text, sizeof text, "qrvHwilCmdSyncApi(%s, code=0x%08x flags=0x%x len=4 value=%u)", key.c_str(),
             code, flags, value);
    return text;
}

std::string syncBytesLine(const std::string &key, uint32_t code, uint32_t flags, const std::string &bytes) {
    char text[256];
    snprintf(text, sizeof text, "qrvHwilCmdSyncApi(%s, code=0x%08x flags=0x%x len=%u bytes=%s)", key.c_str(),
             code, flags, static_cast<unsigned>(bytes.size()), hexOf(bytes.data(), bytes.size()).c_str());
    return text;
}

void ApiTest::SetUp() {
    fake::reset();
    ASSERT_EQ(pbrInit(0, 0, 0), PBR_OK);
    (void)fake::takeTrace();
}

void ApiTest::TearDown() {
    checkStore();
    EXPECT_FALSE(fake::locked());
}

} // namespace api_test
