// The commands of the management plane: sets, gets, walks.
#include "tests/model/model_parts.h"

namespace model {

namespace {

constexpr uint32_t ACTIVATE = 1, CREATE = 2, DEACTIVATE = 3, DESTROY = 4;
constexpr uint32_t LIST_CODE = 0x070A8000, NODE_CODE = 0x08F04000, HOP_CODE = 0x0CC60000, IF_CODE = 0x04128000,
                   SCALAR_CODE = 0x001F4000;

Answer just(uint32_t code) {
    Answer a;
    a.code = code;
    return a;
}
Answer number(uint32_t value) {
    Answer a;
    a.hasNumber = true;
    a.number = value;
    return a;
}
Answer bytes(const std::string &value) {
    Answer a;
    a.hasBytes = true;
    a.bytes = value;
    return a;
}

// A key whose length is not that of a name names nothing.
bool isName(const Key &key) { return key.nameLen == key.list.size(); }
std::string listKey(const Key &key) { return "list(" + quoted(key.list) + ")"; }
std::string nodeKey(const Key &key) {
    return format("node(%s,%u,mask=%u,hop=%u)", quoted(key.list).c_str(), key.node, key.mask, key.hop);
}
std::string ifKey(const Key &key) { return format("if(%u)", key.unit); }

// A run of records: id, length, value; big-endian; as many as fit.
struct Row {
    uint32_t capacity;
    std::string out;
    bool full = false;

