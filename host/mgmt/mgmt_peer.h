// What the process at the other end of a Unix socket may do, by its credentials.
#ifndef HOST_MGMT_MGMT_PEER_H
#define HOST_MGMT_MGMT_PEER_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace host {

struct MgmtPeer {
    uid_t uid = 0;
    std::vector<gid_t> groups; // its own group and the supplementary ones
};

struct MgmtAccess {
    uid_t owner = 0;            // uid of this process
    std::optional<gid_t> group; // members of it may write
    std::string groupName;
    bool readOthers = false;    // everybody may read
};

struct MgmtRights {
    bool read = false;
    bool write = false;
    std::string refusal; // text for what is not allowed: who it is and who would be
};

// Root, the process's own user and members of the group may write; others may read when the access
// says so. Lock: none
MgmtRights mgmtRights(const MgmtPeer &peer, const MgmtAccess &access);

// The access that options host.group and host.read-others give. Result: none with *pError when the
// group does not exist. Lock: none
std::optional<MgmtAccess> mgmtAccess(std::string *pError);

// The process that connected to `fd`. Result: none when the kernel does not tell. Lock: none
std::optional<MgmtPeer> mgmtPeer(int fd);

} // namespace host

#endif
