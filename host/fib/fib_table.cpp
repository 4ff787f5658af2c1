// Routing tables as values: see the header.
#include "host/fib/fib_table.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace host {

namespace {

bool legSame(const FibLeg &a, const FibLeg &b) {
    return a.ifIndex == b.ifIndex && a.gatewayVersion == b.gatewayVersion && a.gateway == b.gateway;
}

} // namespace

bool fibRouteSame(const FibRoute &a, const FibRoute &b) {
    if (a.prefix != b.prefix || a.prefixLen != b.prefixLen || a.type != b.type || a.protocol != b.protocol ||
        a.metric != b.metric || a.nexthopId != b.nexthopId) {
        return false;
    }
    return a.nexthopId != 0 || std::equal(a.legs.begin(), a.legs.end(), b.legs.begin(), b.legs.end(), legSame);
}

FibAddress fibMask(const FibAddress &address, uint32_t len) {
    FibAddress masked{};
    const uint32_t whole = std::min<uint32_t>(len / 8, masked.size());
    std::copy_n(address.begin(), whole, masked.begin());
    if (len % 8 != 0 && whole < masked.size()) {
        masked[whole] = static_cast<uint8_t>(address[whole] & (0xFF00u >> (len % 8)));
    }
    return masked;
}

size_t FibTables::Hash::operator()(const FibAddress &address) const {
    uint64_t high, low;
    std::memcpy(&high, address.data(), 8);
    std::memcpy(&low, address.data() + 8, 8);
    uint64_t mixed = (high ^ (low * 0x9E3779B97F4A7C15ull)) * 0xBF58476D1CE4E5B9ull;
    return static_cast<size_t>(mixed ^ (mixed >> 29));
}

void FibTables::routeAppend(int version, uint32_t table, FibRoute route) {
    std::vector<FibRoute> &routes = tables_[{version, table}][route.prefixLen][route.prefix];
    const auto behind = std::find_if(routes.begin(), routes.end(),
                                     [&](const FibRoute &held) { return held.metric > route.metric; });
    routes.insert(behind, std::move(route));
}

FibTables::Change FibTables::routeAdd(int version, uint32_t table, const FibRoute &route, bool replace) {
    std::vector<FibRoute> &routes = tables_[{version, table}][route.prefixLen][route.prefix];
    const auto sameMetric = [&](const FibRoute &held) { return held.metric == route.metric; };
    const auto first = std::find_if(routes.begin(), routes.end(), sameMetric);
    if (first == routes.end()) {
        routeAppend(version, table, route);
        return Change::Done;
    }
    if (std::count_if(routes.begin(), routes.end(), sameMetric) > 1) {
        return Change::Doubt;
    }
    if (fibRouteSame(*first, route)) {
        *first = route; // the legs' states
        return Change::None;
    }
    if (!replace) {
        return Change::Doubt; // a second route beside it, or another leg of it
    }
    *first = route;
    return Change::Done;
}

FibTables::Change FibTables::routeDel(int version, uint32_t table, const FibRoute &route) {
    const auto foundTable = tables_.find({version, table});
    if (foundTable == tables_.end()) {
        return Change::None;
    }
    Prefixes &prefixes = foundTable->second[route.prefixLen];
    const auto foundPrefix = prefixes.find(route.prefix);
    if (foundPrefix == prefixes.end()) {
        return Change::None;
    }
    std::vector<FibRoute> &routes = foundPrefix->second;
    const auto sameMetric = [&](const FibRoute &held) { return held.metric == route.metric; };
    const auto count = std::count_if(routes.begin(), routes.end(), sameMetric);
    const auto first = std::find_if(routes.begin(), routes.end(), sameMetric);
    if (count == 0) {
        return Change::None;
    }
    if (count > 1 || !fibRouteSame(*first, route)) {
        return Change::Doubt;
    }
    routes.erase(first);
    if (routes.empty()) {
        prefixes.erase(foundPrefix);
    }
    return Change::Done;
}

void FibTables::tableTake(int version, uint32_t table, FibTables &fresh) {
    tables_.erase({version, table});
    tables_.insert(fresh.tables_.extract({version, table}));
}