    static std::string word(uint32_t value) {
        const uint32_t network = htonl(value);
        return std::string(reinterpret_cast<const char *>(&network), 4);
    }
    void put(uint32_t id, const std::string &value, uint32_t needed = 12) {
        full = full || capacity < out.size() + needed;
        if (!full) {
            out += word(id) + word(static_cast<uint32_t>(value.size())) + value;
        }
    }
    void put(uint32_t id, uint32_t value) { put(id, word(value)); }
};

bool neverBound(uint32_t acl) {
    return (acl >= 1 && acl <= 1000) || (acl >= 2001 && acl <= 3000) || (acl >= 4001 && acl <= 5000);
}
bool takes(uint32_t ipVer, uint32_t acl) {
    if (ipVer == 1) {
        return acl == 0 || (acl >= 1001 && acl <= 2000);
    }
    if (ipVer == 2) {
        return acl == 0 || (acl >= 3001 && acl <= 4000);
    }
    return true;
}

} // namespace

Answer Model::command(const Command &c) {
    reached(format("command %u", c.id).c_str());
    Answer a;
    switch (c.id) {
    case 1: a = listWalk(c, false); break;
    case 2: a = listWalk(c, true); break;
    case 3: a = nodeFirst(c); break;
    case 4: a = nodeNext(c); break;
    case 5: a = ifWalk(c, false); break;
    case 6: a = ifWalk(c, true); break;
    case 7: a = hopFirst(c); break;
    case 8: a = hopNext(c); break;
    case 9: a = listGetField(c); break;
    case 10: a = listSet(c, 3); break;
    case 11: a = listSet(c, 1); break;
    case 12: a = nodeGetField(c); break;
    case 13: a = nodeSet(c, 3); break;
    case 14: a = nodeSet(c, 1); break;
    case 15: a = ifGetField(c); break;
    case 16: a = ifSet(c, 3); break;
    case 17: a = ifSet(c, 1); break;
    case 18: a = hopGetField(c); break;
    case 19: a = hopSet(c, 3); break;
    case 20: a = hopSet(c, 1); break;
    case 21: a = scalarGet(c); break;
    case 22: a = scalarSet(c, 3); break;
    default: a = scalarSet(c, 1); break;
    }
    reached(format("command %u: 0x%08x", c.id, a.code).c_str());
    reached(format("result 0x%08x", a.code).c_str());
    return a;
}

// ---- lists ----

Answer Model::listSet(const Command &c, uint32_t origin) {
    if (!c.hasKey) {
        return just(BAD_ARGUMENT);
    }
    List *pList = isName(c.key) ? listGet(c.key.list) : nullptr;
    const bool isStatus = c.field == 1;
    if (pList != nullptr) {
        if (isStatus && c.number == CREATE) {
            debug(BIT_GENERAL, GENERAL, "pbrListSetApi: pbr list %s is exist.\r\n", c.key.list.c_str());
            return just(0);
        }
        if (pList->refCnt != 0) {
            debug(BIT_GENERAL, GENERAL, "pbrListSetApi: pbr list %s can not modify.\r\n", c.key.list.c_str());
            return just(IN_USE);
        }
    } else if (!(isStatus && c.number == CREATE)) {
        debug(BIT_GENERAL, GENERAL, "pbrListSetApi: pbr list %s is not exist.\r\n", c.key.list.c_str());
        return just(isStatus && c.number == DESTROY ? 0 : NO_ROW);
    }
    if (!isStatus) {
        return just(FAILED);
    }
    if (pList == nullptr && (c.key.nameLen == 0 || c.key.nameLen > 16)) {
        return just(BAD_ARGUMENT);
    }
    uint32_t result;
    if (!sync(listKey(c.key), LIST_CODE + 1, origin, c.number, result)) {
        return just(result);
    }
    switch (c.number) {
    case CREATE: return just(listAdd(c.key.list) == nullptr ? NO_RECORD : 0);
    case ACTIVATE: pList->status = 1; return just(0);
    case DEACTIVATE: pList->status = 3; return just(0);
    case DESTROY:
        if (!pList->bound.empty()) {
            reached("a list destroyed whose use count wrapped");
        }
        if (std::find(ready_.begin(), ready_.end(), pList) != ready_.end()) {
            reached("a queued list destroyed");
        }
        listDel(pList);
        return just(0);
    default: return just(FAILED);
    }
}

Answer Model::listGetField(const Command &c) {
    if (!c.hasKey) {
        return just(BAD_ARGUMENT);
    }
    const List *pList = isName(c.key) ? listGet(c.key.list) : nullptr;
    if (pList == nullptr) {
        debug(BIT_GENERAL, GENERAL, "pbr list %s is not exist.\r\n", c.key.list.c_str());
        return just(NO_ROW);
    }
    if (c.field == 1) {
        return number(pList->status);
    }
    if (c.field == 2) {
        return number(pList->refCnt);
    }
    if (c.field != 3 || !c.hasBuffer) {
        return just(FAILED);
    }
    Row row = {c.capacity, "", false};
    row.put(1, pList->status);
    row.put(2, pList->refCnt);
    return bytes(row.out);
}

// ---- nodes ----

Answer Model::nodeSet(const Command &c, uint32_t origin) {
    if (!c.hasKey || c.key.node == 0) {
        return just(BAD_ARGUMENT);
    }
    const char *name = c.key.list.c_str();
    const int index = static_cast<int>(c.key.node);
    List *pList = isName(c.key) ? listGet(c.key.list) : nullptr;
    Node *pNode = isName(c.key) ? nodeGet(c.key.list, c.key.node) : nullptr;
    if (c.field >= 16 && c.field <= 18) {
        if (pNode == nullptr) {
            debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi: pbr list %s index %d, timerange set can't find pbrnode.\r\n", name, index);
            return just(NO_ROW);
        }
        return just(rangeReport(pNode, c.field - 16));
    }
    if (pList != nullptr && pList->refCnt > 0) {
        debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi: pbr list %s can't be modified.\r\n", name);
        return just(IN_USE);
    }
    const bool isCreate = c.field == 1 && c.number == CREATE;
    if (pNode == nullptr && !isCreate) {
        debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi: pbr list %s index %d is not exist.\r\n", name, index);
        return just(c.field == 1 && c.number == DESTROY ? 0 : NO_ROW);
    }
    if (pNode != nullptr && isCreate) {
        debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi: pbr list %s index %d is exist.\r\n", name, index);
        return just(0);
    }
    if (c.field == 0 || c.field == 14 || c.field == 15 || c.field >= 20) {
        return just(FAILED);
    }
    if (c.field == 4) {
        return nodeAcl(c, origin, pNode);
    }
    if (c.field == 10) {
        return nodeVersion(c, origin, pNode);
    }
    if (c.field == 19) {
        return nodeRange(c, origin, pNode);
    }
    return nodeField(c, origin, pNode);
}

Answer Model::nodeField(const Command &c, uint32_t origin, Node *pNode) {
    if (c.field == 11) {
        debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi: pbr list %s index %d vrfid %d.\r\n", c.key.list.c_str(),
              static_cast<int>(c.key.node), static_cast<int>(pNode->vrf));
    }
    uint32_t result;
    if (!sync(nodeKey(c.key), NODE_CODE + c.field, origin, c.number, result)) {
        return just(result);
    }
    const uint32_t value = c.number;
    switch (c.field) {
    case 1:
        switch (value) {
        case CREATE:
            pNode = isName(c.key) ? nodeAdd(c.key.list, c.key.node) : nullptr;
            return just(pNode == nullptr ? NO_RECORD : 0);
        case ACTIVATE: pNode->status = 1; return just(0);
        case DEACTIVATE: pNode->status = 3; return just(0);
        case DESTROY: nodeDel(pNode); return just(0);
        default: return just(FAILED);
        }
    case 2: pNode->match1 = value & 0xFFFF; return just(0);
    case 3: pNode->match2 = value & 0xFFFF; return just(0);
    case 5: pNode->pri = value == 0 ? PRI_NONE : value & 15; return just(0);
    case 6:
        if (!pNode->hops.empty()) {
            return just(0x044B000C);
        }
        pNode->outIf = value;
        return just(0);
    case 7: pNode->field7 = value; return just(0);
    case 8: pNode->forwardFlag = value & 3; return just(0);
    case 9: pNode->ecmp = value & 3; return just(0);
    case 11:
        pNode->vrf = value;
        return just(0);
    case 12: pNode->field12 = value & 0xFF; return just(0);
    default: // 13
        while (value != 0 && !pNode->hops.empty()) {
            hopDel(pNode, pNode->hops.front().get());
        }
        pNode->ipVer = 0;
        pNode->vrf = 0;
        return just(0);
    }
}

