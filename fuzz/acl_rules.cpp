// ACL rules: what is accepted, written and parsed again is equal; each is asked about packets, and becomes a
// device record and the kernel's expressions, which agree on its version.
//
//   first line    the ACL's number, then bytes of packets
//   others        a rule each
#include <cstddef>
#include <cstdint>

#include "aclrule/acl_packet.h"
#include "fuzz/fuzz_input.h"
#include "host/acl/acl_dev_entry.h"
#include "host/device/kernel/kernel_match.h"

namespace {

using aclrule::AclRule;

// A packet out of bytes; what need not be told may be missing.
aclrule::AclPacket packetOf(fuzz::Input &input) {
    aclrule::AclPacket packet;
    const uint8_t told = input.u8();
    packet.version = (told & 1) != 0 ? 6 : 4;
    const size_t bytes = packet.version == 6 ? 16 : 4;
    for (aclrule::AclAddress *pAddress : {&packet.source, &packet.destination}) {
        const std::vector<uint8_t> taken = input.bytes(bytes);
        std::copy(taken.begin(), taken.end(), pAddress->begin());
    }
    const uint8_t kind = input.u8();
    if ((told & 2) != 0) {
        packet.protocol = kind;
    }
    if ((told & 4) != 0) {
        packet.sourcePort = input.u16();
        packet.destinationPort = input.u16();
    }
    if ((told & 8) != 0) {
        packet.flags = input.u8();
    }
    if ((told & 16) != 0) {
        packet.icmpType = input.u8();
        packet.icmpCode = input.u8();
    }
    packet.dscp = input.u8() & 63;
    packet.isLaterFragment = (told & 32) != 0;
    if ((told & 64) != 0) {
        packet.length = input.u16();
    }
    if ((told & 128) != 0) {
        packet.sourceMac = aclrule::AclMac{input.u8(), input.u8(), input.u8(), input.u8(), input.u8(), input.u8()};
    }
    return packet;
}

void ruleTry(uint32_t aclNum, const std::string &text, const std::vector<aclrule::AclPacket> &packets) {
    std::string error;
    const std::optional<AclRule> rule = aclrule::aclRuleParse(aclNum, text, &error);
    fuzz::require(rule.has_value() == error.empty(), "neither a rule nor an error, or both: " + error);
    if (!rule) {
        return;
    }
    const std::string written = aclrule::aclRuleFormat(aclNum, *rule);
    const std::optional<AclRule> again = aclrule::aclRuleParse(aclNum, written, &error);
    fuzz::require(again.has_value(), "what was written is refused: " + written + ": " + error);
    fuzz::require(*again == *rule, "what was written is another rule: " + written);
    fuzz::require(aclrule::aclRuleFormat(aclNum, *again) == written, "it is written differently now: " + written);
    const int version = aclrule::aclRuleVersion(aclNum, *rule);
    for (const aclrule::AclPacket &packet : packets) {
        const aclrule::AclMatch match = aclrule::aclRuleMatch(aclNum, *rule, packet);
        fuzz::require((match.answer == aclrule::AclAnswer::Match) == match.why.empty(), "a reason without need, or none");
        fuzz::require(match.answer == aclrule::AclAnswer::Miss || version == 0 || version == packet.version,
                      "a packet of the other version is matched");
    }
    for (const int family : {4, 6}) {
        if (version == 0 || version == family) {
            (void)host::kernelMatchExprs(*rule, family);
        }
    }
    std::vector<uint8_t> record(ACL_DEV_ENTRY_BYTES);
    host::aclDevEntryFill(aclNum, 10, *rule, record.data());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    fuzz::Input input(pData, size);
    const std::string first = input.line();
    const auto aclNum = static_cast<uint32_t>(strtoull(first.c_str(), nullptr, 10));
    if (!aclrule::aclVersion(aclNum)) {
        return 0;
    }
    const size_t digits = std::min(first.find(' '), first.size());
    fuzz::Input packetBytes(reinterpret_cast<const uint8_t *>(first.data()) + digits, first.size() - digits);
    std::vector<aclrule::AclPacket> packets;
    do {
        packets.push_back(packetOf(packetBytes));
    } while (!packetBytes.ended() && packets.size() < 4);
    while (!input.ended()) {
        ruleTry(aclNum, input.line(), packets);
    }
    return 0;
}
