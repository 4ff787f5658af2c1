// One thread polls both listening sockets and their clients. The rules are a reduced model of the
// daemon's: in use, missing, used ACL, versions, first next hop.
#include "tests/unit/cli/fake_daemon.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "cli/commands.h"
#include "core/pbr_types.h"

namespace {

using client::Bytes;
using nlohmann::json;

int listenAt(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 || listen(fd, 8) != 0) {
        abort();
    }
    return fd;
}

void sendAll(int fd, const char *pBytes, size_t size) {
    for (size_t sent = 0; sent < size;) {
        const ssize_t count = send(fd, pBytes + sent, size - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return;
        }
        sent += static_cast<size_t>(count);
    }
}

void rowAppend(Bytes &out, uint32_t field, const Bytes &value) {
    uint8_t head[8];
    commandFrameStore32(head, field);
    commandFrameStore32(head + 4, static_cast<uint32_t>(value.size()));
    out.insert(out.end(), head, head + 8);
    out.insert(out.end(), value.begin(), value.end());
}

void rowAppend(Bytes &out, uint32_t field, uint32_t number) {
    Bytes value(4);
    commandFrameStore32(value.data(), number);
    rowAppend(out, field, value);
}

int refCntOf(const FakeStore &store, const std::string &list) {
    return static_cast<int>(std::count_if(store.interfaces.begin(), store.interfaces.end(),
                                          [&list](const auto &each) { return each.second == list; }));
}

bool aclUsed(const FakeStore &store, uint32_t acl) {
    for (const auto &[name, list] : store.lists) {
        for (const auto &[index, node] : list.nodes) {
            if (node.fields.at(PBR_NODE_ACL_NUM) == acl) {
                return true;
            }
        }
    }
    return false;
}

bool versionTakes(uint32_t version, uint32_t acl) {
    return acl == 0 || version == 0 || (version == 1 ? acl >= 1001 && acl <= 2000 : acl >= 3001 && acl <= 4000);
}

FakeNode newNode() {
    FakeNode node;
    for (uint32_t field = PBR_NODE_MATCH_VALUE1; field <= PBR_NODE_VRF_ID; field++) {
        node.fields[field] = 0;
    }
    node.fields[PBR_NODE_STATUS] = PBR_ROW_CREATED;
    node.fields[PBR_NODE_IP_PRI] = PBR_IP_PRI_NONE;
    node.fields[PBR_NODE_TIME_RANGE_ID] = PBR_TIME_RANGE_NONE;
    return node;
}

uint32_t nodeFieldSet(FakeStore &store, FakeNode &node, uint32_t field, uint32_t value) {
    const uint32_t version = node.fields[PBR_NODE_IP_VERSION];
    switch (field) {
    case PBR_NODE_ACL_NUM:
        if (value != 0 && store.acls.count(value) == 0) {
            return PBR_ERR_ACL_MISSING;
        }
        if (value != 0 && aclUsed(store, value)) {
            return PBR_ERR_ACL_USED;
        }
        if (!versionTakes(version, value)) {
            return PBR_ERR_ACL_VERSION;
        }
        break;
    case PBR_NODE_IP_PRI: value = value == 0 ? PBR_IP_PRI_NONE : value & 15; break;
    case PBR_NODE_OUT_IF_UNIT:
        if (!node.nextHops.empty()) {
            return PBR_ERR_HAS_NEXT_HOP;
        }
        break;
    case PBR_NODE_IP_VERSION:
        if (version != 0 && version != value) {
            return PBR_ERR_VERSION_SET;
        }
        if (!versionTakes(value, node.fields[PBR_NODE_ACL_NUM])) {
            return PBR_ERR_ACL_VERSION;
        }
        break;
    case PBR_NODE_CLEAR:
        if (value != 0) {
            node.nextHops.clear();
        }
        node.fields[PBR_NODE_IP_VERSION] = node.fields[PBR_NODE_VRF_ID] = 0;
        return PBR_OK;
    case PBR_NODE_TIME_RANGE_ID:
        if (value != PBR_TIME_RANGE_NONE && node.fields[field] != PBR_TIME_RANGE_NONE && node.fields[field] != value) {
            return PBR_FAIL;
        }
        break;
    default:
        if (node.fields.count(field) == 0) {
            return PBR_FAIL;
        }
    }
    node.fields[field] = value;
    return PBR_OK;
}

