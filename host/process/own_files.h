// Whose files and folders a run may use: where others can write too, something may have been put in the way.
#ifndef HOST_PROCESS_OWN_FILES_H
#define HOST_PROCESS_OWN_FILES_H

#include <string>

namespace host {

// The folders of a path below host.root: each is a folder or a symbolic link, of root or of this process's
// user. One that is not there is no error. Result: empty, or what is in the way. Lock: none
std::string foldersCheck(const std::string &path);

// foldersCheck, and a file at the path that is there: a regular file of this process's user with no other
// name. Result: empty, or what is in the way. Lock: none
std::string fileCheck(const std::string &path);

} // namespace host

#endif
