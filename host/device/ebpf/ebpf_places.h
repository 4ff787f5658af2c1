// Places of an array map, given out by name and counted: who is the last to let go of a name frees its place.
#ifndef HOST_DEVICE_EBPF_EBPF_PLACES_H
#define HOST_DEVICE_EBPF_EBPF_PLACES_H

#include <cstdint>
#include <deque>
#include <map>
#include <optional>

namespace host {

template <class Name> class EbpfPlaces {
public:
    explicit EbpfPlaces(uint32_t most) : most_(most) {}

    // The name's place, with one user more; *pIsNew: it had none before. none: all are taken.
    std::optional<uint32_t> acquire(const Name &name, bool *pIsNew) {
        const auto found = places_.find(name);
        *pIsNew = found == places_.end();
        if (!*pIsNew) {
            found->second.users++;
            return found->second.place;
        }
        uint32_t place = next_;
        if (!free_.empty()) {
            place = free_.front();
            free_.pop_front();
        } else if (next_ == most_) {
            return std::nullopt;
        } else {
            next_++;
        }
        places_[name] = {place, 1};
        return place;
    }

    void release(const Name &name) {
        const auto found = places_.find(name);
        if (found != places_.end() && --found->second.users == 0) {
            free_.push_back(found->second.place);
            places_.erase(found);
        }
    }

    std::optional<uint32_t> get(const Name &name) const {
        const auto found = places_.find(name);
        return found == places_.end() ? std::nullopt : std::optional(found->second.place);
    }

    template <class Visit> void visit(Visit visit) const { // (name, place)
        for (const auto &[name, held] : places_) {
            visit(name, held.place);
        }
    }

private:
    struct Held {
        uint32_t place = 0, users = 0;
    };
    const uint32_t most_;
    uint32_t next_ = 0;
    std::map<Name, Held> places_;
    std::deque<uint32_t> free_;
};

} // namespace host

#endif
