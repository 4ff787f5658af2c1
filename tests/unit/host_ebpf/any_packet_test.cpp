// The program decides as the rules do one by one, or leaves the packet alone: random policies and packets, compiled and run
// by the kernel itself.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <bpf/bpf.h>
#include <linux/bpf.h>

#include <cstring>
#include <map>

#include "host/device/ebpf/ebpf_program.h"
#include "tests/unit/host_classify/any_policy.h"
#include "tests/unit/host_classify/linear.h"

namespace ebpf_test {
namespace {

using namespace host;
using classify_test::Dice;
using classify_test::Way;

constexpr uint32_t POLICIES = 1200, PACKETS = 60;
constexpr uint32_t MASK = 0xfff00000, SHIFT = 20, LOOPBACK = 1;
constexpr int64_t GO_ON = -1; // TC_ACT_UNSPEC
constexpr size_t ETHERNET_BYTES = 14;

void wordPut(std::vector<uint8_t> &bytes, size_t at, uint32_t value) {
    bytes[at] = static_cast<uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<uint8_t>(value);
}

void sumPut(std::vector<uint8_t> &bytes, size_t at) { // of an IPv4 header
    uint32_t sum = 0;
    for (size_t i = 0; i < 20; i += 2) {
        sum += static_cast<uint32_t>(bytes[at + i] << 8 | bytes[at + i + 1]);
    }
    sum = (sum & 0xffff) + (sum >> 16);
    wordPut(bytes, at + 10, ~((sum & 0xffff) + (sum >> 16)));
}

// The frame of a packet. Later fragments say so, and have no header of the protocol.
std::vector<uint8_t> frameOf(const aclrule::AclPacket &packet) {
    const bool is6 = packet.version == 6;
    std::vector<uint8_t> frame(ETHERNET_BYTES + *packet.length);
    memcpy(&frame[6], packet.sourceMac->data(), 6);
    wordPut(frame, 12, is6 ? 0x86dd : 0x0800);
    const size_t ip = ETHERNET_BYTES, upper = ip + (is6 ? 40 : 20);
    const uint32_t traffic = static_cast<uint32_t>(packet.dscp) << 2;
    if (is6) {
        wordPut(frame, ip, 0x6000 | traffic << 4);
        wordPut(frame, ip + 4, *packet.length - 40);
        frame[ip + 6] = packet.isLaterFragment ? uint8_t{IPPROTO_FRAGMENT} : *packet.protocol;
        frame[ip + 7] = 64;
        memcpy(&frame[ip + 8], packet.source.data(), 16);
        memcpy(&frame[ip + 24], packet.destination.data(), 16);
    } else {
        frame[ip] = 0x45;
        frame[ip + 1] = static_cast<uint8_t>(traffic);
        wordPut(frame, ip + 2, *packet.length);
        wordPut(frame, ip + 6, packet.isLaterFragment ? 100 : 0);
        frame[ip + 8] = 64;
        frame[ip + 9] = *packet.protocol;
        memcpy(&frame[ip + 12], packet.source.data(), 4);
        memcpy(&frame[ip + 16], packet.destination.data(), 4);
        sumPut(frame, ip);
    }
    if (packet.sourcePort) {
        wordPut(frame, upper, *packet.sourcePort);
        wordPut(frame, upper + 2, *packet.destinationPort);
    }
    if (packet.flags) {
        frame[upper + 13] = *packet.flags;
    }
    if (packet.icmpType) {
        frame[upper] = *packet.icmpType;
        frame[upper + 1] = *packet.icmpCode;
    }
    return frame;
}

struct Outcome {
    int64_t verdict = 0;
    uint32_t mark = 0;
    std::vector<uint8_t> frame;
};

Outcome runOf(const EbpfProgram &program, const std::vector<uint8_t> &frame, uint32_t mark = 0) {
    Outcome outcome;
    outcome.frame.resize(frame.size() + 64);
    __sk_buff before = {}, after = {};
    before.mark = mark;
    bpf_test_run_opts how = {};
    how.sz = sizeof how;
    how.data_in = frame.data();
    how.data_size_in = static_cast<uint32_t>(frame.size());
    how.data_out = outcome.frame.data();
    how.data_size_out = static_cast<uint32_t>(outcome.frame.size());
    how.ctx_in = &before;
    how.ctx_size_in = sizeof before;
    how.ctx_out = &after;
    how.ctx_size_out = sizeof after;
    EXPECT_EQ(bpf_prog_test_run_opts(program.fd(), &how), 0) << strerror(errno);
    outcome.verdict = static_cast<int32_t>(how.retval);
    outcome.mark = after.mark;
    outcome.frame.resize(how.data_size_out);
    return outcome;
}

class AnyPacket : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        const std::string error = program_.load({MASK, SHIFT, 1000000});
        if (error.find("not permitted") != std::string::npos) {
            GTEST_SKIP() << error;
        }
        ASSERT_EQ(error, "");
    }

