// See nqa_packet.h.
#include "host/nqa/nqa_packet.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace host {

namespace {

constexpr uint8_t ECHO_REPLY_4 = 0, ECHO_REQUEST_4 = 8, ECHO_REQUEST_6 = 128, ECHO_REPLY_6 = 129;
constexpr size_t HEADER_BYTES = 8; // type, code, checksum, identifier, sequence
constexpr size_t IP_HEADER_LEAST = 20;

void storeBe(uint8_t *pBytes, uint64_t value, size_t bytes) {
    for (size_t i = 0; i < bytes; i++) {
        pBytes[i] = static_cast<uint8_t>(value >> (8 * (bytes - 1 - i)));
    }
}

uint64_t loadBe(const uint8_t *pBytes, size_t bytes) {
    uint64_t value = 0;
    for (size_t i = 0; i < bytes; i++) {
        value = value << 8 | pBytes[i];
    }
    return value;
}

uint16_t checksum(const uint8_t *pBytes, size_t len) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < len; i += 2) {
        sum += static_cast<uint32_t>(loadBe(pBytes + i, 2));
    }
    sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~(sum + (sum >> 16)));
}

std::optional<NqaToken> echoRead(uint8_t type, const uint8_t *pBytes, size_t len, uint16_t identifier, uint64_t secret) {
    if (len < HEADER_BYTES || pBytes[0] != type || pBytes[1] != 0 || loadBe(pBytes + 4, 2) != identifier) {
        return std::nullopt;
    }
    const auto token = nqaTokenRead(pBytes + HEADER_BYTES, len - HEADER_BYTES, secret);
    return token && loadBe(pBytes + 6, 2) == (token->seq & 0xffff) ? token : std::nullopt;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

} // namespace

NqaTokenBytes nqaTokenWrite(const NqaToken &token) {
    NqaTokenBytes bytes{};
    storeBe(bytes.data(), token.secret, 8);
    storeBe(bytes.data() + 8, token.id, 4);
    storeBe(bytes.data() + 16, token.seq, 8);
    return bytes;
}

std::optional<NqaToken> nqaTokenRead(const uint8_t *pBytes, size_t len, uint64_t secret) {
    if (len != NQA_TOKEN_BYTES) {
        return std::nullopt;
    }
    const NqaToken token{loadBe(pBytes, 8), static_cast<uint32_t>(loadBe(pBytes + 8, 4)), loadBe(pBytes + 16, 8)};
    return token.secret == secret && loadBe(pBytes + 12, 4) == 0 ? std::optional(token) : std::nullopt;
}

NqaEchoBytes nqaEchoWrite(int version, uint16_t identifier, const NqaToken &token) {
    NqaEchoBytes bytes{};
    bytes[0] = version == 4 ? ECHO_REQUEST_4 : ECHO_REQUEST_6;
    storeBe(bytes.data() + 4, identifier, 2);
    storeBe(bytes.data() + 6, token.seq & 0xffff, 2);
    const NqaTokenBytes payload = nqaTokenWrite(token);
    std::copy(payload.begin(), payload.end(), bytes.begin() + HEADER_BYTES);
    if (version == 4) {
        storeBe(bytes.data() + 2, checksum(bytes.data(), bytes.size()), 2);
    }
    return bytes;
}

std::optional<NqaToken> nqaEchoReplyRead(int version, const uint8_t *pBytes, size_t len, uint16_t identifier,
                                         uint64_t secret) {
    if (version == 6) {
        return echoRead(ECHO_REPLY_6, pBytes, len, identifier, secret);
    }
    if (len < IP_HEADER_LEAST || pBytes[0] >> 4 != 4) {
        return std::nullopt;
    }
    const size_t headerBytes = (pBytes[0] & 0x0f) * 4u;
    if (headerBytes < IP_HEADER_LEAST || headerBytes > len) {
        return std::nullopt;
    }
    return echoRead(ECHO_REPLY_4, pBytes + headerBytes, len - headerBytes, identifier, secret);
}