Answer Model::nodeAcl(const Command &c, uint32_t origin, Node *pNode) {
    const uint32_t acl = c.number;
    if (acl != 0) {
        line("aclLstGetApi(%u, 4)", acl);
        auto known = services_.acls.find(acl);
        const bool exists = known == services_.acls.end() || known->second;
        if (ask("aclLstGetApi", exists ? 0 : -1) != 0) {
            debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi: acl %d is not exist.\r\n", static_cast<int>(acl));
            return just(0x044B0004);
        }
        if (aclUsed(acl)) {
            debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi: acl %d is already binded.\r\n", static_cast<int>(acl));
            return just(0x044B0005);
        }
    }
    if (neverBound(acl)) {
        debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi:can't bind acl:%d.\r\n", static_cast<int>(acl));
        return just(0x044B0007);
    }
    if (!takes(pNode->ipVer, acl)) {
        debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi: acl %d is not match ip address version %d.\r\n", static_cast<int>(acl), static_cast<int>(pNode->acl));
        return just(0x044B000D);
    }
    uint32_t result;
    if (sync(nodeKey(c.key), NODE_CODE + 4, origin, acl, result)) {
        pNode->acl = acl;
    }
    return just(result);
}

Answer Model::nodeVersion(const Command &c, uint32_t origin, Node *pNode) {
    const uint32_t version = c.number;
    if (pNode->ipVer != 0 && pNode->ipVer != version) {
        debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi: ip version is exist.\r\n");
        return just(0x044B000E);
    }
    if (!takes(version, pNode->acl)) {
        debug(BIT_GENERAL, GENERAL, "pbrNodeSetApi: acl %d is not match ip address version %d.\r\n", static_cast<int>(pNode->acl), static_cast<int>(version));
        return just(0x044B000D);
    }
    uint32_t result;
    if (sync(nodeKey(c.key), NODE_CODE + 10, origin, version, result)) {
        pNode->ipVer = version & 0xFF;
    }
    return just(result);
}

