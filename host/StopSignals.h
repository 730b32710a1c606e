#pragma once

namespace Provctl {

// Every catchable signal that ends a process by default (SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE,
// also raised by a write to a closed output pipe, SIGUSR1, SIGUSR2, SIGALRM, SIGXCPU, SIGXFSZ,
// SIGVTALRM, SIGPROF), but for the faults the process raises itself, asks the running job to stop:
// the handler only records the signal; the host notices it between events of the loop, destroys the
// job (which ends and reaps its child process, removes its work file and shows the subsystem idle)
// and exits with 128 + the signal.
void INSTALL_STOP_SIGNALS();
// Restores the default handling and forgets a received signal.
void REMOVE_STOP_SIGNALS();
// The signal received since INSTALL_STOP_SIGNALS, 0 when none.
int STOP_SIGNAL();
// The exit status of a program stopped by `signal`: 128 + signal.
int EXIT_STATUS_FOR_SIGNAL(int signal);

}  // namespace Provctl
