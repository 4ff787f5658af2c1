// One daemon a host.root.
#include "host/process/run_lock.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/option/option.h"
#include "host/process/own_files.h"
#include "host/process/privileges.h"

namespace host {
namespace {

constexpr const char *LOCK_PATH = "/run/policyroute/policyrouted.lock";

// The number that the holder wrote, for the operator's eyes.
std::string holderText(int fd) {
    char text[24] = {};
    const ssize_t count = pread(fd, text, sizeof(text) - 1, 0);
    std::string digits(text, count > 0 ? static_cast<size_t>(count) : 0);
    digits.resize(std::min(digits.size(), digits.find_first_not_of("0123456789")));
    return digits.empty() ? "another process" : "process " + digits;
}

bool numberWrite(int fd, const std::string &number) {
    ssize_t written = -1;
    do {
        written = pwrite(fd, number.data(), number.size(), 0);
    } while (written < 0 && errno == EINTR);
    return written >= 0; // less of it is for the operator's eyes only
}

} // namespace

std::string runLockTake() {
    const std::string path = optionPath(LOCK_PATH);
    const std::string inTheWay = fileCheck(path);
    if (!inTheWay.empty()) {
        return inTheWay;
    }
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0644);
    if (fd < 0) {
        const int why = errno;
        return path + ": " + strerror(why) + "; " + privilegesAdvice();
    }
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != geteuid()) {
        close(fd);
        return path + " was changed by somebody else meanwhile: name another folder with host.root";
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const std::string error = errno == EWOULDBLOCK
                                      ? path + " is held by " + holderText(fd) +
                                            ": stop it, or name another folder with host.root"
                                      : path + ": " + strerror(errno);
        close(fd);
        return error;
    }
    const std::string number = std::to_string(getpid()) + "\n";
    if (ftruncate(fd, 0) != 0 || !numberWrite(fd, number)) {
        const std::string error = path + ": " + strerror(errno);
        close(fd);
        return error;
    }
    return ""; // the descriptor stays open: closing it would give the lock up
}

} // namespace host