Answer Model::nodeRange(const Command &c, uint32_t origin, Node *pNode) {
    const std::string name = format("pbr%s-%d", pNode->pList->name.c_str(), static_cast<int>(pNode->index));
    uint32_t result;
    if (!sync(nodeKey(c.key), NODE_CODE + 19, origin, c.number, result)) {
        return just(result);
    }
    debug(BIT_GENERAL, GENERAL, "pbr\ttimerange name %s.\r\n", name.c_str());
    if (c.number == NO_RANGE) {
        if (pNode->range != 0) {
            debug(BIT_GENERAL, GENERAL, "pbr unbind timerange %d.\r\n", static_cast<int>(pNode->range));
            line("timerangeUnbind(%u, %s, 1)", pNode->range, quoted(name).c_str());
            result = static_cast<uint32_t>(ask("timerangeUnbind", 0));
            if (result != 0) {
                debug(BIT_GENERAL, GENERAL, "pbr unbind timerange ERROR.\r\n");
                return just(result);
            }
            auto &all = services_.ranges;
            all.erase(std::remove_if(all.begin(), all.end(), [&](const auto &r) { return r.id == pNode->range && r.name == name; }), all.end());
        }
        pNode->range = NO_RANGE;
        reached("time range: unbound");
        return just(0);
    }
    debug(BIT_GENERAL, GENERAL, "pbr bind timerange %d.\r\n", static_cast<int>(c.number));
    if (c.number == pNode->range) {
        debug(BIT_GENERAL, GENERAL, "pbr bind same timerange %d alreaey.\r\n", static_cast<int>(c.number));
        return just(0);
    }
    if (pNode->range != NO_RANGE) {
        debug(BIT_GENERAL, GENERAL, "pbr bind timerange %d alreaey.\r\n", static_cast<int>(pNode->range));
        return just(FAILED);
    }
    line("timerangeBind(%u, %s, %s)", c.number, quoted(name).c_str(), nodeKey(c.key).c_str());
    if (ask("timerangeBind", 0) != 0) {
        debug(BIT_GENERAL, GENERAL, "pbr bind timerange ERROR.\r\n");
        return just(BAD_ARGUMENT);
    }
    services_.ranges.push_back({c.number, name, c.key});
    pNode->range = c.number;
    pNode->rangeMatched = 0;
    reached("time range: bound");
    return just(0);
}

Answer Model::nodeGetField(const Command &c) {
    if (!c.hasKey) {
        return just(BAD_ARGUMENT);
    }
    const Node *pNode = isName(c.key) ? nodeGet(c.key.list, c.key.node) : nullptr;
    if (pNode == nullptr) {
        debug(BIT_GENERAL, GENERAL, "pbrNodeGetApi: pbr list %s index %d is not exist.\r\n", c.key.list.c_str(), static_cast<int>(c.key.node));
        return just(FAILED);
    }
    const uint32_t fields[] = {0, pNode->status, pNode->match1, pNode->match2, pNode->acl, pNode->pri, pNode->outIf,
                               pNode->field7, pNode->forwardFlag, pNode->ecmp, pNode->ipVer, pNode->vrf};
    if (c.field >= 1 && c.field <= 11) {
        return number(fields[c.field]);
    }
    if (c.field == 19) {
        return number(pNode->range);
    }
    if (c.field != 15 || !c.hasBuffer) {
        return just(FAILED);
    }
    Row row = {c.capacity, "", false};
    for (uint32_t id : {1, 2, 3, 4, 10, 5, 6, 11, 7, 8, 9}) {
        row.put(id, fields[id]);
    }
    return bytes(row.out);
}

// ---- next hops ----

Answer Model::hopSet(const Command &c, uint32_t origin) {
    if (!c.hasKey || c.key.hop == 0) {
        return just(BAD_ARGUMENT);
    }
    const char *name = c.key.list.c_str();
    const int cmd = static_cast<int>(c.field);
    List *pList = isName(c.key) ? listGet(c.key.list) : nullptr;
    if (pList != nullptr && pList->refCnt > 0) {
        debug(BIT_GENERAL, GENERAL, "_pbrNextHopSetApi: pbr list %s can't be modified.\r\n", name);
        return just(IN_USE);
    }
    Node *pNode = isName(c.key) ? nodeGet(c.key.list, c.key.node) : nullptr;
    if (pNode == nullptr) {
        debug(BIT_GENERAL, GENERAL, "_pbrNextHopSetApi: pbr list %s index %d is not exist.cmd %d\r\n", name, static_cast<int>(c.key.node), cmd);
        return just(NO_ROW);
    }
    Hop *pHop = hopGet(pNode, c.key.hop);
    const bool isCreate = c.field == 1 && c.number == CREATE;
    if (pHop == nullptr && !isCreate) {
        debug(BIT_GENERAL, GENERAL, "_pbrNextHopSetApi: pbr nexthop index %d is not exist, cmd %d.\r\n", c.key.hop, cmd);
        return just(NO_ROW);
    }
    if (pHop != nullptr && isCreate) {
        debug(BIT_GENERAL, GENERAL, "_pbrNextHopSetApi: pbr nexthop index %d is exist.\r\n", c.key.hop);
        return just(0);
    }
    uint32_t result;
    if (c.field == 1) {
        return sync(nodeKey(c.key), HOP_CODE + 1, origin, c.number, result) ? hopStatus(c, pNode, pHop) : just(result);
    }
    if (c.field != 2 && c.field != 4 && c.field != 5) {
        return just(FAILED);
    }
    if (!sync(nodeKey(c.key), HOP_CODE + c.field, origin, c.bytes, result)) {
        return just(result);
    }
    if (c.field == 2) {
        return hopAddress(c, pNode, pHop);
    }
    if (c.bytes.size() > 32) {
        debug(BIT_GENERAL, GENERAL, "_pbrNextHopSetApi:the nqa %s name too long!\r\n", c.field == 4 ? "admin" : "operatTag");
        return just(FAILED);
    }
    (c.field == 4 ? pHop->admin : pHop->test) = c.bytes;
    return just(0);
}

