// Strict readers of numbers, hex and addresses.
#include "cli/numbers.h"

#include <arpa/inet.h>
#include <charconv>

namespace cli {

std::optional<uint64_t> numberRead(const std::string &text, uint64_t least, uint64_t most) {
    uint64_t value = 0;
    const char *pEnd = text.data() + text.size();
    const auto result = std::from_chars(text.data(), pEnd, value, 10);
    if (text.empty() || result.ec != std::errc() || result.ptr != pEnd || value < least || value > most) {
        return std::nullopt;
    }
    return value;
}

std::optional<uint32_t> wordRead(const std::string &text) {
    if (text.rfind("0x", 0) != 0 && text.rfind("0X", 0) != 0) {
        const auto value = numberRead(text, 0, UINT32_MAX);
        return value ? std::optional<uint32_t>(static_cast<uint32_t>(*value)) : std::nullopt;
    }
    uint32_t value = 0;
    const char *pEnd = text.data() + text.size();
    const auto result = std::from_chars(text.data() + 2, pEnd, value, 16);
    if (text.size() == 2 || result.ec != std::errc() || result.ptr != pEnd) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::vector<uint8_t>> hexRead(const std::string &text) {
    std::vector<uint8_t> bytes;
    for (size_t at = 0; at < text.size();) {
        if (text[at] == ':' || text[at] == ' ') {
            at++;
            continue;
        }
        uint8_t byte = 0;
        if (at + 2 > text.size()) {
            return std::nullopt;
        }
        const auto result = std::from_chars(&text[at], &text[at] + 2, byte, 16);
        if (result.ec != std::errc() || result.ptr != &text[at] + 2) {
            return std::nullopt;
        }
        bytes.push_back(byte);
        at += 2;
    }
    return bytes;
}

std::string hexWrite(const std::vector<uint8_t> &bytes) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

std::optional<std::vector<uint8_t>> addressRead(const std::string &text) {
    const bool six = text.find(':') != std::string::npos;
    std::vector<uint8_t> bytes(six ? 16 : 4);
    if (inet_pton(six ? AF_INET6 : AF_INET, text.c_str(), bytes.data()) != 1) {
        return std::nullopt;
    }
    return bytes;
}

std::string addressWrite(const std::vector<uint8_t> &bytes) {
    char text[INET6_ADDRSTRLEN] = "";
    if (bytes.size() == 4 || bytes.size() == 16) {
        (void)inet_ntop(bytes.size() == 4 ? AF_INET : AF_INET6, bytes.data(), text, sizeof(text)); // fits
    }
    return text;
}

std::string counted(size_t count, const char *pWhat) {
    return std::to_string(count) + " " + pWhat + (count == 1 ? "" : "s");
}

} // namespace cli
