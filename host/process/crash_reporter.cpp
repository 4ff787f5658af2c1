// The crash reporter (platform/sil_process.h): one line to standard error, then the signal's own end.
#include <csignal>
#include <cstdint>
#include <cstring>

#include <unistd.h>

#include "platform/sil_process.h"

namespace {

constexpr size_t STACK_BYTES = 65536;
constexpr int SIGNALS[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

// The line as it grows; everything here must be safe in a signal handler.
struct Line {
    char text[128];
    size_t len = 0;

    void add(const char *pText) {
        while (*pText != '\0' && len < sizeof(text)) {
            text[len++] = *pText++;
        }
    }
    void addNumber(uintptr_t number, unsigned base) {
        char digits[24];
        size_t at = sizeof(digits) - 1;
        digits[at] = '\0';
        do {
            digits[--at] = "0123456789abcdef"[number % base];
            number /= base;
        } while (number != 0);
        add(digits + at);
    }
};

// The signal is blocked while this runs and its handler was reset: raised again, it ends the process with
// the system's own report (core dump, exit status) when we return.
void report(int number, siginfo_t *pInfo, void *) {
    Line line;
    line.add("policyrouted: signal ");
    line.addNumber(static_cast<uintptr_t>(number), 10);
    line.add(" at address 0x");
    line.addNumber(reinterpret_cast<uintptr_t>(pInfo->si_addr), 16);
    line.add("\n");
    (void)!write(STDERR_FILENO, line.text, line.len); // nobody is left to tell
    (void)raise(number);
}

} // namespace

void silCatchSegFault(void) {
    // A stack of its own, for the case that the main thread's is used up.
    static uint8_t stackBytes[STACK_BYTES];
    stack_t stack{};
    stack.ss_sp = stackBytes;
    stack.ss_size = sizeof(stackBytes);
    (void)sigaltstack(&stack, nullptr); // without it only that one case goes unreported

    struct sigaction action {};
    action.sa_sigaction = report;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    for (const int number : SIGNALS) {
        (void)sigaction(number, &action, nullptr); // cannot fail for these
    }
}

// A host is not patched while it runs: a new version is a new process.
void patchSignalHandler(void) {}
