// Whose files and folders a run may use.
#include "host/process/own_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include "host/option/option.h"

namespace host {
namespace {

const std::string REMEDY = ": remove it, or name another folder with host.root";

std::string folderCheck(const std::string &folder) {
    struct stat status {};
    if (lstat(folder.c_str(), &status) != 0) {
        return ""; // whoever opens the file tells it
    }
    if (!S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode)) {
        return folder + " exists and is no folder" + REMEDY;
    }
    if (status.st_uid != 0 && status.st_uid != geteuid()) {
        return folder + " is a " + (S_ISLNK(status.st_mode) ? "symbolic link" : "folder") + " of user " +
               std::to_string(status.st_uid) + REMEDY;
    }
    return "";
}

} // namespace

std::string foldersCheck(const std::string &path) {
    std::string root = optionGet("host.root").value_or("");
    while (!root.empty() && root.back() == '/') {
        root.pop_back();
    }
    // host.root itself, and a folder elsewhere, is the operator's choice. Without host.root our folders are the
    // system's, where nobody but root makes any.
    const size_t first = root.size() + 1;
    if (root.empty() || path.compare(0, first, root + "/") != 0) {
        return "";
    }
    for (size_t slash = path.find('/', first); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string error = folderCheck(path.substr(0, slash));
        if (!error.empty()) {
            return error;
        }
    }
    return "";
}

std::string fileCheck(const std::string &path) {
    const std::string error = foldersCheck(path);
    struct stat status {};
    if (!error.empty() || lstat(path.c_str(), &status) != 0) {
        return error;
    }
    if (!S_ISREG(status.st_mode)) {
        return path + " exists and is no regular file" + REMEDY;
    }
    if (status.st_uid != geteuid()) {
        return path + " belongs to user " + std::to_string(status.st_uid) + ", this process is of user " +
               std::to_string(geteuid()) + ": remove it, or run as its owner (host.user)";
    }
    if (status.st_nlink != 1) {
        return path + " has a second name" + REMEDY;
    }
    return "";
}

} // namespace host
