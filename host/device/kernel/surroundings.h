// What outside of our own objects breaks or bends the forwarding of steered packets: sysctls, rules of
// others, addresses of interfaces that are down. Two halves: reading (surroundingsRead) fills a value,
// judging (surroundingsJudge) is pure. Called by the kernel device on the event thread.
#ifndef HOST_DEVICE_KERNEL_SURROUNDINGS_H
#define HOST_DEVICE_KERNEL_SURROUNDINGS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/device/device.h"
#include "host/netlink/netlink_socket.h"

namespace host {

struct Surroundings {
    struct Bound { // an interface that carries a list
        std::string ifName;
        bool families[2] = {};            // asked for IPv4, IPv6 packets
        std::optional<int> forwarding4;   // its own sysctl; none: cannot be read
    };
    struct Uplink { // an interface out of which IPv4 packets are steered
        std::string ifName;
        std::optional<int> rpFilter;      // its own sysctl
        bool isDefaultWay = false;        // the routing table sends everything else there too
    };
    struct Rule { // a routing rule that is not ours
        uint8_t family = 4;
        uint32_t preference = 0, mark = 0, mask = 0, table = 0;
        bool takesAll = false;            // no selector but `iif`, and its look-up ends every packet's way
        std::string iif;                  // only packets that came in there; empty: all
    };
    struct Address { // of an interface
        uint32_t ifUnit = 0;
        std::string ifName;
        bool isUp = false;
        int version = 4;
        IpAddress address{};
        uint8_t prefixLen = 0;
    };
    struct Hop { // a next hop that the daemon gave as usable
        std::string list;
        uint32_t nodeIndex = 0;
        int version = 4;
        IpAddress address{};
        bool hasGateway = false;          // it is not on a connected network now
        std::string ifName;               // where its packets leave now
    };
    struct FragmentsRule { // a rule with `fragments` of a bound list, while we put none together
        std::string list;
        uint32_t nodeIndex = 0, aclNum = 0, ruleNum = 0;
        uint8_t family = 4;
    };
    std::vector<Bound> bound;
    std::vector<Uplink> uplinks;
    std::vector<FragmentsRule> fragmentsRules;
    std::string tracker[2];               // a table of another program that tracks IPv4, IPv6 connections; empty: none
    std::vector<Rule> rules;
    std::vector<Address> addresses;
    std::vector<Hop> hops;
    std::optional<int> forwarding4, forwarding6; // of all interfaces
    std::optional<int> reflect4, reflect6;       // whether the kernel's own answers take over a packet's mark
    std::optional<int> rpFilterAll;
    uint32_t markMask = 0;
    uint32_t lastPreference[2] = {};      // of our rules, IPv4, IPv6; 0: we have none
    uint32_t firstPreference[2] = {};     // likewise, of those that gotos lead over; 0: there are none
    uint32_t repairs = 0;                 // drift repaired within the last minute
};

// More repairs within a minute than this are no accident.
constexpr uint32_t SURROUNDINGS_REPAIRS_MOST = 3;

// What is told: the worst first. Pure. Lock: none
std::vector<DeviceNotice> surroundingsJudge(const Surroundings &around);

// Fills `tracker`: the nftables tables of others (iptables' too) whose rules make the kernel track connections,
// which puts fragments together before any rule of ours sees them. Result: empty, or what cannot be read.
std::string surroundingsTrackersRead(NetlinkSocket &nft, Surroundings *pAround);

// Fills what the kernel knows: sysctls, rules, addresses (name and state of an interface come from `link`).
// hasDefault: whether a table leads every address somewhere. Result: empty, or what cannot be read.
std::string surroundingsRead(NetlinkSocket &socket,
                             const std::function<bool(uint8_t family, uint32_t table)> &hasDefault,
                             Surroundings *pAround);

} // namespace host

#endif
