// The whole daemon on the recording fake: see the header.
#include "tests/scenario/world.h"

#include "api/pbr_func_map.h"
#include "core/pbr_loop.h"
#include "core/pbr_start.h"
#include "platform/hrd.h"

namespace {

PbrListKey listKey(const std::string &list) {
    PbrListKey key = {};
    memcpy(key.listName, list.data(), list.size());
    key.listNameLen = static_cast<uint16_t>(list.size());
    return key;
}

PbrNodeKey nodeKey(const std::string &list, uint32_t index, uint8_t hop = 0) {
    PbrNodeKey key = {};
    memcpy(key.listName, list.data(), list.size());
    key.listNameLen = static_cast<uint16_t>(list.size());
    key.nodeIndex = index;
    key.nextHopIndex = hop;
    return key;
}

PbrApiValue bytesValue(std::string &text) {
    return {reinterpret_cast<uintptr_t>(text.data()), static_cast<uint32_t>(text.size())};
}

} // namespace

void World::SetUp() {
    fake::reset();
    maxFd_ = 0; // a test may begin anew
    passes_ = 0;
    peers_.clear();
    registered_.clear();
    posted_.clear();
    calls_.clear();
    mirror_ = steps::ViewMirror();
    ASSERT_EQ(PBR_OK, pbrInit(maxLists_, maxNodes_, maxIfs_));
    fake::answerWith("aclIfSetApi", [this](const std::string &line) { return deviceCall(line); });
    fake::answerWith("hrdScalarSetApi", [this](const std::string &line) { return detectionCall(line); });
    (void)fake::takeTrace();
}

void World::TearDown() {
    settle();
    EXPECT_FALSE(fake::locked());
}

// ---- commands ----

uint32_t World::field(uint32_t command, const void *pKey, uint32_t fieldId, PbrApiValue value) {
    EXPECT_EQ(command, gPbrFuncMap[command].id);
    const uint32_t hints = fake::syncCount();
    const uint32_t code =
        reinterpret_cast<IcmFieldHandler>(gPbrFuncMap[command].handler)(pKey, fieldId, &value);
    EXPECT_LT(hints, fake::syncCount()) << "the forwarding plane was not told";
    settle();
    return code;
}

uint32_t World::listSet(const std::string &list, uint32_t command) {
    const PbrListKey key = listKey(list);
    return field(PBR_CMD_LIST_SET, &key, PBR_LIST_STATUS, {command, 0});
}

uint32_t World::nodeSet(const std::string &list, uint32_t index, uint32_t fieldId, uint32_t number) {
    const PbrNodeKey key = nodeKey(list, index);
    return field(PBR_CMD_NODE_SET, &key, fieldId, {number, 0});
}

uint32_t World::hopSet(const std::string &list, uint32_t index, uint8_t hop, uint32_t command) {
    const PbrNodeKey key = nodeKey(list, index, hop);
    return field(PBR_CMD_NEXT_HOP_SET, &key, PBR_NEXT_HOP_STATUS, {command, 0});
}

uint32_t World::hopAddress(const std::string &list, uint32_t index, uint8_t hop, const std::string &address) {
    const PbrNodeKey key = nodeKey(list, index, hop);
    const steps::Address bytes = steps::addressOf(address);
    std::string text(reinterpret_cast<const char *>(bytes.data()), steps::familyOf(address) == 1 ? 4 : 16);
    return field(PBR_CMD_NEXT_HOP_SET, &key, PBR_NEXT_HOP_ADDRESS, bytesValue(text));
}

uint32_t World::hopText(const std::string &list, uint32_t index, uint8_t hop, uint32_t fieldId,
                        const std::string &text) {
    const PbrNodeKey key = nodeKey(list, index, hop);
    std::string bytes = text;
    return field(PBR_CMD_NEXT_HOP_SET, &key, fieldId, bytesValue(bytes));
}

uint32_t World::ifSet(uint32_t unit, uint32_t command) {
    return field(PBR_CMD_IF_SET, &unit, PBR_IF_STATUS, {command, 0});
}

uint32_t World::ifList(uint32_t unit, const std::string &list) {
    std::string name = list;
    return field(PBR_CMD_IF_SET, &unit, PBR_IF_PBR_NAME, bytesValue(name));
}

uint32_t World::bind(uint32_t unit, const std::string &list) {
    EXPECT_EQ(PBR_OK, ifSet(unit, PBR_IF_CREATE));
    return ifList(unit, list);
}

uint32_t World::unbind(uint32_t unit) {
    return ifSet(unit, PBR_IF_DESTROY);
}

void World::haveNode(const std::string &list, uint32_t index, uint32_t acl, uint32_t ipVer, uint32_t vrf) {
    ASSERT_EQ(PBR_OK, listSet(list, PBR_ROW_CREATED));
    ASSERT_EQ(PBR_OK, nodeSet(list, index, PBR_NODE_STATUS, PBR_ROW_CREATED));
    ASSERT_EQ(PBR_OK, nodeSet(list, index, PBR_NODE_ACL_NUM, acl));
    if (ipVer != 0) {
        ASSERT_EQ(PBR_OK, nodeSet(list, index, PBR_NODE_IP_VERSION, ipVer));
        ASSERT_EQ(PBR_OK, nodeSet(list, index, PBR_NODE_VRF_ID, vrf));
    }
}

