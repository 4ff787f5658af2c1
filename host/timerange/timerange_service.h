// Time ranges: bindings of numbered ranges and the delivery of their starts and stops.
//
// A range is active or not; one that nobody set is inactive. What a binding was told and what its range
// is are compared, and the difference is delivered on the service's own thread, which holds no lock then:
// the callbacks take the daemon's mutex. A binding and an unbinding come with that mutex held, so they
// never wait for a delivery. A binding that is removed while its callback waits for the mutex gets that
// one call late; whoever is bound under the same name by then is told its own state once more, so that
// the last word is always right.
//
//   told inactive --range active--> queued --start delivered--> told active   (and the reverse)
#ifndef HOST_TIMERANGE_TIMERANGE_SERVICE_H
#define HOST_TIMERANGE_TIMERANGE_SERVICE_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/timerange.h"

namespace host {

struct TimerangeCallbacks {
    TimerangeCallback start = nullptr;
    TimerangeCallback stop = nullptr;
    TimerangeCallback unbind = nullptr; // when the service drops the binding: it never does so yet
};

// A range that is active or has bindings.
struct TimerangeRow {
    uint32_t id = 0;
    bool active = false;
    std::vector<std::string> names; // of its bindings
};

class TimerangeService {
public:
    TimerangeService();

    // Waits for a callback that is under way: the daemon's mutex must not be held.
    ~TimerangeService();
    TimerangeService(const TimerangeService &) = delete;
    TimerangeService &operator=(const TimerangeService &) = delete;

    // A second binding of the same range and name replaces the first. An active range delivers its start
    // afterwards. Any thread. Lock: takes the service's own
    void bind(uint32_t id, const std::string &name, const TimerangeCallbacks &callbacks,
              std::vector<uint8_t> context);

    // An absent binding is removed already. Any thread. Lock: takes the service's own
    void unbind(uint32_t id, const std::string &name);

    // Switches a range; its bindings are told. Any thread. Lock: takes the service's own
    void set(uint32_t id, bool active);

    // Ranges ascending, names in order. Any thread. Lock: takes the service's own
    std::vector<TimerangeRow> rows() const;

    // Waits until everything queued has been delivered: the daemon's mutex must not be held.
    void drain();

private:
    struct Binding {
        uint32_t id = 0;
        std::string name;
        TimerangeCallbacks callbacks;
        std::vector<uint8_t> context;
        bool told = false;    // active, as last delivered
        bool isQueued = false;
        bool isBound = true;
        bool repeat = false;  // deliver even when told agrees
    };
    using BindingPtr = std::shared_ptr<Binding>;
    using Key = std::pair<uint32_t, std::string>;

    void queue(const BindingPtr &binding);
    void drop(const Key &key);
    void run();
    void deliver(const BindingPtr &binding, std::unique_lock<std::mutex> &guard);
    void retellName(const std::string &name);

    mutable std::mutex lock;
    std::condition_variable work;
    std::condition_variable idle;
    std::map<Key, BindingPtr> bindings;
    std::set<uint32_t> active;
    std::deque<BindingPtr> queued;
    bool isDelivering = false;
    bool isEnding = false;
    std::thread thread;
};

// The process's service.
TimerangeService &timerangeService();

// Registers the operations "timeranges" and "timerange.set". Lock: none
void timerangeMgmtRegister();

} // namespace host

#endif
