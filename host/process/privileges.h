// What this process may do beyond any user, and as whom it runs.
#ifndef HOST_PROCESS_PRIVILEGES_H
#define HOST_PROCESS_PRIVILEGES_H

#include <string>

namespace host {

// Gives up all that the daemon does not need: becomes the user of option host.user when one is named (root
// only; the folders of this run that were not there yet are made first and are that user's), keeps of the
// capabilities CAP_NET_ADMIN and CAP_NET_RAW (with the eBPF device CAP_BPF and CAP_PERFMON too), each only if it is
// there, and takes away the way to new ones (bounding set, no-new-privileges). Root without host.user keeps its number,
// which gives it no more right to other users' files than anybody has, and joins the group of host.group to give it the
// sockets.
// Called once, when options are known, before there is a second thread and before a file is opened.
// Result: empty, or why not. Lock: none
std::string privilegesDrop();

// What to do about a file that cannot be opened, for the end of an error text. Lock: none
std::string privilegesAdvice();

} // namespace host

#endif
