// See stdout_capture.h.
#include "host/shell/stdout_capture.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include <unistd.h>

namespace host {

namespace {

thread_local StdoutCapture *tCapture = nullptr;

// Result: bytes written; 0 says that the stream failed, as stdio wants it.
ssize_t descriptorWrite(const char *pBytes, size_t len) {
    size_t written = 0;
    while (written < len) {
        const ssize_t n = ::write(STDOUT_FILENO, pBytes + written, len - written);
        if (n < 0 && errno != EINTR) {
            break;
        }
        written += n > 0 ? static_cast<size_t>(n) : 0;
    }
    return static_cast<ssize_t>(written);
}

ssize_t bytesTake(void *, const char *pBytes, size_t len) {
    if (tCapture == nullptr) {
        return descriptorWrite(pBytes, len);
    }
    tCapture->take(pBytes, len);
    return static_cast<ssize_t>(len);
}

std::string install() {
    cookie_io_functions_t functions{};
    functions.write = bytesTake;
    FILE *pStream = fopencookie(nullptr, "w", functions);
    if (pStream == nullptr || setvbuf(pStream, nullptr, _IONBF, 0) != 0) {
        return std::string("take over standard output: ") + strerror(errno);
    }
    (void)fflush(stdout); // what cannot be written now could not be written later either
    stdout = pStream;     // the library's name for the stream that printf and puts write to
    return "";
}

} // namespace

std::string stdoutCaptureInstall() {
    static std::once_flag once;
    static std::string error;
    std::call_once(once, [] { error = install(); });
    return error;
}

StdoutCapture::StdoutCapture(size_t most) : capacity(most) {
    tCapture = this;
}

StdoutCapture::~StdoutCapture() {
    tCapture = nullptr;
}

void StdoutCapture::take(const char *pBytes, size_t len) {
    if (cut || len > capacity - taken.size()) {
        cut = true;
        return;
    }
    try {
        taken.append(pBytes, len);
    } catch (const std::bad_alloc &) {
        cut = true;
    }
}

} // namespace host
