// Selection, reachability, the ready table, the periodic update, time ranges.
#include "tests/model/model_parts.h"

namespace model {

// ---- ready table ----

void Model::unqueue(const List *pList) {
    ready_.erase(std::remove(ready_.begin(), ready_.end(), pList), ready_.end());
}

// A list stands in the ready table once, most recent first.
void Model::queue(List *pList) {
    unqueue(pList);
    ready_.insert(ready_.begin(), pList);
    reached("queued");
}

// ---- selection ----

// A missing record counts as failing, whether or not the next hop names a probe.
uint32_t Model::probeStatus(const Hop *pHop) const {
    const Probe *pProbe = probeGet(pHop->admin, pHop->test);
    return pProbe == nullptr ? 2 : pProbe->status;
}

bool Model::usableAlone(const Hop *pHop) const {
    const bool hasProbe = !pHop->admin.empty() && !pHop->test.empty();
    return pHop->arp != 0 && !(hasProbe && probeStatus(pHop) == 2);
}

// Leaves curSelected on the next hops up to the chosen one only.
const Hop *Model::select(Node *pNode) {
    if (pNode->ecmp == 1) {
        for (const auto &hop : pNode->hops) {
            if (hop->arp == 1) {
                hop->cur = 1;
            }
        }
        return nullptr;
    }
    for (const auto &hop : pNode->hops) {
        if (pNode->range != 0 && pNode->range != NO_RANGE && pNode->rangeMatched == 0) {
            debug(BIT_HARDWARE, HARDWARE,
                  "pbrIfNodeUpdate set timerang but not in time,return NULL.timeRangeId[%d],timeRangeMatched[%d].\r\n",
                  static_cast<int>(pNode->range), static_cast<int>(pNode->rangeMatched));
            reached("selection: out of its time range");
            return nullptr;
        }
        if (pNode->range == 0) {
            reached("selection: time range 0 does not gate");
        }
        const bool chosen = usableAlone(hop.get());
        hop->cur = chosen ? 1 : 0;
        if (chosen) {
            return hop.get();
        }
        if (hop->arp != 0) {
            reached("selection: passed over by its probe");
        }
    }
    return nullptr;
}

// ---- detection ----

namespace {

std::string registration(uint32_t operation, uint32_t ipVer, uint32_t vrf, const Address &address) {
    std::string out = format("hrdScalarSetApi(0, 6, %02x%02x0700 %08x 00000000", operation, ipVer == 1 ? 1 : 2, vrf);
    for (size_t i = 0; i < addressBytes(ipVer); i += 4) {
        out += format(" %08x", bigEndian(address.data() + i));
    }
    return out + ")";
}

bool samePeer(const Node &node, const Hop &hop, uint32_t ipVer, uint32_t vrf, const Hop *pHop) {
    return node.ipVer == ipVer && node.vrf == vrf && hop.address == pHop->address;
}

} // namespace

void Model::detect(uint32_t ipVer, uint32_t vrf, const Hop *pHop) {
    line("%s", registration(1, ipVer, vrf, pHop->address).c_str());
    if (ipVer == 1) {
        debug(BIT_GENERAL, GENERAL, "pbr add hrd peer ipAddr=%s,vrfid:%d!\r\n", text4(pHop->address.data()).c_str(), static_cast<int>(vrf));
    } else {
        debug(BIT_GENERAL, GENERAL, "pbr add hrd peer ip6Addr=%s,vrfid:%d.\r\n", text6(pHop->address.data()).c_str(), static_cast<int>(vrf));
    }
}

void Model::unDetect(uint32_t ipVer, uint32_t vrf, const Hop *pHop) {
    line("%s", registration(0, ipVer, vrf, pHop->address).c_str());
    if (ipVer == 1) {
        debug(BIT_GENERAL, GENERAL, "pbr delete hrd peer ipAddr=%s!\r\n", text4(pHop->address.data()).c_str());
    } else {
        debug(BIT_GENERAL, GENERAL, "pbr delete hrd peer ip6Addr=%s.\r\n", text6(pHop->address.data()).c_str());
    }
}

// Whether the list of another interface names the same peer.
bool Model::neededElsewhere(const Interface *pIf, uint32_t ipVer, uint32_t vrf, const Hop *pHop) {
    for (const auto &[unit, pOther] : interfaces_) {
        const List *pList = pOther.get() == pIf ? nullptr : listGet(pOther->listName);
        if (pList == nullptr) {
            continue;
        }
        for (const auto &node : pList->nodes) {
            for (const auto &hop : node->hops) {
                if (!samePeer(*node, *hop, ipVer, vrf, pHop)) {
                    continue;
                }
                if (ipVer == 1) {
                    debug(BIT_GENERAL, GENERAL, "pbr did peer not need unbind ipAddr=%s,vrfid:%d!\r\n",
                          text4(pHop->address.data()).c_str(), static_cast<int>(vrf));
                } else {
                    debug(BIT_GENERAL, GENERAL, "pbr did peer not need unbind ip6Addr=%s,vrfid:%d.\r\n",
                          text6(pHop->address.data()).c_str(), static_cast<int>(vrf));
                }
                reached("peer still needed");
                return true;
            }
        }
    }
    return false;
}

// A newly bound next hop takes over what is known of its peer from another list, bound or not.
void Model::copyArpState(List *pList, uint32_t ipVer, uint32_t vrf, Hop *pHop) {
    for (const auto &list : lists_) {
        if (list.get() == pList) {
            continue;
        }
        for (const auto &node : list->nodes) {
            for (const auto &hop : node->hops) {
                if (!samePeer(*node, *hop, ipVer, vrf, pHop)) {
                    continue;
                }
                pHop->arp = hop->arp;
                if (ipVer == 1) {
                    debug(BIT_GENERAL, GENERAL, "nexthop ipAddr=%s,vrfid:%d arp state update to %d !\r\n",
                          text4(pHop->address.data()).c_str(), static_cast<int>(vrf), static_cast<int>(pHop->arp));
                } else {
                    debug(BIT_GENERAL, GENERAL, "nexthop ip6Addr=%s,vrfid:%d arp state update to %d ! \r\n",
                          text6(pHop->address.data()).c_str(), static_cast<int>(vrf), static_cast<int>(pHop->arp));
                }
                reached("reachability copied");
                if (pHop->arp == 1) {
                    queue(pList);
                    reached("reachability 1 copied");
                    debug(BIT_GENERAL, EVENT, "arp state update add pbr to ready table.\r\n");
                }
                return;
            }
        }
    }
}

// ---- peer reports ----

namespace {

bool matches(const Node &node, uint32_t family, uint32_t vrf) {
    return !node.hops.empty() && node.ipVer == family && node.vrf == vrf;
}
bool matches(const Hop &hop, uint32_t family, const Address &address) {
    return memcmp(hop.address.data(), address.data(), addressBytes(family)) == 0;
}

} // namespace

void Model::peerOpening(const char *what, uint32_t family, uint32_t vrf, const Address &address) {
    if (family == 1) {
        debug(BIT_GENERAL, EVENT, "%s ipAddr=%s,vpnVrfid=%d.\r\n", what, text4(address.data()).c_str(), static_cast<int>(vrf));
    } else {
        debug(BIT_GENERAL, EVENT, "%s ip6Addr=%s,vpnVrfid=%d.\r\n", what, text6(address.data()).c_str(), static_cast<int>(vrf));
    }
}

void Model::peerSelfLog(const char *what, const Node *pNode, const Hop *pHop) {
    if (selfLog_ != 0) {
        log(EVENT, PRIORITIES[2], 284, "pbr hrd %s.(pbr=[%s/%u], family=[%u], vrId=[%u], ip=[%s])\r\n", what,
            pNode->pList->name.c_str(), pNode->index, pNode->ipVer, pNode->vrf,
            (pNode->ipVer == 1 ? text4(pHop->address.data()) : text6(pHop->address.data())).c_str());
    }
}

void Model::peerUp(uint32_t family, uint32_t vrf, const Address &address) {
    peerOpening("pbrNextHopStateUp", family, vrf, address);
    for (const auto &list : lists_) {
        if (list->refCnt == 0) {
            continue;
        }
        bool found = false;
        for (const auto &node : list->nodes) {
            if (!matches(*node, family, vrf)) {
                continue;
            }
            for (const auto &hop : node->hops) {
                if (matches(*hop, family, address)) {
                    found = true;
                    hop->arp = 1;
                    node->hopUp = 1;
                    if (node->ecmp == 1) {
                        hop->cur = 1;
                    }
                    peerSelfLog("up", node.get(), hop.get());
                }
            }
        }
        if (found) {
            reached("peer up: a bound next hop");
            queue(list.get());
            debug(BIT_GENERAL, EVENT, "pbrNextHopStateUp add to ready table.\r\n");
        }
    }
}

// Once a matching node with a reachable next hop was seen, every matching node behind it counts as up.
void Model::peerDown(uint32_t family, uint32_t vrf, const Address &address) {
    peerOpening("pbrNextHopStateDown", family, vrf, address);
    bool anyUp = false;
    for (const auto &list : lists_) {
        if (list->refCnt == 0) {
            continue;
        }
        bool changed = false;
        for (const auto &node : list->nodes) {
            if (!matches(*node, family, vrf)) {
                continue;
            }
            for (const auto &hop : node->hops) {
                if (matches(*hop, family, address)) {
                    hop->arp = 0;
                    hop->cur = 0;
                    changed = true;
                    peerSelfLog("down", node.get(), hop.get());
                }
            }
            const bool own = std::any_of(node->hops.begin(), node->hops.end(), [](const auto &h) { return h->arp == 1; });
            if (anyUp && !own) {
                reached("peer down: counts as up by an earlier node");
            }
            anyUp = anyUp || own;
            node->hopUp = anyUp ? 1 : 0;
        }
        if (changed) {
            reached("peer down: a bound next hop");
            queue(list.get());
            debug(BIT_GENERAL, EVENT, "pbrNextHopStateDown add to ready table.\r\n");
        }
    }
}

void Model::peerChange(uint32_t family, uint32_t vrf, const Address &address) {
    peerOpening("pbrNextHopStateChange recv rtm msg", family, vrf, address);
    for (const auto &list : lists_) {
        if (list->refCnt == 0) {
            continue;
        }
        bool changed = false;
        for (const auto &node : list->nodes) {
            if (!matches(*node, family, vrf)) {
                continue;
            }
            const Hop *pBest = select(node.get()); // none of an ECMP node
            if (pBest == nullptr || !matches(*pBest, family, address)) {
                continue;
            }
            debug(BIT_GENERAL, EVENT, "pbrNextHopStateChange pbr name:%s,index:%d.\r\n", list->name.c_str(), static_cast<int>(node->index));
            node->stateChange = 1;
            changed = true;
            for (Interface *pIf : list->bound) {
                for (const auto &link : pIf->links) {
                    if (link->pNode == node.get()) {
                        link->stateChange = 1;
                    }
                }
            }
        }
        if (changed) {
            reached("peer change: of a best next hop");
            queue(list.get());
            debug(BIT_GENERAL, EVENT, "pbrNextHopStateChange add to ready table.\r\n");
        }
    }
}

// ---- time ranges ----

uint32_t Model::rangeReport(Node *pNode, uint32_t action) {
    static const char *const words[] = {"start", "stop", "unbind"};
    debug(BIT_GENERAL, EVENT, "pbr %s node %d timerange %d %s \r\n", pNode->pList->name.c_str(),
          static_cast<int>(pNode->index), static_cast<int>(pNode->range), words[action]);
    pNode->rangeMatched = action == 0 ? 1 : 0;
    queue(pNode->pList);
    return 0;
}

void Model::range(size_t binding, uint32_t action) {
    const Key &key = services_.ranges[binding].key;
    Node *pNode = nodeGet(key.list, key.node);
    if (pNode == nullptr) {
        reached("time range of a node that is gone");
        return;
    }
    (void)rangeReport(pNode, action);
}

// ---- periodic update ----

void Model::update() {
    const Hop *pSaved = nullptr; // lives for the whole run
    const std::vector<List *> waiting = ready_;
    reached(waiting.empty() ? "update: nothing waits" : "update: lists wait");
    for (List *pList : waiting) {
        line("qrv_ioctl(3, 0x4004667f)");
        if (!services_.reads.empty()) {
            reached("update: yields to waiting bytes");
            return;
        }
        if (updateList(pList, pSaved)) {
            unqueue(pList);
        } else {
            reached("update: a list stays queued");
        }
    }
}

// True when no add failed.
bool Model::updateList(List *pList, const Hop *&pSaved) {
    debug(BIT_HARDWARE, HARDWARE, "pbrIfNodeUpdate check ready table,pbr list name:%s.\r\n", pList->name.c_str());
    uint32_t failed = 0, changed = 0; // both count for the whole list
    for (const auto &node : pList->nodes) {
        debug(BIT_HARDWARE, HARDWARE, "pbrIfNodeUpdate check ready table,pbr node index:%d.\r\n", static_cast<int>(node->index));
        if (node->ecmp == 1) {
            for (const auto &hop : node->hops) {
                changed += hop->cur != hop->last ? 1 : 0;
            }
        } else {
            const Hop *pBest = select(node.get());
            if (pBest != node->pBest) {
                if (pBest != nullptr) {
                    debug(BIT_HARDWARE, HARDWARE, "pbrIfNodeUpdate select best nexthop %d,curSelected:%d,lastSelected:%d.\r\n",
                          pBest->index, static_cast<int>(pBest->cur), static_cast<int>(pBest->last));
                }
                node->pBest = pBest;
                changed += 1;
                reached(pBest == nullptr ? "update: best lost" : "update: new best");
            } else {
                debug(BIT_HARDWARE, HARDWARE, "pbrIfNodeUpdate no change best nexthop %s.\r\n", name(pBest).c_str());
            }
        }
        if (changed == 0 && node->stateChange == 0) {
            continue;
        }
        debug(BIT_GENERAL, EVENT, "pbr start to update pbrnode,change %d,pPbrNode->stateChangeFlag %d.\r\n",
              static_cast<int>(changed), static_cast<int>(node->stateChange));
        for (Interface *pIf : pList->bound) {
            debug(BIT_GENERAL, EVENT, "check pbr if entry ifUnit:%d\r\n", static_cast<int>(pIf->unit));
            for (const auto &link : pIf->links) {
                debug(BIT_GENERAL, EVENT, "check pbr IfNode:%s, cmp %s \r\n", name(link->pNode).c_str(), name(node.get()).c_str());
                if (link->pNode == node.get()) {
                    updateLink(node.get(), link.get(), changed, failed, pSaved);
                }
            }
        }
        if (failed == 0) {
            node->stateChange = 0;
        }
    }
    return failed == 0;
}

void Model::updateLink(Node *pNode, Link *pLink, uint32_t changed, uint32_t &failed, const Hop *&pSaved) {
    if (changed == 0 && pLink->stateChange == 0) {
        debug(BIT_GENERAL, EVENT, "check change:%d, stateChangeFlag %d \r\n", static_cast<int>(changed), static_cast<int>(pLink->stateChange));
        reached("update: a link without its mark");
        return;
    }
    const bool deleted = pLink->hwStatus == 1 || pLink->hwStatus == 2;
    if (deleted) {
        pSaved = pNode->pBest;
        (void)linkHwDel(pLink);
        for (const auto &hop : pNode->hops) {
            raise(hop->addRef);
            if (pNode->ecmp == 1 && hop->arp == 1) {
                hop->cur = 1;
            }
        }
    }
    if (pNode->ecmp != 1 && pNode->pBest == nullptr && pSaved == nullptr) {
        debug(BIT_GENERAL, EVENT, "no best nhop,do not add hw.\r\n");
        reached("update: no best, entry stays away");
        return;
    }
    debug(BIT_GENERAL, EVENT, "pbr start to add hw.\r\n");
    if (pSaved != nullptr) {
        if (!deleted && pNode->pBest != pSaved) {
            reached("update: best carried from another link");
        }
        pNode->pBest = pSaved;
    }
    if (linkHwAdd(pLink) != 0) {
        pNode->pBest = nullptr;
        failed += 1;
        reached("update: an add failed");
    } else {
        pLink->stateChange = 0;
        reached("update: an entry written");
    }
}

// ---- the main loop ----

void Model::deliver(const std::vector<uint8_t> &read) {
    services_.reads.push_back(read);
}

void Model::pass(uint32_t ms) {
    services_.nowMs += ms;
    if (!services_.reads.empty()) {
        std::vector<uint8_t> read = services_.reads.front();
        services_.reads.erase(services_.reads.begin());
        line("qrv_recvfrom(3, 3840)");
        read.resize(std::min<size_t>(read.size(), 3840));
        if (!read.empty()) {
            receive(read);
        }
    }
    if (timerDueMs_ <= services_.nowMs) {
        update();
        line("silTimerStart(timer1, 1000)");
        timerDueMs_ = services_.nowMs + 1000;
    }
}

} // namespace model