uint32_t nodeSet(FakeStore &store, const client::NodePlace &at, uint32_t field, uint32_t value) {
    const auto list = store.lists.find(at.list);
    if (at.nodeIndex == 0) {
        return PBR_ERR_BAD_ARGUMENT;
    }
    if (list != store.lists.end() && refCntOf(store, at.list) != 0) {
        return PBR_ERR_IN_USE;
    }
    const bool create = field == PBR_NODE_STATUS && value == PBR_ROW_CREATED;
    const bool destroy = field == PBR_NODE_STATUS && value == PBR_ROW_DESTROY;
    if (list == store.lists.end()) {
        return destroy ? PBR_OK : create ? PBR_ERR_NO_RECORD : PBR_ERR_NO_ROW;
    }
    auto &nodes = list->second.nodes;
    const auto node = nodes.find(at.nodeIndex);
    if (create) {
        nodes.insert({at.nodeIndex, newNode()});
        return PBR_OK;
    }
    if (destroy) {
        nodes.erase(at.nodeIndex);
        return PBR_OK;
    }
    return node == nodes.end() ? PBR_ERR_NO_ROW : nodeFieldSet(store, node->second, field, value);
}

uint32_t nextHopCreate(FakeNode &node, uint8_t index) {
    if (node.fields[PBR_NODE_IP_VERSION] == 0) {
        return PBR_FAIL;
    }
    if (node.fields[PBR_NODE_OUT_IF_UNIT] != 0) {
        return PBR_ERR_HAS_OUT_IF;
    }
    if (!node.nextHops.empty() && index == 1) {
        return PBR_ERR_FIRST_NEXT_HOP;
    }
    node.nextHops[index] = {};
    return PBR_OK;
}

uint32_t nextHopSet(FakeStore &store, const client::NodePlace &at, uint32_t field, uint32_t value,
                    const Bytes &bytes) {
    const auto list = store.lists.find(at.list);
    if (list == store.lists.end() || list->second.nodes.count(at.nodeIndex) == 0) {
        return PBR_ERR_NO_ROW;
    }
    if (refCntOf(store, at.list) != 0) {
        return PBR_ERR_IN_USE;
    }
    FakeNode &node = list->second.nodes[at.nodeIndex];
    const auto found = node.nextHops.find(at.nextHopIndex);
    if (found == node.nextHops.end()) {
        return field == 1 && value == PBR_ROW_CREATED ? nextHopCreate(node, at.nextHopIndex) : PBR_ERR_NO_ROW;
    }
    FakeNextHop &nextHop = found->second;
    switch (field) {
    case PBR_NEXT_HOP_STATUS:
        if (value == PBR_ROW_DESTROY) {
            node.nextHops.erase(found);
        } else if (value != PBR_ROW_CREATED) {
            nextHop.status = value;
        }
        return PBR_OK;
    case PBR_NEXT_HOP_ADDRESS:
        if (bytes.size() != (node.fields[PBR_NODE_IP_VERSION] == 1 ? 4u : 16u)) {
            return PBR_FAIL;
        }
        nextHop.address = bytes;
        return PBR_OK;
    case PBR_NEXT_HOP_NQA_ADMIN_NAME: nextHop.admin.assign(bytes.begin(), bytes.end()); return PBR_OK;
    case PBR_NEXT_HOP_NQA_TEST_NAME: nextHop.test.assign(bytes.begin(), bytes.end()); return PBR_OK;
    default: return PBR_FAIL;
    }
}

uint32_t interfaceSet(FakeStore &store, uint32_t unit, uint32_t field, uint32_t value, const Bytes &bytes) {
    if (field == PBR_IF_STATUS) {
        if (value == PBR_IF_CREATE) {
            store.interfaces.insert({unit, ""});
        } else {
            store.interfaces.erase(unit);
        }
        return PBR_OK;
    }
    if (store.interfaces.count(unit) == 0) {
        return PBR_ERR_NO_ROW;
    }
    const std::string name(bytes.begin(), bytes.end());
    std::string &bound = store.interfaces[unit];
    if (store.lists.count(name) == 0) {
        return bound.empty() ? PBR_ERR_BIND : PBR_ERR_NO_LIST;
    }
    bound = name;
    return PBR_OK;
}