bool FibTables::tableKnown(int version, uint32_t table) const {
    return tables_.find({version, table}) != tables_.end();
}

void FibTables::nexthopSet(uint32_t id, FibNexthop nexthop) {
    nexthops_[id] = std::move(nexthop);
}

void FibTables::nexthopDel(uint32_t id) {
    nexthops_.erase(id);
}

size_t FibTables::routeCount() const {
    size_t count = 0;
    for (const auto &[key, table] : tables_) {
        for (const auto &[len, prefixes] : table) {
            for (const auto &[prefix, routes] : prefixes) {
                count += routes.size();
            }
        }
    }
    return count;
}

std::vector<FibNetwork> FibTables::networksOf(uint32_t ifIndex) const {
    const auto isOnLink = [&](const FibLeg &leg) { return leg.ifIndex == ifIndex && leg.gatewayVersion == 0; };
    std::vector<FibNetwork> networks;
    for (const auto &[key, table] : tables_) {
        for (const auto &[len, prefixes] : table) {
            for (const auto &[prefix, routes] : prefixes) {
                const bool isConnected = std::any_of(routes.begin(), routes.end(), [&](const FibRoute &route) {
                    const std::vector<FibLeg> legs = legsOf(route);
                    return route.type == RTN_UNICAST && std::any_of(legs.begin(), legs.end(), isOnLink);
                });
                if (isConnected) {
                    networks.push_back({key.first, key.second, prefix, len, ifIndex});
                }
            }
        }
    }
    return networks;
}

// The legs of a route: those of its next-hop object when we know it (groups have no groups inside).
std::vector<FibLeg> FibTables::legsOf(const FibRoute &route) const {
    const auto found = nexthops_.find(route.nexthopId);
    if (route.nexthopId == 0 || found == nexthops_.end()) {
        return route.legs;
    }
    std::vector<FibLeg> legs;
    if (found->second.members.empty()) {
        if (!found->second.blackhole) {
            legs.push_back(found->second.leg);
        }
        return legs;
    }
    for (uint32_t id : found->second.members) {
        const auto member = nexthops_.find(id);
        if (member != nexthops_.end() && !member->second.blackhole) {
            legs.push_back(member->second.leg);
        }
    }
    return legs;
}

const FibLeg *FibTables::usable(const std::vector<FibLeg> &legs) const {
    const FibLeg *pSecondBest = nullptr;
    for (const FibLeg &leg : legs) {
        if (leg.dead || (leg.ifIndex == 0 && leg.gatewayVersion == 0)) {
            continue;
        }
        if (!leg.linkDown) {
            return &leg;
        }
        pSecondBest = pSecondBest == nullptr ? &leg : pSecondBest;
    }
    return pSecondBest;
}

std::optional<FibLeg> FibTables::legTo(int version, uint32_t table, const FibAddress &address,
                                       uint32_t shortest) const {
    const auto found = tables_.find({version, table});
    if (found == tables_.end()) {
        return std::nullopt;
    }
    for (const auto &[len, prefixes] : found->second) {
        if (len < shortest) {
            break; // the longest came first
        }
        const auto routes = prefixes.find(fibMask(address, len));
        if (routes == prefixes.end()) {
            continue;
        }
        for (const FibRoute &route : routes->second) {
            if (route.type != RTN_UNICAST) {
                return std::nullopt;
            }
            const std::vector<FibLeg> legs = legsOf(route);
            if (const FibLeg *pLeg = usable(legs)) {
                return *pLeg;
            }
        }
    }
    return std::nullopt;
}

std::optional<FibEgress> FibTables::lookup(int version, uint32_t table, const FibAddress &address,
                                           uint32_t shortest) const {
    std::optional<FibLeg> leg = legTo(version, table, address, shortest);
    if (!leg) {
        return std::nullopt;
    }
    FibEgress egress{leg->ifIndex, leg->gatewayVersion != 0, leg->gateway, leg->gatewayVersion};
    if (egress.ifIndex == 0) {
        leg = legTo(egress.gatewayVersion, table, egress.gateway, 0);
        if (!leg || leg->gatewayVersion != 0) {
            return std::nullopt;
        }
        egress.ifIndex = leg->ifIndex;
    }
    return egress;
}

} // namespace host
