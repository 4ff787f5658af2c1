// What the model expects of the platform: the lines of the trace and the answers.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "tests/model/model.h"
#include "tests/model/model_parts.h"

namespace model {

std::string format(const char *pattern, va_list args) {
    char buffer[2048];
    const int count = vsnprintf(buffer, sizeof(buffer), pattern, args);
    return std::string(buffer, static_cast<size_t>(count));
}

std::string format(const char *pattern, ...) {
    va_list args;
    va_start(args, pattern);
    std::string out = format(pattern, args);
    va_end(args);
    return out;
}

// As the recording platform spells a text: C escapes, in quotes.
std::string quoted(const std::string &bytes) {
    std::string out = "\"";
    for (char c : bytes) {
        switch (c) {
        case '\r': out += "\\r"; break;
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E) {
                out += format("\\x%02x", static_cast<unsigned char>(c));
            } else {
                out += c;
            }
        }
    }
    return out + "\"";
}

std::string hexOf(const std::string &bytes) {
    std::string out;
    for (char c : bytes) {
        out += format("%02x", static_cast<unsigned char>(c));
    }
    return out;
}

void Model::line(const char *pattern, ...) {
    va_list args;
    va_start(args, pattern);
    trace.push_back(format(pattern, args));
    va_end(args);
}

void Model::debug(uint32_t bit, uint32_t module, const char *pattern, ...) {
    if ((debugFlags_ & bit) == 0) {
        return;
    }
    va_list args;
    va_start(args, pattern);
    trace.push_back(format("debug 0x%08X 7 0 ", module) + quoted(format(pattern, args)));
    va_end(args);
}

void Model::log(uint32_t module, uint32_t priority, uint32_t flags, const char *pattern, ...) {
    va_list args;
    va_start(args, pattern);
    trace.push_back(format("log 0x%08X p%u f%u ", module, priority, flags) + quoted(format(pattern, args)));
    va_end(args);
}

// The answer of a call: scripted from now on, or for the nth call, or what the call normally answers.
int64_t Model::ask(const char *call, int64_t normal) {
    int64_t value = normal;
    if (auto always = services_.always.find(call); always != services_.always.end()) {
        value = always->second;
    }
    if (auto armed = services_.nth.find(call); armed != services_.nth.end()) {
        std::map<uint32_t, int64_t> rest;
        for (const auto &[left, scripted] : armed->second) {
            if (left == 1) {
                value = scripted;
                reached((std::string("armed ") + call).c_str());
            } else {
                rest[left - 1] = scripted;
            }
        }
        armed->second = rest;
        if (rest.empty()) {
            services_.nth.erase(armed);
        }
    }
    return value;
}

void Model::arm(const std::string &call, uint32_t nth, int64_t value) {
    services_.nth[call][nth] = value;
}

void Model::answer(const std::string &call, int64_t value) {
    services_.always[call] = value;
}

// Shows a set to the synchronisation service. False: refused, result is what it said.
bool Model::sync(const std::string &key, uint32_t code, uint32_t flags, uint32_t number, uint32_t &result) {
    line("qrvHwilCmdSyncApi(%s, code=0x%08x flags=0x%x len=4 value=%u)", key.c_str(), code, flags, number);
    result = static_cast<uint32_t>(ask("qrvHwilCmdSyncApi", 0));
    return result == 0;
}

bool Model::sync(const std::string &key, uint32_t code, uint32_t flags, const std::string &bytes,
                 uint32_t &result) {
    line("qrvHwilCmdSyncApi(%s, code=0x%08x flags=0x%x len=%u bytes=%s)", key.c_str(), code,
         flags | 0x80000000u, static_cast<unsigned>(bytes.size()), hexOf(bytes).c_str());
    result = static_cast<uint32_t>(ask("qrvHwilCmdSyncApi", 0));
    return result == 0;
}

// ---- the whole state ----

uint32_t Model::place(const Hop *pHop) const {
    for (size_t l = 0; pHop != nullptr && l < lists_.size(); ++l) {
        for (size_t n = 0; n < lists_[l]->nodes.size(); ++n) {
            const auto &hops = lists_[l]->nodes[n]->hops;
            for (size_t h = 0; h < hops.size(); ++h) {
                if (hops[h].get() == pHop) {
                    return placeOf(l, n, h);
                }
            }
        }
    }
    return NO_PLACE;
}

uint32_t Model::place(const Node *pNode) const {
    for (size_t l = 0; l < lists_.size(); ++l) {
        for (size_t n = 0; n < lists_[l]->nodes.size(); ++n) {
            if (lists_[l]->nodes[n].get() == pNode) {
                return placeOf(l, n, 0);
            }
        }
    }
    return NO_PLACE;
}