uint32_t listSet(FakeStore &store, const std::string &name, uint32_t value) {
    const bool exists = store.lists.count(name) != 0;
    if (value == PBR_ROW_CREATED) {
        store.lists.insert({name, {}});
        return PBR_OK;
    }
    if (!exists) {
        return value == PBR_ROW_DESTROY ? PBR_OK : PBR_ERR_NO_ROW;
    }
    if (refCntOf(store, name) != 0) {
        return PBR_ERR_IN_USE;
    }
    if (value == PBR_ROW_DESTROY) {
        store.lists.erase(name);
    } else {
        store.lists[name].status = value;
    }
    return PBR_OK;
}

} // namespace

FakeDaemon::FakeDaemon() {
    char name[] = "/tmp/pbrctl-XXXXXX";
    folder = mkdtemp(name);
    std::filesystem::create_directories(folder + "/tmp");
    listeners[0] = listenAt(folder + "/tmp/policyroutecmd.socket");
    listeners[1] = listenAt(folder + "/tmp/policyroutemgmt.socket");
    if (pipe(wake) != 0) {
        abort();
    }
    thread = std::thread([this] { serve(); });
}

FakeDaemon::~FakeDaemon() {
    (void)!write(wake[1], "x", 1); // a pipe with room
    thread.join();
    for (const int fd : {listeners[0], listeners[1], wake[0], wake[1]}) {
        close(fd);
    }
    std::filesystem::remove_all(folder);
}

int FakeDaemon::pbrctl(std::vector<std::string> words) {
    std::ostringstream outText, errText;
    words.insert(words.begin(), {"--root", folder});
    caller = pthread_self();
    const int status = cli::pbrctlRun(words, outText, errText);
    out = outText.str();
    err = errText.str();
    return status;
}

FakeStore FakeDaemon::store() {
    const std::lock_guard guard(lock);
    return held;
}
void FakeDaemon::put(const FakeStore &value) {
    const std::lock_guard guard(lock);
    held = value;
}
void FakeDaemon::failChange(int count, uint32_t code) {
    const std::lock_guard guard(lock);
    failIn = count;
    failCode = code;
}
void FakeDaemon::failFrom(const std::string &interface, uint32_t code) {
    const std::lock_guard guard(lock);
    failName = interface;
    failNameCode = code;
}
int FakeDaemon::changes() {
    const std::lock_guard guard(lock);
    return changeCount;
}
std::vector<std::string> FakeDaemon::log() {
    const std::lock_guard guard(lock);
    return changeLog;
}
std::vector<std::string> FakeDaemon::locks() {
    const std::lock_guard guard(lock);
    return lockLog;
}
void FakeDaemon::logClear() {
    const std::lock_guard guard(lock);
    changeLog.clear();
    lockLog.clear();
}

void FakeDaemon::peersAre(const json &rows) {
    const std::lock_guard guard(lock);
    peers = rows;
}
void FakeDaemon::entriesAre(const json &rows) {
    const std::lock_guard guard(lock);
    device["entries"] = rows;
}
void FakeDaemon::settleAnswers(bool isDetermined, const std::string &error) {
    const std::lock_guard guard(lock);
    determined = isDetermined;
    settleError = error;
}

void FakeDaemon::checkAnswers(const json &answer) {
    const std::lock_guard guard(lock);
    checked = answer;
}

void FakeDaemon::trialAnswers(const json &errors) {
    const std::lock_guard guard(lock);
    trialErrors = errors;
}

