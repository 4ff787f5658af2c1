// The orderly end: SIGTERM and SIGINT.
#include "host/process/stop_signals.h"

#include <csignal>
#include <cstring>

#include <pthread.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "host/event/event_loop.h"
#include "host/logging/host_log.h"
#include "host/process/notify.h"
#include "host/process/unix_listen.h"

namespace host {
namespace {

void stop(int fd) {
    signalfd_siginfo signal{};
    if (read(fd, &signal, sizeof(signal)) != sizeof(signal)) {
        return;
    }
    const auto number = static_cast<int>(signal.ssi_signo);
    hostLog(LOG_LEVEL_NOTICE, "process", "%s from process %u: ending; what is installed stays",
            strsignal(number), signal.ssi_pid);
    notifyStopping();
    filesRemove();
    _exit(0); // other threads may be anywhere: nothing is destroyed under them
}

} // namespace

void stopSignalsWatch() {
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stops, nullptr);
    const int fd = signalfd(-1, &stops, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd < 0) {
        pthread_sigmask(SIG_UNBLOCK, &stops, nullptr);
        hostLog(LOG_LEVEL_WARNING, "process", "signals end the process at once: no signalfd");
        return;
    }
    hostEventLoop().fdAdd(fd, EPOLLIN, [fd](uint32_t) { stop(fd); });
}

} // namespace host
