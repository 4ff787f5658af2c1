// `pbrctl raw`: one command frame, for scripts and for looking closely.
#ifndef CLI_RAW_H
#define CLI_RAW_H

#include <optional>
#include <ostream>
#include <string>

#include "cli/daemon.h"

namespace cli {

struct RawOptions {
    std::string command;              // 0..65535, or a name such as node-get
    std::optional<std::string> key;   // HEX, list:NAME, node:LIST/INDEX[/HOP], if:NAME or if:UNIT
    uint32_t mask = 0;                // keyMask of a node: key
    uint32_t field = 0;
    std::optional<uint32_t> number;   // the value is a number
    std::optional<std::string> bytes; // the value is bytes, in hex
    std::optional<std::string> text;  // the value is bytes, as text
    std::optional<uint32_t> capacity; // the value is bytes to be read, at most so many
    bool json = false;
};

// Sends the frame and prints result and value. Result: the daemon's result code. Throws Usage, NoDaemon.
uint32_t raw(Daemon &daemon, const RawOptions &options, std::ostream &out);

// The key of `text`. Interface names are looked up with `daemon`. Throws Usage.
client::Bytes rawKey(Daemon &daemon, const std::string &text, uint8_t mask);

} // namespace cli

#endif
