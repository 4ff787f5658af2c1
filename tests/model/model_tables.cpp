// The tables: lists, nodes, next hops, probes, interfaces, links, and the pools behind them.
#include "tests/model/model_parts.h"

namespace model {

Model::Model(const Limits &limits, const std::vector<uint8_t> &translation) : limits_(limits) {
    services_.translation = translation;
    timerDueMs_ = 1000;
}

// ---- pools ----

bool Model::poolsMake() {
    if (pools_) {
        return true;
    }
    const std::pair<const char *, uint32_t> sizes[] = {
        {"pbr_if", limits_.interfaces}, {"pbr_list", limits_.lists},
        {"pbr_node", limits_.nodes},    {"pbr_nexthop", 4 * limits_.nodes},
        {"pbr_ifnode", limits_.interfaces * limits_.nodes}, {"pbr_nqa", 4 * limits_.nodes}};
    size_t made = 0;
    for (const auto &[name, slots] : sizes) {
        line("silMemPoolInit(\"%s\", %u)", name, slots);
        if (ask("silMemPoolInit", 0) != 0) {
            break;
        }
        ++made;
    }
    if (made == 6) {
        pools_ = true;
        debug(BIT_GENERAL, GENERAL, "pbr allocate  memory success.\r\n");
        return true;
    }
    if (made != 0) { // a failing first pool leaves nothing to undo
        for (size_t i = 0; i < 6; ++i) {
            line(i < made ? "silMemPoolDestroy(\"%s\")" : "silMemPoolDestroy(none)", sizes[i].first);
        }
    }
    return false;
}

// With the last list and the last interface the pools go, and with them probes that no next hop names.
void Model::poolsFreeWhenEmpty() {
    if (!lists_.empty() || !interfaces_.empty()) {
        return;
    }
    for (const char *pool : {"pbr_if", "pbr_list", "pbr_node", "pbr_nexthop", "pbr_ifnode", "pbr_nqa"}) {
        line("silMemPoolDestroy(\"%s\")", pool);
    }
    pools_ = false;
    slots_ = Slots();
    probes_.clear();
    reached("pools freed");
    debug(BIT_GENERAL, GENERAL, "pbr free memory success.\r\n");
}

// Whether a pool gives a slot.
bool Model::slot(uint32_t taken, uint32_t capacity) {
    return ask("silMemPoolAlloc", 1) != 0 && taken < capacity;
}

// ---- lists ----

List *Model::listGet(const std::string &name) const {
    for (const auto &list : lists_) {
        if (list->name == name) {
            return list.get();
        }
    }
    return nullptr;
}

List *Model::listAdd(const std::string &name) {
    if (!poolsMake()) {
        debug(BIT_GENERAL, TABLE, "pbr malloc malloc error !\r\n");
        return nullptr;
    }
    if (!slot(slots_.lists, limits_.lists)) {
        debug(BIT_GENERAL, TABLE, "pbr list free table is empty !\r\n");
        return nullptr;
    }
    auto place = lists_.begin();
    while (place != lists_.end() && (*place)->name <= name) { // byte order, shorter first
        ++place;
    }
    auto list = std::make_unique<List>();
    list->name = name;
    List *pList = list.get();
    lists_.insert(place, std::move(list));
    slots_.lists += 1;
    return pList;
}

// A list whose use count wrapped to 0 can still be bound: its interfaces' links go with it, the
// interfaces keep its name.
void Model::listDel(List *pList) {
    unqueue(pList);
    for (Interface *pIf : pList->bound) {
        while (!pIf->links.empty()) {
            linkDel(pIf, pIf->links.front().get());
        }
    }
    pList->bound.clear();
    while (!pList->nodes.empty()) {
        nodeDel(pList->nodes.front().get());
    }
    lists_.erase(std::find_if(lists_.begin(), lists_.end(), [&](const auto &p) { return p.get() == pList; }));
    slots_.lists -= 1;
    poolsFreeWhenEmpty();
}

uint32_t Model::validate(const List *pList) {
    for (const auto &node : pList->nodes) {
        if (node->acl == 0 && node->match1 == 0 && node->match2 == 0) {
            debug(BIT_GENERAL, TABLE, "pbr if bind ,but no if-match!\r\n");
            return 0x044B0009;
        }
        if (node->hops.empty() && node->outIf == 0 && node->pri == PRI_NONE) {
            debug(BIT_GENERAL, TABLE, "pbr if bind ,but no apply!\r\n");
            return 0x044B000A;
        }
    }
    return 0;
}

// ---- nodes ----

Node *Model::nodeGet(const std::string &name, uint32_t index) const {
    const List *pList = listGet(name);
    if (pList == nullptr) {
        return nullptr;
    }
    for (const auto &node : pList->nodes) {
        if (node->index == index) {
            return node.get();
        }
    }
    return nullptr;
}

Node *Model::nodeAdd(const std::string &name, uint32_t index) {
    List *pList = listGet(name);
    if (pList == nullptr) {
        return nullptr;
    }
    if (!slot(slots_.nodes, limits_.nodes)) {
        debug(BIT_GENERAL, TABLE, "pbr node free table is empty!\r\n");
        return nullptr;
    }
    auto place = pList->nodes.begin();
    while (place != pList->nodes.end() && (*place)->index <= index) {
        ++place;
    }
    auto node = std::make_unique<Node>();
    node->pList = pList;
    node->index = index;
    Node *pNode = node.get();
    pList->nodes.insert(place, std::move(node));
    slots_.nodes += 1;
    return pNode;
}

// A node of a list whose use count wrapped can still have links: they go with it.
void Model::nodeDel(Node *pNode) {
    for (auto &[unit, pIf] : interfaces_) {
        for (size_t i = 0; i < pIf->links.size();) {
            if (pIf->links[i]->pNode == pNode) {
                linkDel(pIf.get(), pIf->links[i].get());
            } else {
                ++i;
            }
        }
    }
    // The node leaves its list first: none of its next hops counts as another user of a probe.
    auto &nodes = pNode->pList->nodes;
    const auto place = std::find_if(nodes.begin(), nodes.end(), [&](const auto &p) { return p.get() == pNode; });
    const std::unique_ptr<Node> node = std::move(*place);
    nodes.erase(place);
    while (!node->hops.empty()) {
        hopDel(pNode, node->hops.front().get());
    }
    slots_.nodes -= 1;
}

bool Model::aclUsed(uint32_t acl) const {
    for (const auto &list : lists_) {
        for (const auto &node : list->nodes) {
            if (node->acl == acl) {
                return true;
            }
        }
    }
    return false;
}

// ---- next hops ----

Hop *Model::hopGet(const Node *pNode, uint32_t index) {
    for (const auto &hop : pNode->hops) {
        if (hop->index == index) {
            return hop.get();
        }
    }
    return nullptr;
}

Hop *Model::hopAdd(Node *pNode, uint32_t index) {
    debug(BIT_GENERAL, GENERAL, "pbr nexthop entry add %d!\r\n", static_cast<int>(index));
    if (!slot(slots_.hops, 4 * limits_.nodes)) {
        debug(BIT_GENERAL, TABLE, "pbr nexthop free table is empty!\r\n");
        return nullptr;
    }
    auto place = pNode->hops.begin();
    while (place != pNode->hops.end() && (*place)->index <= index) {
        ++place;
    }
    auto hop = std::make_unique<Hop>();
    hop->index = static_cast<uint8_t>(index);
    Hop *pHop = hop.get();
    pNode->hops.insert(place, std::move(hop));
    slots_.hops += 1;
    return pHop;
}

// The probe that only this next hop names goes with it, and nobody keeps it as best.
void Model::hopDel(Node *pNode, const Hop *pHop) {
    if (!pHop->admin.empty() && !pHop->test.empty() && !probeUsedElsewhere(pHop)) {
        if (Probe *pProbe = probeGet(pHop->admin, pHop->test); pProbe != nullptr) {
            debug(BIT_GENERAL, TABLE, "pbr nqa del %s %s\r\n", pProbe->admin.c_str(), pProbe->test.c_str());
            probes_.erase(std::find_if(probes_.begin(), probes_.end(), [&](const auto &p) { return p.get() == pProbe; }));
            slots_.probes -= 1;
            reached("probe deleted");
        }
    }
    for (const auto &list : lists_) {
        for (const auto &node : list->nodes) {
            if (node->pBest == pHop) {
                node->pBest = nullptr;
                reached("best cleared with its next hop");
            }
        }
    }
    pNode->hops.erase(std::find_if(pNode->hops.begin(), pNode->hops.end(), [&](const auto &p) { return p.get() == pHop; }));
    slots_.hops -= 1;
}

// ---- probes ----

Probe *Model::probeGet(const std::string &admin, const std::string &test) const {
    for (const auto &probe : probes_) {
        if (probe->admin == admin && probe->test == test) {
            return probe.get();
        }
    }
    return nullptr;
}

bool Model::probeUsedElsewhere(const Hop *pHop) const {
    for (const auto &list : lists_) {
        for (const auto &node : list->nodes) {
            for (const auto &hop : node->hops) {
                if (hop.get() != pHop && hop->admin == pHop->admin && hop->test == pHop->test) {
                    return true;
                }
            }
        }
    }
    return false;
}

namespace {

bool shorterOrBefore(const std::string &a, const std::string &b) {
    return a.size() != b.size() ? a.size() < b.size() : a < b;
}
bool probeBefore(const Probe &a, const Probe &b) {
    return a.admin != b.admin ? shorterOrBefore(a.admin, b.admin) : shorterOrBefore(a.test, b.test);
}

} // namespace

void Model::probeAdd(const std::string &admin, const std::string &test) {
    if (!slot(slots_.probes, 4 * limits_.nodes)) {
        debug(BIT_GENERAL, TABLE, "pbr nqa free table is empty!\r\n");
        return;
    }
    debug(BIT_GENERAL, TABLE, "pbr nqa add %s %s\r\n", admin.c_str(), test.c_str());
    auto probe = std::make_unique<Probe>();
    probe->admin = admin;
    probe->test = test;
    auto place = probes_.begin();
    while (place != probes_.end() && !probeBefore(*probe, **place)) {
        ++place;
    }
    Probe &added = **probes_.insert(place, std::move(probe));
    slots_.probes += 1;
    reached("probe added");
    probeRequest(added);
}

void Model::probeRequest(const Probe &probe) {
    line("qrvNetlinkSGrpSend(89, 350, admin=%s/%u test=%s/%u status=0)", quoted(probe.admin).c_str(),
         static_cast<unsigned>(probe.admin.size()), quoted(probe.test).c_str(),
         static_cast<unsigned>(probe.test.size()));
    if (ask("qrvNetlinkSGrpSend", 92) < 0) {
        debug(BIT_GENERAL, EVENT, "pbr send QRV_RTM_NQA_STATEREQ ERROR %d!\r\n", 0);
    }
    debug(BIT_GENERAL, EVENT, "pbr send QRV_RTM_NQA_STATEREQ OK!\r\n");
}

// ---- interfaces and links ----

Interface *Model::interfaceGet(uint32_t unit) const {
    auto found = interfaces_.find(unit);
    return found == interfaces_.end() ? nullptr : found->second.get();
}

Interface *Model::interfaceAdd(uint32_t unit) {
    if (!poolsMake()) {
        debug(BIT_GENERAL, TABLE, "pbr malloc malloc error !\r\n");
        return nullptr;
    }
    if (!slot(slots_.interfaces, limits_.interfaces)) {
        debug(BIT_GENERAL, TABLE, "pbr if free table is empty !\r\n");
        return nullptr;
    }
    debug(BIT_GENERAL, GENERAL, "pbrIfEntry Add if(%s)\r\n", model::ifName(unit).c_str());
    auto &place = interfaces_[unit];
    place = std::make_unique<Interface>();
    place->unit = unit;
    slots_.interfaces += 1;
    return place.get();
}

// Its links are gone already.
void Model::interfaceDel(Interface *pIf) {
    interfaces_.erase(pIf->unit);
    slots_.interfaces -= 1;
    debug(BIT_GENERAL, GENERAL, "pbrIfEntry delete\r\n");
    poolsFreeWhenEmpty();
}

Link *Model::linkAdd(Interface *pIf, Node *pNode) {
    if (!slot(slots_.links, limits_.interfaces * limits_.nodes)) {
        debug(BIT_GENERAL, TABLE, "pbr if node free table is empty !\r\n");
        return nullptr;
    }
    auto link = std::make_unique<Link>();
    link->pNode = pNode;
    link->unit = pIf->unit;
    pIf->links.push_back(std::move(link));
    slots_.links += 1;
    return pIf->links.back().get();
}

void Model::linkDel(Interface *pIf, const Link *pLink) {
    pIf->links.erase(std::find_if(pIf->links.begin(), pIf->links.end(), [&](const auto &p) { return p.get() == pLink; }));
    slots_.links -= 1;
    debug(BIT_GENERAL, GENERAL, "pbrIfnode delete\r\n");
}

} // namespace model
