// Binding lists to interfaces, and what is written to the device for links, members and rules.
#include "tests/model/model_parts.h"

namespace model {

// ---- binding ----

int32_t Model::bind(Interface *pIf) {
    List *pList = listGet(pIf->listName);
    if (pList == nullptr) {
        reached("bind: no such list");
        return -1;
    }
    if (validate(pList) != 0) {
        reached("bind: the list may not be bound");
        return -1;
    }
    raise(pList->refCnt);
    reached(pList->refCnt == 0 ? "bind: the 16th" : pList->refCnt == 1 ? "bind: the first" : "bind: a further one");
    for (const auto &node : pList->nodes) {
        line("aclLstSyncApi(%u, 2, 1)", node->acl);
        Link *pLink = linkAdd(pIf, node.get());
        if (pLink == nullptr) {
            reached("bind: stopped half-way");
            return -1;
        }
        bindNode(pList, node.get(), pLink);
    }
    pList->bound.insert(pList->bound.begin(), pIf);
    line("qrvIfSetApi(%u, 56, 206)", pIf->unit);
    if (ask("qrvIfSetApi", 0) != 0) {
        log(0x044B0005, PRIORITIES[5], 0, "The interface enable protocol error.(ifName=[%s], proto=[%s], type=[state])\r\n",
            model::ifName(pIf->unit).c_str(), "policy-route");
    }
    return 0;
}

void Model::bindNode(List *pList, Node *pNode, Link *pLink) {
    if (pNode->hops.empty() || pNode->outIf != 0) {
        (void)linkHwAdd(pLink);
        return;
    }
    for (const auto &hop : pNode->hops) {
        raise(hop->addRef);
    }
    if (pList->refCnt == 1) {
        for (const auto &hop : pNode->hops) {
            detect(pNode->ipVer, pNode->vrf, hop.get());
            copyArpState(pList, pNode->ipVer, pNode->vrf, hop.get());
            if (hop->arp == 1) {
                pNode->hopUp = 1;
            }
        }
    } else if (pList->refCnt >= 2) {
        if (pNode->ecmp == 1) {
            for (const auto &hop : pNode->hops) {
                if (hop->arp == 1) {
                    hop->cur = 1;
                }
            }
            reached("bind: a further one, ECMP");
            (void)linkHwAdd(pLink);
        } else if (pNode->hopUp == 1) {
            debug(BIT_GENERAL, GENERAL, "pbrIfEntryBind find nhop start to add hw.\r\n");
            reached("bind: a further one, a next hop is up");
            (void)linkHwAdd(pLink);
        } else {
            debug(BIT_GENERAL, GENERAL, "pbrIfEntryBind pPbrNode(%s) is not best nhop,wait for hrd notify.\r\n", name(pNode).c_str());
            reached("bind: a further one, waits");
        }
    }
}

uint32_t Model::unbind(Interface *pIf) {
    List *pList = listGet(pIf->listName);
    if (pList == nullptr) {
        reached("unbind: the list has gone");
        return NO_LIST_TO_UNBIND;
    }
    for (const auto &node : pList->nodes) {
        line("aclLstSyncApi(%u, 2, -1)", node->acl);
    }
    lower(pList->refCnt);
    reached(pList->refCnt == 0 ? "unbind: the last" : "unbind: one of several");
    while (!pIf->links.empty()) {
        unbindLink(pList, pIf, pIf->links.front().get());
    }
    unqueue(pList);
    for (const auto &list : lists_) {
        list->bound.erase(std::remove(list->bound.begin(), list->bound.end(), pIf), list->bound.end());
    }
    line("qrvIfSetApi(%u, 57, 206)", pIf->unit);
    if (ask("qrvIfSetApi", 0) != 0) {
        log(0x044B0006, PRIORITIES[6], 0, "The interface disable protocol error.(ifName=[%s], proto=[%s], type=[state])\r\n",
            model::ifName(pIf->unit).c_str(), "policy-route");
    }
    return 0;
}

void Model::unbindLink(const List *pList, Interface *pIf, Link *pLink) {
    Node *pNode = pLink->pNode;
    if (pList->refCnt == 0) {
        for (const auto &hop : pNode->hops) {
            if (!neededElsewhere(pIf, pNode->ipVer, pNode->vrf, hop.get())) {
                unDetect(pNode->ipVer, pNode->vrf, hop.get());
            }
        }
    }
    if (pLink->hwStatus == 1 || pLink->hwStatus == 2) {
        debug(BIT_GENERAL, GENERAL, "pbrIfEntryUnBind start to delete hw,hwStatus:%d.\r\n", static_cast<int>(pLink->hwStatus));
        (void)linkHwDel(pLink);
    } else {
        if (pNode->outIf == 0) {
            for (const auto &hop : pNode->hops) {
                lower(hop->addRef);
                debug(BIT_GENERAL, GENERAL, "pbrIfEntryUnBind start to delete hwAddRefCnt.\r\n");
            }
        }
        if (pList->refCnt == 0) {
            debug(BIT_GENERAL, GENERAL, "pbrIfEntryUnBind pPbrNhopBest:%s.\r\n", name(pNode->pBest).c_str());
            pNode->pBest = nullptr;
        }
    }
    linkDel(pIf, pLink);
}

// ---- the record of a link or a member port ----

struct Model::Record {
    uint32_t unit = 0, acl = 0, action = 0, pri = 0, vrf = 0;
    std::array<uint8_t, 64> area = {};
};

// member: the mark that makes a next hop part of an ECMP set.
Model::Record Model::record(const Node *pNode, uint32_t unit, uint32_t Hop::*member, const char *slotText) {
    Record r;
    r.unit = unit;
    r.acl = pNode->acl;
    r.pri = pNode->pri == PRI_NONE ? 0 : pNode->pri;
    if (pNode->outIf != 0) {
        r.action = 4;
        const uint32_t word = htonl(pNode->outIf);
        memcpy(r.area.data(), &word, 4);
        reached("record: action 4");
        return r;
    }
    r.vrf = pNode->vrf;
    if (pNode->ipVer != 1 && pNode->ipVer != 2) {
        reached("record: no IP version");
        return r;
    }
    const size_t width = addressBytes(pNode->ipVer);
    uint32_t taken = 0;
    for (const auto &hop : pNode->hops) {
        if (pNode->ecmp != 0 && (*hop).*member == 0) {
            continue;
        }
        if ((taken + 1) * width <= r.area.size()) {
            memcpy(r.area.data() + taken * width, hop->address.data(), width);
        }
        if (pNode->ipVer == 1) {
            debug(BIT_HARDWARE, HARDWARE, "%s nextHop%d=0x%x.\r\n", slotText, static_cast<int>(taken), bigEndian(hop->address.data()));
        } else {
            debug(BIT_HARDWARE, HARDWARE, "%s ipv6 nextHop%d=%s\r\n", slotText, static_cast<int>(taken), text6(hop->address.data()).c_str());
        }
        ++taken;
    }
    if (pNode->ecmp != 0) {
        r.action = taken < 2 ? 0 : pNode->ipVer == 1 ? 8 : 50;
    } else {
        r.action = taken != 1 ? 0 : pNode->ipVer == 1 ? 7 : 46;
    }
    reached(format("record: action %u", r.action).c_str());
    return r;
}

int32_t Model::deviceCall(uint32_t unit, uint32_t code, const Record &r) {
    size_t words = r.area.size() / 4;
    while (words != 0 && bigEndian(r.area.data() + 4 * (words - 1)) == 0) {
        --words;
    }
    std::string hops;
    for (size_t i = 0; i < words; ++i) {
        hops += format(i == 0 ? "%08x" : ",%08x", bigEndian(r.area.data() + 4 * i));
    }
    line("aclIfSetApi(%u, %u, if=%u acl=%u dir=0 act=%u pri=%u vrf=%u hops=%s)", unit, code, r.unit, r.acl,
         r.action, r.pri, r.vrf, hops.c_str());
    return static_cast<int32_t>(ask("aclIfSetApi", 0));
}

namespace {

std::string fields(const Node *pNode, const char *lastBlanks) {
    return format("aclNum=%d,ipPri=%d,forwardFlag=%d,outIfUnit=%d,vrfid=%d,isEcmp=%d,policyRouteIpVer%s=%s%d.\r\n",
                  static_cast<int>(pNode->acl), static_cast<int>(pNode->pri), static_cast<int>(pNode->forwardFlag),
                  static_cast<int>(pNode->outIf), static_cast<int>(pNode->vrf), static_cast<int>(pNode->ecmp),
                  lastBlanks, lastBlanks, static_cast<int>(pNode->ipVer));
}

} // namespace

int32_t Model::linkHwAdd(Link *pLink) {
    Node *pNode = pLink->pNode;
    const std::string ifName = model::ifName(pLink->unit);
    debug(BIT_HARDWARE, HARDWARE, "interface %s add policy route node to hardware:%s", ifName.c_str(), fields(pNode, " ").c_str());
    if (pNode->hops.empty()) {
        debug(BIT_HARDWARE, HARDWARE, "nextHop is not exist.\r\n");
    }
    if (pNode->acl == 0) {
        reached("device: no ACL");
        return 0;
    }
    if (pNode->forwardFlag == 2) {
        pLink->hwStatus = 1;
        reached("device: forwardFlag 2");
        return 0;
    }
    reached(format("device: forwardFlag %u", pNode->forwardFlag).c_str());
    debug(BIT_HARDWARE, HARDWARE, "ifUnit %u acl list %d \n\r", pLink->unit, static_cast<int>(pNode->acl));
    const Record r = record(pNode, pLink->unit, &Hop::arp, "pbr if node hardware add");
    debug(BIT_HARDWARE, HARDWARE, "policyroute add hardware acl content if[%s],lstIndex[%d],direction[0],action[%d],newIpPri[%d],vrfId[%u],len[80].\r\n",
          ifName.c_str(), static_cast<int>(r.acl), static_cast<int>(r.action), static_cast<int>(r.pri), r.vrf);
    const int32_t result = deviceCall(pLink->unit, 20, r);
    if (result != 0) {
        pLink->hwStatus = 2;
        addErr_ += 1;
        debug(BIT_HARDWARE, HARDWARE, "pbr if node hardware add fail return:%d.\r\n", result);
        reached("device: add failed");
        return result;
    }
    for (const auto &hop : pNode->hops) {
        if (pNode->ecmp == 0 && hop->arp == 1) {
            hop->last = hop->cur;
            hop->cur = 0;
            hop->hw = 1;
        }
        lower(hop->addRef);
        raise(hop->delRef);
    }
    pLink->hwStatus = 1;
    addCnt_ += 1;
    debug(BIT_HARDWARE, HARDWARE, "pbr if node hardware add success return:%d.\r\n", result);
    reached("device: added");
    return 0;
}

int32_t Model::linkHwDel(Link *pLink) {
    Node *pNode = pLink->pNode;
    const std::string ifName = model::ifName(pLink->unit);
    debug(BIT_HARDWARE, HARDWARE, "interface %s del policy route node to hardware:%s", ifName.c_str(), fields(pNode, " ").c_str());
    log(HARDWARE, PRIORITIES[3], 2, "Interface %s del policy route node to hardware:%s", ifName.c_str(), fields(pNode, "").c_str());
    if (pNode->hops.empty()) {
        debug(BIT_HARDWARE, HARDWARE, "nextHop is not exist.\r\n");
    }
    if (pNode->acl == 0) {
        return 0;
    }
    if (pNode->forwardFlag == 2) {
        pLink->hwStatus = 1; // a mirror of the add
        return 0;
    }
    debug(BIT_HARDWARE, HARDWARE, "ifUnit %u acl list %d \n\r", pLink->unit, static_cast<int>(pNode->acl));
    const Record r = record(pNode, pLink->unit, &Hop::hw, "pbr if node hardware del");
    debug(BIT_HARDWARE, HARDWARE, "policyroute del hardware acl content if[%s],lstIndex[%d],direction[0],action[%d],newIpPri[%d],vrfId[%u],len[80].\r\n",
          ifName.c_str(), static_cast<int>(r.acl), static_cast<int>(r.action), static_cast<int>(r.pri), r.vrf);
    const int32_t result = deviceCall(pLink->unit, 21, r);
    if (result != 0) {
        delErr_ += 1;
        debug(BIT_HARDWARE, HARDWARE, "pbr if node hardware del fail return:%d.\r\n", result);
        reached("device: delete failed");
        return result;
    }
    for (const auto &hop : pNode->hops) {
        if (pNode->ecmp == 0 && hop->last == 1) {
            hop->last = 0;
            hop->hw = 0;
        }
        lower(hop->delRef);
    }
    if (pNode->ecmp == 0) {
        pNode->pBest = nullptr;
    }
    pLink->hwStatus = 0;
    delCnt_ += 1;
    debug(BIT_HARDWARE, HARDWARE, "pbr if node hardware del success return:%d.\r\n", result);
    reached("device: deleted");
    return 0;
}

// The entry of an aggregation's member; nothing of the aggregation's own state changes but one oddity.
int32_t Model::memberHw(Link *pLink, uint32_t port, bool add) {
    Node *pNode = pLink->pNode;
    const std::string portName = model::ifName(port);
    const std::string header = format("physical interface %s %s agg interface %s,%s policy route node to hardware:", portName.c_str(),
                                      add ? "join" : "quit", model::ifName(pLink->unit).c_str(), add ? "add" : "del") +
                               fields(pNode, " ");
    debug(BIT_HARDWARE, HARDWARE, "%s", header.c_str());
    if (!add) {
        log(HARDWARE, PRIORITIES[3], 2, "%s", header.c_str());
    }
    if (pNode->hops.empty()) {
        debug(BIT_HARDWARE, HARDWARE, "nextHop is not exist.\r\n");
        log(HARDWARE, PRIORITIES[3], 3, "nextHop is not exist.\r\n");
    }
    if (pNode->acl == 0) {
        return 0;
    }
    if (pNode->forwardFlag == 2) {
        pLink->hwStatus = 1;
        return 0;
    }
    debug(BIT_HARDWARE, HARDWARE, "ifUnit %u acl list %d \n\r", port, static_cast<int>(pNode->acl));
    const Record r = record(pNode, port, add ? &Hop::last : &Hop::hw,
                            add ? "pbr agg if node hardware add" : "pbr agg if node hardware del");
    debug(BIT_HARDWARE, HARDWARE, "policyroute %s hardware acl content if[%s],lstIndex[%d],direction[0],action[%d],newIpPri[%d],vrfId[%u].\r\n",
          add ? "add" : "del", portName.c_str(), static_cast<int>(r.acl), static_cast<int>(r.action), static_cast<int>(r.pri), r.vrf);
    const int32_t result = deviceCall(port, add ? 20 : 21, r);
    debug(BIT_HARDWARE, HARDWARE, "pbr agg if node hardware %s %s return:%d.\r\n", add ? "add" : "del",
          result == 0 ? "success" : "fail", result);
    reached(add ? "device: member added" : "device: member deleted");
    return result;
}

// ---- the record of one ACL rule ----

namespace {

void setBit(std::vector<uint8_t> &entry, size_t base, uint32_t bit) {
    entry[base + bit / 8] |= static_cast<uint8_t>(0x80 >> (bit % 8));
}
void clearBit(std::vector<uint8_t> &entry, size_t base, uint32_t bit) {
    entry[base + bit / 8] &= static_cast<uint8_t>(~(0x80 >> (bit % 8)));
}
void put32(std::vector<uint8_t> &entry, size_t offset, uint32_t value) {
    const uint32_t word = htonl(value);
    memcpy(&entry[offset], &word, 4);
}
void put16(std::vector<uint8_t> &entry, size_t offset, uint32_t value) {
    entry[offset] = static_cast<uint8_t>(value >> 8);
    entry[offset + 1] = static_cast<uint8_t>(value);
}

} // namespace

void Model::ruleHop(const char *what, bool doubled, uint32_t count, uint32_t word) {
    const std::string line = format("pbr acl rule hardware %s%s nextHop%d=0x%x.\r\n", what,
                                    doubled ? " hardware add" : "", static_cast<int>(count), word);
    debug(BIT_HARDWARE, HARDWARE, "%s", line.c_str());
    log(HARDWARE, PRIORITIES[3], 3, "%s", line.c_str());
}

void Model::ruleHop6(const char *what, uint32_t count, const Address &address) {
    const std::string line = format("pbr acl rule hardware %s ipv6 nextHop%d=%s\r\n", what, static_cast<int>(count), text6(address.data()).c_str());
    debug(BIT_HARDWARE, HARDWARE, "%s", line.c_str());
    log(HARDWARE, PRIORITIES[3], 3, "%s", line.c_str());
}

// Fills the action. False: an add that has nothing to redirect to.
bool Model::ruleActions(std::vector<uint8_t> &entry, const Node *pNode, bool add) {
    if (pNode->pri != PRI_NONE) {
        setBit(entry, 224, 15);
        put32(entry, 232, pNode->pri);
        if (pNode->hops.empty() && pNode->outIf == 0 && pNode->vrf == 0) {
            reached("rule: priority only");
            return true;
        }
    }
    if (pNode->outIf != 0) {
        setBit(entry, 224, 4);
        put32(entry, 276, pNode->outIf);
        reached("rule: out of an interface");
        return true;
    }
    if (pNode->vrf != 0) {
        setBit(entry, 224, 41);
        put32(entry, 316, pNode->vrf);
    }
    uint32_t taken = 0;
    const char *what = add ? "add" : "del";
    if (pNode->ipVer == 1) {
        setBit(entry, 224, 7);
        entry[72] = 1;
        for (const auto &hop : pNode->hops) {
            if ((add ? hop->cur : hop->last) == 0) {
                continue;
            }
            ++taken;
            size_t slot = 0;
            if (pNode->ecmp != 0) {
                while (slot < 4 && bigEndian(&entry[276 + 4 * slot]) != 0) {
                    ++slot;
                }
            }
            if (slot < 4) { // a fifth one finds no room and is still told
                memcpy(&entry[276 + 4 * slot], hop->address.data(), 4);
            }
            ruleHop(what, add && slot != 0, taken, bigEndian(hop->address.data()));
        }
        reached(pNode->ecmp != 0 ? "rule: IPv4 set" : "rule: IPv4");
    } else if (pNode->ipVer == 2) {
        setBit(entry, 224, pNode->ecmp != 0 ? 50 : 46);
        for (const auto &hop : pNode->hops) {
            if ((add ? hop->cur : hop->last) == 0) {
                continue;
            }
            ++taken;
            size_t slot = 0;
            if (pNode->ecmp != 0 && add) {
                slot = taken == 1 ? 0 : 1; // the later ones all land in slot 1
            } else if (pNode->ecmp != 0) {
                while (slot < 4 && bigEndian(&entry[324 + 16 * slot]) != 0) {
                    ++slot;
                }
            }
            if (slot < 4) {
                memcpy(&entry[324 + 16 * slot], hop->address.data(), 16);
            }
            ruleHop6(what, taken, hop->address);
        }
        reached(pNode->ecmp != 0 ? "rule: IPv6 set" : "rule: IPv6");
    }
    return taken != 0 || !add;
}

int32_t Model::ruleHw(Link *pLink, uint32_t acl, uint32_t rule, bool add) {
    const Node *pNode = pLink->pNode;
    const std::string header = format("Acl %d %s rule %d,interface %s %s policy route node to hardware:", static_cast<int>(acl),
                                      add ? "add" : "delete", static_cast<int>(rule), model::ifName(pLink->unit).c_str(), add ? "add" : "del");
    debug(BIT_HARDWARE, HARDWARE, "%s%s", header.c_str(), fields(pNode, " ").c_str());
    log(HARDWARE, PRIORITIES[3], 2, "%s%s", header.c_str(), fields(pNode, "").c_str());
    if (pNode->hops.empty()) {
        debug(BIT_HARDWARE, HARDWARE, "nextHop is not exist.\r\n");
        log(HARDWARE, PRIORITIES[3], 3, "nextHop is not exist.\r\n");
    }
    if (pNode->forwardFlag == 2) {
        if (add) {
            pLink->hwStatus = 1;
        }
        reached("rule: forwardFlag 2");
        return 0;
    }
    std::vector<uint8_t> entry(508);
    if (add) {
        entry = services_.translation;
        put32(entry, 476, acl);
        put32(entry, 480, rule);
        put16(entry, 484, rule);
        line("aclRuleDevTrans(%u, %u)", acl, rule);
        memset(&entry[224], 0, 8);
        memset(&entry[232], 0, 408 - 232);
        memset(&entry[408], 0, 2);
        memset(&entry[412], 0, 436 - 412);
        for (uint32_t bit : {41, 42, 43}) {
            clearBit(entry, 212, bit);
        }
    } else {
        put32(entry, 476, acl);
        put32(entry, 480, rule);
        put16(entry, 484, rule);
        entry[72] = static_cast<uint8_t>(pNode->ipVer == 1 || pNode->ipVer == 2 ? pNode->ipVer : 0);
    }
    entry[71] = 2;
    if (!ruleActions(entry, pNode, add)) {
        debug(BIT_HARDWARE, HARDWARE, "pbr acl rule hardware add none nexthop.\r\n");
        reached("rule: nothing to redirect to");
        return 0;
    }
    entry[467] = 0;
    dump(entry);
    std::string words;
    for (size_t offset = 0; offset < entry.size(); offset += 4) {
        if (bigEndian(&entry[offset]) != 0) {
            words += format(" %zu:%08x", offset, bigEndian(&entry[offset]));
        }
    }
    line("qrvIfSetApi(%u, 44, type=0x%08x%s)", pLink->unit, add ? 0x03E80135u : 0x03E80136u, words.c_str());
    const int32_t result = static_cast<int32_t>(ask("qrvIfSetApi", 0));
    if (pNode->pri != PRI_NONE || pNode->outIf != 0 || pNode->vrf != 0) {
        log(HARDWARE, PRIORITIES[3], 3, "pbr acl rule hardware add ipPri=%d,outIfUnit=%d,vrfid=%d.\r\n",
            static_cast<int>(pNode->pri), static_cast<int>(pNode->outIf), static_cast<int>(pNode->vrf));
    }
    (add ? (result == 0 ? addCnt_ : addErr_) : (result == 0 ? delCnt_ : delErr_)) += 1;
    debug(BIT_HARDWARE, HARDWARE, "pbr acl rule hardware %s return:%d.\r\n", add ? "add" : "del", result);
    log(HARDWARE, PRIORITIES[3], 1, "pbr acl rule hardware %s return:%d.\r\n", add ? "add" : "del", result);
    reached(add ? "rule: added" : "rule: removed");
    return result;
}

// ---- the report of a rule's record ----

void Model::dump(const std::vector<uint8_t> &entry) {
    if ((debugFlags_ & BIT_DUMP) == 0) {
        return;
    }
    reached("rule: dumped");
    const uint8_t *e = entry.data();
    auto u16 = [&](size_t offset) { return e[offset] << 8 | e[offset + 1]; };
    auto u32 = [&](size_t offset) { return static_cast<int>(bigEndian(e + offset)); };
    auto say = [&](const std::string &text) { debug(BIT_DUMP, HARDWARE, "%s", text.c_str()); };
    auto bytes = [&](size_t offset, size_t count, size_t group, const char *between) {
        std::string out;
        for (size_t i = 0; i < count; ++i) {
            out += format("%02x", e[offset + i]);
            if ((i + 1) % group == 0 && i + 1 != count) {
                out += between;
            }
        }
        return out;
    };
    auto address = [&](size_t offset) {
        return format("%08x:%08x:%08x:%08x", bigEndian(e + offset), bigEndian(e + offset + 4), bigEndian(e + offset + 8), bigEndian(e + offset + 12));
    };
    auto action = [&] { say(format("action=%x %x %x %x %x \r\n", e[224], e[225], e[226], e[227], e[228])); };
    auto meter = [&] { say(format("cir = %d ,pir = %d,cbs = %d,ebs = %d,pbs = %d \n\r", u32(440), u32(444), u32(448), u32(452), u32(456))); };
    auto app = [&] { say(format("app=%d \n\r", u16(184))); };
    const bool layer34 = (e[71] & 2) != 0;
    const bool icmp = u16(2) == 1;
    say("policyroute hardware dev content\n\r");
    say("---------------------------------------\n\r");
    say(format("lstIdx=%d ruleIdx=%d\n\r", u32(476), u32(480)));
    say(format("dir=%d,counterShared = %d,meterShared = %d,priority=%d \n\r", e[467], e[436], e[439], u16(484)));
    say(format("aggIfIndex=%d(Only useful for phy quit agg)\n\r", u32(488)));
    action();
    std::string bits;
    for (size_t i = 0; i < 12; ++i) {
        bits += format(i == 0 ? "acl_dev->bits = %02x " : "%02x ", e[212 + i]);
        if (i % 8 == 7 || i == 11) {
            say(bits + "\n\r");
            bits.clear();
        }
    }
    say(format("protoType=%x \n\r", u16(0)));
    say(format("protoSubType=%d \n\r", u16(2)));
    say(format("encapType=%d \n\r", e[70]));
    say(format("layerType=%d \n\r", e[71]));
    say(format("ipVer=%d \n\r", e[72]));
    meter();
    say(format("srcAddr=%s srcPrefix=%d \n\r", address(4).c_str(), e[68]));
    say("srcStrPrefix = " + bytes(36, 16, 2, ":") + "\n\r");
    say(format("destAddr=%s destPrefix=%d\n\r", address(20).c_str(), e[69]));
    say("destStrPrefix = " + bytes(52, 16, 2, ":") + "\n\r");
    say(format("tcpFsm=%d \n\r", e[73]));
    say(format(icmp ? "icmp type=%d \n\r" : "srcPort=%d \n\r", u16(74)));
    if (layer34) {
        say(format("srcEndPort=%d \n\r", u16(76)));
    }
    say(format(icmp ? "icmp code=%d \n\r" : "destPort=%d \n\r", u16(78)));
    if (layer34) {
        say(format("destEndPort=%d \n\r", u16(80)));
        if (e[72] == 1) {
            say(format("tosDscp=%d \n\r", e[83]));
            say(format("ipOptions=%d \n\r", e[84]));
            say(format("ipFrag=%d \n\r", e[85]));
            say(format("ipTtl=%d \n\r", e[82]));
        } else {
            say(format("trafficClass=%d \n\r", e[83]));
            say(format("hopLimit=%d \n\r", e[82]));
            say(format("nextHeader=%d \n\r", e[92]));
            say(format("flowLabel=%d \n\r", u32(88)));
        }
    }
    say(format("userDataNum=%d \n\r", e[94]));
    say(format("operators=%d \n\r", e[95]));
    say("srcMac=" + bytes(144, 6, 1, ":") + format("  srcMacPrefix=%d \n\r", e[150]));
    say("srcMacStrPrefix=" + bytes(162, 6, 1, ":") + " \n\r");
    say("destMac=" + bytes(151, 6, 1, ":") + format("  dstMacPrefix=%d \n\r", e[157]));
    say("dstMacStrPrefix=" + bytes(168, 6, 1, ":") + " \n\r");
    say(format("dtag=%d innerDot1p=%d outerDot1p=%d \n\r", e[158], e[159], e[160]));
    say(format("outerVid=%d outerEndVid = %d,innerVid=%d,innerEndVid = %d \n\r", u16(174), u16(176), u16(178), u16(180)));
    say(format("ethType=%d \n\r", u16(182)));
    app();
    say(format("statusBit=%d \n\r", u16(186)));
    say(format("statusBitMask=%d \n\r", u16(188)));
    say(format("counterType = %d,counterColor = %d \n\r", e[437], e[438]));
    say(format("meterType = %d ,meterMode= %d \n\r", e[460], e[461]));
    meter();
    app();
    action();
    say(format("outAction=%x %x \r\n", e[408], e[409]));
    say(format("priority=%d \r\n", u16(484)));
    say(format("statusBit=%d statusBitMask=%d \n\r", u16(186), u16(188)));
    say("-------------------end--------------------\n\r");
}

} // namespace model
