// A probe as a policy file says it and as the daemon's host runs it: a value that compares, with its
// texts and its form on the management socket.
#ifndef CLI_POLICY_PROBE_H
#define CLI_POLICY_PROBE_H

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace cli {

constexpr uint32_t PROBE_INTERVAL_LEAST_MS = 50;
constexpr uint32_t PROBE_INTERVAL_MOST_MS = 3600000;
constexpr uint32_t PROBE_COUNT_MOST = 1000; // of down-after and up-after
constexpr uint32_t PROBE_INTERVAL_MS = 1000;    // when nothing is said
constexpr uint32_t PROBE_TIMEOUT_MS = 500;   // when nothing is said; never above the interval
constexpr uint32_t PROBE_DOWN_AFTER = 3;
constexpr uint32_t PROBE_UP_AFTER = 1;
constexpr size_t PROBE_PATH_MOST = 1024; // bytes
constexpr size_t PROBE_HOST_MOST = 255;  // bytes
constexpr uint32_t PROBE_HTTP_PORT = 80;
constexpr const char *PROBE_HTTP_PATH = "/";

struct Probe {
    std::string kind;      // icmp, tcp, udp, http
    std::string target;    // address, as addressWrite writes it
    uint32_t port = 0;     // tcp, udp, http; 0 none
    std::string path{};    // http
    std::string host{};    // http: the Host header; empty: the target
    std::string source{};  // address; empty: the kernel chooses
    std::string interface{}; // empty: any
    uint32_t vrf = 0;
    std::string via{};     // address of the next hop that it guards; empty: the routing table decides
    uint32_t intervalMs = PROBE_INTERVAL_MS;
    uint32_t timeoutMs = PROBE_TIMEOUT_MS;
    uint32_t downAfter = PROBE_DOWN_AFTER;
    uint32_t upAfter = PROBE_UP_AFTER;
    bool operator==(const Probe &) const = default;
};

// "icmp 198.51.100.1, interval 1s, timeout 500ms": what differs from the defaults, for the operator.
std::string probeText(const Probe &probe);

// A duration: 50ms, 1s, 2m. Result: milliseconds, or none when it is none or longer than 32 bits hold.
std::optional<uint32_t> durationRead(const std::string &text);
std::string durationWrite(uint32_t milliseconds);

// The form of the management socket, whole; and back: what is missing there has its default.
nlohmann::json probeJson(const Probe &probe);
Probe probeOfJson(const nlohmann::json &config);

} // namespace cli

#endif