std::optional<NqaToken> nqaEchoQuoteRead(int version, const uint8_t *pBytes, size_t len, uint16_t identifier,
                                         uint64_t secret) {
    // Routers may pad what they quote.
    return echoRead(version == 4 ? ECHO_REQUEST_4 : ECHO_REQUEST_6, pBytes, std::min(len, NQA_ECHO_BYTES), identifier,
                    secret);
}

std::string nqaHttpRequest(const std::string &path, const std::string &host) {
    return "GET " + path + " HTTP/1.1\r\nHost: " + host +
           "\r\nUser-Agent: policyroute\r\nAccept: */*\r\nConnection: close\r\n\r\n";
}

NqaHttp nqaHttpStatus(const std::string &bytes, uint32_t *pStatus) {
    static constexpr char FORM[] = "HTTP/d.d ddd"; // d: any digit
    constexpr size_t LEN = sizeof FORM - 1;
    for (size_t i = 0; i < std::min(bytes.size(), LEN); i++) {
        if (FORM[i] == 'd' ? !isDigit(bytes[i]) : bytes[i] != FORM[i]) {
            return NqaHttp::Strange;
        }
    }
    if (bytes.size() <= LEN) {
        return NqaHttp::More; // the character behind the number says whether it is all of it
    }
    const char behind = bytes[LEN];
    const char *pNumber = bytes.data() + LEN - 3;
    if ((behind != ' ' && behind != '\r' && behind != '\n') || pNumber[0] == '0') {
        return NqaHttp::Strange;
    }
    *pStatus = static_cast<uint32_t>((pNumber[0] - '0') * 100 + (pNumber[1] - '0') * 10 + (pNumber[2] - '0'));
    return NqaHttp::Status;
}

std::string nqaErrorText(int error) {
    switch (error) {
    case ECONNREFUSED:
        return "connection refused";
    case ECONNRESET:
        return "connection reset";
    case ENETUNREACH:
        return "no route";
    case EHOSTUNREACH:
        return "host unreachable";
    case ETIMEDOUT:
        return "no answer";
    case EADDRNOTAVAIL:
    case EINVAL:
        return "the source address cannot be used here";
    case ENODEV:
    case ENXIO:
        return "no such interface";
    case ENETDOWN:
        return "the interface is down";
    case EPERM:
    case EACCES:
        return "not permitted (a firewall, or CAP_NET_RAW and CAP_NET_ADMIN are missing)";
    case EMFILE:
    case ENFILE:
        return "no descriptor left (RLIMIT_NOFILE)";
    case ENOBUFS:
    case EAGAIN:
        return "not sent: no room, or the link is down";
    default:
        return strerror(error);
    }
}

std::string nqaIcmpErrorText(int version, uint8_t type, uint8_t code) {
    struct Row {
        int version;
        uint8_t type, code;
        const char *pText;
    };
    static constexpr Row ROWS[] = {
        {4, 3, 0, "network unreachable"}, {4, 3, 1, "host unreachable"},       {4, 3, 2, "protocol unreachable"},
        {4, 3, 3, "port unreachable"},    {4, 3, 9, "network prohibited"},     {4, 3, 10, "host prohibited"},
        {4, 3, 13, "prohibited"},         {4, 11, 0, "time to live exceeded"}, {6, 1, 0, "no route"},
        {6, 1, 1, "prohibited"},          {6, 1, 3, "address unreachable"},    {6, 1, 4, "port unreachable"},
        {6, 1, 5, "prohibited"},          {6, 1, 6, "route rejected"},         {6, 3, 0, "hop limit exceeded"},
    };
    for (const Row &row : ROWS) {
        if (row.version == version && row.type == type && row.code == code) {
            return row.pText;
        }
    }
    return "ICMP error " + std::to_string(type) + " code " + std::to_string(code);
}

} // namespace host
