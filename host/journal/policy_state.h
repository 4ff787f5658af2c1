// The running policy as the sets that make it: the last value of each field of each row. Pure.
//
// A set that the daemon carried out changes the state as it changed the daemon's store: a destroyed row
// takes what is below it along, a created one begins empty, a clear of a node takes its next hops. The
// state is what the journal keeps, so that it never grows with the number of sets.
#ifndef HOST_JOURNAL_POLICY_STATE_H
#define HOST_JOURNAL_POLICY_STATE_H

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "platform/icm.h"

namespace host {

// In the order in which rows are made again.
enum class PolicyTable : uint8_t { Scalar, List, Node, NextHop, Interface };

// The address of a row; members that its table has not are empty.
struct PolicyRow {
    PolicyTable table = PolicyTable::Scalar;
    std::string list;  // list, node, next hop: its name
    uint32_t node = 0; // node, next hop: the node's index
    uint32_t hop = 0;  // next hop: its index
    uint32_t unit = 0; // interface: its unit
    auto operator<=>(const PolicyRow &) const = default;
};

struct PolicyValue {
    bool isBytes = false;
    uint32_t number = 0;
    std::string bytes;
    bool operator==(const PolicyValue &) const = default;
};

// One set, as a command carries it.
struct PolicySet {
    PolicyRow row;
    uint32_t field = 0;
    PolicyValue value;
    bool operator==(const PolicySet &) const = default;
};

using PolicyFields = std::map<uint32_t, PolicyValue>; // by field id

// Reads a set from what the synchronisation service receives. commandCode: table base plus field. Result:
// none for a table that is not known or a key that is too short. Lock: none
std::optional<PolicySet> policySetRead(const void *pKey, uint32_t keyLen, uint32_t commandCode, const PbrApiValue &value,
                                       bool isBytes);

// The row that a set command addresses; none for a command that is no set. Lock: none
std::optional<PolicyRow> policyRowOf(uint32_t commandId, const void *pKey, uint32_t keyLen);

class PolicyState {
public:
    // A set that was done. Lock: none
    void done(const PolicySet &set);

    // A set that was accepted and then failed with this code: what it changed all the same. Result: whether
    // it changed anything. Lock: none
    bool failed(const PolicySet &set, uint32_t result);

    // Takes a row and what is below it away. Lock: none
    void drop(const PolicyRow &row);

    // Puts a row as it was kept. Lock: none
    void restore(const PolicyRow &row, uint32_t field, const PolicyValue &value) { rows_[row][field] = value; }

    const std::map<PolicyRow, PolicyFields> &rows() const { return rows_; }

    // Counts a row as changed; becomes another state, whose rows all count as changed. Lock: none
    void touch(const PolicyRow &row) { changed_.insert(row); }
    void become(std::map<PolicyRow, PolicyFields> rows);

    // The rows that changed, or went, since the last call. Lock: none
    std::set<PolicyRow> takeChanged();

private:
    void clear(const PolicyRow &node, bool withHops);
    void fieldDrop(const PolicyRow &row, uint32_t field);

    std::map<PolicyRow, PolicyFields> rows_;
    std::set<PolicyRow> changed_;
};

// Whether `row` is `above` or below it: a node of a list, a next hop of a node. Lock: none
bool policyRowIsWithin(const PolicyRow &row, const PolicyRow &above);

// "list wan node 10 next hop 1", for the operator; an interface by its unit. Lock: none
std::string policyRowText(const PolicyRow &row);

} // namespace host

#endif