    // A decision a node: its place + 1. Nothing is sent on.
    EbpfImage install(const std::vector<ClassRule> &rules, int family, uint32_t generation) {
        std::vector<EbpfRule> given;
        for (uint32_t i = 0; i < rules.size(); i++) {
            const uint32_t node = rules[i].node / 10;
            given.push_back({rules[i].rule, node, i, node});
            EXPECT_EQ(program_.nodePut(node, {node + 1, EBPF_NODE_KNOWN, 0}), "");
            program_.countClear(i);
        }
        EbpfImage image = ebpfImage(given, family);
        image.policy.generation = generation;
        EXPECT_EQ(program_.entriesPut(family, generation, image.entries), "");
        EXPECT_EQ(program_.policyPut(LOOPBACK, family, image.policy), "");
        return image;
    }

    // Permits all, and gives a packet from 10.0.0.0 to 32.0.0.0 or a00:: to 2000::.
    aclrule::AclPacket permittedOf(int family) {
        aclrule::AclRule all;
        all.version = static_cast<uint8_t>(family);
        install({{0, all}}, family, 1);
        aclrule::AclPacket packet;
        packet.version = family;
        packet.source[0] = 10;
        packet.destination[0] = 32;
        return packet;
    }

    EbpfProgram program_;
};

// What the rules say, of which the program has only the first ones and passes so many deny rules.
Way expectedWay(const std::vector<ClassRule> &rules, const aclrule::AclPacket &packet, size_t taken) {
    Way way = classify_test::linearWay(rules, packet);
    if (!way.isDecided || packet.isLaterFragment || way.rules.back() >= taken || way.rules.size() > EBPF_PASSES + 1) {
        way = {};
    }
    return way;
}

TEST_P(AnyPacket, IsDecidedAsByTheRulesOneByOneOrLeftAlone) {
    const int family = GetParam();
    size_t decided = 0, denied = 0, cut = 0, ranged = 0;
    for (uint32_t seed = 0; seed < POLICIES && !HasFailure(); seed++) {
        Dice dice(seed, family);
        const std::vector<ClassRule> rules = dice.policy();
        const EbpfImage image = install(rules, family, seed + 1);
        cut += image.taken < rules.size() ? 1 : 0;
        std::map<uint32_t, uint64_t> counts;
        for (uint32_t i = 0; i < PACKETS && !HasFailure(); i++) {
            aclrule::AclPacket packet = dice.packet(rules);
            packet.isEthernet = true;
            const Way way = expectedWay(rules, packet, image.taken);
            const std::vector<uint8_t> frame = frameOf(packet);
            const Outcome outcome = runOf(program_, frame);
            const uint32_t mark = way.isDecided ? (rules[way.rules.back()].node / 10 + 1) << SHIFT : 0;
            EXPECT_EQ(outcome.mark, mark) << "seed " << seed << "\n" << classify_test::rulesText(rules)
                                          << classify_test::packetText(packet) << image.taken << " rules taken";
            EXPECT_EQ(outcome.verdict, GO_ON);
            EXPECT_EQ(outcome.frame, frame);
            for (const uint32_t rule : way.rules) {
                counts[rule]++;
            }
            decided += way.isDecided ? 1 : 0;
            denied += way.rules.size() > 1 ? 1 : 0;
        }
        for (uint32_t i = 0; i < rules.size(); i++) {
            EXPECT_EQ(program_.count(i).packets, counts[i]) << "seed " << seed << " rule " << i;
        }
        std::vector<EbpfKey> keys;
        for (const auto &[key, entry] : image.entries) {
            keys.push_back(key);
            ranged += entry.hits[0].isRanged;
        }
        program_.entriesRemove(family, seed + 1, keys);
    }
    EXPECT_GT(decided, 3000u);
    EXPECT_GT(denied, 300u);
    EXPECT_GT(cut, 5u);
    EXPECT_GT(ranged, 100u);
}