void FakeDaemon::releaseAnswers(const json &errors) {
    const std::lock_guard guard(lock);
    releaseErrors = errors;
}
void FakeDaemon::refusePid(uint32_t pid, int times, const std::string &holder) {
    const std::lock_guard guard(lock);
    lockedBy = pid;
    lockedTimes = times;
    lockHolder = holder;
}
void FakeDaemon::offerNothing(const std::set<std::string> &ops) {
    const std::lock_guard guard(lock);
    notOffered = ops;
}
void FakeDaemon::dieAtChange(int n, const FakeStore &after) {
    const std::lock_guard guard(lock);
    dieIn = n;
    diedTo = after;
}

void FakeDaemon::signalAtChange(int n, int signal) {
    const std::lock_guard guard(lock);
    signalIn = n;
    signalNumber = signal;
}

void FakeDaemon::signalNow() {
    if (signalIn > 0 && --signalIn == 0) {
        pthread_kill(caller, signalNumber);
    }
}

void FakeDaemon::serve() {
    std::vector<std::pair<int, bool>> clients; // fd, is a management client
    for (;;) {
        std::vector<pollfd> fds = {{wake[0], POLLIN, 0}, {listeners[0], POLLIN, 0}, {listeners[1], POLLIN, 0}};
        for (const auto &[fd, isMgmt] : clients) {
            fds.push_back({fd, POLLIN, 0});
        }
        if (poll(fds.data(), fds.size(), -1) < 0 || (fds[0].revents & POLLIN) != 0) {
            break;
        }
        for (size_t i = clients.size(); i > 0; i--) {
            if (fds[i + 2].revents != 0 && !serveClient(clients[i - 1].first, clients[i - 1].second)) {
                close(clients[i - 1].first);
                pending.erase(clients[i - 1].first);
                clients.erase(clients.begin() + static_cast<ptrdiff_t>(i) - 1);
            }
        }
        if (std::exchange(hasDied, false)) {
            for (const auto &[fd, isMgmt] : clients) {
                close(fd);
            }
            clients.clear();
            pending.clear();
        }
        for (const int which : {0, 1}) {
            if ((fds[1 + which].revents & POLLIN) != 0) {
                clients.push_back({accept(listeners[which], nullptr, nullptr), which == 1});
            }
        }
    }
    for (const auto &[fd, isMgmt] : clients) {
        close(fd);
    }
}

bool FakeDaemon::serveClient(int fd, bool isMgmt) {
    uint8_t chunk[65536];
    const ssize_t count = recv(fd, chunk, sizeof(chunk), 0);
    if (count <= 0) {
        return false;
    }
    Bytes &bytes = pending[fd];
    bytes.insert(bytes.end(), chunk, chunk + count);
    if (isMgmt) {
        for (;;) {
            const auto end = std::find(bytes.begin(), bytes.end(), '\n');
            if (end == bytes.end()) {
                return true;
            }
            const std::string line = mgmt(json::parse(bytes.begin(), end)).dump() + "\n";
            bytes.erase(bytes.begin(), end + 1);
            if (hasDied) {
                return true;
            }
            sendAll(fd, line.data(), line.size());
        }
    }
    while (bytes.size() >= COMMAND_FRAME_HEADER_BYTES && bytes.size() >= 4 + commandFrameLoad32(bytes.data())) {
        CommandFrameHeader header;
        commandFrameDecode(bytes.data(), &header);
        const auto keyAt = bytes.begin() + COMMAND_FRAME_HEADER_BYTES;
        const Bytes key(keyAt, keyAt + header.keyLength);
        const Bytes data(keyAt + header.keyLength, bytes.begin() + 4 + header.length);
        bytes.erase(bytes.begin(), bytes.begin() + 4 + header.length);
        Bytes answerKey, answerBytes;
        uint32_t number = 0;
        uint8_t kind = COMMAND_VALUE_NONE;
        CommandFrameHeader answer = header;
        answer.fieldOrResult = handle(header, key, data, answerKey, answerBytes, number, kind);
        if (hasDied) {
            return true;
        }
        answer.kind = kind;
        answer.number = kind == COMMAND_VALUE_BYTES ? static_cast<uint32_t>(answerBytes.size()) : number;
        answer.keyLength = static_cast<uint16_t>(answerKey.size());
        answer.length = static_cast<uint32_t>(20 + answerKey.size() + answerBytes.size());
        Bytes frame(COMMAND_FRAME_HEADER_BYTES);
        commandFrameEncode(&answer, frame.data());
        frame.insert(frame.end(), answerKey.begin(), answerKey.end());
        frame.insert(frame.end(), answerBytes.begin(), answerBytes.end());
        sendAll(fd, reinterpret_cast<const char *>(frame.data()), frame.size());
    }
    return true;
}

