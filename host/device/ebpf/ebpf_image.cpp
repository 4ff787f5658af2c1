// Rules as masked keys: see ebpf_image.h. Called by the ingress stage; calls nothing but values of aclrule/.
//
// Invariants: a tuple's `least` is the rank of the rule that made it, so that tuples ascend; the hits of an entry
// ascend, and behind one without ranges stands none that no packet comes to.
#include "host/device/ebpf/ebpf_image.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <iterator>
#include <unordered_map>

#include "aclrule/acl_rule_names.h"

namespace host {

namespace {

using aclrule::AclPrefix;
using aclrule::AclRule;

constexpr size_t TAIL_4 = offsetof(EbpfKey4, tail), TAIL_6 = offsetof(EbpfKey6, tail);
constexpr uint32_t LENGTH_MOST = 65535; // of the packets that the program looks at

struct Pair {
    EbpfKey mask{}, value{};
};

uint8_t *bytesOf(EbpfKey &key) { return reinterpret_cast<uint8_t *>(&key); }

// The numbers first..last of 16 bits as (mask, value) prefixes, ascending.
std::vector<std::pair<uint16_t, uint16_t>> prefixesOf(uint32_t first, uint32_t last) {
    std::vector<std::pair<uint16_t, uint16_t>> prefixes;
    while (first <= last) {
        uint32_t size = 1;
        while ((first & (2 * size - 1)) == 0 && first + 2 * size - 1 <= last) {
            size *= 2;
        }
        prefixes.emplace_back(static_cast<uint16_t>(~(size - 1)), static_cast<uint16_t>(first));
        first += size;
    }
    return prefixes;
}

// Makes the pairs of one rule.
class PairMaker {
public:
    PairMaker(const AclRule &rule, int family) : rule_(rule), family_(family), tail_(family == 6 ? TAIL_6 : TAIL_4) {}

    // isSpread: ranges become prefixes, else they are left to the hit. Result: none also when there are too many, and
    // *pTooMany.
    std::vector<Pair> make(bool isSpread, bool *pTooMany) {
        isSpread_ = isSpread;
        fixed();
        if (!rule_.length.any && !spreadLength()) {
            return {}; // longer than what the program looks at
        }
        spreadPorts(rule_.sourcePorts, 0);
        spreadPorts(rule_.destinationPorts, 2);
        spreadEstablished();
        *pTooMany = isTooMany_;
        return isTooMany_ ? std::vector<Pair>{} : std::move(pairs_);
    }

private:
    // Of all pairs: the bits of the mask have this value.
    void ask(size_t offset, const uint8_t *pMask, const uint8_t *pValue, size_t size) {
        for (Pair &pair : pairs_) {
            for (size_t i = 0; i < size; i++) {
                bytesOf(pair.mask)[offset + i] |= pMask[i];
                bytesOf(pair.value)[offset + i] |= static_cast<uint8_t>(pValue[i] & pMask[i]);
            }
        }
    }

    void askByte(size_t offset, uint8_t mask, uint8_t value) { ask(offset, &mask, &value, 1); }

    void address(const AclPrefix &prefix, size_t which) {
        if (!prefix.any) {
            const size_t size = family_ == 6 ? 16 : 4;
            const aclrule::AclAddress mask = aclPrefixMask(prefix, family_);
            ask(sizeof(EbpfKeyHead) + which * size, mask.data(), prefix.address.data(), size);
        }
    }

