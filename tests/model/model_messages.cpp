// Route messages: the walk over one read, and what each type does.
#include "tests/model/model_parts.h"

namespace model {

// What lives for one read and is not reset per message.
struct Model::Reading {
    Address address = {};          // of peers: an IPv4 report keeps the bytes behind its four
    const Node *pFound = nullptr;  // of ACL rules: the node that matched last
    uint32_t count = 0;            // of ACL rules: operations done
};

void Model::receive(const std::vector<uint8_t> &read) {
    std::vector<uint8_t> buffer(read);
    buffer.resize(read.size() + 4096); // what lies behind a message that is shorter than its fields is zero
    Reading reading;
    int32_t left = static_cast<int32_t>(read.size());
    size_t offset = 0;
    while (left >= 24) {
        const uint8_t *p = buffer.data() + offset;
        const uint32_t length = native32(p);
        if (length < 24 || length > static_cast<uint32_t>(left)) {
            reached("read: the rest dropped");
            return;
        }
        if (!message(reading, p, length, native16(p + 4), left - 24)) {
            reached("read: ended by a port reset");
            return;
        }
        const uint32_t step = (length + 3) / 4 * 4;
        left -= static_cast<int32_t>(step);
        offset += step;
    }
}

// False: the rest of the read is dropped.
bool Model::message(Reading &reading, const uint8_t *p, uint32_t length, uint16_t type, int32_t payloadLen) {
    const uint8_t *pPayload = p + 24;
    static const uint16_t handled[] = {32, 34, 97, 108, 248, 250, 251, 305, 306, 307, 324, 349, 350};
    const bool isKnown = std::find(std::begin(handled), std::end(handled), type) != std::end(handled);
    reached(isKnown ? format("message %u", type).c_str() : "message of another type");
    switch (type) {
    case 32: linkMessage(p, length, payloadLen); return true;
    case 34: linkGone(p, payloadLen); return true;
    case 97: cardUp(p, true); return true;
    case 108: cardUp(p, false); return true;
    case 248: aclRemoved(native32(pPayload)); return true;
    case 250: ruleAdded(reading, native32(pPayload), native32(pPayload + 4)); return true;
    case 251: ruleRemoved(reading, native32(pPayload), native32(pPayload + 4)); return true;
    case 305:
    case 306:
    case 307: peerMessage(reading, p, type); return true;
    case 324: return portReset(p);
    case 349: probeMessage(p); return true;
    default: return true;
    }
}

// ---- peers ----

void Model::peerMessage(Reading &reading, const uint8_t *p, uint16_t type) {
    const uint32_t family = p[24 + 16];
    const uint32_t vrf = native32(p + 24 + 20);
    memcpy(reading.address.data(), p + 24, addressBytes(family));
    debug(BIT_GENERAL, EVENT, "pbr receive QRV_RTM_HRD_XXX,nlmsg_type=%u,family=%u,vrId=%u.\r\n", type, family, vrf);
    if (selfLog_ != 0) {
        log(EVENT, PRIORITIES[2], 284, "pbr receive hrd msg.(type=[%u], family=[%u], vrId=[%u], ip=[%s])\r\n", type, family, vrf,
            (family == 1 ? text4(reading.address.data()) : text6(reading.address.data())).c_str());
    }
    if (type == 305) {
        peerUp(family, vrf, reading.address);
    } else if (type == 306) {
        peerDown(family, vrf, reading.address);
    } else {
        peerChange(family, vrf, reading.address);
    }
}

// ---- links and aggregations ----

void Model::linkMessage(const uint8_t *p, uint32_t length, int32_t payloadLen) {
    int32_t left = static_cast<int32_t>(length) - 48;
    if (payloadLen < 24 || left < 0) {
        return;
    }
    const uint32_t ifIndex = native32(p + 28);
    const uint8_t *pAttr = p + 48;
    while (left >= 4 && native16(pAttr) >= 4 && native16(pAttr) <= left) {
        attribute(native16(pAttr + 2), ifIndex, native32(pAttr + 4));
        const int32_t step = (native16(pAttr) + 3) / 4 * 4;
        left -= step;
        pAttr += step;
    }
}

void Model::attribute(uint32_t type, uint32_t ifIndex, uint32_t data) {
    if (type == 52) {
        Interface *pIf = interfaceGet(ifIndex);
        if (pIf == nullptr) {
            return;
        }
        debug(BIT_GENERAL, EVENT, "phy join agg,so pbr unbind on phy(phy=[%s],agg=[%s],pbr=[%s]).\r\n", model::ifName(ifIndex).c_str(),
              model::ifName(data).c_str(), pIf->listName.c_str());
        reached("link: a port joined an aggregation");
        if (unbind(pIf) == 0) {
            interfaceDel(pIf);
        }
    } else if (type == 66) {
        memberMessage(ifIndex, data, true);
    } else if (type == 67) {
        debug(BIT_GENERAL, EVENT, "pbr receive agg %d remove phy %d msg.\r\n", static_cast<int>(ifIndex), static_cast<int>(data));
        memberMessage(ifIndex, data, false);
    }
}

void Model::memberMessage(uint32_t agg, uint32_t port, bool add) {
    Interface *pIf = interfaceGet(agg);
    if (pIf == nullptr) {
        return;
    }
    line("qrvIfGetApi(%u, 47, 0x%08x)", agg, add ? 0x03E80135u : 0x03E80136u);
    const int64_t own = ask("aggAnswer", 0);
    if (ask("qrvIfGetApi", 0) != 0) {
        debug(BIT_GENERAL, EVENT, "agg %d call qrvIfGetApi failed with cmd QRV_IF_HWAPIFUNCDISPATCH.\r\n", static_cast<int>(agg));
        reached("link: the question about a member failed");
        return;
    }
    if ((own & 1) == 0) {
        reached("link: a member needs no entries");
        return;
    }
    for (const auto &link : pIf->links) {
        if (add && link->hwStatus == 1) {
            debug(BIT_GENERAL, EVENT, "agg add phy,so pbr bind on phy(agg=[%s],phy=[%s],pbr=[%s]).\r\n", model::ifName(agg).c_str(),
                  model::ifName(port).c_str(), pIf->listName.c_str());
            (void)memberHw(link.get(), port, true);
        } else if (!add && (link->hwStatus == 1 || link->hwStatus == 2)) {
            debug(BIT_GENERAL, EVENT, "agg remove phy,so pbr unbind on phy(agg=[%s],phy=[%s],pbr=[%s]).\r\n", model::ifName(agg).c_str(),
                  model::ifName(port).c_str(), pIf->listName.c_str());
            reached(link->hwStatus == 2 ? "link: a member of a link that failed" : "link: a member leaves");
            (void)memberHw(link.get(), port, false);
        }
    }
}

void Model::linkGone(const uint8_t *p, int32_t payloadLen) {
    debug(BIT_GENERAL, EVENT, "pbr receive QRV_RTM_DELLINK_FINAL message.\r\n");
    if (payloadLen < 24) {
        reached("link: an interface is gone, too short");
        return;
    }
    Interface *pIf = interfaceGet(native32(p + 28));
    if (pIf == nullptr) {
        return;
    }
    debug(BIT_GENERAL, EVENT, "Interface unregister,so pbr unbind(Interface=[%s],pbr=[%s]).\r\n", model::ifName(pIf->unit).c_str(),
          pIf->listName.c_str());
    reached("link: an interface is gone");
    if (unbind(pIf) == 0) {
        interfaceDel(pIf);
    }
}

bool Model::portReset(const uint8_t *p) {
    debug(BIT_GENERAL, EVENT, "pbr receive QRV_RTM_RESETPORTCONFIG message.\r\n");
    Interface *pIf = interfaceGet(native32(p + 28));
    if (pIf == nullptr) {
        return false;
    }
    debug(BIT_GENERAL, EVENT, "pbr receive QRV_RTM_RESETPORTCONFIG,so pbr unbind(Interface=[%s],pbr=[%s]).\r\n",
          model::ifName(pIf->unit).c_str(), pIf->listName.c_str());
    if (unbind(pIf) != 0) {
        return false;
    }
    reached("link: a port was reset");
    interfaceDel(pIf);
    return true;
}

// ---- ACL rules ----

// A mark that nobody but this step sets.
void Model::waiting(size_t link, uint32_t mark) {
    for (auto &[unit, pIf] : interfaces_) {
        for (const auto &candidate : pIf->links) {
            if (link-- == 0) {
                (mark == 1 ? candidate->emptyAcl : candidate->aclNoAction) = 1;
                return;
            }
        }
    }
}

void Model::ruleAdded(Reading &reading, uint32_t acl, uint32_t rule) {
    ruleAddCnt_ += 1;
    for (const auto &list : lists_) {
        if (list->refCnt == 0) {
            continue;
        }
        for (const auto &node : list->nodes) {
            if (node->acl == acl) {
                reading.pFound = node.get();
                break;
            }
        }
        if (reading.pFound == nullptr) {
            continue;
        }
        debug(BIT_GENERAL, EVENT, "pbr receive QRV_RTM_ACL_ADDACLRULE,listNum=%d,ruleNum=%d,name=%s,nodeIndex=%d.\r\n",
              static_cast<int>(acl), static_cast<int>(rule), list->name.c_str(), static_cast<int>(reading.pFound->index));
        if (reading.pFound->acl != acl) {
            reached("rule: a node of an earlier message");
        }
        for (Interface *pIf : list->bound) {
            for (const auto &link : pIf->links) {
                if (link->pNode == reading.pFound && (link->hwStatus == 1 || link->emptyAcl == 1 || link->aclNoAction == 1)) {
                    ruleAddedOn(reading, list.get(), link.get(), acl, rule);
                    break;
                }
            }
        }
        if (reading.count != 0) {
            return;
        }
    }
}

void Model::ruleAddedOn(Reading &reading, const List *pList, Link *pLink, uint32_t acl, uint32_t rule) {
    Node *pNode = pLink->pNode;
    debug(BIT_GENERAL, EVENT, "pbr receive QRV_RTM_ACL_ADDACLRULE,name=%s,nodeIndex=%d,pPbrNhopBest:%s,emptyAcl:%d,aclNoAction:%d,outIfUnit:%d.\r\n",
          pList->name.c_str(), static_cast<int>(pNode->index), name(pNode->pBest).c_str(), static_cast<int>(pLink->emptyAcl),
          static_cast<int>(pLink->aclNoAction), static_cast<int>(pNode->outIf));
    if (pNode->outIf != 0 || (pNode->pri != PRI_NONE && pNode->hops.empty())) {
        debug(BIT_GENERAL, EVENT, "pbr rule %d start to add hw,name=%s,nodeIndex=%d,emptyAcl:%d,outIfUnit:%d,ipPri:%d.\r\n",
              static_cast<int>(rule), pList->name.c_str(), static_cast<int>(pNode->index), static_cast<int>(pLink->emptyAcl),
              static_cast<int>(pNode->outIf), static_cast<int>(pNode->pri));
        (void)ruleHw(pLink, acl, rule, true);
        if (pLink->emptyAcl == 1) {
            pLink->hwStatus = 1;
            pLink->emptyAcl = 0;
            reached("rule: the first one of an empty ACL");
        } else if (pLink->aclNoAction == 1) {
            pLink->hwStatus = 1;
            pLink->aclNoAction = 0;
        }
        return;
    }
    if (pNode->pBest == nullptr && pNode->ecmp == 0) {
        reached("rule: no best");
        return;
    }
    for (const auto &hop : pNode->hops) {
        if (pNode->ecmp == 0 ? hop->index == pNode->pBest->index : hop->arp == 1) {
            hop->cur = 1;
        }
    }
    (void)ruleHw(pLink, acl, rule, true);
    if (pLink->emptyAcl == 1 || pLink->aclNoAction == 1) {
        for (const auto &hop : pNode->hops) {
            if (hop->addRef == 1 && hop->cur == 1) {
                hop->last = 1;
                hop->cur = 0;
                hop->hw = 1;
                reached("rule: the first one moves the mark");
            }
            lower(hop->addRef);
            raise(hop->delRef);
        }
        pLink->hwStatus = 1;
        pLink->emptyAcl = 0;
        pLink->aclNoAction = 0;
        reached("rule: the first one of a link");
    }
    reading.count += 1;
}

void Model::ruleRemoved(Reading &reading, uint32_t acl, uint32_t rule) {
    ruleDelCnt_ += 1;
    debug(BIT_GENERAL, EVENT, "pbr rcv del acl rule msg,listNum=%d,ruleNum=%d.\r\n", static_cast<int>(acl), static_cast<int>(rule));
    for (const auto &list : lists_) {
        if (list->refCnt == 0) {
            debug(BIT_GENERAL, EVENT, "pbr list %s refCnt is 0.ignore\r\n", list->name.c_str());
            continue;
        }
        for (const auto &node : list->nodes) {
            if (node->acl == acl) {
                reading.pFound = node.get();
                break;
            }
        }
        if (reading.pFound == nullptr) {
            continue;
        }
        debug(BIT_GENERAL, EVENT, "pbr receive QRV_RTM_ACL_DELACLRULE,listNum=%d,ruleNum=%d,name=%s,nodeIndex=%d.\r\n",
              static_cast<int>(acl), static_cast<int>(rule), list->name.c_str(), static_cast<int>(reading.pFound->index));
        for (Interface *pIf : list->bound) {
            for (const auto &link : pIf->links) {
                if (link->pNode == reading.pFound && (link->hwStatus == 1 || link->hwStatus == 2)) {
                    (void)ruleHw(link.get(), acl, rule, false);
                    reading.count += 1;
                    break;
                }
            }
        }
        if (reading.count != 0) {
            return;
        }
    }
}

void Model::aclRemoved(uint32_t acl) {
    for (const auto &list : lists_) {
        for (const auto &node : list->nodes) {
            if (list->refCnt == 0 && node->acl == acl) {
                node->acl = 0;
                reached("an unbound node lost its ACL");
            }
        }
    }
}

// ---- probes ----

void Model::probeMessage(const uint8_t *p) {
    const uint32_t adminLen = p[24 + 64], testLen = p[24 + 65], status = p[24 + 66];
    const char *pAdmin = reinterpret_cast<const char *>(p + 24);
    const char *pTest = reinterpret_cast<const char *>(p + 24 + 32);
    debug(BIT_GENERAL, EVENT, "pbr receive QRV_RTM_NQA,adminName=%.*s,testName=%.*s,status=%d.\r\n",
          static_cast<int>(std::min(adminLen, 32u)), pAdmin, static_cast<int>(std::min(testLen, 32u)), pTest, static_cast<int>(status));
    if (adminLen > 32 || testLen > 32) {
        return; // no record has such names
    }
    const std::string admin(pAdmin, adminLen), test(pTest, testLen);
    Probe *pProbe = probeGet(admin, test);
    if (pProbe == nullptr || pProbe->status == status) {
        return;
    }
    if (status == 3) {
        reached(pProbe->status == 2 ? "probe: 3 for a record that holds 2" : "probe: 3");
    }
    pProbe->status = status == 3 ? 2 : status;
    reached("probe: changed");
    bool matched = false; // stays for the lists behind
    for (const auto &list : lists_) {
        if (list->refCnt == 0) {
            continue;
        }
        const bool before = matched;
        bool own = false;
        for (const auto &node : list->nodes) {
            for (const auto &hop : node->hops) {
                own = own || (hop->admin == admin && hop->test == test);
            }
        }
        matched = matched || own;
        if (matched) {
            reached(before && !own ? "probe: a later list queued too" : "probe: a list queued");
            queue(list.get());
            debug(BIT_GENERAL, EVENT, "nqa status change add to ready table.\r\n");
        }
    }
}

// ---- cards and slots ----

void Model::cardUp(const uint8_t *p, bool card) {
    const uint32_t word[4] = {native32(p), native32(p + 4), native32(p + 8), native32(p + 12)};
    auto n = [&](size_t i) { return static_cast<int>(word[i]); };
    if (card) {
        debug(BIT_GENERAL, EVENT, "pbr receive QRV_RTM_CARD_UP,rtm_type=%d,sysId=%d,slotId=%d,cardId=%d,type=%d.\r\n", n(3), n(0), n(1), n(2), n(3));
    } else {
        debug(BIT_GENERAL, EVENT, "pbr receive QRV_RTM_SLOT_UP,rtm_type=%d,sysId=%d,slotId=%d,type=%d.\r\n", n(2), n(0), n(1), n(2));
    }
    line("qrvSelfSysIndex()");
    if (static_cast<uint32_t>(ask("qrvSelfSysIndex", 1)) != word[0]) {
        reached("card: of another system");
        return;
    }
    int64_t ready;
    if (card) {
        line("qrvHwilCardGet(%u %u %u %u, 0x2ee002a)", word[0], word[1], word[2], word[3]);
        ready = ask("qrvHwilCardGet", 1);
    } else {
        line("qrvHwilSlotGet(%u %u %u, 0x1f4002b)", word[0], word[1], word[2]);
        ready = ask("qrvHwilSlotGet", 1);
    }
    if (ready == 0) {
        reached("card: not ready");
        return;
    }
    line("qrvHwilScalarGet(0, 55)");
    if (ask("qrvHwilScalarGet", 1) == 0) {
        line("qrvHwilScalarGet(0, 46)");
        if (ask("qrvHwilScalarGet", 1) == 0) {
            reached("card: system not ready");
            return;
        }
    }
    for (List *pList : ready_) {
        for (Interface *pIf : pList->bound) {
            for (const auto &link : pIf->links) {
                if (link->hwStatus == 1 || link->hwStatus == 2) {
                    (void)linkHwDel(link.get());
                }
                (void)linkHwAdd(link.get());
                reached("card: an entry rewritten");
            }
        }
    }
}

} // namespace model