uint32_t FakeDaemon::set(uint16_t command, uint32_t field, const Bytes &key, uint32_t number, const Bytes &bytes) {
    changeCount++;
    if (failIn > 0 && --failIn == 0) {
        return failCode;
    }
    signalNow();
    if (dieNow()) {
        return PBR_FAIL; // nobody hears it
    }
    const auto place = client::nodeOfKey(key);
    std::string name;
    uint32_t result = PBR_FAIL;
    switch (command) {
    case PBR_CMD_LIST_SET:
        name = "list " + *client::listOfKey(key);
        result = listSet(held, *client::listOfKey(key), number);
        break;
    case PBR_CMD_NODE_SET:
        name = "node " + place->list + "/" + std::to_string(place->nodeIndex);
        result = nodeSet(held, *place, field, number);
        break;
    case PBR_CMD_NEXT_HOP_SET:
        name = "hop " + place->list + "/" + std::to_string(place->nodeIndex) + "/" +
               std::to_string(place->nextHopIndex);
        result = nextHopSet(held, *place, field, number, bytes);
        break;
    case PBR_CMD_IF_SET:
        name = "if " + std::to_string(*client::interfaceOfKey(key));
        if (name == failName && field == PBR_IF_PBR_NAME) {
            return failNameCode;
        }
        result = interfaceSet(held, *client::interfaceOfKey(key), field, number, bytes);
        break;
    case PBR_CMD_SCALAR_SET: name = "scalar"; result = PBR_OK; break;
    default: break;
    }
    if (result == PBR_OK) {
        const std::string text(bytes.begin(), bytes.end());
        const bool isText = command == PBR_CMD_IF_SET && field == PBR_IF_PBR_NAME;
        changeLog.push_back(name + " field " + std::to_string(field) + " = " +
                            (isText ? text : bytes.empty() ? std::to_string(number) : "bytes"));
    }
    return result;
}

