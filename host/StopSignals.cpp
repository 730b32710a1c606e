#include "host/StopSignals.h"

#include <atomic>
#include <csignal>

namespace Provctl {

namespace {

std::atomic<int> g_stopSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs a lock-free flag");

void onStopSignal(int signal) {
    g_stopSignal.store(signal);
}

}  // namespace

void INSTALL_STOP_SIGNALS() {
    g_stopSignal.store(0);
    std::signal(SIGINT, onStopSignal);
    std::signal(SIGTERM, onStopSignal);
}

void REMOVE_STOP_SIGNALS() {
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    g_stopSignal.store(0);
}

int STOP_SIGNAL() {
    return g_stopSignal.load();
}

}  // namespace Provctl
