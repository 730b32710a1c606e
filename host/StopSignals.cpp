#include "host/StopSignals.h"

#include <atomic>
#include <csignal>

namespace Provctl {

namespace {

std::atomic<int> g_stopSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs a lock-free flag");

// Every catchable signal that ends the process by default and is sent to it from outside: by its
// user, its terminal, a supervisor, a timer or a resource limit. SIGPIPE is among them so that a
// closed output pipe does not end the process before its child is reaped: the write fails with
// EPIPE and the job is cancelled like on SIGINT; likewise SIGXFSZ, whose write fails with EFBIG.
// Left at their defaults: the faults that the process raises itself (SIGSEGV, SIGBUS, SIGFPE,
// SIGILL, SIGABRT, SIGTRAP, SIGSYS), after which nothing can be trusted to clean up.
constexpr int STOP_SIGNALS[] = {SIGINT,  SIGTERM, SIGHUP,  SIGQUIT,   SIGPIPE, SIGUSR1,
                                SIGUSR2, SIGALRM, SIGXCPU, SIGVTALRM, SIGPROF, SIGXFSZ};

void onStopSignal(int signal) {
    // The first signal decides the exit status.
    int none = 0;
    g_stopSignal.compare_exchange_strong(none, signal);
}

}  // namespace

void INSTALL_STOP_SIGNALS() {
    g_stopSignal.store(0);
    for (int signal : STOP_SIGNALS) {
        std::signal(signal, onStopSignal);
    }
}

void REMOVE_STOP_SIGNALS() {
    for (int signal : STOP_SIGNALS) {
        std::signal(signal, SIG_DFL);
    }
    g_stopSignal.store(0);
}

int STOP_SIGNAL() {
    return g_stopSignal.load();
}

int EXIT_STATUS_FOR_SIGNAL(int signal) {
    return 128 + signal;
}

}  // namespace Provctl