Answer Model::hopStatus(const Command &c, Node *pNode, Hop *pHop) {
    switch (c.number) {
    case CREATE:
        if (pNode->ipVer == 0) {
            return just(FAILED);
        }
        if (pNode->outIf != 0) {
            return just(0x044B000B);
        }
        if (!pNode->hops.empty() && c.key.hop == 1) {
            return just(0x044B0001);
        }
        return just(hopAdd(pNode, c.key.hop) == nullptr ? NO_RECORD : 0);
    case ACTIVATE:
        pHop->status = 1;
        if (!pHop->admin.empty() && !pHop->test.empty() && probeGet(pHop->admin, pHop->test) == nullptr) {
            probeAdd(pHop->admin, pHop->test);
        }
        return just(0);
    case DEACTIVATE: pHop->status = 3; return just(0);
    case DESTROY: hopDel(pNode, pHop); return just(0);
    default: return just(FAILED);
    }
}

Answer Model::hopAddress(const Command &c, const Node *pNode, Hop *pHop) {
    if (pNode->ipVer != 1 && pNode->ipVer != 2) {
        reached("an address for a node without IP version");
        return just(0);
    }
    if (c.bytes.size() != addressBytes(pNode->ipVer)) {
        debug(BIT_GENERAL, GENERAL, "_pbrNextHopSetApi:the format of nextHop is wrong!\r\n");
        return just(FAILED);
    }
    if (c.bytes.find_first_not_of('\0') == std::string::npos) {
        debug(BIT_GENERAL, GENERAL, "_pbrNextHopSetApi:nextHop is zero!\r\n");
        return just(0x044B0006);
    }
    pHop->address.fill(0); // nothing of a longer address stays behind a shorter one
    memcpy(pHop->address.data(), c.bytes.data(), c.bytes.size());
    if (pNode->ipVer == 1) {
        debug(BIT_GENERAL, GENERAL, "_pbrNextHopSetApi ipAddr=%s!\r\n", text4(pHop->address.data()).c_str());
    } else {
        debug(BIT_GENERAL, GENERAL, "_pbrNextHopSetApi ip6Addr=%s.\r\n", text6(pHop->address.data()).c_str());
    }
    return just(0);
}

Answer Model::hopGetField(const Command &c) {
    if (!c.hasKey) {
        return just(BAD_ARGUMENT);
    }
    const Node *pNode = isName(c.key) ? nodeGet(c.key.list, c.key.node) : nullptr;
    if (pNode == nullptr) {
        debug(BIT_GENERAL, GENERAL, "pbrNextHopGetApi: pbr list %s index %d is not exist.\r\n", c.key.list.c_str(), static_cast<int>(c.key.node));
        return just(FAILED);
    }
    const Hop *pHop = hopGet(pNode, c.key.hop);
    if (pHop == nullptr) {
        debug(BIT_GENERAL, GENERAL, "pbrNextHopGetApi: pbr nexthop index %d is not exist.\r\n", c.key.hop);
        return just(FAILED);
    }
    switch (c.field) {
    case 1: return number(pHop->status);
    case 2: {
        const size_t width = addressBytes(pNode->ipVer);
        if (c.capacity < width) {
            return just(FAILED);
        }
        return bytes(std::string(reinterpret_cast<const char *>(pHop->address.data()), width));
    }
    case 4: return bytes(pHop->admin);
    case 5: return bytes(pHop->test);
    default: return just(FAILED);
    }
}

// ---- interfaces ----

