// The dump of a device rule record, line by line.
#include "hw/pbr_dev_printf.h"

#include <sstream>

#include "platform/acl_dev_entry.h"
#include "tests/support/golden.h"
#include "tests/unit/hw/steps.h"

namespace {

using steps::hwText;
using steps::Lines;

class DevPrintf : public ::testing::Test {
protected:
    void SetUp() override {
        startDaemon();
        for (uint32_t i = 0; i < ACL_DEV_ENTRY_BYTES; i++) { // no two fields of a width are equal
            entry_[i] = static_cast<uint8_t>(i * 7 + 3);
        }
    }
    void kind(uint8_t protoSubType, uint8_t layerType, uint8_t ipVer) {
        entry_[ACL_DEV_PROTO_SUB_TYPE] = 0;
        entry_[ACL_DEV_PROTO_SUB_TYPE + 1] = protoSubType;
        entry_[ACL_DEV_LAYER_TYPE] = layerType;
        entry_[ACL_DEV_IP_VER] = ipVer;
    }
    // The dump's lines, and how a golden file's lines stand in the trace.
    Lines dumped() {
        pbrDevPrintf(entry_);
        return fake::takeTrace();
    }
    static Lines expected(const std::string &fileName) {
        Lines lines;
        std::stringstream content(golden::file(fileName));
        for (std::string line; std::getline(content, line);) {
            lines.push_back("debug 0x044B0003 7 0 \"" + line + "\"");
        }
        EXPECT_FALSE(lines.empty());
        return lines;
    }
    uint8_t entry_[ACL_DEV_ENTRY_BYTES];
};

TEST_F(DevPrintf, WithoutItsDebugFlagNothingIsWritten) {
    gPbrInfo.debugFlags = ~PBR_DEBUG_DUMP;
    EXPECT_EQ(Lines{}, dumped());
}

TEST_F(DevPrintf, IcmpShowsTypeAndCodeWhereOthersShowPorts) {
    gPbrInfo.debugFlags = PBR_DEBUG_DUMP;
    kind(1, 2, 1);
    EXPECT_EQ(expected("dev_dump_icmp_ipv4.txt"), dumped());
    kind(1, 3, 2);
    EXPECT_EQ(expected("dev_dump_icmp_ipv6.txt"), dumped());
}

TEST_F(DevPrintf, IPv4AndIPv6ShowHeaderFieldsOfTheirOwn) {
    gPbrInfo.debugFlags = PBR_DEBUG_DUMP;
    kind(2, 0xFE, 1);
    EXPECT_EQ(expected("dev_dump_ports_ipv4.txt"), dumped());
    kind(2, 2, 2);
    EXPECT_EQ(expected("dev_dump_ports_ipv6.txt"), dumped());
}

TEST_F(DevPrintf, WithoutTheLayerBitNeitherPortRangesNorHeaderFieldsAreShown) {
    gPbrInfo.debugFlags = PBR_DEBUG_DUMP;
    kind(2, 0xFD, 1);
    EXPECT_EQ(expected("dev_dump_no_layer34.txt"), dumped());
    kind(1, 1, 2);
    EXPECT_EQ(expected("dev_dump_icmp_no_layer34.txt"), dumped());
}

TEST_F(DevPrintf, TheRecordIsNotChanged) {
    gPbrInfo.debugFlags = PBR_DEBUG_DUMP;
    const std::vector<uint8_t> before(entry_, entry_ + sizeof(entry_));
    (void)dumped();
    EXPECT_EQ(before, std::vector<uint8_t>(entry_, entry_ + sizeof(entry_)));
}

} // namespace