uint32_t FakeDaemon::handle(const CommandFrameHeader &header, const Bytes &key, const Bytes &bytes, Bytes &answerKey,
                            Bytes &answerBytes, uint32_t &number, uint8_t &kind) {
    const std::lock_guard guard(lock);
    const uint32_t field = header.fieldOrResult;
    const auto place = client::nodeOfKey(key);
    switch (header.commandId) {
    case PBR_CMD_LIST_GET_FIRST:
    case PBR_CMD_LIST_GET_NEXT: {
        const bool first = header.commandId == PBR_CMD_LIST_GET_FIRST;
        const auto next = first ? held.lists.begin() : held.lists.upper_bound(*client::listOfKey(key));
        if (next == held.lists.end()) {
            return PBR_FAIL;
        }
        answerKey = client::keyOfList(next->first);
        return PBR_OK;
    }
    case PBR_CMD_NODE_GET_FIRST:
    case PBR_CMD_NODE_GET_NEXT: {
        const bool first = header.commandId == PBR_CMD_NODE_GET_FIRST;
        for (const auto &[name, list] : held.lists) {
            for (const auto &[index, node] : list.nodes) {
                if (first || std::pair(name, index) > std::pair(place->list, place->nodeIndex)) {
                    answerKey = client::keyOfNode(name, index);
                    return PBR_OK;
                }
            }
        }
        return PBR_FAIL;
    }
    case PBR_CMD_NEXT_HOP_GET_FIRST:
    case PBR_CMD_NEXT_HOP_GET_NEXT: { // only walks with list and node fixed
        const auto list = held.lists.find(place->list);
        if (list == held.lists.end() || list->second.nodes.count(place->nodeIndex) == 0) {
            return PBR_FAIL;
        }
        const auto &hops = list->second.nodes[place->nodeIndex].nextHops;
        const auto next = header.commandId == PBR_CMD_NEXT_HOP_GET_FIRST ? hops.begin()
                                                                         : hops.upper_bound(place->nextHopIndex);
        if (next == hops.end()) {
            return PBR_FAIL;
        }
        answerKey = key;
        answerKey[25] = next->first;
        return PBR_OK;
    }
    case PBR_CMD_IF_GET_FIRST:
    case PBR_CMD_IF_GET_NEXT: {
        const auto next = header.commandId == PBR_CMD_IF_GET_FIRST
                              ? held.interfaces.begin()
                              : held.interfaces.upper_bound(*client::interfaceOfKey(key));
        if (next == held.interfaces.end()) {
            return PBR_FAIL;
        }
        answerKey = client::keyOfInterface(next->first);
        return PBR_OK;
    }
    case PBR_CMD_LIST_GET: {
        const auto list = held.lists.find(*client::listOfKey(key));
        if (list == held.lists.end()) {
            return PBR_ERR_NO_ROW;
        }
        kind = COMMAND_VALUE_BYTES;
        rowAppend(answerBytes, PBR_LIST_STATUS, list->second.status);
        rowAppend(answerBytes, PBR_LIST_REF_CNT, static_cast<uint32_t>(refCntOf(held, list->first)));
        return PBR_OK;
    }
    case PBR_CMD_NODE_GET: {
        const auto list = held.lists.find(place->list);
        if (list == held.lists.end() || list->second.nodes.count(place->nodeIndex) == 0) {
            return PBR_FAIL;
        }
        const FakeNode &node = list->second.nodes[place->nodeIndex];
        if (field != PBR_NODE_ROW) {
            kind = COMMAND_VALUE_NUMBER;
            number = node.fields.at(field);
            return PBR_OK;
        }
        kind = COMMAND_VALUE_BYTES;
        for (const uint32_t id : {1u, 2u, 3u, 4u, 10u, 5u, 6u, 11u, 7u, 8u, 9u}) {
            rowAppend(answerBytes, id, node.fields.at(id));
        }
        return PBR_OK;
    }
    case PBR_CMD_NEXT_HOP_GET: {
        const auto list = held.lists.find(place->list);
        if (list == held.lists.end() || list->second.nodes.count(place->nodeIndex) == 0 ||
            list->second.nodes[place->nodeIndex].nextHops.count(place->nextHopIndex) == 0) {
            return PBR_FAIL;
        }
        FakeNode &node = list->second.nodes[place->nodeIndex];
        const FakeNextHop &hop = node.nextHops[place->nextHopIndex];
        kind = field == PBR_NEXT_HOP_STATUS ? COMMAND_VALUE_NUMBER : COMMAND_VALUE_BYTES;
        number = hop.status;
        const Bytes none(node.fields[PBR_NODE_IP_VERSION] == 1 ? 4 : 16);
        if (field == PBR_NEXT_HOP_ADDRESS) {
            answerBytes = hop.address.empty() ? none : hop.address;
        } else if (field == PBR_NEXT_HOP_NQA_ADMIN_NAME) {
            answerBytes.assign(hop.admin.begin(), hop.admin.end());
        } else if (field == PBR_NEXT_HOP_NQA_TEST_NAME) {
            answerBytes.assign(hop.test.begin(), hop.test.end());
        }
        return PBR_OK;
    }
    case PBR_CMD_IF_GET: {
        const auto found = held.interfaces.find(*client::interfaceOfKey(key));
        if (found == held.interfaces.end()) {
            return PBR_ERR_NO_ROW;
        }
        kind = COMMAND_VALUE_BYTES;
        const Bytes name(found->second.begin(), found->second.end());
        if (field == PBR_IF_PBR_NAME) {
            answerBytes = name;
        } else {
            rowAppend(answerBytes, PBR_IF_STATUS, 1);
            rowAppend(answerBytes, PBR_IF_PBR_NAME, name);
        }
        return PBR_OK;
    }
    case PBR_CMD_SCALAR_GET: {
        kind = COMMAND_VALUE_BYTES;
        const std::string version = "PBR_V7.00.00.00";
        rowAppend(answerBytes, PBR_SCALAR_MAX_LIST_NUM, 64);
        rowAppend(answerBytes, PBR_SCALAR_MAX_NODE_NUM, 128);
        rowAppend(answerBytes, PBR_SCALAR_LIST_COUNT, static_cast<uint32_t>(held.lists.size()));
        rowAppend(answerBytes, PBR_SCALAR_DEBUG_FLAGS, 0);
        rowAppend(answerBytes, PBR_SCALAR_VERSION, Bytes(version.begin(), version.end()));
        return PBR_OK;
    }
    default: return set(header.commandId, field, key, header.number, bytes);
    }
}

