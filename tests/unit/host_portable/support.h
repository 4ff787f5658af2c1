// What the tests of the host's portable parts share: a folder of their own as host.root, options, waiting
// for another thread without sleeping.
#ifndef TESTS_UNIT_HOST_PORTABLE_SUPPORT_H
#define TESTS_UNIT_HOST_PORTABLE_SUPPORT_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace support {

// A new folder, removed with everything in it at the end.
class Folder {
public:
    Folder();
    ~Folder();
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    std::string file(const std::string &name, const std::string &text) const; // writes it; its path
    std::string path;
};

// Options for one test: host.root is a folder of its own, the log goes to standard error; afterwards no
// option is set.
class Options {
public:
    explicit Options(const std::vector<std::string> &more = {});
    ~Options();
    Folder root;
};

// Values that one thread hands to another.
template <typename Value> class Mailbox {
public:
    void put(Value value) {
        const std::lock_guard<std::mutex> guard(lock);
        values.push_back(std::move(value));
        changed.notify_all();
    }
    // Waits until there are at least count values (10 s at most); all there are.
    std::vector<Value> waitFor(size_t count) {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait_for(guard, std::chrono::seconds(10), [&] { return values.size() >= count; });
        return values;
    }
    std::vector<Value> all() {
        const std::lock_guard<std::mutex> guard(lock);
        return values;
    }

private:
    std::mutex lock;
    std::condition_variable changed;
    std::vector<Value> values;
};

// Everything posted to the event thread so far has run when this returns.
void eventThreadSettle();

// Standard error into a pipe while it lives.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    std::string take(); // what has come since the last take; does not wait

private:
    int before;
    int readFd;
};

} // namespace support

#endif