Answer Model::ifSet(const Command &c, uint32_t origin) {
    if (!c.hasKey) {
        return just(BAD_ARGUMENT);
    }
    Interface *pIf = interfaceGet(c.key.unit);
    if (c.field != 1 && pIf == nullptr) {
        debug(BIT_GENERAL, GENERAL, "pbrIfSetApi:pbrIfEntry is NULL.\r\n");
        return just(NO_ROW);
    }
    uint32_t result;
    if (c.field == 1) {
        return sync(ifKey(c.key), IF_CODE + 1, origin | 0x10000000, c.number, result) ? ifStatus(c, pIf) : just(result);
    }
    if (c.field == 2) {
        return sync(ifKey(c.key), IF_CODE + 2, origin | 0x10000000, c.bytes, result) ? ifName(c, pIf) : just(result);
    }
    return just(FAILED);
}

Answer Model::ifStatus(const Command &c, Interface *pIf) {
    if (c.number == 1) {
        return just(pIf != nullptr || interfaceAdd(c.key.unit) != nullptr ? 0 : NO_RECORD);
    }
    if (c.number != 2) {
        return just(FAILED);
    }
    if (pIf != nullptr) {
        if (!pIf->listName.empty() && unbind(pIf) != 0) { // goes on whatever unbinding says but -1
            reached("an interface destroyed whose list has gone");
        }
        while (!pIf->links.empty()) { // left by a binding that stopped half-way
            reached("an interface destroyed with links left");
            linkDel(pIf, pIf->links.front().get());
        }
        interfaceDel(pIf);
    }
    return just(0);
}

Answer Model::ifName(const Command &c, Interface *pIf) {
    const bool fits = c.bytes.size() <= 16; // a longer name is never stored and names no list
    if (!pIf->listName.empty()) {
        if (pIf->listName == c.bytes) {
            reached("the same list bound again");
            return just(0);
        }
        const List *pList = listGet(c.bytes);
        if (pList == nullptr) {
            return just(0x044B0008);
        }
        if (const uint32_t refused = validate(pList); refused != 0) {
            return just(refused);
        }
        if (const uint32_t result = unbind(pIf); result != 0) {
            return just(result);
        }
        reached("another list bound");
    }
    pIf->listName = fits ? c.bytes : "";
    if (bind(pIf) == -1) {
        debug(BIT_GENERAL, GENERAL, "pbrIfSetApi: pbr bind error.\r\n");
        pIf->listName.clear();
        return just(0x044B0003);
    }
    return just(0);
}

Answer Model::ifGetField(const Command &c) {
    if (!c.hasKey) {
        return just(BAD_ARGUMENT);
    }
    const Interface *pIf = interfaceGet(c.key.unit);
    if (pIf == nullptr) {
        debug(BIT_GENERAL, GENERAL, "pbrIfGetApi: pbrIfEntry is NULL.\r\n");
        return just(NO_ROW);
    }
    switch (c.field) {
    case 1: return number(pIf->status);
    case 2: return c.capacity < pIf->listName.size() ? just(22) : bytes(pIf->listName);
    case 3: return bytes("");
    case 4: {
        if (!c.hasBuffer) {
            return just(FAILED);
        }
        Row row = {c.capacity, "", false};
        row.put(1, pIf->status);
        row.put(2, pIf->listName);
        return bytes(row.out);
    }
    default: return just(FAILED);
    }
}

// ---- scalars ----

Answer Model::scalarSet(const Command &c, uint32_t origin) {
    uint32_t result;
    if (c.field != 4) {
        return just(FAILED);
    }
    if (sync("none", SCALAR_CODE + 4, origin, c.number, result)) {
        debugFlags_ = c.number;
    }
    return just(result);
}

Answer Model::scalarGet(const Command &c) {
    static const std::string version = "PBR_V7.00.00.00";
    const uint32_t listCount = static_cast<uint32_t>(lists_.size());
    switch (c.field) {
    case 1: return number(limits_.lists);
    case 2: return number(limits_.nodes);
    case 3: return number(listCount);
    case 4: return number(debugFlags_);
    case 5: return c.hasBuffer ? bytes(version.substr(0, c.capacity)) : just(BAD_ARGUMENT);
    case 6: {
        if (c.capacity < 12 || !c.hasBuffer) {
            return just(FAILED);
        }
        const uint32_t words[3] = {ready_.empty() ? 1u : 2u, ready_.empty() ? 0u : 2u, 2};
        return bytes(std::string(reinterpret_cast<const char *>(words), 12));
    }
    case 7: {
        if (!c.hasBuffer) {
            return just(FAILED);
        }
        Row row = {c.capacity, "", false};
        row.put(1, limits_.lists);
        row.put(2, limits_.nodes);
        row.put(3, listCount);
        row.put(4, debugFlags_);
        row.put(5, version, 23);
        return bytes(row.out);
    }
    default: return just(0);
    }
}

