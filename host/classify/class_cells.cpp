// Rules of one form as cells: see class_cells.h. Called by the plan.
//
// Two ways. With one field of ranges at most, the members that agree in all other fields are swept along
// that field: a cell begins or ends where a member does, so that there are at most twice as many cells as
// members. With more, the members that overlap are found first (along the field that tells them apart best)
// and only those are split against each other.
#include "host/classify/class_cells.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <utility>

namespace host {

namespace {

constexpr size_t RULES_A_CELL = 6;      // met by one packet, deny rules for the most part
constexpr size_t PIECES_A_MEMBER = 16;  // that one member may leave of itself or of earlier cells
constexpr size_t CELLS_A_MEMBER = 4;    // on the average
constexpr size_t WORK_A_MEMBER = 256;   // comparisons, on the average
constexpr size_t WORK_AT_LEAST = 1u << 18;

using Box = std::vector<ClassRange>;
using Members = std::vector<const ClassMember *>;

const char *const TOO_MANY_DENIALS = "too many deny rules lie on one another";
const char *const TOO_MUCH_OVERLAP = "the rules overlap too much to be split";

// What a packet of a cell has met so far.
struct Met {
    std::vector<uint32_t> rules;
    uint32_t node = 0; // of the last rule
    bool isDecided = false;
    bool asks(const ClassMember &member) const { return !isDecided && (rules.empty() || member.node != node); }
    void meet(const ClassMember &member) {
        rules.push_back(member.rule);
        node = member.node;
        isDecided = member.permit;
    }
};

size_t workLimit(size_t members) { return members * WORK_A_MEMBER + WORK_AT_LEAST; }

// ---- one field of ranges at most ----

// The field in which some member has a range; none: all have single values. SIZE_MAX: there are several.
std::optional<size_t> rangedField(const std::vector<ClassMember> &members) {
    std::optional<size_t> ranged;
    for (size_t i = 0; i < members.front().key.size(); i++) {
        const bool isRanged = std::any_of(members.begin(), members.end(),
                                          [i](const ClassMember &member) { return !member.key[i].isOne(); });
        if (isRanged) {
            ranged = ranged ? SIZE_MAX : i;
        }
    }
    return ranged;
}

class Sweep {
public:
    Sweep(const std::vector<ClassMember> &members, size_t field) : field_(field), workLeft_(workLimit(members.size())) {
        std::map<std::vector<ClassNumber>, Members> groups;
        for (const ClassMember &member : members) {
            std::vector<ClassNumber> others;
            for (size_t i = 0; i < member.key.size(); i++) {
                others.push_back(i == field ? ClassNumber{} : member.key[i].first);
            }
            groups[std::move(others)].push_back(&member);
        }
        for (const auto &[others, group] : groups) {
            if (result_.refusal.empty()) {
                groupSweep(group);
            }
        }
    }

    ClassCells take() { return std::move(result_); }

private:
    struct Event {
        ClassNumber at;
        size_t member;
        bool isBegin;
    };

    void groupSweep(const Members &group) {
        std::vector<Event> events;
        for (size_t i = 0; i < group.size(); i++) {
            const ClassRange &range = group[i]->key[field_];
            const ClassNumber behind = classNext(range.last);
            events.push_back({range.first, i, true});
            if (behind > range.last) { // else it goes to the end of all numbers
                events.push_back({behind, i, false});
            }
        }
        std::sort(events.begin(), events.end(), [](const Event &left, const Event &right) { return left.at < right.at; });
        std::set<size_t> active;
        const size_t begin = result_.cells.size();
        for (size_t i = 0; i < events.size();) {
            const ClassNumber at = events[i].at;
            for (; i < events.size() && events[i].at == at; i++) {
                if (events[i].isBegin) {
                    active.insert(events[i].member);
                } else {
                    active.erase(events[i].member);
                }
            }
            const ClassNumber last = i < events.size() ? classPrevious(events[i].at) : ClassNumber{UINT64_MAX, UINT64_MAX};
            if (!active.empty()) {
                cellAdd(group, active, {at, last}, begin);
            }
        }
    }

