// The service manager's notification socket. The protocol is one datagram of text, so it needs no library.
#include "host/process/notify.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/event/event_loop.h"
#include "host/logging/host_log.h"

namespace host {
namespace {

std::string environment(const char *name) {
    const char *pValue = getenv(name);
    return pValue != nullptr ? pValue : "";
}

// A whole number of the environment; 0 when it is none.
uint64_t number(const std::string &text) {
    if (text.empty() || text.size() > 18 || text.find_first_not_of("0123456789") != std::string::npos) {
        return 0;
    }
    return strtoull(text.c_str(), nullptr, 10);
}

// The socket's address. Result: its length, 0 when the name cannot be one.
socklen_t addressMake(const std::string &name, sockaddr_un &address) {
    address = {};
    address.sun_family = AF_UNIX;
    if ((name[0] != '/' && name[0] != '@') || name.size() < 2 || name.size() >= sizeof(address.sun_path)) {
        return 0;
    }
    memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') {
        address.sun_path[0] = '\0'; // an abstract name has no end but its length
    }
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

std::string told(const std::string &state) {
    std::string error = notifySend(state);
    if (!error.empty()) {
        hostLog(LOG_LEVEL_WARNING, "process", "the service manager cannot be told %s: %s", state.c_str(), error.c_str());
    }
    return error;
}

// Runs on the event thread and starts itself again: when that thread is stuck, the manager hears nothing.
void signOfLife(std::chrono::milliseconds period) {
    (void)notifySend("WATCHDOG=1"); // a manager that is away comes back by itself, or ends us
    hostEventLoop().timerStart(period, [period] { signOfLife(period); });
}

} // namespace

std::string notifySend(const std::string &state) {
    const std::string name = environment("NOTIFY_SOCKET");
    if (name.empty()) {
        return "";
    }
    sockaddr_un address{};
    const socklen_t len = addressMake(name, address);
    if (len == 0) {
        return "NOTIFY_SOCKET is no socket's name: " + name;
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return strerror(errno);
    }
    const ssize_t count = sendto(fd, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                                 reinterpret_cast<const sockaddr *>(&address), len);
    const std::string error = count == static_cast<ssize_t>(state.size()) ? "" : name + ": " + strerror(errno);
    close(fd);
    return error;
}

std::chrono::milliseconds notifyWatchdogPeriod() {
    const std::string process = environment("WATCHDOG_PID");
    if (!process.empty() && number(process) != static_cast<uint64_t>(getpid())) {
        return std::chrono::milliseconds(0);
    }
    return std::chrono::milliseconds(number(environment("WATCHDOG_USEC")) / 2000);
}

void notifyReady() {
    const std::chrono::milliseconds period = notifyWatchdogPeriod();
    if (told("READY=1\nSTATUS=Serving.").empty() && period.count() > 0) {
        hostEventLoop().post([period] { signOfLife(period); });
    }
}

void notifyStopping() {
    (void)told("STOPPING=1\nSTATUS=Ending; what is installed stays.");
}

} // namespace host