    void fixed() {
        if (rule_.sourceMac) {
            const std::array<uint8_t, 6> ones = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
            ask(tail_ + offsetof(EbpfKeyTail, mac), ones.data(), rule_.sourceMac->data(), ones.size());
        }
        const size_t traffic = tail_ + offsetof(EbpfKeyTail, traffic);
        if (rule_.dscp >= 0) {
            askByte(traffic, 0xfc, static_cast<uint8_t>(rule_.dscp << 2));
        } else if (rule_.precedence >= 0) {
            askByte(traffic, 0xe0, static_cast<uint8_t>(rule_.precedence << 5));
        }
        address(rule_.source, 0);
        address(rule_.destination, 1);
        if (rule_.protocol >= 0) {
            askByte(tail_ + offsetof(EbpfKeyTail, protocol), 0xff, static_cast<uint8_t>(rule_.protocol));
        }
        if (const uint8_t asked = rule_.flagsSet | rule_.flagsClear; asked != 0) {
            askByte(tail_ + offsetof(EbpfKeyTail, flags), asked, rule_.flagsSet);
        }
        if (rule_.icmpType >= 0) {
            askByte(tail_, 0xff, static_cast<uint8_t>(rule_.icmpType));
        }
        if (rule_.icmpCode >= 0) {
            askByte(tail_ + 1, 0xff, static_cast<uint8_t>(rule_.icmpCode));
        }
    }

    // Each pair once for each of the choices; put: writes a choice into a pair.
    template <class Choice, class Put> void spread(const std::vector<Choice> &choices, Put put) {
        std::vector<Pair> made;
        isTooMany_ = isTooMany_ || pairs_.size() * choices.size() > EBPF_PAIRS_MOST;
        for (size_t i = 0; !isTooMany_ && i < pairs_.size(); i++) {
            for (const Choice &choice : choices) {
                made.push_back(pairs_[i]);
                put(made.back(), choice);
            }
        }
        pairs_ = std::move(made);
    }

    bool spreadLength() {
        if (rule_.length.first > LENGTH_MOST) {
            return false;
        }
        const uint32_t last = std::min(rule_.length.last, LENGTH_MOST);
        if (!isSpread_ && rule_.length.first != last) {
            return true;
        }
        spread(prefixesOf(rule_.length.first, last), [](Pair &pair, const auto &prefix) {
            pair.mask.v4.head.length = prefix.first;
            pair.value.v4.head.length = prefix.second;
        });
        return true;
    }

    void spreadPorts(const aclrule::AclPorts &ports, size_t offset) {
        if (ports.any || (!isSpread_ && ports.first != ports.last)) {
            return;
        }
        spread(prefixesOf(ports.first, ports.last), [&](Pair &pair, const auto &prefix) {
            const auto put = [&](EbpfKey &key, uint16_t number) {
                bytesOf(key)[tail_ + offset] = static_cast<uint8_t>(number >> 8);
                bytesOf(key)[tail_ + offset + 1] = static_cast<uint8_t>(number);
            };
            put(pair.mask, prefix.first);
            put(pair.value, prefix.second);
        });
    }

    // ACK is set, or RST is without it: no packet is of both. What contradicts the flags asked for goes.
    void spreadEstablished() {
        if (!rule_.established) {
            return;
        }
        const uint8_t ack = aclrule::ACL_FLAG_ACK, rst = aclrule::ACL_FLAG_RST;
        const std::vector<std::pair<uint8_t, uint8_t>> choices = {{ack, ack}, {static_cast<uint8_t>(ack | rst), rst}};
        const size_t flags = tail_ + offsetof(EbpfKeyTail, flags);
        const uint8_t asked = rule_.flagsSet | rule_.flagsClear;
        std::vector<std::pair<uint8_t, uint8_t>> possible;
        std::copy_if(choices.begin(), choices.end(), std::back_inserter(possible), [&](const auto &choice) {
            return ((choice.second ^ rule_.flagsSet) & choice.first & asked) == 0;
        });
        spread(possible, [&](Pair &pair, const auto &choice) {
            bytesOf(pair.mask)[flags] |= choice.first;
            bytesOf(pair.value)[flags] |= choice.second;
        });
    }