    void cellAdd(const Members &group, const std::set<size_t> &active, const ClassRange &range, size_t begin) {
        Met met;
        for (auto it = active.begin(); it != active.end() && !met.isDecided; ++it) {
            workLeft_ -= workLeft_ == 0 ? 0 : 1;
            if (met.asks(*group[*it])) {
                met.meet(*group[*it]);
            }
        }
        if (met.rules.size() > RULES_A_CELL || workLeft_ == 0) {
            result_.refusal = workLeft_ == 0 ? TOO_MUCH_OVERLAP : TOO_MANY_DENIALS;
            return;
        }
        std::vector<ClassCell> &cells = result_.cells;
        if (cells.size() > begin && cells.back().rules == met.rules &&
            classNext(cells.back().key[field_].last) == range.first) {
            cells.back().key[field_].last = range.last;
            return;
        }
        Box key = group.front()->key;
        key[field_] = range;
        cells.push_back({std::move(key), std::move(met.rules), met.isDecided});
    }

    const size_t field_;
    size_t workLeft_;
    ClassCells result_;
};

// ---- several fields of ranges ----

bool isMeeting(const Box &left, const Box &right) {
    for (size_t i = 0; i < left.size(); i++) {
        if (left[i].last < right[i].first || right[i].last < left[i].first) {
            return false;
        }
    }
    return true;
}

Box common(const Box &left, const Box &right) {
    Box both;
    for (size_t i = 0; i < left.size(); i++) {
        both.push_back({std::max(left[i].first, right[i].first), std::min(left[i].last, right[i].last)});
    }
    return both;
}

// What of `box` lies outside `inner`, which lies inside it: disjoint boxes.
void outside(Box box, const Box &inner, std::vector<Box> &out) {
    for (size_t i = 0; i < box.size(); i++) {
        if (box[i].first < inner[i].first) {
            out.push_back(box);
            out.back()[i].last = classPrevious(inner[i].first);
        }
        if (inner[i].last < box[i].last) {
            out.push_back(box);
            out.back()[i].first = classNext(inner[i].last);
        }
        box[i] = inner[i];
    }
}

class Split {
public:
    explicit Split(const std::vector<ClassMember> &members) : members_(members) {
        if (!meetingsFind()) {
            result_.refusal = TOO_MUCH_OVERLAP;
            return;
        }
        cellsOf_.resize(members.size());
        for (size_t j = 0; j < members.size() && result_.refusal.empty(); j++) {
            memberAdd(j);
        }
    }

    ClassCells take() {
        for (Piece &piece : cells_) {
            result_.cells.push_back({std::move(piece.box), std::move(piece.met.rules), piece.met.isDecided});
        }
        return std::move(result_);
    }

private:
    struct Piece {
        Box box;
        Met met;
    };
    // What adding one member comes to, before it is done.
    struct Change {
        std::vector<Box> rest;                        // of the member, where nobody was
        std::vector<std::pair<size_t, Box>> meetings; // open cells, and where the member meets them
        size_t pieces = 0;
    };

    // Which earlier members each member meets. Result: false when looking would take too long.
    bool meetingsFind() {
        const size_t field = tellingField();
        std::vector<size_t> order(members_.size());
        for (size_t i = 0; i < order.size(); i++) {
            order[i] = i;
        }
        std::sort(order.begin(), order.end(), [&](size_t left, size_t right) {
            return members_[left].key[field].first < members_[right].key[field].first;
        });
        meets_.resize(members_.size());
        std::vector<size_t> active;
        size_t workLeft = workLimit(members_.size());
        for (const size_t i : order) {
            const ClassNumber &first = members_[i].key[field].first;
            std::erase_if(active, [&](size_t other) { return members_[other].key[field].last < first; });
            if (active.size() > workLeft) {
                return false;
            }
            workLeft -= active.size();
            for (const size_t other : active) {
                if (isMeeting(members_[i].key, members_[other].key)) {
                    meets_[std::max(i, other)].push_back(std::min(i, other));
                }
            }
            active.push_back(i);
        }
        return true;
    }

    size_t tellingField() const {
        size_t best = 0, most = 0;
        for (size_t i = 0; i < members_.front().key.size(); i++) {
            std::set<ClassNumber> firsts;
            for (const ClassMember &member : members_) {
                firsts.insert(member.key[i].first);
            }
            if (firsts.size() > most) {
                best = i;
                most = firsts.size();
            }
        }
        return best;
    }

