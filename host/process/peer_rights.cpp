// What the process at the other end of a Unix socket may do.
#include "host/process/peer_rights.h"

#include <algorithm>
#include <cstdlib>

#include <grp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "host/logging/host_log.h"
#include "host/option/option.h"

namespace host {
namespace {

constexpr size_t GROUPS_AT_FIRST = 64;
constexpr size_t GROUP_ENTRY_BYTES = 65536;

std::optional<gid_t> groupOf(const std::string &text) {
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos) {
        return static_cast<gid_t>(strtoul(text.c_str(), nullptr, 10));
    }
    std::vector<char> room(GROUP_ENTRY_BYTES);
    group entry{};
    group *pFound = nullptr;
    if (getgrnam_r(text.c_str(), &entry, room.data(), room.size(), &pFound) != 0 || pFound == nullptr) {
        return std::nullopt;
    }
    return entry.gr_gid;
}

// The peer's supplementary groups; none where the kernel cannot tell them.
std::vector<gid_t> groupsOf(int fd) {
    std::vector<gid_t> groups(GROUPS_AT_FIRST);
    for (int attempt = 0; attempt < 2; ++attempt) { // the second with the room that the kernel asks for
        auto bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
        const bool isDone = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes) == 0;
        groups.resize(bytes / sizeof(gid_t));
        if (isDone) {
            return groups;
        }
    }
    return {};
}

std::optional<PeerProcess> processOf(int fd) {
    ucred credentials{};
    socklen_t bytes = sizeof(credentials);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &bytes) != 0) {
        return std::nullopt;
    }
    PeerProcess process{credentials.uid, groupsOf(fd)};
    process.groups.push_back(credentials.gid);
    return process;
}

} // namespace

PeerRight peerRightOf(const PeerProcess &process, const PeerPolicy &policy) {
    if (process.uid == 0 || process.uid == policy.owner) {
        return PeerRight::Write;
    }
    if (policy.group && std::find(process.groups.begin(), process.groups.end(), *policy.group) !=
                            process.groups.end()) {
        return PeerRight::Write;
    }
    return policy.areOthersReading ? PeerRight::Read : PeerRight::None;
}

std::optional<gid_t> peerGroup(std::string *pError) {
    const std::string name = optionGet("host.group").value_or("");
    if (name.empty()) {
        return std::nullopt;
    }
    const std::optional<gid_t> group = groupOf(name);
    if (!group) {
        *pError = "option host.group: there is no group '" + name + "'";
    }
    return group;
}

std::optional<PeerPolicy> peerPolicy(std::string *pError) {
    static const uid_t owner = geteuid(); // of the process when it serves: it does not change any more
    PeerPolicy policy;
    policy.owner = owner;
    policy.areOthersReading = optionGet("host.read-others") == "yes";
    std::string error;
    policy.group = peerGroup(&error);
    // cppcheck-suppress knownConditionTrueFalse ; peerGroup writes it
    if (!error.empty()) {
        *pError = error;
        return std::nullopt;
    }
    return policy;
}

PeerRight peerRight(int fd) {
    std::string error;
    const std::optional<PeerPolicy> policy = peerPolicy(&error);
    const std::optional<PeerProcess> process = processOf(fd);
    if (!policy || !process) {
        hostLog(LOG_LEVEL_WARNING, "socket", "a client is refused: %s",
                policy ? "the kernel does not tell who it is" : error.c_str());
        return PeerRight::None;
    }
    return peerRightOf(*process, *policy);
}

} // namespace host
