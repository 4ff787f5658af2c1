// Where log lines go: the system's log socket (journal or syslog) when it is there and option host.log
// does not say otherwise, else standard error.
//
// Writers may hold the daemon's mutex, so a line is never waited for longer than WAIT_MS: a reader of
// standard error that does not read, or a log service that hangs, costs lines, which are counted and
// reported when there is room again, and after the first lost line nothing more is waited for until then.
#include "platform/logging.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/logging/host_log.h"
#include "host/logging/log_line.h"
#include "host/option/option.h"

namespace host {
namespace {

constexpr const char *LOG_SOCKET = "/dev/log"; // of the journal or of syslog
constexpr int WAIT_MS = 20;

struct Log {
    std::mutex lock;
    bool isOpen = false;
    int systemFd = -1;  // connected to LOG_SOCKET; -1: standard error
    uint64_t lost = 0;  // lines since the last one that was written
};

Log &theLog() {
    static Log *pLog = new Log; // never destroyed: threads log until the process ends
    return *pLog;
}

int systemLogOpen() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", LOG_SOCKET);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) {
        return fd;
    }
    close(fd);
    return -1;
}

void openOnce(Log &log) {
    if (log.isOpen) {
        return;
    }
    log.isOpen = true;
    if (optionGet("host.log").value_or("auto") != "stderr") {
        log.systemFd = systemLogOpen();
    }
}

// A log service that was started afresh has a new socket.
bool systemSend(Log &log, const std::string &line) {
    if (send(log.systemFd, line.data(), line.size(), MSG_NOSIGNAL) >= 0) {
        return true;
    }
    if (errno != ECONNREFUSED && errno != ENOTCONN && errno != ECONNRESET) {
        return false; // full: the line is lost
    }
    const int fd = systemLogOpen();
    if (fd < 0) {
        return false;
    }
    close(log.systemFd);
    log.systemFd = fd;
    return send(fd, line.data(), line.size(), MSG_NOSIGNAL) >= 0;
}

bool stderrSend(const Log &log, const std::string &line) {
    pollfd writable{STDERR_FILENO, POLLOUT, 0};
    if (poll(&writable, 1, log.lost == 0 ? WAIT_MS : 0) != 1 || (writable.revents & POLLOUT) == 0) {
        return false;
    }
    ssize_t written = -1;
    do {
        written = ::write(STDERR_FILENO, line.data(), line.size());
    } while (written < 0 && errno == EINTR);
    return written >= 0;
}

bool lineSend(Log &log, int level, const std::string &module, const std::string &text) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return log.systemFd >= 0 ? systemSend(log, logSyslogLine(now, level, module, text, getpid()))
                             : stderrSend(log, logStderrLine(now, level, module, text));
}

void lineWrite(Log &log, int level, const std::string &module, const std::string &text) {
    if (log.lost > 0 && lineSend(log, LOG_LEVEL_WARNING, "log",
                                 std::to_string(log.lost) + " lines were lost: the log took no more")) {
        log.lost = 0;
    }
    if (log.lost > 0 || !lineSend(log, level, module, text)) {
        ++log.lost;
    }
}

// Formats and writes; keeps errno, which the caller may still want to report.
void textWrite(int level, const std::string &module, const char *format, va_list arguments)
    __attribute__((format(printf, 3, 0)));
void textWrite(int level, const std::string &module, const char *format, va_list arguments) {
    const int error = errno;
    char text[LOG_LINE_BYTES];
    vsnprintf(text, sizeof(text), format, arguments);
    Log &log = theLog();
    const std::lock_guard<std::mutex> guard(log.lock);
    openOnce(log);
    for (const std::string &line : logLines(text)) {
        lineWrite(log, level, module, line);
    }
    errno = error;
}

} // namespace

void hostLog(LogLevel level, const char *module, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    textWrite(level, module, format, arguments);
    va_end(arguments);
}

} // namespace host

void loggingDebugOutput(uint32_t logId, uint32_t level, uint32_t, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    host::textWrite(static_cast<int>(level), host::logModuleName(logId), format, arguments);
    va_end(arguments);
}

void loggingLogOutput(uint32_t logId, uint32_t priority, uint32_t, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    host::textWrite(static_cast<int>(priority), host::logModuleName(logId), format, arguments);
    va_end(arguments);
}
