// Log lines of the host's own code, to the same place as the daemon's.
#ifndef HOST_LOGGING_HOST_LOG_H
#define HOST_LOGGING_HOST_LOG_H

namespace host {

// syslog numbers
enum LogLevel { LOG_LEVEL_ERROR = 3, LOG_LEVEL_WARNING = 4, LOG_LEVEL_NOTICE = 5, LOG_LEVEL_INFO = 6,
                LOG_LEVEL_DEBUG = 7 };

// Writes one line: time, module, level, text. Any thread. Lock: none (takes the log's own)
void hostLog(LogLevel level, const char *module, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

} // namespace host

#endif