    void memberAdd(size_t j) {
        const ClassMember &member = members_[j];
        Change change;
        const bool isLeftMet = std::any_of(leftOver_.begin(), leftOver_.end(), [&](size_t left) {
            return isMeeting(members_[left].key, member.key);
        });
        if (isLeftMet || !changeFor(j, change)) {
            leave(j);
            return;
        }
        for (auto &[cell, meeting] : change.meetings) {
            meetingDo(cell, meeting, member);
        }
        for (Box &box : change.rest) {
            Met met;
            met.meet(member);
            cellsOf_[j].push_back(cells_.size());
            cells_.push_back({std::move(box), std::move(met)});
        }
        if (cells_.size() > members_.size() * CELLS_A_MEMBER + PIECES_A_MEMBER) {
            result_.refusal = TOO_MUCH_OVERLAP;
        }
    }

    // Result: false when it would fall into too many pieces.
    bool changeFor(size_t j, Change &change) const {
        const ClassMember &member = members_[j];
        change.rest = {member.key};
        for (const size_t earlier : meets_[j]) {
            for (const size_t cell : cellsOf_[earlier]) {
                const Piece &piece = cells_[cell];
                if (!isMeeting(piece.box, member.key)) {
                    continue;
                }
                std::vector<Box> rest;
                for (const Box &box : change.rest) {
                    if (isMeeting(box, piece.box)) {
                        outside(box, common(box, piece.box), rest);
                    } else {
                        rest.push_back(box);
                    }
                }
                change.rest = std::move(rest);
                if (piece.met.asks(member)) {
                    change.meetings.emplace_back(cell, common(piece.box, member.key));
                }
                if (change.rest.size() + change.meetings.size() > PIECES_A_MEMBER) {
                    return false;
                }
            }
        }
        return true;
    }

    // An open cell: where the member is too, its packets meet it next.
    void meetingDo(size_t cell, const Box &meeting, const ClassMember &member) {
        std::vector<Box> rest;
        outside(cells_[cell].box, meeting, rest);
        const Met before = cells_[cell].met;
        cells_[cell].box = meeting;
        cells_[cell].met.meet(member);
        if (cells_[cell].met.rules.size() > RULES_A_CELL) {
            result_.refusal = TOO_MANY_DENIALS;
        }
        std::vector<size_t> &origin = cellsOf_[placeOf(before.rules.front())];
        for (Box &box : rest) {
            origin.push_back(cells_.size());
            cells_.push_back({std::move(box), before});
        }
    }

    size_t placeOf(uint32_t rule) const {
        const auto it = std::lower_bound(members_.begin(), members_.end(), rule,
                                         [](const ClassMember &member, uint32_t value) { return member.rule < value; });
        return static_cast<size_t>(it - members_.begin());
    }

    // Asked behind the cells, whose answers come first. That is right unless a packet might have met a deny rule
    // of the same node here.
    void leave(size_t j) {
        const ClassMember &member = members_[j];
        const bool isDenied = std::any_of(meets_[j].begin(), meets_[j].end(), [&](size_t earlier) {
            return !members_[earlier].permit && members_[earlier].node == member.node;
        });
        if (isDenied) {
            result_.refusal = TOO_MUCH_OVERLAP;
            return;
        }
        leftOver_.push_back(j);
        result_.left.push_back(member.rule);
        if (leftOver_.size() * WORK_A_MEMBER > members_.size() + WORK_AT_LEAST) {
            result_.refusal = TOO_MUCH_OVERLAP;
        }
    }

    const std::vector<ClassMember> &members_;
    std::vector<std::vector<size_t>> meets_;   // by member: the earlier ones that it meets
    std::vector<std::vector<size_t>> cellsOf_; // by member: cells of which it was the first
    std::vector<Piece> cells_;
    std::vector<size_t> leftOver_;
    ClassCells result_;
};

} // namespace

ClassCells classCells(const std::vector<ClassMember> &members) {
    const std::optional<size_t> ranged = rangedField(members);
    ClassCells cells = ranged == SIZE_MAX ? Split(members).take() : Sweep(members, ranged.value_or(0)).take();
    if (!cells.refusal.empty()) {
        return {{}, {}, cells.refusal};
    }
    return cells;
}

} // namespace host
