// Listening Unix sockets of the host.
#include "host/process/unix_listen.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "host/process/own_files.h"
#include "host/process/peer_rights.h"

namespace host {
namespace {

struct SocketFile {
    std::string path;
    dev_t device;
    ino_t inode;
};

struct Files {
    std::mutex lock;
    std::vector<SocketFile> made;
    // Given up for a moment to accept and hang up when the process has no descriptor left.
    int spareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
};

Files &files() {
    static Files *pFiles = new Files; // never destroyed: used until the process ends
    return *pFiles;
}

std::string failed(const std::string &what) {
    return what + ": " + strerror(errno);
}

bool addressMake(const std::string &path, sockaddr_un &address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        return false;
    }
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Whether somebody serves the socket file. One whose waiting room is full is served as well.
bool isServed(const sockaddr_un &address, int type) {
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return true; // unknown: rather refuse
    }
    const int result = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    const bool isDead = result != 0 && (errno == ECONNREFUSED || errno == ENOENT);
    close(fd);
    return !isDead;
}

// Makes room for the socket file. Result: empty, or why the path cannot be used.
std::string placeClear(const std::string &path, const sockaddr_un &address, int type) {
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT ? "" : failed(path);
    }
    if (!S_ISSOCK(status.st_mode)) {
        return path + " exists and is no socket: remove it, or name another folder with host.root";
    }
    if (status.st_uid != geteuid()) {
        return path + " is a socket of user " + std::to_string(status.st_uid) +
               ": remove it, or name another folder with host.root";
    }
    if (isServed(address, type)) {
        return path + " is served by another process: stop it, or name another folder with host.root";
    }
    return unlink(path.c_str()) == 0 ? "" : failed("cannot remove " + path);
}

// A folder that only this user can enter, beside the path: what is in it is ours, whoever may write around it.
class PrivateFolder {
public:
    explicit PrivateFolder(const std::string &besidePath) : name_(besidePath + ".XXXXXX") {}
    PrivateFolder(const PrivateFolder &) = delete;
    PrivateFolder &operator=(const PrivateFolder &) = delete;
    ~PrivateFolder() {
        if (fd_ >= 0) {
            (void)unlinkat(fd_, SOCKET_NAME, 0); // gone already when all went well
            close(fd_);
        }
        (void)rmdir(name_.c_str()); // an empty folder with an odd name is all that stays
    }

    // Result: empty, or why not.
    std::string make(const std::string &path) {
        if (mkdtemp(name_.data()) == nullptr) {
            return failed("cannot make " + path);
        }
        fd_ = open(name_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        struct stat status {};
        if (fd_ < 0 || fstat(fd_, &status) != 0) {
            return failed("cannot make " + path);
        }
        const bool isOurs = status.st_uid == geteuid() && (status.st_mode & 077) == 0;
        return isOurs ? "" : "cannot make " + path + ": somebody else works in its folder";
    }
    int fd() const { return fd_; }
    static constexpr const char *SOCKET_NAME = "s";

private:
    std::string name_;
    int fd_ = -1;
};

// Makes the socket file with its owner and mode, and serves it, where nobody else comes; then moves it to
// its place, unless something is there.
std::string bindGuarded(int fd, const std::string &path, const PeerPolicy &policy, SocketFile *pFile) {
    PrivateFolder folder(path);
    const std::string error = folder.make(path);
    if (!error.empty()) {
        return error;
    }
    sockaddr_un address{};
    (void)addressMake("/proc/self/fd/" + std::to_string(folder.fd()) + "/" + PrivateFolder::SOCKET_NAME, address); // short
    const mode_t mode = policy.areOthersReading ? 0666 : 0660;
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        return failed("cannot make " + path);
    }
    if (policy.group && fchownat(folder.fd(), PrivateFolder::SOCKET_NAME, static_cast<uid_t>(-1), *policy.group,
                                 AT_SYMLINK_NOFOLLOW) != 0) {
        return failed("cannot give " + path + " to the group of host.group");
    }
    struct stat status {};
    if (fchmodat(folder.fd(), PrivateFolder::SOCKET_NAME, mode, 0) != 0 || listen(fd, SOMAXCONN) != 0 ||
        fstatat(folder.fd(), PrivateFolder::SOCKET_NAME, &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return failed("cannot serve " + path);
    }
    *pFile = {path, status.st_dev, status.st_ino};
    if (renameat2(folder.fd(), PrivateFolder::SOCKET_NAME, AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) {
        return "";
    }
    return errno == EEXIST ? path + " came into being meanwhile: remove it, or name another folder with host.root"
                           : failed("cannot make " + path);
}

void remember(const SocketFile &file) {
    Files &all = files();
    const std::lock_guard<std::mutex> guard(all.lock);
    all.made.push_back(file);
}

// Removes the file unless another took its place.
void fileRemove(const SocketFile &file) {
    struct stat status {};
    if (lstat(file.path.c_str(), &status) == 0 && status.st_dev == file.device &&
        status.st_ino == file.inode) {
        (void)unlink(file.path.c_str()); // what stays is found stale by the next start
    }
}

} // namespace

std::string unixListen(const std::string &path, int type, int *pFd) {
    sockaddr_un address{};
    if (!addressMake(path, address)) {
        return path + " is too long for a socket: " + std::to_string(sizeof(address.sun_path) - 1) +
               " bytes at most";
    }
    std::string error;
    const std::optional<PeerPolicy> policy = peerPolicy(&error);
    if (!policy) {
        return error;
    }
    error = foldersCheck(path);
    if (error.empty()) {
        error = placeClear(path, address, type);
    }
    if (!error.empty()) {
        return error;
    }
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return failed("cannot make a socket for " + path);
    }
    SocketFile file{};
    error = bindGuarded(fd, path, *policy, &file);
    if (!error.empty()) {
        close(fd);
        return error;
    }
    remember(file);
    *pFd = fd;
    return "";
}

void unixUnlisten(const std::string &path, int fd) {
    close(fd);
    Files &all = files();
    const std::lock_guard<std::mutex> guard(all.lock);
    for (const SocketFile &file : all.made) {
        if (file.path == path) {
            fileRemove(file);
        }
    }
    std::erase_if(all.made, [&](const SocketFile &file) { return file.path == path; });
}

int unixAccept(int listener) {
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd >= 0) {
            return fd;
        }
        if (errno == EINTR || errno == ECONNABORTED) {
            continue;
        }
        if (errno != EMFILE && errno != ENFILE) {
            return -1;
        }
        Files &all = files();
        const std::lock_guard<std::mutex> guard(all.lock);
        if (all.spareFd < 0) {
            return -1;
        }
        close(all.spareFd);
        const int unwanted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (unwanted >= 0) {
            close(unwanted);
        }
        all.spareFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (unwanted < 0) {
            return -1;
        }
    }
}

void unixHangUp(int fd) {
    shutdown(fd, SHUT_RD); // from now on the peer cannot send: what is dropped has an end
    char dropped[4096];
    while (recv(fd, dropped, sizeof dropped, MSG_DONTWAIT) > 0) {
    }
    close(fd);
}

void filesRemove() {
    Files &all = files();
    const std::lock_guard<std::mutex> guard(all.lock);
    std::for_each(all.made.begin(), all.made.end(), fileRemove);
    all.made.clear();
}

} // namespace host
