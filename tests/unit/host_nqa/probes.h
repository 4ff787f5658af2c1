// The probe service in a namespace: set up as the process does it, and asked on its event thread.
#ifndef TESTS_UNIT_HOST_NQA_PROBES_H
#define TESTS_UNIT_HOST_NQA_PROBES_H

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/nqa/nqa_service.h"
#include "tests/unit/host_netlink/lab.h"

namespace probes {

// Starts links, tables and probes in this namespace. Options: "key=value".
void start(const std::vector<std::string> &options = {});

// Runs `work` on the event thread and waits for it.
void onLoop(const std::function<void()> &work);

// Of a probe that asks each 50 ms, waits 40 ms unless told, and is down after two losses.
nlohmann::json quick(nlohmann::json members);

void set(const std::string &test, const nlohmann::json &members); // administrator "ops"
bool del(const std::string &test);
host::NqaReplaced replaceAll(const std::map<std::string, nlohmann::json> &members);
host::NqaProbe get(const std::string &test);
std::vector<host::NqaProbe> all();

bool becomes(const std::string &test, host::NqaState state, lab::milliseconds limit = lab::milliseconds(5000));

// Fails with the probe's own words when it does not become so.
void expect(const std::string &test, host::NqaState state);

// Two uplinks to one far host with 192.0.2.10 and 2001:db8:ffff::10: upa (198.51.100.2 - .1 and
// 2001:db8:a::2 - ::1), upb (203.0.113.2 - .1 and 2001:db8:b::2 - ::1). The routing table's way is upb.
struct Uplinks {
    lab::Namespace far;
    Uplinks();
    // Packets of echo requests, SYNs and UDP that left by an uplink since the last call.
    uint64_t leftBy(const std::string &uplink);
};

// A server in a namespace: accepts TCP and answers each connection with `answer`, or echoes UDP.
class Server {
public:
    enum Kind { Tcp, UdpEcho, UdpWrong };
    Server(const lab::Namespace *pWhere, Kind kind, const std::string &address, uint16_t port, std::string answer = "");
    ~Server();
    std::string received(); // what came over the last TCP connection, or the source of the last datagram

private:
    void serve();
    int fd_ = -1;
    Kind kind_;
    std::string answer_;
    std::atomic<bool> isStopping_{false};
    std::mutex lock_;
    std::string received_;
    std::thread thread_;
};

} // namespace probes

#endif
