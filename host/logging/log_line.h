// How a log text becomes lines: pure functions, no output.
#ifndef HOST_LOGGING_LOG_LINE_H
#define HOST_LOGGING_LOG_LINE_H

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace host {

// Bytes of a line at most, with its head and line end; longer texts are cut. Below PIPE_BUF, so that a
// pipe takes a line whole.
constexpr size_t LOG_LINE_BYTES = 4000;

// The lines of a text: broken at "\r" and "\n", empty ones left out. Control characters, which could
// confuse a terminal, become '?'.
std::vector<std::string> logLines(const std::string &text);

// Name of a module of the daemon (0x044B0000 ...), or its number.
std::string logModuleName(uint32_t logId);

// Short name of a syslog level 0..7.
const char *logLevelName(int level);

// A line for standard error: "2026-01-31 12:00:00.123 info module: text\n".
std::string logStderrLine(const timespec &when, int level, const std::string &module, const std::string &text);

// A datagram for the system's log socket: "<PRI>Jan 31 12:00:00 policyrouted[PID]: module: text".
std::string logSyslogLine(const timespec &when, int level, const std::string &module, const std::string &text,
                          int pid);

} // namespace host

#endif
