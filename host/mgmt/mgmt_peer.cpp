// See mgmt_peer.h.
#include "host/mgmt/mgmt_peer.h"

#include <grp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "host/option/option.h"

#ifndef SO_PEERGROUPS
#define SO_PEERGROUPS 59
#endif

namespace host {

namespace {

constexpr size_t GROUPS_FIRST_TRY = 64;

// The group's number; none when there is no such group.
std::optional<gid_t> groupByName(const std::string &name) {
    std::vector<char> room(16384);
    group entry{}, *pFound = nullptr;
    if (getgrnam_r(name.c_str(), &entry, room.data(), room.size(), &pFound) != 0 || pFound == nullptr) {
        return std::nullopt;
    }
    return entry.gr_gid;
}

} // namespace

MgmtRights mgmtRights(const MgmtPeer &peer, const MgmtAccess &access) {
    MgmtRights rights;
    const bool inGroup = access.group && std::find(peer.groups.begin(), peer.groups.end(), *access.group) !=
                                             peer.groups.end();
    rights.write = peer.uid == 0 || peer.uid == access.owner || inGroup;
    rights.read = rights.write || access.readOthers;
    if (!rights.write) {
        rights.refusal = "not permitted: user " + std::to_string(peer.uid) + " is neither root nor the daemon's user" +
                         (access.group ? " nor in group " + access.groupName
                                       : "; option host.group can name a group that may");
    }
    return rights;
}

std::optional<MgmtAccess> mgmtAccess(std::string *pError) {
    MgmtAccess access;
    access.owner = geteuid();
    access.readOthers = optionGet("host.read-others") == "yes";
    access.groupName = optionGet("host.group").value_or("");
    if (!access.groupName.empty()) {
        access.group = groupByName(access.groupName);
        if (!access.group) {
            *pError = "option host.group: there is no group \"" + access.groupName + "\"";
            return std::nullopt;
        }
    }
    return access;
}

std::optional<MgmtPeer> mgmtPeer(int fd) {
    ucred credentials{};
    socklen_t bytes = sizeof credentials;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &bytes) != 0) {
        return std::nullopt;
    }
    MgmtPeer peer{credentials.uid, std::vector<gid_t>(GROUPS_FIRST_TRY)};
    for (int attempt = 0; attempt < 2; attempt++) { // the second with the room that the kernel asks for
        bytes = static_cast<socklen_t>(peer.groups.size() * sizeof(gid_t));
        const bool isDone = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, peer.groups.data(), &bytes) == 0;
        peer.groups.resize(bytes / sizeof(gid_t));
        if (isDone) {
            peer.groups.push_back(credentials.gid);
            return peer;
        }
    }
    peer.groups = {credentials.gid};
    return peer;
}

} // namespace host
