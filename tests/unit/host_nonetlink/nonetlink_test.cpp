// A host without netlink: what stands in the place of the kernel's side says what it can say, and no more.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "host/device/device.h"
#include "host/fib/fib.h"
#include "host/hrd/hrd_peers.h"
#include "host/hrd/hrd_service.h"
#include "host/ifnet/ifnet.h"
#include "host/nqa/nqa_way.h"

using namespace host;

TEST(WithoutNetlink, AnInterfaceIsKnownByNameAndUnit) {
    const auto link = ifnetByName("lo");

    ASSERT_TRUE(link);
    EXPECT_FALSE(link->hasNeighbours);
    EXPECT_EQ(link, ifnetByUnit(link->unit));
    EXPECT_EQ("lo", ifnetName(link->unit));
    EXPECT_FALSE(ifnetAll().empty());
}

TEST(WithoutNetlink, WhatIsNoInterfaceHasNoLinkAndAMadeUpName) {
    EXPECT_FALSE(ifnetByName("no-such-interface-at-all"));
    EXPECT_FALSE(ifnetByName(""));
    EXPECT_FALSE(ifnetByUnit(0));
    EXPECT_FALSE(ifnetByUnit(987654));
    EXPECT_EQ("if987654", ifnetName(987654));
}

TEST(WithoutNetlink, NothingHasAWay) {
    EXPECT_FALSE(fibLookup(0, 4, {127, 0, 0, 1}));
}

TEST(WithoutNetlink, APeerIsShownAsNotWatchedAndNobodyWaitsForIt) {
    ASSERT_EQ("", hrdStart());
    const HrdPeerKey key{7, 4, {192, 0, 2, 1}};

    hrdPeerAdd(key);
    hrdPeerAdd(key);

    ASSERT_EQ(1u, hrdPeers().size());
    EXPECT_EQ(HrdState::Unknown, hrdPeers()[0].state);
    EXPECT_EQ("not watched", hrdPeers()[0].reason);
    EXPECT_FALSE(hrdUndetermined());
    hrdPeerDel(key);
    EXPECT_TRUE(hrdPeers().empty());
}

TEST(WithoutNetlink, AWayOfItsOwnIsRefusedAProbe) {
    NqaWays ways{KernelOptions{}};
    NqaWayKey key;
    key.vrf = 10;

    ways.acquire(key);

    EXPECT_NE(std::string::npos, ways.get(key).problem.find("no netlink"));
    ways.release(key);
    EXPECT_EQ("", ways.get(key).problem);
}

TEST(WithoutNetlink, TheKernelDeviceDoesNotStartAndNamesTheOther) {
    const auto pDevice = kernelDeviceMake();

    EXPECT_EQ("this build has no kernel device: use --option host.device=memory", pDevice->start());
    EXPECT_EQ(-1, pDevice->add(1, 1001, nullptr));
    EXPECT_EQ("unknown", pDevice->explain({}).at("verdict"));
}