    const AclRule &rule_;
    const int family_;
    const size_t tail_;
    std::vector<Pair> pairs_ = {Pair{}};
    bool isSpread_ = false, isTooMany_ = false;
};

// A hit that asks for nothing beyond its key.
EbpfHit bareHit(uint32_t rank) {
    EbpfHit hit{};
    hit.rank = rank;
    std::fill(std::begin(hit.last), std::end(hit.last), uint16_t{LENGTH_MOST});
    return hit;
}

void rangeAsk(EbpfHit &hit, int which, uint32_t first, uint32_t last) {
    if (first != last) {
        hit.first[which] = static_cast<uint16_t>(first);
        hit.last[which] = static_cast<uint16_t>(std::min(last, LENGTH_MOST));
        hit.isRanged = 1;
    }
}

struct KeyHash {
    size_t operator()(const EbpfKey &key) const {
        uint64_t sum = 0;
        for (const uint64_t word : key.words) {
            sum = (sum ^ word) * 0x9e3779b97f4a7c15ull;
            sum ^= sum >> 29;
        }
        return sum;
    }
};
struct KeyEqual {
    bool operator()(const EbpfKey &left, const EbpfKey &right) const {
        return std::equal(std::begin(left.words), std::end(left.words), std::begin(right.words));
    }
};

class ImageMaker {
public:
    ImageMaker(const std::vector<EbpfRule> &rules, int family) : rules_(rules), family_(family) {}

    EbpfImage make() {
        nextsFind();
        for (uint32_t rank = 0; rank < rules_.size(); rank++) {
            image_.reason = add(rank);
            if (!image_.reason.empty()) {
                break;
            }
            image_.taken++;
        }
        return std::move(image_);
    }

private:
    // For each rule the first rank of the next node (behind the last node one that no rule has), and whether a deny
    // rule of its node stands before it.
    void nextsFind() {
        nexts_.resize(rules_.size());
        isPassable_.resize(rules_.size());
        for (uint32_t rank = 1; rank < rules_.size(); rank++) {
            isPassable_[rank] = rules_[rank].place == rules_[rank - 1].place && (isPassable_[rank - 1] || !rules_[rank - 1].rule.permit);
        }
        auto next = static_cast<uint32_t>(rules_.size());
        for (uint32_t rank = next; rank-- > 0;) {
            next = rank + 1 < rules_.size() && rules_[rank + 1].place != rules_[rank].place ? rank + 1 : next;
            nexts_[rank] = next;
        }
    }

    // Result: empty, or why the rule does not fit: then nothing of it is in the image.
    std::string add(uint32_t rank) {
        if (rules_[rank].rule.fragments) {
            return ""; // of what the program looks at nothing is a fragment
        }
        // Ranges are asked for at the hit, as long as a key has room for one more.
        return addAs(rank, false).empty() ? "" : addAs(rank, true);
    }

    // isSpread: the ranges as prefixes.
    std::string addAs(uint32_t rank, bool isSpread) {
        bool isTooMany = false;
        std::vector<Pair> pairs = PairMaker(rules_[rank].rule, family_).make(isSpread, &isTooMany);
        if (isTooMany) {
            return "its ranges fall into more than " + std::to_string(EBPF_PAIRS_MOST) + " prefixes";
        }
        if (image_.entries.size() + pairs.size() > EBPF_ENTRIES_MOST) {
            return "more than " + std::to_string(EBPF_ENTRIES_MOST) + " entries";
        }
        const uint32_t tuplesBefore = image_.policy.count;
        for (Pair &pair : pairs) {
            const auto [it, isNew] = tuples_.try_emplace(pair.mask, image_.policy.count);
            if (isNew && image_.policy.count == EBPF_TUPLES) {
                tuples_.erase(it);
                tuplesForget(tuplesBefore);
                return "the rules ask for more than " + std::to_string(EBPF_TUPLES) + " different sets of bits";
            }
            if (isNew) {
                image_.policy.tuples[image_.policy.count++] = {pair.mask, rank, 0};
            }
            pair.value.v4.head.tuple = static_cast<uint16_t>(it->second);
        }
        const EbpfHit hit = hitOf(rank, isSpread);
        if (!haveRoom(pairs, hit)) {
            tuplesForget(tuplesBefore);
            return "more than " + std::to_string(EBPF_HITS) + " rules ask for the very same";
        }
        for (const Pair &pair : pairs) {
            put(pair.value, hit);
        }
        return "";
    }

