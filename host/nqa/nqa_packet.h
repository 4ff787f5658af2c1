// What probes put on the wire, and what is understood of the answers. Pure: bytes in, values out.
//
// Every question carries a token: a secret of this process, the probe and the number of the question. An
// ICMP or UDP answer counts only when it brings the whole token back, so that neither strangers nor late
// answers to earlier questions are taken for one.
#ifndef HOST_NQA_NQA_PACKET_H
#define HOST_NQA_NQA_PACKET_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace host {

struct NqaToken {
    uint64_t secret = 0;
    uint32_t id = 0;
    uint64_t seq = 0;
    bool operator==(const NqaToken &) const = default;
};

constexpr size_t NQA_TOKEN_BYTES = 24;
using NqaTokenBytes = std::array<uint8_t, NQA_TOKEN_BYTES>;
NqaTokenBytes nqaTokenWrite(const NqaToken &token);

// The token, when the bytes are one with this secret.
std::optional<NqaToken> nqaTokenRead(const uint8_t *pBytes, size_t len, uint64_t secret);

// ---- ICMP echo ----

constexpr size_t NQA_ECHO_BYTES = 8 + NQA_TOKEN_BYTES;
using NqaEchoBytes = std::array<uint8_t, NQA_ECHO_BYTES>;

// An echo request from its header on; version 4 or 6. The checksum of version 6 is the kernel's.
NqaEchoBytes nqaEchoWrite(int version, uint16_t identifier, const NqaToken &token);

// The token of an echo reply. pBytes: what a raw socket gives: with the IP header for version 4, from
// the ICMP header on for version 6. Lengths are checked, whatever the bytes say.
std::optional<NqaToken> nqaEchoReplyRead(int version, const uint8_t *pBytes, size_t len, uint16_t identifier,
                                         uint64_t secret);

// The token of an echo request that an ICMP error quotes, from its ICMP header on.
std::optional<NqaToken> nqaEchoQuoteRead(int version, const uint8_t *pBytes, size_t len, uint16_t identifier,
                                         uint64_t secret);

// ---- HTTP ----

std::string nqaHttpRequest(const std::string &path, const std::string &host);

// What the first bytes of an answer are. status is set with Status only.
enum class NqaHttp { More, Status, Strange };
NqaHttp nqaHttpStatus(const std::string &bytes, uint32_t *pStatus);

// ---- failures ----

// An errno in an operator's words: "connection refused", "no route", ...
std::string nqaErrorText(int error);

// What an ICMP error says, without who said it: "port unreachable".
std::string nqaIcmpErrorText(int version, uint8_t type, uint8_t code);

} // namespace host

#endif
