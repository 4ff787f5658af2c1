// See desired_show.h.
#include "host/device/desired/desired_show.h"

#include <arpa/inet.h>

#include "host/ifnet/ifnet.h"

namespace host {

namespace {

const char *actionText(PbrRedirectKind kind) {
    switch (kind) {
    case PBR_REDIRECT_ABSENT:
        return "absent";
    case PBR_REDIRECT_OUT_IF:
        return "out-interface";
    case PBR_REDIRECT_NEXT_HOPS:
        return "next-hops";
    case PBR_REDIRECT_PRIORITY_ONLY:
        return "priority";
    case PBR_REDIRECT_INERT:
        return "inert";
    }
    return "unknown";
}

} // namespace

std::string ipAddressText(uint8_t version, const IpAddress &address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(version == 2 ? AF_INET6 : AF_INET, address.data(), text, sizeof text);
    return text;
}

nlohmann::json redirectEntryShow(const RedirectEntry &entry, const EntryStatus &status) {
    nlohmann::json nextHops = nlohmann::json::array();
    for (const IpAddress &address : entry.nextHops) {
        nextHops.push_back(ipAddressText(entry.ipVer, address));
    }
    return {{"list", entry.list},
            {"node", entry.nodeIndex},
            {"interface", ifnetName(entry.ifUnit)},
            {"ifUnit", entry.ifUnit},
            {"acl", entry.aclNum},
            {"action", actionText(entry.kind)},
            {"ipVersion", entry.ipVer == 1 ? 4 : entry.ipVer == 2 ? 6 : 0},
            {"ecmp", entry.ecmp},
            {"nextHops", std::move(nextHops)},
            {"outInterface", entry.outIfUnit == 0 ? "" : ifnetName(entry.outIfUnit)},
            {"vrf", entry.vrfid},
            {"priority", entry.newIpPri},
            {"installed", status.installed},
            {"error", status.error}};
}

nlohmann::json desiredStateShow(const DesiredState &state,
                                const std::function<EntryStatus(const RedirectEntry &)> &statusOf) {
    nlohmann::json shown = nlohmann::json::array();
    for (const auto &[name, entries] : state.lists) {
        for (const auto &[key, entry] : entries) {
            shown.push_back(redirectEntryShow(entry, statusOf(entry)));
        }
    }
    return shown;
}

} // namespace host
