// Listening Unix sockets of the host: how their files come into being and go away.
#ifndef HOST_PROCESS_UNIX_LISTEN_H
#define HOST_PROCESS_UNIX_LISTEN_H

#include <string>

namespace host {

// Makes a non-blocking listening socket of `type` (SOCK_STREAM, SOCK_SEQPACKET) at `path`, an absolute
// path whose folder exists. A socket file of ours that nobody serves any more is replaced; a file of another
// kind, a socket of another user or of a live server, and folders below host.root of another user are left
// alone and are an error. Where others can write to the folder nothing that they do meanwhile is followed or
// changed: the file is made in a folder of its own and moved to its place. The file's mode is 0660, of the group
// of option host.group when one is named, or 0666 when others may read (credentials then decide who may
// write). The file is removed at an orderly end of the process (filesRemove).
// Result: empty and *pFd, or why not. Lock: none
std::string unixListen(const std::string &path, int type, int *pFd);

// Gives a socket of unixListen up again: closes it and removes its file. Lock: none
void unixUnlisten(const std::string &path, int fd);

// Accepts a client, non-blocking. Result: its descriptor, or -1: none waits. A client that finds no free
// descriptor is hung up on, so that the listener does not stay ready for ever. Lock: none
int unixAccept(int listener);

// Closes a connection so that its peer reads what was sent before: what the peer has sent and nobody read is
// dropped first, for the kernel tells a connection that is closed over unread bytes as broken, at once. Lock: none
void unixHangUp(int fd);

// Removes the socket files that this process made, unless another took their place. Lock: none
void filesRemove();

} // namespace host

#endif
