// Network namespaces for tests: each test runs in a child process with a namespace of its own, so that
// services with process life start fresh and nothing is left behind however the test ends.
#ifndef TESTS_UNIT_HOST_NETLINK_LAB_H
#define TESTS_UNIT_HOST_NETLINK_LAB_H

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace lab {

using Address = std::array<uint8_t, 16>;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Runs `body` in a forked child in a new network namespace with loopback up; its failures become the
// test's. A child that hangs is ended after 60 s.
void inNamespace(const std::function<void()> &body);

// A second namespace, as long as the object lives.
class Namespace {
public:
    Namespace();
    ~Namespace();
    Namespace(const Namespace &) = delete;
    // Runs `body` with the calling thread inside.
    void inside(const std::function<void()> &body) const;
    // "/proc/<pid>/fd/<n>": what `ip link set ... netns` takes.
    std::string path() const;

private:
    int fd_;
};

// Runs a shell command in the calling thread's namespace; a failure is the test's.
void run(const std::string &command);

// Writes a value below /proc/sys/net of the calling thread's namespace.
void sysctl(const std::string &name, const std::string &value);

// A pair of interfaces: `near` here with its addresses, `far` in `ns` with its own; both up, no
// duplicate address detection.
struct Cable {
    std::string near, far;
    std::vector<std::string> nearAddresses, farAddresses;
};
void lay(const Namespace &ns, const Cable &cable);

uint32_t indexOf(const std::string &name);
Address address(const std::string &text);
int versionOf(const std::string &text);

// Starts the host's services as the process does. period: host.neighbour-probe-ms.
void startServices(const std::string &periodMs = "1000");

// Waits until `done()` holds, which is asked again after every change that the event thread tells and
// every millisecond. Result: whether it held before the limit.
bool eventually(const std::function<bool()> &done, milliseconds limit = milliseconds(5000));

// Runs `body` while the event thread does nothing.
void whileEventThreadWaits(const std::function<void()> &body);

// The daemon's end of the bus: joined to the peers' group, reads reports.
class Reports {
public:
    Reports();
    ~Reports();
    struct Report {
        uint16_t type = 0;   // QRV_RTM_HRD_UP ...
        uint32_t vrfid = 0;
        int version = 4;
        Address address{};
        Clock::time_point at;
    };
    // The next report; none when none came within the limit.
    std::optional<Report> next(milliseconds limit = milliseconds(5000));
    // Reads on until a report of this type and address comes.
    std::optional<Report> nextOf(uint16_t type, const std::string &address, milliseconds limit = milliseconds(5000));
    // Whether nothing comes within the time.
    bool silentFor(milliseconds time);

private:
    int fd_;
};

// Registers or removes a peer as the daemon does. Result: that of the call.
int32_t peer(uint8_t operation, const std::string &address, uint32_t vrfid = 0);
inline int32_t peerAdd(const std::string &text, uint32_t vrfid = 0) { return peer(1, text, vrfid); }
inline int32_t peerDel(const std::string &text, uint32_t vrfid = 0) { return peer(0, text, vrfid); }

} // namespace lab

#endif
