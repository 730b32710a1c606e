#pragma once

namespace Provctl {

// SIGINT and SIGTERM ask the running job to stop: the handler only records the signal; the host
// notices it between events of the loop, destroys the job (which terminates its child process)
// and exits.
void INSTALL_STOP_SIGNALS();
// Restores the default handling and forgets a received signal.
void REMOVE_STOP_SIGNALS();
// The signal received since INSTALL_STOP_SIGNALS, 0 when none.
int STOP_SIGNAL();

}  // namespace Provctl
