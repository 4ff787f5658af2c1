// The dump of a device rule record before it is sent, whole, as it comes with a rule of an ACL.
#include <sstream>

#include "platform/acl_dev_entry.h"
#include "tests/published/entry_lines.h"
#include "tests/support/golden.h"

namespace published {
namespace {

// Match fields no two of which are equal.
std::vector<uint8_t> translation(uint8_t protoSubType, uint8_t ipVer) {
    std::vector<uint8_t> record(ACL_DEV_ENTRY_BYTES);
    for (uint32_t i = 0; i < ACL_DEV_ENTRY_BYTES; ++i) {
        record[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    record[ACL_DEV_PROTO_SUB_TYPE] = 0;
    record[ACL_DEV_PROTO_SUB_TYPE + 1] = protoSubType;
    record[ACL_DEV_IP_VER] = ipVer;
    return record;
}

Lines dumpLines(const std::string &fileName) {
    Lines lines;
    std::stringstream content(golden::file(fileName));
    for (std::string line; std::getline(content, line);) {
        lines.push_back("debug 0x044B0003 7 0 \"" + line + "\"");
    }
    return lines;
}

// A rule of a node with one next hop and a priority; the words of its record are a matter of other cases.
void dumped(Stage &s, const NodeSpec &spec, const std::string &address, const std::string &fileName) {
    s.list("a");
    s.node("a", 10, spec);
    s.hop("a", 10, 1, address);
    s.bind(7, "a");
    s.read(events::up(address));
    s.tick();
    s.read(events::ruleAdded(spec.acl, 5));
    Lines trace = fake::takeTrace();
    Lines found;
    bool isBeforeCall = true;
    for (const std::string &line : trace) {
        const Row *pRow = rowOfLine(line);
        isBeforeCall = isBeforeCall && line.rfind("qrvIfSetApi", 0) != 0;
        if (pRow != nullptr && pRow->kind == "text" && pRow->number == 8) {
            EXPECT_TRUE(isBeforeCall) << line;
            found.push_back(line);
        }
    }
    EXPECT_EQ(s.shows(8) ? dumpLines(fileName) : Lines{}, found);
}

PUBLISHED(RuleDump, AnIpv4RuleOfIcmpIsDumpedWithTypeAndCode) {
    s.hidden = 0;
    s.start();
    fake::ruleTranslation(translation(1, 9));
    dumped(s, {.acl = 1501, .ipVer = 1, .pri = 3}, "10.0.0.1", "rule_dump_icmp_ipv4.txt");
}

PUBLISHED(RuleDump, AnIpv6RuleOfPortsIsDumpedWithItsOwnHeaderFields) {
    s.hidden = 0;
    s.start();
    fake::ruleTranslation(translation(2, 2));
    dumped(s, {.acl = 3501, .ipVer = 2, .pri = 3}, "2001:db8::1", "rule_dump_ports_ipv6.txt");
}

} // namespace
} // namespace published