    void tuplesForget(uint32_t from) {
        std::erase_if(tuples_, [from](const auto &tuple) { return tuple.second >= from; });
        for (uint32_t i = from; i < image_.policy.count; i++) {
            image_.policy.tuples[i] = {};
        }
        image_.policy.count = from;
    }

    EbpfHit hitOf(uint32_t rank, bool isSpread) const {
        const EbpfRule &rule = rules_[rank];
        EbpfHit hit = bareHit(rank);
        hit.rule = rule.count;
        hit.node = rule.node;
        hit.next = rule.rule.permit ? 0 : nexts_[rank];
        if (isSpread) {
            return hit;
        }
        const aclrule::AclPorts &from = rule.rule.sourcePorts, &to = rule.rule.destinationPorts;
        if (!from.any) {
            rangeAsk(hit, EBPF_SOURCE_PORT, from.first, from.last);
        }
        if (!to.any) {
            rangeAsk(hit, EBPF_DESTINATION_PORT, to.first, to.last);
        }
        if (!rule.rule.length.any) {
            rangeAsk(hit, EBPF_LENGTH, rule.rule.length.first, rule.rule.length.last);
        }
        return hit;
    }

    // The place in an entry's hits for a rule behind those there; EBPF_HITS: none is free. Not *pNeeded: no packet
    // of this key comes to the rule.
    uint32_t placeFor(const EbpfEntry &entry, const EbpfHit &hit, bool *pNeeded) const {
        uint32_t i = 0;
        *pNeeded = true;
        while (i < EBPF_HITS && entry.hits[i].rank != EBPF_NO_RANK) {
            const EbpfHit &before = entry.hits[i];
            const bool isOfNode = nexts_[before.rank] > hit.rank;
            const bool isEnd = before.isRanged == 0 && (isOfNode || (before.next == 0 && !isPassable_[before.rank]));
            *pNeeded = *pNeeded && !isEnd;
            i++;
        }
        return i;
    }

    bool haveRoom(const std::vector<Pair> &pairs, const EbpfHit &hit) const {
        return std::all_of(pairs.begin(), pairs.end(), [&](const Pair &pair) {
            const auto found = places_.find(pair.value);
            bool isNeeded = true;
            return found == places_.end() || placeFor(image_.entries[found->second].second, hit, &isNeeded) < EBPF_HITS || !isNeeded;
        });
    }

    void put(const EbpfKey &key, const EbpfHit &hit) {
        const auto [it, isNew] = places_.try_emplace(key, image_.entries.size());
        if (isNew) {
            EbpfEntry none{};
            std::fill(std::begin(none.hits), std::end(none.hits), bareHit(EBPF_NO_RANK));
            image_.entries.emplace_back(key, none);
        }
        EbpfEntry &entry = image_.entries[it->second].second;
        bool isNeeded = true;
        const uint32_t at = placeFor(entry, hit, &isNeeded);
        if (isNeeded) {
            entry.hits[at] = hit;
        }
    }

    const std::vector<EbpfRule> &rules_;
    const int family_;
    std::vector<uint32_t> nexts_;
    std::vector<bool> isPassable_;
    EbpfImage image_;
    std::unordered_map<EbpfKey, uint32_t, KeyHash, KeyEqual> tuples_; // mask -> tuple
    std::unordered_map<EbpfKey, size_t, KeyHash, KeyEqual> places_;   // key -> entry
};

} // namespace

EbpfImage ebpfImage(const std::vector<EbpfRule> &rules, int family) { return ImageMaker(rules, family).make(); }

} // namespace host