TEST_P(AnyPacket, OfWhichTheHeaderIsDamagedOrUnusualIsLeftAlone) {
    const int family = GetParam();
    aclrule::AclPacket packet = permittedOf(family);
    packet.protocol = 17;
    packet.sourcePort = packet.destinationPort = 9;
    packet.length = 80;
    packet.sourceMac = aclrule::AclMac{2, 0, 0, 0, 0, 1};
    const std::vector<uint8_t> good = frameOf(packet);
    ASSERT_EQ(runOf(program_, good).mark, 1u << SHIFT);

    EXPECT_EQ(runOf(program_, good, 5u << SHIFT).mark, 5u << SHIFT); // steered by others
    EXPECT_EQ(runOf(program_, good, 7).mark, 1u << SHIFT | 7);
    const auto changed = [&](size_t at, uint8_t value, bool isSummed) {
        std::vector<uint8_t> frame = good;
        frame[ETHERNET_BYTES + at] = value;
        if (family == 4 && isSummed) {
            frame[ETHERNET_BYTES + 10] = frame[ETHERNET_BYTES + 11] = 0;
            sumPut(frame, ETHERNET_BYTES);
        }
        const Outcome outcome = runOf(program_, frame);
        EXPECT_EQ(outcome.frame, frame);
        return outcome.mark;
    };
    std::vector<uint8_t> strange = good;
    strange[0] = 2; // for another machine
    EXPECT_EQ(runOf(program_, strange).mark, 0u);
    if (family == 4) {
        EXPECT_EQ(changed(10, static_cast<uint8_t>(good[ETHERNET_BYTES + 10] ^ 1), false), 0u) << "checksum";
        EXPECT_EQ(changed(0, 0x46, true), 0u) << "options";
        EXPECT_EQ(changed(0, 0x55, true), 0u) << "version";
        EXPECT_EQ(changed(2, 1, true), 0u) << "longer than the frame";
        EXPECT_EQ(changed(6, 0x20, true), 0u) << "first fragment";
        EXPECT_EQ(changed(6, 0x40, true), 1u << SHIFT) << "not to be fragmented";
        for (const int first : {0, 127, 224, 255}) {
            EXPECT_EQ(changed(12, static_cast<uint8_t>(first), true), 0u) << "from " << first;
            EXPECT_EQ(changed(16, static_cast<uint8_t>(first), true), 0u) << "to " << first;
        }
        return;
    }
    EXPECT_EQ(changed(0, 0x50, false), 0u) << "version";
    EXPECT_EQ(changed(4, 1, false), 0u) << "longer than the frame";
    for (const int header : {0, 43, 44, 51, 59, 60}) {
        EXPECT_EQ(changed(6, static_cast<uint8_t>(header), false), 0u) << "extension header " << header;
    }
    EXPECT_EQ(changed(8, 0xff, false), 0u) << "from a group";
    EXPECT_EQ(changed(24, 0xff, false), 0u) << "to a group";
}

TEST_P(AnyPacket, ForThisMachineIsLeftAlone) {
    const int family = GetParam();
    aclrule::AclPacket packet = permittedOf(family);
    packet.destination[2] = 9;
    packet.protocol = 47;
    packet.length = 80;
    packet.sourceMac = aclrule::AclMac{};
    ASSERT_EQ(runOf(program_, frameOf(packet)).mark, 1u << SHIFT);
    const auto mark = [&](uint32_t prefixLen) {
        EbpfLocal local{};
        local.prefixLen = 8 + prefixLen;
        local.family = static_cast<uint8_t>(family);
        memcpy(local.address, packet.destination.data(), prefixLen / 8);
        EXPECT_EQ(program_.localsPut({local}), "");
        return runOf(program_, frameOf(packet)).mark;
    };
    EXPECT_EQ(mark(family == 6 ? 128 : 32), 0u);
    EXPECT_EQ(mark(16), 0u);
    EXPECT_EQ(program_.localsPut({}), "");
    EXPECT_EQ(runOf(program_, frameOf(packet)).mark, 1u << SHIFT);
}

INSTANTIATE_TEST_SUITE_P(Families, AnyPacket, ::testing::Values(4, 6));

} // namespace
} // namespace ebpf_test
