// What the process at the other end of a Unix socket may do, by its credentials: one policy for all of
// the host's sockets.
#ifndef HOST_PROCESS_PEER_RIGHTS_H
#define HOST_PROCESS_PEER_RIGHTS_H

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace host {

enum class PeerRight {
    None,  // is refused
    Read,  // may read and walk, and listen on the bus
    Write, // may change things
};

// Who may do what.
struct PeerPolicy {
    uid_t owner = 0;             // user of this process: may write, as root may
    std::optional<gid_t> group;  // members may write
    bool areOthersReading = false; // everybody else may read
};

// A process as the kernel describes it.
struct PeerProcess {
    uid_t uid = 0;
    std::vector<gid_t> groups; // its own group and the supplementary ones
};

// The right of a process under a policy. Lock: none
PeerRight peerRightOf(const PeerProcess &process, const PeerPolicy &policy);

// The group of option host.group; none when none is named, or with *pError set when there is no such group.
// Lock: none
std::optional<gid_t> peerGroup(std::string *pError);

// The policy of options host.group (a name or a number) and host.read-others. Result: none, with *pError
// saying why, when there is no such group. Lock: none
std::optional<PeerPolicy> peerPolicy(std::string *pError);

// The right of whoever connected fd, under the options' policy; None when the kernel does not tell who it
// is or the policy cannot be had. Lock: none
PeerRight peerRight(int fd);

} // namespace host

#endif
