// See policy_replay.h.
#include "host/journal/policy_replay.h"

#include <utility>

#include "api/pbr_keys.h"
#include "core/pbr_types.h"

namespace host {

namespace {

constexpr uint32_t BYTES_4 = 4; // of an IPv4 address

using Sets = std::vector<PolicySet>;

void number(Sets &sets, const PolicyRow &row, uint32_t field, uint32_t value) {
    sets.push_back({row, field, {false, value, ""}});
}

void create(Sets &sets, const PolicyRow &row) {
    number(sets, row, PBR_LIST_STATUS, row.table == PolicyTable::Interface ? PBR_IF_CREATE : PBR_ROW_CREATED);
}

// The status last, when it is another one than that of a created row.
void status(Sets &sets, const PolicyRow &row, const PolicyFields &fields) {
    const auto held = fields.find(PBR_LIST_STATUS);
    if (held != fields.end() && held->second.number != PBR_ROW_CREATED) {
        sets.push_back({row, PBR_LIST_STATUS, held->second});
    }
}

void others(Sets &sets, const PolicyRow &row, const PolicyFields &fields, const std::set<uint32_t> &without) {
    for (const auto &[field, value] : fields) {
        if (without.count(field) == 0) {
            sets.push_back({row, field, value});
        }
    }
}

// The version that a next hop was made under: its address tells; without one any will do.
uint32_t versionOf(const PolicyFields &hop, uint32_t ofNode) {
    const auto address = hop.find(PBR_NEXT_HOP_ADDRESS);
    if (address == hop.end()) {
        return ofNode != 0 ? ofNode : PBR_IP_VERSION_4;
    }
    return address->second.bytes.size() == BYTES_4 ? PBR_IP_VERSION_4 : PBR_IP_VERSION_6;
}

void hopSets(Sets &sets, const PolicyRow &row, const PolicyFields &fields) {
    create(sets, row);
    others(sets, row, fields, {PBR_NEXT_HOP_STATUS});
    status(sets, row, fields);
}

// The next hops of a node. A clear that left them may have changed the node's version since, so the version
// is given as each needs it and taken away again by the same clear.
void hopsSets(Sets &sets, const PolicyState &state, const PolicyRow &node, uint32_t ofNode) {
    PolicyRow from = node;
    from.table = PolicyTable::NextHop;
    uint32_t now = 0;
    for (auto at = state.rows().lower_bound(from);
         at != state.rows().end() && at->first.table == PolicyTable::NextHop && policyRowIsWithin(at->first, node); ++at) {
        const uint32_t needed = versionOf(at->second, ofNode);
        if (now != 0 && now != needed) {
            number(sets, node, PBR_NODE_CLEAR, 0);
        }
        if (now != needed) {
            number(sets, node, PBR_NODE_IP_VERSION, needed);
        }
        now = needed;
        hopSets(sets, at->first, at->second);
    }
    if (now != 0 && now != ofNode) {
        number(sets, node, PBR_NODE_CLEAR, 0);
        now = 0;
    }
    if (now != ofNode) {
        number(sets, node, PBR_NODE_IP_VERSION, ofNode);
    }
}

void nodeSets(Sets &sets, const PolicyState &state, const PolicyRow &row, const PolicyFields &fields) {
    create(sets, row);
    const auto version = fields.find(PBR_NODE_IP_VERSION);
    hopsSets(sets, state, row, version == fields.end() ? 0 : version->second.number);
    others(sets, row, fields, {PBR_NODE_STATUS, PBR_NODE_IP_VERSION});
    status(sets, row, fields);
}

} // namespace

std::vector<PolicySet> policyReplay(const PolicyState &state) {
    Sets sets;
    for (const auto &[row, fields] : state.rows()) { // in the order of the tables
        switch (row.table) {
        case PolicyTable::Scalar:
            others(sets, row, fields, {});
            break;
        case PolicyTable::List:
            create(sets, row);
            status(sets, row, fields);
            break;
        case PolicyTable::Node:
            nodeSets(sets, state, row, fields);
            break;
        case PolicyTable::NextHop:
            break; // with its node
        case PolicyTable::Interface:
            create(sets, row);
            others(sets, row, fields, {PBR_IF_STATUS});
            break;
        }
    }
    return sets;
}

} // namespace host