bool FakeDaemon::dieNow() {
    if (dieIn == 0 || --dieIn != 0) {
        return false;
    }
    held = diedTo;
    hasDied = true;
    return true;
}

// Operations around a change.
json FakeDaemon::around(const std::string &op, const json &request) {
    if (op == "apply.lock" && lockedTimes > 0 && lockedTimes-- > 0) {
        const std::string who = "process " + std::to_string(lockedBy) + " applies other.yaml";
        return {{"ok", false}, {"error", who}, {"who", who}, {"holder", lockHolder}};
    }
    json shown = request;
    shown.erase("op");
    shown.erase("pid");
    const bool isOfSingle = op == "apply.lock" ? request.contains("command") : op == "apply.unlock" && isSingleLocked;
    isSingleLocked = isOfSingle && op == "apply.lock";
    (isOfSingle ? lockLog : changeLog).push_back(op + " " + shown.dump());
    if (op != "device.release") {
        return {{"ok", true}};
    }
    // The plane refuses once: what was before it could do.
    return {{"ok", true}, {"determined", true}, {"errors", std::exchange(releaseErrors, json::array())}};
}

json FakeDaemon::shell(const std::string &name, const json &args) const {
    if (name == "report") {
        return {{"ok", true}, {"result", 0}, {"output", "\n\r one\r\n\ttwo" + args.dump()}};
    }
    if (name == "bytes") {
        return {{"ok", true}, {"result", 0}, {"outputHex", "00ff0a41"}};
    }
    if (name == "fails") {
        return {{"ok", true}, {"result", -7}, {"output", "half"}};
    }
    return {{"ok", false}, {"error", "the shell has no \"" + name + "\""}};
}

