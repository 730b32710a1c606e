#pragma once

namespace Provctl {

// SIGINT, SIGTERM, SIGHUP, SIGQUIT and SIGPIPE (also raised by a write to a closed output pipe)
// ask the running job to stop: the handler only records the signal; the host notices it between
// events of the loop, destroys the job (which ends and reaps its child process, removes its work
// file and shows the subsystem idle) and exits with 128 + the signal.
void INSTALL_STOP_SIGNALS();
// Restores the default handling and forgets a received signal.
void REMOVE_STOP_SIGNALS();
// The signal received since INSTALL_STOP_SIGNALS, 0 when none.
int STOP_SIGNAL();
// The exit status of a program stopped by `signal`: 128 + signal.
int EXIT_STATUS_FOR_SIGNAL(int signal);

}  // namespace Provctl
