// The kernel's filter of this process's system calls: which ones, and what happens to others.
//
// The list is what the daemon, the C and C++ libraries, libmnl, libnftnl and SQLite were seen to use in all
// system tests, with the siblings that another version of those libraries would take instead (openat for
// open, ppoll for poll), and those that a process of 32 bits makes, whose times have 64 bits or not. Nothing on
// it starts a program, changes users, mounts, traces or loads code; the eBPF device's own program is loaded by `bpf`,
// which passes with that device only.
#include "host/confine/system_calls.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include <sched.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "host/option/option.h"

namespace host {
namespace {

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CONFINE_SANITIZED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(CONFINE_SANITIZED)
constexpr bool IS_SANITIZED = true;
#else
constexpr bool IS_SANITIZED = false;
#endif

const char *const ALLOWED[] = {
    // memory and threads
    "brk", "mmap", "mmap2", "munmap", "mremap", "mprotect", "madvise", "futex", "futex_time64", "set_robust_list",
    "get_robust_list", "rseq", "membarrier", "sched_yield", "sched_getaffinity", "sched_getparam",
    "sched_getscheduler", "sched_setscheduler", "gettid", "getpid", "getppid", "exit", "exit_group", "restart_syscall",
    "set_tid_address", "arch_prctl", "getrandom", "getcpu", "prlimit64", "getrlimit", "ugetrlimit", "getrusage",
    "sysinfo", "uname", "getuid", "geteuid", "getgid", "getegid", "getuid32", "geteuid32", "getgid32", "getegid32",
    // time
    "clock_gettime", "clock_gettime64", "clock_getres", "clock_getres_time64", "clock_nanosleep",
    "clock_nanosleep_time64", "nanosleep", "gettimeofday", "time", "timerfd_create", "timerfd_settime",
    "timerfd_settime64", "timerfd_gettime", "timerfd_gettime64",
    // signals, of this process (see below)
    "rt_sigaction", "rt_sigprocmask", "rt_sigreturn", "sigreturn", "rt_sigtimedwait", "rt_sigtimedwait_time64",
    "sigaltstack", "signalfd4", "pause",
    // waiting
    "epoll_create1", "epoll_ctl", "epoll_wait", "epoll_pwait", "poll", "ppoll", "ppoll_time64", "select", "pselect6",
    "pselect6_time64", "_newselect", "eventfd2", "pipe2",
    // files: journal, lock, sockets' names, options, time zones
    "read", "write", "readv", "writev", "pread64", "pwrite64", "open", "openat", "close", "close_range", "lseek",
    "_llseek", "fstat", "fstat64", "stat", "stat64", "lstat", "lstat64", "newfstatat", "fstatat64", "statx", "fstatfs",
    "fstatfs64", "access", "faccessat", "faccessat2", "readlink", "readlinkat", "getcwd", "getdents64", "fcntl",
    "fcntl64", "flock", "fsync", "fdatasync", "ftruncate", "ftruncate64", "fallocate", "mkdir", "mkdirat", "rmdir",
    "unlink", "unlinkat", "rename", "renameat", "renameat2", "chmod", "fchmod", "fchmodat", "fchown", "fchown32",
    "fchownat", "umask", "utimensat", "utimensat_time64", "dup", "dup2", "dup3", "ioctl",
    // sockets (socket itself: see below)
    "socketpair", "bind", "listen", "accept", "accept4", "connect", "getsockname", "getpeername", "getsockopt",
    "setsockopt", "sendto", "sendmsg", "sendmmsg", "send", "recvfrom", "recvmsg", "recvmmsg", "recvmmsg_time64",
    "recv", "shutdown",
    // All of these in one, as the C library of 32-bit x86 makes them. Its arguments lie in memory, which a filter
    // does not read: there the families below are not looked at.
    "socketcall",
};

// What the sanitizers' run time needs beside, most of it to look for leaks at the end.
const char *const ALLOWED_SANITIZED[] = {"ptrace", "wait4", "personality", "clone", "prctl", "kill", "tkill", "tgkill",
                                         "getdents", "sched_setaffinity", "mincore", "process_vm_readv", "msync",
                                         "socket"};

// Tried by the C library, which has another way. clone3 hides its flags from the filter; clone shows them.
const char *const MISSING[] = {"clone3", "io_uring_setup", "futex_waitv", "execveat"};

constexpr uint64_t NEW_NAMESPACES = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER |
                                    CLONE_NEWPID | CLONE_NEWNET;
const int FAMILIES[] = {AF_UNIX, AF_NETLINK, AF_INET, AF_INET6};

// A rule for a call by its name; one that this machine does not have needs none. Result: 0 or an error.
template <typename... Compare>
int rule(scmp_filter_ctx filter, uint32_t action, const char *pName, Compare... compare) {
    const int number = seccomp_syscall_resolve_name(pName);
    if (number < 0) {
        return 0; // libseccomp's own number for a call of other machines, or none
    }
    return seccomp_rule_add(filter, action, number, sizeof...(compare), compare...);
}

// Calls of which only some arguments pass. Result: 0 or an error.
int rulesByArgument(scmp_filter_ctx filter) {
    int error = 0;
    for (const int family : FAMILIES) {
        error = error != 0 ? error : rule(filter, SCMP_ACT_ALLOW, "socket", SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(family)));
    }
    if (error == 0) { // a thread, never a new namespace
        error = rule(filter, SCMP_ACT_ALLOW, "clone", SCMP_A0(SCMP_CMP_MASKED_EQ, NEW_NAMESPACES, 0));
    }
    if (error == 0) {
        error = rule(filter, SCMP_ACT_ALLOW, "tgkill", SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(getpid())));
    }
    for (const int number : {PR_SET_NAME, PR_GET_NAME, PR_SET_VMA}) {
        error = error != 0 ? error : rule(filter, SCMP_ACT_ALLOW, "prctl", SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(number)));
    }
    return error;
}