json FakeDaemon::mgmt(const json &request) {
    const std::lock_guard guard(lock);
    const std::string op = request["op"];
    json answer = {{"ok", true}};
    if (op == "confirm.begin") { // nobody to watch here
        return {{"ok", false}, {"error", "unknown operation confirm.begin"}};
    }
    if (notOffered.count(op) != 0) {
        return {{"ok", false}, {"error", "unknown operation \"" + op + "\"; known are others"}};
    }
    if (op == "probes") {
        answer["probes"] = json::array({{{"admin", "asked"}, {"test", "only"}, {"config", nullptr}}});
        for (const auto &[name, config] : held.probes) {
            const size_t slash = name.find('/');
            answer["probes"].push_back({{"admin", name.substr(0, slash)},
                                        {"test", name.substr(slash + 1)},
                                        {"config", config},
                                        {"status", ++asked % 2 == 0 ? "passing" : "no result"}});
        }
        return answer;
    }
    if (op == "timeranges") {
        answer["timeRanges"] = json::array({{{"id", 999}, {"schedule", nullptr}}});
        for (const auto &[id, schedule] : held.timeRanges) {
            answer["timeRanges"].push_back({{"id", std::stoul(id)}, {"schedule", schedule}});
        }
        return answer;
    }
    if (op == "interfaces") {
        answer["interfaces"] = json::array();
        for (const auto &[unit, name] : links) {
            answer["interfaces"].push_back({{"unit", unit}, {"name", name}, {"up", true}});
        }
        return answer;
    }
    if (op == "journal.forget") {
        return answer; // after an apply: no change
    }
    if (op == "vrfs") {
        return {{"ok", true}, {"vrfs", {{"blue", 1077}, {"red", 1078}}}};
    }
    if (op == "peers") {
        return {{"ok", true}, {"peers", peers}};
    }
    if (op == "device.show") {
        answer.update(device);
        return answer;
    }
    if (op == "counters") {
        return {{"ok", true}, {"bus", {{"lost", 0}}}};
    }
    if (op == "otherwise.show") {
        answer["drop"] = json::array();
        for (const auto &[list, node] : held.drops) {
            answer["drop"].push_back({{"list", list}, {"node", node}});
        }
        return answer;
    }
    if (op == "device.check") {
        answer.update(checked);
        return answer;
    }
    if (op == "device.warnings") {
        answer["warnings"] = checked.value("warnings", json::array());
        return answer;
    }
    if (op == "device.settle") {
        return settleError.empty() ? json{{"ok", true}, {"determined", determined}, {"warnings", checked.value("warnings", json::array())}}
                                   : json{{"ok", false}, {"error", settleError}};
    }
    if (op == "shell.list") {
        return {{"ok", true}, {"shell", "pbr"}, {"commands", {"report"}}, {"switches", {"level"}}};
    }
    if (op == "shell") {
        return shell(request["name"], request["args"]);
    }
    if (op == "acl.show") {
        answer["acls"] = json::array();
        for (const auto &[acl, rules] : held.acls) {
            json texts = json::array();
            for (const auto &[number, text] : rules) {
                texts.push_back({{"rule", number}, {"text", text}});
            }
            answer["acls"].push_back({{"acl", acl}, {"users", 0}, {"rules", texts}});
        }
        return answer;
    }
    if (op == "device.trial") {
        return {{"ok", true}, {"errors", std::exchange(trialErrors, json::array())}};
    }
    if (op == "device.hold" || op == "device.release" || op == "apply.lock" || op == "apply.unlock") {
        return around(op, request);
    }
    if (op == "acl.check") {
        for (const auto &[number, rules] : request["acls"].items()) {
            for (const auto &[rule, text] : rules.items()) {
                if (text.get<std::string>().find("port 13") != std::string::npos) {
                    return {{"ok", false}, {"error", "ACL " + number + " rule " + rule + ": not here"}};
                }
            }
        }
        return answer;
    }
    changeCount++;
    if (failIn > 0 && --failIn == 0) {
        return {{"ok", false}, {"error", "the fake refuses " + op}};
    }
    signalNow();
    if (dieNow()) {
        return {{"ok", false}, {"error", "nobody hears it"}};
    }
    const uint32_t acl = request.value("acl", 0u);
    if (op == "probe.replaceAll") {
        held.probes = request["probes"].get<std::map<std::string, json>>();
    } else if (op == "timerange.replaceAll") {
        held.timeRanges = request["timeRanges"].get<std::map<std::string, json>>();
    } else if (op == "otherwise.replaceAll") {
        held.drops.clear();
        for (const auto &row : request["drop"]) {
            held.drops.emplace(row["list"].get<std::string>(), row["node"].get<uint32_t>());
        }
    } else if (op == "otherwise.set") {
        const std::pair<std::string, uint32_t> place(request["list"], request["node"]);
        held.drops.erase(place);
        if (request["otherwise"] == "drop") {
            held.drops.insert(place);
        }
    } else if (op == "acl.replace") {
        held.acls[acl].clear();
        for (const auto &[number, text] : request["rules"].items()) {
            held.acls[acl][static_cast<uint32_t>(std::stoul(number))] = text;
        }
    } else if (op == "acl.set") {
        held.acls[acl][request["rule"]] = request["text"];
    } else if (op == "acl.del") {
        held.acls[acl].erase(request["rule"].get<uint32_t>());
    } else if (op == "acl.create") {
        answer["created"] = held.acls.insert({acl, {}}).second;
    } else if (op == "acl.destroy") {
        held.acls.erase(acl);
    } else if (op == "event") {
        answer.update({{"type", 7}, {"group", 8}, {"message", "0102"}});
    } else if (op != "device.flush" && op != "timerange.set" && op.rfind("probe.", 0) != 0) {
        return {{"ok", false}, {"error", "unknown operation " + op}};
    }
    json shown = request;
    shown.erase("op");
    changeLog.push_back(op + " " + shown.dump());
    return answer;
}