std::string Model::name(const Hop *pHop) const {
    for (const auto &list : lists_) {
        for (const auto &node : list->nodes) {
            for (const auto &hop : node->hops) {
                if (hop.get() == pHop) {
                    return format("hop(%s,%u,%u)", list->name.c_str(), node->index, hop->index);
                }
            }
        }
    }
    return "(nil)";
}

std::string Model::name(const Node *pNode) const {
    return format("node(%s,%u)", pNode->pList->name.c_str(), pNode->index);
}

namespace {

void writeHop(Sink &sink, const Hop &hop) {
    sink.put("status", hop.status);
    sink.put("address", hop.address.data(), 16);
    sink.put("admin", hop.admin);
    sink.put("test", hop.test);
    sink.put("nexthopArpState", hop.arp);
    sink.put("nexthopHwState", hop.hw);
    sink.put("lastSelected", hop.last);
    sink.put("curSelected", hop.cur);
    sink.put("hwDelRefCnt", hop.delRef);
    sink.put("hwAddRefCnt", hop.addRef);
}

void writeNode(Sink &sink, const Node &node, uint32_t best) {
    sink.put("pPbrNhopBest", best);
    sink.put("status", node.status);
    sink.put("matchValue1", node.match1);
    sink.put("matchValue2", node.match2);
    sink.put("aclNum", node.acl);
    sink.put("forwardFlag", node.forwardFlag);
    sink.put("isEcmp", node.ecmp);
    sink.put("ipPri", node.pri);
    sink.put("policyRouteIpVer", node.ipVer);
    sink.put("nhopArpUp", node.hopUp);
    sink.put("nodeField12", node.field12);
    sink.put("stateChangeFlag", node.stateChange);
    sink.put("vrfid", node.vrf);
    sink.put("outIfUnit", node.outIf);
    sink.put("nodeField7", node.field7);
    sink.put("timeRangeId", node.range);
    sink.put("timeRangeMatched", node.rangeMatched);
}

} // namespace

void Model::write(Sink &sink) const {
    sink.put("lists", static_cast<uint32_t>(lists_.size()));
    for (const auto &list : lists_) {
        if (sink.asText) {
            sink.place = "list " + list->name + ": ";
        }
        sink.put("name", list->name);
        sink.put("status", list->status);
        sink.put("refCnt", list->refCnt);
        for (const Interface *pIf : list->bound) {
            sink.put("bound", pIf->unit);
        }
        sink.put("nodes", static_cast<uint32_t>(list->nodes.size()));
        for (const auto &node : list->nodes) {
            if (sink.asText) {
                sink.place = format("node(%s,%u): ", list->name.c_str(), node->index);
            }
            sink.put("nodeIndex", node->index);
            writeNode(sink, *node, place(node->pBest));
            sink.put("hops", static_cast<uint32_t>(node->hops.size()));
            for (const auto &hop : node->hops) {
                if (sink.asText) {
                    sink.place = format("hop(%s,%u,%u): ", list->name.c_str(), node->index, hop->index);
                }
                sink.put("nextHopIndex", hop->index);
                writeHop(sink, *hop);
            }
        }
    }
    sink.place.clear();
    for (const List *pList : ready_) {
        sink.put("ready", pList->name);
    }
    for (const auto &[unit, pIf] : interfaces_) {
        if (sink.asText) {
            sink.place = format("interface %u: ", unit);
        }
        sink.put("unit", unit);
        sink.put("status", pIf->status);
        sink.put("pbrName", pIf->listName);
        for (const auto &link : pIf->links) {
            sink.put("link to", place(link->pNode));
            sink.put("link unit", link->unit);
            sink.put("hwStatus", link->hwStatus);
            sink.put("link stateChangeFlag", link->stateChange);
            sink.put("emptyAcl", link->emptyAcl);
            sink.put("aclNoAction", link->aclNoAction);
        }
    }
    sink.place.clear();
    for (const auto &probe : probes_) {
        sink.put("probe admin", probe->admin);
        sink.put("probe test", probe->test);
        sink.put("probe status", probe->status);
    }
    sink.put("listCount", static_cast<uint32_t>(lists_.size()));
    sink.put("debugFlags", debugFlags_);
    sink.put("hwAclAddCnt", addCnt_);
    sink.put("hwAclAddErr", addErr_);
    sink.put("hwAclDelCnt", delCnt_);
    sink.put("hwAclDelErr", delErr_);
    sink.put("rcvRtmAclAddCnt", ruleAddCnt_);
    sink.put("rcvRtmAclDelCnt", ruleDelCnt_);
    sink.put("memAllocated", pools_ ? 1 : 0);
    sink.put("slots of lists", slots_.lists);
    sink.put("slots of nodes", slots_.nodes);
    sink.put("slots of next hops", slots_.hops);
    sink.put("slots of interfaces", slots_.interfaces);
    sink.put("slots of links", slots_.links);
    sink.put("slots of probes", slots_.probes);
}

} // namespace model
