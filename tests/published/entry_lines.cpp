// The lines that one device operation leaves: see the header.
#include "tests/published/entry_lines.h"

#include "tests/fake/fake_state.h"

namespace published {
namespace {

uint32_t wordOf(const std::string &bytes, size_t at) {
    uint32_t word = 0;
    for (size_t i = 0; i < 4; ++i) {
        word = word << 8 | static_cast<uint8_t>(bytes[at + i]);
    }
    return word;
}

// "0xa000001" or the address.
std::string hopText(const std::string &address) {
    const std::string bytes = api_test::address(address);
    return bytes.size() == 4 ? fake::text("0x%x", wordOf(bytes, 0)) : address;
}

// "... nextHop0=0xa000001." or "... ipv6 nextHop0=2001:db8::1".
std::string hopLine(const std::string &head, uint32_t number, const std::string &address) {
    const bool isIpv4 = address.find(':') == std::string::npos;
    return head + (isIpv4 ? " nextHop" : " ipv6 nextHop") + std::to_string(number) + "=" + hopText(address) +
           (isIpv4 ? "." : "");
}

// The words of the area of the redirect record.
std::string areaText(const Entry &entry) {
    std::string bytes;
    for (const std::string &address : entry.hops) {
        bytes += api_test::address(address);
    }
    std::string out = entry.outIf != 0 ? fake::text("%08x", entry.outIf) : "";
    for (size_t at = 0; at < bytes.size(); at += 4) {
        out += fake::text(at == 0 ? "%08x" : ",%08x", wordOf(bytes, at));
    }
    return out;
}

// From the record's target to the call, the same for links and members.
Lines recordLines(const std::string &head, const std::string &verb, uint32_t unit, const Entry &entry,
                  const std::string &contentEnd) {
    Lines lines = {hardwareRaw(fake::text("ifUnit %u acl list %u \n\r", unit, entry.acl))};
    uint32_t slot = 0;
    for (const std::string &address : entry.hops) {
        lines.push_back(hardware(hopLine(head, slot++, address)));
    }
    const uint32_t pri = entry.pri == 9 ? 0 : entry.pri;
    const uint32_t vrf = entry.outIf != 0 ? 0 : entry.vrf;
    lines.push_back(hardware(fake::text("policyroute %s hardware acl content if[if%u],lstIndex[%u],direction[0],"
                                        "action[%u],newIpPri[%u],vrfId[%u]%s",
                                        verb.c_str(), unit, entry.acl, entry.action, pri, vrf, contentEnd.c_str())));
    lines.push_back(fake::text("aclIfSetApi(%u, %u, if=%u acl=%u dir=0 act=%u pri=%u vrf=%u hops=", unit,
                               verb == "add" ? 20 : 21, unit, entry.acl, entry.action, pri, vrf) +
                    areaText(entry) + ")");
    lines.push_back(hardware(head + (entry.result == 0 ? " success" : " fail") + " return:" +
                             std::to_string(entry.result) + "."));
    return lines;
}

bool isPassedOver(const Entry &entry) { return entry.acl == 0 || entry.forwardFlag == 2; }

} // namespace

std::string settingsText(const Entry &entry, const std::string &equals) {
    return fake::text("aclNum=%u,ipPri=%u,forwardFlag=%u,outIfUnit=%u,vrfid=%u,isEcmp=%u,policyRouteIpVer%s%u.",
                      entry.acl, entry.pri, entry.forwardFlag, entry.outIf, entry.vrf, entry.ecmp, equals.c_str(),
                      entry.ver);
}

Lines linkLines(const std::string &verb, uint32_t unit, const Entry &entry) {
    const std::string name = "nterface if" + std::to_string(unit) + " " + verb + " policy route node to hardware:";
    Lines lines = {hardware("i" + name + settingsText(entry, " = "))};
    if (verb == "del") {
        lines.push_back(hardwareLog(2, "I" + name + settingsText(entry, "=")));
    }
    if (entry.isEmpty) {
        lines.push_back(hardware("nextHop is not exist."));
    }
    const std::string end = ",len[80].";
    return isPassedOver(entry) ? lines : lines + recordLines("pbr if node hardware " + verb, verb, unit, entry, end);
}

Lines memberLines(const std::string &verb, uint32_t port, uint32_t aggregation, const Entry &entry) {
    const bool isAdd = verb == "add";
    const std::string header = "physical interface if" + std::to_string(port) + (isAdd ? " join" : " quit") +
                               " agg interface if" + std::to_string(aggregation) + "," + verb +
                               " policy route node to hardware:" + settingsText(entry, " = ");
    Lines lines = isAdd ? Lines{hardware(header)} : both(2, header);
    if (entry.isEmpty) {
        lines = lines + both(3, "nextHop is not exist.");
    }
    const std::string head = "pbr agg if node hardware " + verb;
    return isPassedOver(entry) ? lines : lines + recordLines(head, verb, port, entry, ".");
}

Lines ruleLines(const std::string &verb, uint32_t unit, const Entry &entry, const std::string &words) {
    const bool isAdd = verb == "add";
    const std::string header = fake::text("Acl %u %s rule 5,interface if%u %s policy route node to hardware:",
                                          entry.acl, isAdd ? "add" : "delete", unit, verb.c_str());
    const std::string head = "pbr acl rule hardware " + verb;
    Lines lines = {hardware(header + settingsText(entry, " = ")), hardwareLog(2, header + settingsText(entry, "="))};
    if (entry.isEmpty) {
        lines = lines + both(3, "nextHop is not exist.");
    }
    if (entry.forwardFlag == 2) {
        return lines;
    }
    if (isAdd) {
        lines.push_back(fake::text("aclRuleDevTrans(%u, 5)", entry.acl));
    }
    uint32_t count = 0;
    for (const std::string &address : entry.hops) {
        const bool isDoubled = isAdd && entry.ecmp != 0 && count != 0 && entry.ver == 1;
        lines = lines + both(3, hopLine(head + (isDoubled ? " hardware add" : ""), ++count, address));
    }
    if (words.empty()) {
        return lines + Lines{hardware("pbr acl rule hardware add none nexthop.")};
    }
    lines.push_back(fake::text("qrvIfSetApi(%u, 44, type=0x03e8013%c ", unit, isAdd ? '5' : '6') + words + ")");
    if (entry.pri != 9 || entry.outIf != 0 || entry.vrf != 0) {
        const char form[] = "pbr acl rule hardware add ipPri=%u,outIfUnit=%u,vrfid=%u."; // of a removal too
        lines.push_back(hardwareLog(3, fake::text(form, entry.pri, entry.outIf, entry.vrf)));
    }
    return lines + both(1, head + " return:" + std::to_string(entry.result) + ".");
}

Lines updateLines(const std::string &list, uint32_t node, const std::string &select, const std::string &changed) {
    Lines lines = {"", hardware("pbrIfNodeUpdate check ready table,pbr list name:" + list + "."),
                   hardware("pbrIfNodeUpdate check ready table,pbr node index:" + std::to_string(node) + ".")};
    if (!select.empty()) {
        lines.push_back(hardware(select));
    }
    if (!changed.empty()) {
        lines.push_back(event("pbr start to update pbrnode," + changed + "."));
    }
    return lines;
}

Lines updateLink(uint32_t unit, const PbrNodeEntry *pNode) {
    return {event("check pbr if entry ifUnit:" + std::to_string(unit)),
            event("check pbr IfNode:" + pointerText(pNode) + ", cmp " + pointerText(pNode) + " ")};
}

} // namespace published
