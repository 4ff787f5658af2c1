// How a log text becomes lines.
#include "host/logging/log_line.h"

#include <algorithm>
#include <cstdio>

namespace host {
namespace {

constexpr int SYSLOG_FACILITY_DAEMON = 3;

struct Module {
    uint32_t logId;
    const char *name;
};
constexpr Module MODULES[] = {
    {0x044B0000, "pbr"},      // general and management
    {0x044B0002, "pbr-rtm"},  // route messages, next-hop events, time ranges
    {0x044B0003, "pbr-hw"},   // hardware programming
    {0x044B0004, "pbr-mem"},  // pools and records
    {0x044B0005, "pbr-bind"}, // interface binding
};

constexpr const char *LEVELS[] = {"emergency", "alert",  "critical", "error",
                                  "warning",   "notice", "info",     "debug"};
constexpr int LEVEL_COUNT = 8;

int levelInRange(int level) {
    return std::clamp(level, 0, LEVEL_COUNT - 1);
}

std::string timeText(const timespec &when, const char *format) {
    struct tm parts {};
    localtime_r(&when.tv_sec, &parts);
    char text[64];
    return std::string(text, strftime(text, sizeof(text), format, &parts));
}

} // namespace

std::vector<std::string> logLines(const std::string &text) {
    std::vector<std::string> lines;
    std::string line;
    for (const char c : text + "\n") {
        if (c != '\r' && c != '\n') {
            const auto byte = static_cast<unsigned char>(c);
            line += (byte < 0x20 && c != '\t') || byte == 0x7F ? '?' : c;
        } else if (!line.empty()) {
            lines.push_back(line);
            line.clear();
        }
    }
    return lines;
}

std::string logModuleName(uint32_t logId) {
    for (const Module &module : MODULES) {
        if (module.logId == logId) {
            return module.name;
        }
    }
    char text[16];
    snprintf(text, sizeof(text), "0x%08X", logId);
    return text;
}

const char *logLevelName(int level) {
    return LEVELS[levelInRange(level)];
}

std::string logStderrLine(const timespec &when, int level, const std::string &module,
                          const std::string &text) {
    char millis[24];
    snprintf(millis, sizeof(millis), ".%03ld", static_cast<long>(when.tv_nsec / 1000000));
    std::string line = timeText(when, "%Y-%m-%d %H:%M:%S") + millis + " " + logLevelName(level) + " " +
                       module + ": " + text;
    line.resize(std::min(line.size(), LOG_LINE_BYTES - 1));
    return line + "\n";
}

std::string logSyslogLine(const timespec &when, int level, const std::string &module,
                          const std::string &text, int pid) {
    const int priority = SYSLOG_FACILITY_DAEMON * LEVEL_COUNT + levelInRange(level);
    char head[32];
    snprintf(head, sizeof(head), "<%d>", priority);
    std::string line = head + timeText(when, "%b %e %H:%M:%S") + " policyrouted[" + std::to_string(pid) +
                       "]: " + module + ": " + text;
    line.resize(std::min(line.size(), LOG_LINE_BYTES));
    return line;
}

} // namespace host
