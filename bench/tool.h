// What the small programs of the benchmarks share: to end with a reason, and to read a clock.
#ifndef BENCH_TOOL_H
#define BENCH_TOOL_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

// Ends the program: its name, what it was about, and errno's text.
[[noreturn]] inline void fail(const std::string &what) {
    std::fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, what.c_str(), std::strerror(errno));
    std::exit(1);
}

inline double seconds(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

#endif