// ---- walks ----

namespace {

Answer row(const Key &in, const std::string &list, uint32_t node, uint8_t hop) {
    Answer a;
    a.hasKey = true;
    a.key = in;
    a.key.list = list;
    a.key.nameLen = static_cast<uint16_t>(list.size());
    a.key.node = node;
    a.key.hop = hop;
    return a;
}

constexpr uint8_t LIST_FIXED = 0x80, NODE_FIXED = 0x40;

// Where a list stands to a key: before it (negative), the key's own (0), behind it. A key may state more
// bytes than a name has: it then stands behind the list of those bytes.
int order(const List &list, const Key &key) {
    const size_t shorter = std::min<size_t>(list.name.size(), key.nameLen);
    const int bytes = list.name.compare(0, shorter, key.list, 0, shorter);
    return bytes != 0 ? bytes : static_cast<int>(list.name.size()) - static_cast<int>(key.nameLen);
}
bool leftOut(const List &list, const Key &key) {
    return (key.mask & LIST_FIXED) != 0 && order(list, key) != 0;
}
bool leftOut(const Node &node, const Key &key) {
    return (key.mask & NODE_FIXED) != 0 && node.index != key.node;
}

} // namespace

Answer Model::listWalk(const Command &c, bool next) {
    if (!c.hasKey) {
        return just(FAILED);
    }
    for (const auto &list : lists_) {
        if (!next || order(*list, c.key) > 0) {
            return row(c.key, list->name, c.key.node, c.key.hop);
        }
    }
    return just(FAILED);
}

Answer Model::nodeFirst(const Command &c) {
    for (const auto &list : lists_) {
        for (const auto &node : list->nodes) {
            if (!leftOut(*list, c.key) && !leftOut(*node, c.key)) {
                return row(c.key, list->name, node->index, c.key.hop);
            }
        }
    }
    return just(FAILED);
}

Answer Model::nodeNext(const Command &c) {
    for (const auto &list : lists_) {
        if (leftOut(*list, c.key) || order(*list, c.key) < 0) {
            continue;
        }
        for (const auto &node : list->nodes) {
            if (!leftOut(*node, c.key) && (order(*list, c.key) > 0 || node->index > c.key.node)) {
                return row(c.key, list->name, node->index, c.key.hop);
            }
        }
    }
    return just(FAILED);
}

Answer Model::hopFirst(const Command &c) {
    for (const auto &list : lists_) {
        for (const auto &node : list->nodes) {
            if (!leftOut(*list, c.key) && !leftOut(*node, c.key) && !node->hops.empty()) {
                return row(c.key, list->name, node->index, node->hops.front()->index);
            }
        }
    }
    return just(FAILED);
}

// A later list answers with its first node, next hops or not, and the index looked at last.
Answer Model::hopNext(const Command &c) {
    if (c.key.nameLen == 0) {
        return just(FAILED);
    }
    uint8_t lookedAt = 0;
    for (const auto &list : lists_) {
        if (leftOut(*list, c.key) || order(*list, c.key) < 0) {
            continue;
        }
        for (const auto &node : list->nodes) {
            if (leftOut(*node, c.key)) {
                continue;
            }
            if (order(*list, c.key) > 0) {
                reached("walk: a later list's node");
                return row(c.key, list->name, node->index, lookedAt);
            }
            if (node->index < c.key.node) {
                continue;
            }
            for (const auto &hop : node->hops) {
                lookedAt = hop->index;
                if (node->index > c.key.node || hop->index > c.key.hop) {
                    return row(c.key, list->name, node->index, hop->index);
                }
            }
        }
    }
    return just(FAILED);
}

Answer Model::ifWalk(const Command &c, bool next) {
    if (!c.hasKey) {
        return just(FAILED);
    }
    auto found = next ? interfaces_.upper_bound(c.key.unit) : interfaces_.begin();
    if (found == interfaces_.end()) {
        return just(FAILED);
    }
    Answer a;
    a.hasKey = true;
    a.key = c.key;
    a.key.unit = found->first;
    return a;
}

} // namespace model
