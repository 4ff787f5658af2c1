// A probe as it was configured: read from a management request, checked, and written back in that form.
//
// Pure. The members are those of the management operations probe.set and probe.replaceAll
// (docs/probes.md). A configuration that could be read can be run.
#ifndef HOST_NQA_NQA_CONFIG_H
#define HOST_NQA_NQA_CONFIG_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "host/nqa/nqa_engine.h"

namespace host {

enum class NqaKind : uint8_t { Icmp, Tcp, Udp, Http };

struct NqaAddress {
    int version = 4;                 // 4 or 6
    std::array<uint8_t, 16> bytes{}; // network order; IPv4 in the first 4 bytes, rest 0
    auto operator<=>(const NqaAddress &) const = default;
};

// What is asked, of whom, and on which way.
struct NqaQuestion {
    NqaKind kind = NqaKind::Icmp;
    NqaAddress target;
    uint16_t port = 0;                // tcp, udp, http
    std::string path;                 // http: begins with a slash
    std::string host;                 // http: value of the Host header; empty: target and port
    std::optional<NqaAddress> source; // an address of this machine
    std::string interface;            // out of this one; with via: where the next hop is; empty: any
    uint32_t vrf = 0;                 // 0: the main table
    std::optional<NqaAddress> via;    // the next hop through which the packets leave
    bool operator==(const NqaQuestion &) const = default;
};

struct NqaConfig {
    NqaQuestion question;
    NqaTiming timing;
    bool operator==(const NqaConfig &) const = default;
};

// Reads the members of a probe; `names`: whether administrator and test stand among them (probe.set).
// Throws std::runtime_error with a text that names the member and what it may be.
NqaConfig nqaConfigRead(const nlohmann::json &members, bool names);

// The members, defaults included; nqaConfigRead takes them. Lock: none
nlohmann::json nqaConfigWrite(const NqaConfig &config);

// Throws std::runtime_error unless it has 1 to 32 bytes. what: "admin" or "test".
void nqaNameCheck(const std::string &name, const char *what);

std::string nqaAddressText(const NqaAddress &address);
const char *nqaKindText(NqaKind kind);

// What an HTTP probe says in its Host header.
std::string nqaHostOf(const NqaQuestion &question);

} // namespace host

#endif
