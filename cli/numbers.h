// Numbers, bytes and addresses in text, read strictly: the whole text or nothing.
#ifndef CLI_NUMBERS_H
#define CLI_NUMBERS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace cli {

// A decimal number within least..most; no sign, no space, no other base. Lock: none
std::optional<uint64_t> numberRead(const std::string &text, uint64_t least, uint64_t most);

// As numberRead for 32 bits, also in the form 0x1F. Lock: none
std::optional<uint32_t> wordRead(const std::string &text);

// Bytes from hex digits, two a byte; ':' and ' ' between bytes are passed over. Lock: none
std::optional<std::vector<uint8_t>> hexRead(const std::string &text);
std::string hexWrite(const std::vector<uint8_t> &bytes);

// An IPv4 (4 bytes) or IPv6 (16 bytes) address in network order. Lock: none
std::optional<std::vector<uint8_t>> addressRead(const std::string &text);

// Text of an address of 4 or 16 bytes; empty for any other length. Lock: none
std::string addressWrite(const std::vector<uint8_t> &bytes);

// "1 node", "2 nodes". Lock: none
std::string counted(size_t count, const char *pWhat);

} // namespace cli

#endif