void World::haveHops(const std::string &list, uint32_t index, const std::vector<std::string> &addresses) {
    uint8_t hop = 1;
    for (const std::string &address : addresses) {
        ASSERT_EQ(PBR_OK, hopSet(list, index, hop, PBR_ROW_CREATED));
        ASSERT_EQ(PBR_OK, hopAddress(list, index, hop, address));
        ASSERT_EQ(PBR_OK, hopSet(list, index, hop, PBR_ROW_ACTIVE));
        hop++;
    }
}

// ---- services ----

int64_t World::deviceCall(const std::string &line) {
    uint32_t unit = 0, command = 0, recordUnit = 0, acl = 0;
    EXPECT_EQ(4, sscanf(line.c_str(), "aclIfSetApi(%u, %u, if=%u acl=%u", &unit, &command, &recordUnit, &acl));
    if (command == 21) {
        if (failingDeletes_.count(unit) != 0) {
            return -1;
        }
        calls_.erase({unit, acl});
        return 0;
    }
    if (failingUnits_.count(unit) != 0) {
        return -1;
    }
    const size_t action = line.find("act=");
    calls_[{unit, acl}] = line.substr(action, line.size() - action - 1);
    return 0;
}

int64_t World::detectionCall(const std::string &line) {
    if (failingDetection_ != 0 && --failingDetection_ == 0) {
        return -1;
    }
    uint32_t head = 0, vrf = 0, reserved = 0, word[4] = {};
    const int count = sscanf(line.c_str(), "hrdScalarSetApi(0, 6, %x %x %x %x %x %x %x)", &head, &vrf, &reserved,
                             &word[0], &word[1], &word[2], &word[3]);
    uint8_t bytes[16];
    for (int i = 0; i < 16; i++) {
        bytes[i] = static_cast<uint8_t>(word[i / 4] >> (24 - 8 * (i % 4)));
    }
    const bool isIpv4 = ((head >> 16) & 0xFF) == 1;
    EXPECT_EQ(isIpv4 ? 4 : 7, count);
    char text[INET6_ADDRSTRLEN] = {};
    (void)inet_ntop(isIpv4 ? AF_INET : AF_INET6, bytes, text, sizeof(text));
    const Peer peer = {text, vrf};
    if ((head >> 24) == 1) {
        registered_.insert(peer);
        posted_.push_back(peer);
    } else {
        registered_.erase(peer);
    }
    return 0;
}

void World::post(const Peer &peer) {
    const std::string &address = peer.first;
    peers_[peer] ? fake::whenPeerGoesUp(address, peer.second) : fake::whenPeerGoesDown(address, peer.second);
}

void World::pass() {
    pbrMainPass(&maxFd_);
    if (++passes_ % checkedPasses_ == 0) {
        checkStore(allowed_);
    }
}

void World::settle() {
    while (!posted_.empty()) {
        const Peer peer = posted_.front();
        posted_.erase(posted_.begin());
        post(peer);
        pass();
    }
    while (fake::pendingBytes() != 0) {
        pass();
    }
    checkStore(allowed_);
    (void)pbrLock();
    mirror_.take(false);
    steps::ViewMirror whole;
    whole.take(true);
    (void)pbrUnlock();
    EXPECT_EQ(whole.lists(), mirror_.lists()) << "a change without its mark";
}

void World::peer(const std::string &address, bool isPeerUp, uint32_t vrf) {
    peers_[{address, vrf}] = isPeerUp;
    if (registered_.count({address, vrf}) != 0) {
        posted_.push_back({address, vrf});
    }
    settle();
}

void World::peerChanges(const std::string &address, uint32_t vrf) {
    fake::whenPeerChanges(address, vrf);
    settle();
}

void World::range(uint32_t id, bool isActive) {
    for (fake::TimerangeBinding binding : fake::timerangeBindings()) {
        if (binding.id == id) {
            (void)(isActive ? binding.start : binding.stop)(binding.context.data());
        }
    }
    settle();
}

void World::rangeGone(uint32_t id) {
    for (fake::TimerangeBinding binding : fake::timerangeBindings()) {
        if (binding.id == id) {
            (void)binding.unbind(binding.context.data());
        }
    }
    settle();
}

void World::receive(const std::vector<uint8_t> &read) {
    fake::deliver(read);
    settle();
}

void World::peerIs(const std::string &address, bool isPeerUp, uint32_t vrf) {
    peers_[{address, vrf}] = isPeerUp;
}

void World::second() {
    fake::advanceMs(1000);
    pass();
    settle();
}

// ---- questions ----

std::string World::view(uint32_t unit, const std::string &list, uint32_t node) const {
    const auto found = mirror_.lists().find(list);
    if (found == mirror_.lists().end()) {
        return "";
    }
    const auto entry = found->second.find({unit, node});
    return entry == found->second.end() ? "" : entry->second;
}

bool World::isPeerRegistered(const std::string &address, uint32_t vrf) const {
    return registered_.count({address, vrf}) != 0;
}

bool World::isUp(const std::string &address, uint32_t vrf) const {
    const auto found = peers_.find({address, vrf});
    return found != peers_.end() && found->second;
}