int rulesAdd(scmp_filter_ctx filter) {
    int error = seccomp_attr_set(filter, SCMP_FLTATR_CTL_TSYNC, 1); // threads that are there already
    if (error == 0) {
        error = seccomp_attr_set(filter, SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS);
    }
    if (error == 0) {
        error = seccomp_attr_set(filter, SCMP_FLTATR_CTL_OPTIMIZE, 2); // a tree: most calls are made for packets
    }
    for (const char *pName : ALLOWED) {
        error = error != 0 ? error : rule(filter, SCMP_ACT_ALLOW, pName);
    }
    for (const char *pName : MISSING) {
        error = error != 0 ? error : rule(filter, SCMP_ACT_ERRNO(ENOSYS), pName);
    }
    if (error == 0 && optionGet("host.device") == "ebpf") {
        error = rule(filter, SCMP_ACT_ALLOW, "bpf");
    }
    if (IS_SANITIZED) {
        for (const char *pName : ALLOWED_SANITIZED) {
            error = error != 0 ? error : rule(filter, SCMP_ACT_ALLOW, pName);
        }
        return error;
    }
    return error != 0 ? error : rulesByArgument(filter);
}

// Says which call it was and lets the signal end the process. Only what is safe in a handler.
void refusedReport(int number, siginfo_t *pInfo, void *) {
    char text[] = "policyrouted: system call 0000000000 is not one that the daemon makes (host.seccomp): ending\n";
    char *pDigit = strstr(text, "0000000000") + 9;
    for (auto call = static_cast<unsigned>(pInfo->si_syscall); call != 0; call /= 10) {
        *pDigit-- = static_cast<char>('0' + call % 10);
    }
    (void)!write(STDERR_FILENO, text, sizeof(text) - 1); // nobody is left to tell
    (void)raise(number);
}

void refusedWatch() {
    struct sigaction action {};
    action.sa_sigaction = refusedReport;
    action.sa_flags = SA_SIGINFO | static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    (void)sigaction(SIGSYS, &action, nullptr); // cannot fail for this signal
}

} // namespace

std::string systemCallsConfine() {
    if (optionGet("host.seccomp") != "on") {
        return "";
    }
    refusedWatch();
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_TRAP);
    if (filter == nullptr) {
        return "no memory for the filter";
    }
    int error = rulesAdd(filter);
    if (error == 0) {
        error = seccomp_load(filter);
    }
    seccomp_release(filter);
    return error == 0 ? "" : std::string("the kernel does not take the filter: ") + strerror(-error) +
                                 "; --option host.seccomp=off goes without";
}

} // namespace host
