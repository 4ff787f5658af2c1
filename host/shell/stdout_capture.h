// What one thread prints to standard output, taken instead of written.
//
// A stdio stream and its buffer belong to the whole process, and so does descriptor 1: redirecting either
// would take what other threads print meanwhile, or write a captured report to the terminal. Instead the
// stream is replaced once by one without a buffer: its bytes reach us on the thread that prints them, and
// go to that thread's capture when there is one, else to descriptor 1 as ever.
#ifndef HOST_SHELL_STDOUT_CAPTURE_H
#define HOST_SHELL_STDOUT_CAPTURE_H

#include <cstddef>
#include <string>

namespace host {

// Replaces the process's standard output stream. Once, before other threads print. Result: empty, or
// why not. Lock: none
std::string stdoutCaptureInstall();

// Takes what its thread prints while it lives; one at a time on a thread.
class StdoutCapture {
public:
    // most: bytes kept; what is printed beyond them is thrown away.
    explicit StdoutCapture(size_t most);
    ~StdoutCapture();
    StdoutCapture(const StdoutCapture &) = delete;
    StdoutCapture &operator=(const StdoutCapture &) = delete;

    std::string &text() { return taken; } // so far
    bool isCut() const { return cut; }    // more was printed than is kept

    void take(const char *pBytes, size_t len); // of the stream; throws nothing

private:
    const size_t capacity;
    std::string taken;
    bool cut = false;
};

} // namespace host

#endif
