// The whole process in one fuzzer: the daemon on the host platform with its services and the memory device,
// in a folder and a network namespace of its own. Nothing that it sends leaves that namespace.
#ifndef FUZZ_WHOLE_H
#define FUZZ_WHOLE_H

#include <string>

namespace fuzz {

// Starts it, once. Result: the folder below which its sockets and files are.
const std::string &wholeStart();

// Takes every binding and every list away, through the daemon's handlers.
void wholeEmpty();

// The same for what the services hold: ACLs, time ranges, probes. As requests, a line each.
extern const char *const WHOLE_EMPTY_REQUESTS;

} // namespace fuzz

#endif
