// What this process may do beyond any user, and as whom it runs.
//
// Order: the bounding set and the groups need capabilities that go with the change of user; the change of
// user takes the effective capabilities away, so that they are set last.
#include "host/process/privileges.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "host/option/option.h"
#include "host/process/peer_rights.h"

namespace host {
namespace {

#ifndef CAP_BPF
#define CAP_BPF 39 // newer than some headers
#define CAP_PERFMON 38
#endif

constexpr unsigned long LAST_CAPABILITY = 63;                         // the kernel refuses those it does not know
constexpr size_t ENTRY_BYTES = 65536;
const char *const FOLDERS[] = {"/run/policyroute/", "/tmp/", "/var/lib/policyroute/"};

struct User {
    std::string name;
    uid_t uid;
    gid_t gid;
};

std::string failed(const std::string &what) {
    return what + ": " + strerror(errno);
}

// The user of a name or a number.
std::optional<User> userOf(const std::string &text) {
    std::vector<char> room(ENTRY_BYTES);
    passwd entry{};
    passwd *pFound = nullptr;
    const bool isNumber = text.find_first_not_of("0123456789") == std::string::npos && text.size() < 10;
    const int error = isNumber ? getpwuid_r(static_cast<uid_t>(std::stoul(text)), &entry, room.data(), room.size(), &pFound)
                               : getpwnam_r(text.c_str(), &entry, room.data(), room.size(), &pFound);
    if (error != 0 || pFound == nullptr) {
        return std::nullopt;
    }
    return User{entry.pw_name, entry.pw_uid, entry.pw_gid};
}

// Makes what is missing of a folder; what was made is the user's. A name that became something else
// meanwhile is not followed.
std::string folderGive(const std::string &folder, const User &user) {
    for (size_t slash = folder.find('/', 1); slash != std::string::npos; slash = folder.find('/', slash + 1)) {
        const std::string part = folder.substr(0, slash);
        if (mkdir(part.c_str(), 0755) != 0) {
            continue; // it is there; otherwise opening the file in it tells more
        }
        const int fd = open(part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        const bool isDone = fd >= 0 && fchown(fd, user.uid, user.gid) == 0;
        const std::string error = isDone ? "" : failed("cannot give " + part + " to user " + user.name);
        if (fd >= 0) {
            close(fd);
        }
        if (!isDone) {
            return error;
        }
    }
    return "";
}

std::string foldersGive(const User &user) {
    std::string root = optionGet("host.root").value_or("");
    std::string error;
    for (const char *pFolder : FOLDERS) {
        error = error.empty() ? folderGive(root + pFolder, user) : error;
    }
    const std::string state = optionGet("host.state-dir").value_or("");
    return error.empty() && !state.empty() ? folderGive(state + "/", user) : error;
}

// The user's groups, and that of the sockets.
std::string groupsTake(const std::optional<User> &user, const std::optional<gid_t> &socketGroup) {
    std::vector<gid_t> groups;
    if (user) {
        int count = 256;
        groups.resize(static_cast<size_t>(count));
        if (getgrouplist(user->name.c_str(), user->gid, groups.data(), &count) < 0) {
            return "the groups of user " + user->name + " are too many";
        }
        groups.resize(static_cast<size_t>(count));
    }
    if (socketGroup && std::find(groups.begin(), groups.end(), *socketGroup) == groups.end()) {
        groups.push_back(*socketGroup);
    }
    if (groups.empty() || setgroups(groups.size(), groups.data()) == 0) {
        return "";
    }
    // In a user namespace nobody may: the sockets' group says so when it is needed.
    return user ? failed("cannot take the groups of user " + user->name) : "";
}

std::string userBecome(const User &user) {
    if (setresgid(user.gid, user.gid, user.gid) != 0 || setresuid(user.uid, user.uid, user.uid) != 0) {
        return failed("cannot become user " + user.name);
    }
    return "";
}

// The capabilities that the daemon needs: those for eBPF with its device only. CAP_PERFMON lets the kernel load the
// program without fences against speculation, which would cost each packet more than what it asks for.
bool isNeeded(unsigned long capability) {
    if (capability == CAP_NET_ADMIN || capability == CAP_NET_RAW) {
        return true;
    }
    return (capability == CAP_BPF || capability == CAP_PERFMON) && optionGet("host.device") == "ebpf";
}

// Takes all capabilities away but those, as far as they are there.
std::string capabilitiesKeep() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, data) != 0) {
        return failed("capabilities cannot be read");
    }
    for (unsigned long capability = 0; capability <= LAST_CAPABILITY; ++capability) {
        if (!isNeeded(capability)) {
            data[capability / 32].permitted &= ~(1U << capability % 32);
        }
    }
    for (__user_cap_data_struct &word : data) {
        word.effective = word.permitted;
        word.inheritable = 0;
    }
    return syscall(SYS_capset, &header, data) == 0 ? "" : failed("capabilities cannot be given up");
}

void boundingSetKeep() {
    for (unsigned long capability = 0; capability <= LAST_CAPABILITY; ++capability) {
        if (!isNeeded(capability)) {
            (void)prctl(PR_CAPBSET_DROP, capability, 0, 0, 0); // not ours to change: nothing to lose either
        }
    }
}

// Root's part. Result: empty, or why not.
std::string rootLeave(const std::optional<User> &user) {
    std::string error;
    const std::optional<gid_t> group = peerGroup(&error);
    if (error.empty() && user) {
        error = foldersGive(*user);
    }
    if (error.empty()) {
        error = groupsTake(user, group);
    }
    if (!error.empty() || !user || user->uid == 0) {
        return error;
    }
    if (prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0) {
        return failed("capabilities cannot be kept for user " + user->name);
    }
    return userBecome(*user);
}

} // namespace

std::string privilegesDrop() {
    const std::string name = optionGet("host.user").value_or("");
    std::optional<User> user;
    if (!name.empty()) {
        user = userOf(name);
        if (!user) {
            return "option host.user: there is no user '" + name + "'";
        }
    }
    const bool isRoot = geteuid() == 0;
    if (user && !isRoot && user->uid != geteuid()) {
        return "option host.user: only root can become user " + user->name;
    }
    boundingSetKeep();
    std::string error = isRoot ? rootLeave(user) : "";
    if (error.empty()) {
        error = capabilitiesKeep();
    }
    if (error.empty() && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return failed("new privileges cannot be ruled out");
    }
    return error;
}

std::string privilegesAdvice() {
    return geteuid() == 0 ? "root has no right to other users' folders here: name their owner with host.user, "
                            "or another folder with host.root"
                          : "run as root, or name a folder of yours with host.root";
}

} // namespace host
