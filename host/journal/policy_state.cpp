// See policy_state.h.
#include "host/journal/policy_state.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "api/pbr_keys.h"
#include "core/pbr_types.h"

namespace host {

namespace {

constexpr uint32_t FIELD_MASK = 0x3FFF; // below the bases of the tables

struct TableCode {
    uint32_t base;
    PolicyTable table;
    uint32_t keyLen;
};
constexpr TableCode TABLE_CODES[] = {{0x001F4000u, PolicyTable::Scalar, 0},
                                {0x070A8000u, PolicyTable::List, sizeof(PbrListKey)},
                                {0x08F04000u, PolicyTable::Node, sizeof(PbrNodeKey)},
                                {0x0CC60000u, PolicyTable::NextHop, sizeof(PbrNodeKey)},
                                {0x04128000u, PolicyTable::Interface, sizeof(uint32_t)}};

std::string nameOf(const uint8_t *pName, uint32_t len) {
    return std::string(reinterpret_cast<const char *>(pName), std::min<uint32_t>(len, PBR_NAME_BYTES));
}

PolicyRow rowRead(PolicyTable table, const void *pKey) {
    PolicyRow row;
    row.table = table;
    if (table == PolicyTable::Interface) {
        memcpy(&row.unit, pKey, sizeof row.unit);
    } else if (table == PolicyTable::List) {
        PbrListKey key;
        memcpy(&key, pKey, sizeof key);
        row.list = nameOf(key.listName, key.listNameLen);
    } else if (table != PolicyTable::Scalar) {
        PbrNodeKey key;
        memcpy(&key, pKey, sizeof key);
        row.list = nameOf(key.listName, key.listNameLen);
        row.node = key.nodeIndex;
        row.hop = table == PolicyTable::NextHop ? key.nextHopIndex : 0;
    }
    return row;
}

std::optional<PolicyRow> rowChecked(const TableCode &code, const void *pKey, uint32_t keyLen) {
    if (keyLen < code.keyLen || (pKey == nullptr && code.keyLen != 0)) {
        return std::nullopt;
    }
    return rowRead(code.table, pKey);
}

} // namespace

std::optional<PolicySet> policySetRead(const void *pKey, uint32_t keyLen, uint32_t commandCode, const PbrApiValue &value,
                                       bool isBytes) {
    for (const TableCode &code : TABLE_CODES) {
        if (code.base != (commandCode & ~FIELD_MASK)) {
            continue;
        }
        const auto row = rowChecked(code, pKey, keyLen);
        if (!row) {
            return std::nullopt;
        }
        PolicySet set{*row, commandCode & FIELD_MASK, {isBytes, 0, ""}};
        if (!isBytes) {
            set.value.number = static_cast<uint32_t>(value.word0);
        } else if (value.word1 != 0) {
            set.value.bytes.assign(reinterpret_cast<const char *>(value.word0), value.word1);
        }
        return set;
    }
    return std::nullopt;
}

std::optional<PolicyRow> policyRowOf(uint32_t commandId, const void *pKey, uint32_t keyLen) {
    switch (commandId) {
    case PBR_CMD_LIST_SET:
    case PBR_CMD_LIST_SYNC:
        return rowChecked(TABLE_CODES[1], pKey, keyLen);
    case PBR_CMD_NODE_SET:
    case PBR_CMD_NODE_SYNC:
        return rowChecked(TABLE_CODES[2], pKey, keyLen);
    case PBR_CMD_NEXT_HOP_SET:
    case PBR_CMD_NEXT_HOP_SYNC:
        return rowChecked(TABLE_CODES[3], pKey, keyLen);
    case PBR_CMD_IF_SET:
    case PBR_CMD_IF_SYNC:
        return rowChecked(TABLE_CODES[4], pKey, keyLen);
    default:
        return std::nullopt;
    }
}

bool policyRowIsWithin(const PolicyRow &row, const PolicyRow &above) {
    switch (above.table) {
    case PolicyTable::List:
        return row.list == above.list && (row.table == PolicyTable::List || row.table == PolicyTable::Node ||
                                          row.table == PolicyTable::NextHop);
    case PolicyTable::Node:
        return row.list == above.list && row.node == above.node &&
               (row.table == PolicyTable::Node || row.table == PolicyTable::NextHop);
    default:
        return row == above;
    }
}

std::string policyRowText(const PolicyRow &row) {
    switch (row.table) {
    case PolicyTable::Scalar:
        return "settings of the daemon";
    case PolicyTable::List:
        return "list " + row.list;
    case PolicyTable::Node:
        return "list " + row.list + " node " + std::to_string(row.node);
    case PolicyTable::NextHop:
        return "list " + row.list + " node " + std::to_string(row.node) + " next hop " + std::to_string(row.hop);
    case PolicyTable::Interface:
        break;
    }
    return "interface unit " + std::to_string(row.unit);
}

void PolicyState::drop(const PolicyRow &row) {
    // What is below a row has the row's members as the beginning of its own: look at those tables only.
    for (const PolicyTable table : {PolicyTable::Scalar, PolicyTable::List, PolicyTable::Node, PolicyTable::NextHop,
                                    PolicyTable::Interface}) {
        PolicyRow from = row;
        from.table = table;
        auto held = rows_.lower_bound(from);
        while (held != rows_.end() && held->first.table == table && policyRowIsWithin(held->first, row)) {
            changed_.insert(held->first);
            held = rows_.erase(held);
        }
    }
}

// Takes a field of a row away, and the row with its last one: a row without fields is none, and not kept.
void PolicyState::fieldDrop(const PolicyRow &row, uint32_t field) {
    const auto held = rows_.find(row);
    if (held == rows_.end() || held->second.erase(field) == 0) {
        return;
    }
    if (held->second.empty()) {
        rows_.erase(held);
    }
    changed_.insert(row);
}

// The clear of a node takes version and VRF, and its next hops unless it is told not to.
void PolicyState::clear(const PolicyRow &node, bool withHops) {
    fieldDrop(node, PBR_NODE_IP_VERSION);
    fieldDrop(node, PBR_NODE_VRF_ID);
    PolicyRow hop = node;
    hop.table = PolicyTable::NextHop;
    for (auto at = rows_.lower_bound(hop); withHops && at != rows_.end() && at->first.table == PolicyTable::NextHop &&
                                           policyRowIsWithin(at->first, node);) {
        changed_.insert(at->first);
        at = rows_.erase(at);
    }
}

void PolicyState::done(const PolicySet &set) {
    const PolicyTable table = set.row.table;
    const bool isStatus = set.field == PBR_LIST_STATUS && table != PolicyTable::Scalar; // field 1 in every table
    const bool isIf = table == PolicyTable::Interface;
    if (isStatus && set.value.number == (isIf ? PBR_IF_DESTROY : PBR_ROW_DESTROY)) {
        drop(set.row);
        return;
    }
    if (isStatus && !isIf && set.value.number == PBR_ROW_CREATED) {
        drop(set.row); // of an earlier row of that name nothing is left
    }
    if (table == PolicyTable::Node && set.field == PBR_NODE_CLEAR) {
        clear(set.row, set.value.number != 0);
        return;
    }
    if (table == PolicyTable::NextHop && set.field == PBR_NEXT_HOP_ADDRESS) {
        // Without an IP version the daemon accepts an address and does not store it.
        PolicyRow node = set.row;
        node.table = PolicyTable::Node;
        node.hop = 0;
        const auto held = rows_.find(node);
        if (held == rows_.end() || held->second.count(PBR_NODE_IP_VERSION) == 0) {
            return;
        }
    }
    if (table == PolicyTable::Node && set.field == PBR_NODE_TIME_RANGE_ID && set.value.number == PBR_TIME_RANGE_NONE) {
        fieldDrop(set.row, PBR_NODE_TIME_RANGE_ID);
        return;
    }
    rows_[set.row][set.field] = set.value;
    changed_.insert(set.row);
}

bool PolicyState::failed(const PolicySet &set, uint32_t result) {
    if (set.row.table != PolicyTable::Interface || set.field != PBR_IF_PBR_NAME || result != PBR_ERR_BIND) {
        return false;
    }
    const auto held = rows_.find(set.row);
    if (held == rows_.end() || held->second.count(PBR_IF_PBR_NAME) == 0) {
        return false;
    }
    fieldDrop(set.row, PBR_IF_PBR_NAME); // a bind that failed leaves the interface without a list
    return true;
}

void PolicyState::become(std::map<PolicyRow, PolicyFields> rows) {
    rows_ = std::move(rows);
    for (const auto &[row, fields] : rows_) {
        changed_.insert(row);
    }
}

std::set<PolicyRow> PolicyState::takeChanged() {
    return std::exchange(changed_, {});
}

} // namespace host
