// Makes system calls of a process fail on demand: an object to preload (LD_PRELOAD), steered through the file that
// PBR_FAULTS names, which the test maps too. Used by tests/support/faults.py; preload.py compiles it.
//
// The file is an array of slots, one a function in the order of NAMES. A slot whose count is not 0 lets `skip` calls on
// descriptors of its kind pass, then answers `count` calls with errno `error`, or, with error SHORT, does half of what
// was asked.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

enum { ANY, NETLINK, UNIX, INET, REGULAR };
enum { SOCKET, SENDTO, SEND, SENDMSG, RECV, RECVFROM, RECVMSG, ACCEPT4, OPEN, PWRITE, WRITE, READ, FDATASYNC, EPOLL_WAIT, BIND, COUNT };
#define SHORT 9999

struct Slot {
    uint32_t skip, count, error, kind, hits;
};
static struct Slot *pSlots;

__attribute__((constructor)) static void slotsMap(void) {
    const char *pPath = getenv("PBR_FAULTS");
    const int fd = pPath ? open(pPath, O_RDWR | O_CLOEXEC) : -1;
    void *pMapped = fd < 0 ? MAP_FAILED : mmap(NULL, COUNT * sizeof(struct Slot), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    pSlots = pMapped == MAP_FAILED ? NULL : pMapped;
}

static int isOfKind(int fd, uint32_t kind) {
    if (kind == ANY) {
        return 1;
    }
    int domain = 0;
    socklen_t size = sizeof(domain);
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0) {
        return kind == NETLINK ? domain == AF_NETLINK : kind == UNIX ? domain == AF_UNIX : kind == INET && domain != AF_UNIX && domain != AF_NETLINK;
    }
    struct stat64 status;
    return kind == REGULAR && fstat64(fd, &status) == 0 && S_ISREG(status.st_mode);
}

// 0: nothing is to fail now.
static uint32_t faultNow(int which, int fd) {
    const int kept = errno;
    struct Slot *pSlot = pSlots ? &pSlots[which] : NULL;
    uint32_t error = 0;
    if (pSlot && __atomic_load_n(&pSlot->count, __ATOMIC_ACQUIRE) && isOfKind(fd, pSlot->kind)) {
        if (pSlot->skip) {
            __atomic_fetch_sub(&pSlot->skip, 1, __ATOMIC_ACQ_REL);
        } else {
            __atomic_fetch_sub(&pSlot->count, 1, __ATOMIC_ACQ_REL);
            __atomic_fetch_add(&pSlot->hits, 1, __ATOMIC_ACQ_REL);
            error = pSlot->error;
        }
    }
    errno = kept;
    return error;
}

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))
#define REFUSE(which, fd)                             \
    const uint32_t error = faultNow(which, fd);       \
    if (error && error != SHORT) {                    \
        errno = (int)error;                           \
        return -1;                                    \
    }
#define HALF(size) (error == SHORT && (size) > 1 ? (size) / 2 : (size))

int socket(int domain, int type, int protocol) {
    const uint32_t error = faultNow(SOCKET, -1);
    if (error) {
        errno = (int)error;
        return -1;
    }
    return REAL(socket)(domain, type, protocol);
}
ssize_t sendto(int fd, const void *pData, size_t size, int flags, const struct sockaddr *pTo, socklen_t length) {
    REFUSE(SENDTO, fd)
    return REAL(sendto)(fd, pData, HALF(size), flags, pTo, length);
}
ssize_t send(int fd, const void *pData, size_t size, int flags) {
    REFUSE(SEND, fd)
    return REAL(send)(fd, pData, HALF(size), flags);
}
ssize_t sendmsg(int fd, const struct msghdr *pMessage, int flags) {
    REFUSE(SENDMSG, fd)
    return REAL(sendmsg)(fd, pMessage, flags);
}
#if __SIZEOF_POINTER__ == 4 // what a program of 32 bits whose times have 64 calls for them
typedef ssize_t (*SendMsg64)(int, const struct msghdr *, int);
typedef ssize_t (*RecvMsg64)(int, struct msghdr *, int);
ssize_t __sendmsg64(int fd, const struct msghdr *pMessage, int flags) {
    REFUSE(SENDMSG, fd)
    return ((SendMsg64)dlsym(RTLD_NEXT, "__sendmsg64"))(fd, pMessage, flags);
}
ssize_t __recvmsg64(int fd, struct msghdr *pMessage, int flags) {
    REFUSE(RECVMSG, fd)
    return ((RecvMsg64)dlsym(RTLD_NEXT, "__recvmsg64"))(fd, pMessage, flags);
}
#endif
ssize_t recv(int fd, void *pData, size_t size, int flags) {
    REFUSE(RECV, fd)
    return REAL(recv)(fd, pData, HALF(size), flags);
}
ssize_t recvfrom(int fd, void *pData, size_t size, int flags, struct sockaddr *pFrom, socklen_t *pLength) {
    REFUSE(RECVFROM, fd)
    return REAL(recvfrom)(fd, pData, size, flags, pFrom, pLength);
}
ssize_t recvmsg(int fd, struct msghdr *pMessage, int flags) {
    REFUSE(RECVMSG, fd)
    return REAL(recvmsg)(fd, pMessage, flags);
}
int accept4(int fd, struct sockaddr *pFrom, socklen_t *pLength, int flags) {
    REFUSE(ACCEPT4, fd)
    return REAL(accept4)(fd, pFrom, pLength, flags);
}
static int opened(int (*pReal)(const char *, int, ...), const char *pPath, int flags, mode_t mode) {
    REFUSE(OPEN, -1)
    return pReal(pPath, flags, mode);
}
int open(const char *pPath, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t);
    va_end(rest);
    return opened(REAL(open), pPath, flags, mode);
}
int open64(const char *pPath, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t);
    va_end(rest);
    return opened(REAL(open64), pPath, flags, mode);
}
ssize_t pwrite(int fd, const void *pData, size_t size, off_t offset) {
    REFUSE(PWRITE, fd)
    return REAL(pwrite)(fd, pData, HALF(size), offset);
}
ssize_t pwrite64(int fd, const void *pData, size_t size, off64_t offset) {
    REFUSE(PWRITE, fd)
    return REAL(pwrite64)(fd, pData, HALF(size), offset);
}
ssize_t write(int fd, const void *pData, size_t size) {
    REFUSE(WRITE, fd)
    return REAL(write)(fd, pData, HALF(size));
}
ssize_t read(int fd, void *pData, size_t size) {
    REFUSE(READ, fd)
    return REAL(read)(fd, pData, HALF(size));
}
int fdatasync(int fd) {
    REFUSE(FDATASYNC, fd)
    return REAL(fdatasync)(fd);
}
int epoll_wait(int fd, struct epoll_event *pEvents, int most, int timeout) {
    REFUSE(EPOLL_WAIT, fd)
    return REAL(epoll_wait)(fd, pEvents, most, timeout);
}
int bind(int fd, const struct sockaddr *pAddress, socklen_t length) {
    REFUSE(BIND, fd)
    return REAL(bind)(fd, pAddress, length);
}
