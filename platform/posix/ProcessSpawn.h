#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <vector>

#include "platform/String.h"
#include "platform/XCode.h"

// The one place that starts child processes, and the translation of how they ended. Private to the
// platform: the shell's background reactor and its synchronous run both go through here.
namespace Kt::process {

// The executable for a program name: a name with a slash is taken as it is, any other is looked
// up in the system directories of TOOL_PATH (never on the caller's PATH, so that an empty or
// relative entry there cannot make the current directory supply `tar`), once per name: later
// calls reuse the path found. Returns 0 or the errno that exec would have reported (ENOENT,
// EACCES).
int FIND_PROGRAM(const String& name, String& path);

// The only search path of the tools, and the PATH they are given.
extern const char* const TOOL_PATH;

// Starts `path` with the argument list `argv` (argv[0] included), directly and never through a
// shell, in a process group of its own, with standard input from /dev/null, standard output on
// `outFd` and standard error on `errFd` (-1: /dev/null), all signal dispositions at their
// defaults, every other descriptor closed and a fixed environment of its own (PATH=TOOL_PATH and
// LC_ALL=C, nothing of the caller's: no TAR_OPTIONS, WGETRC, proxy, locale or TLS key-log
// variable reaches a tool). Returns 0 or an errno; a started child must be
// reaped by the caller (and counted through STARTED / REAPED).
// `fileSizeLimit` (bytes, 0: none) is the largest file the child may write (RLIMIT_FSIZE); a child
// with a limit also writes no core file, and passing the limit kills it with SIGXFSZ.
int SPAWN(const String& path, const std::vector<String>& argv, int outFd, int errFd, pid_t& pid,
          std::size_t fileSizeLimit = 0);

// Bookkeeping of children started and not yet reaped, for ShellHooks::RUNNING_COMMANDS.
void STARTED();
void REAPED();
std::size_t RUNNING();
bool WAIT_FOR_RUNNING(std::size_t count, std::chrono::milliseconds timeout);

// SIGTERM or SIGKILL to the child's process group (to the child alone when the group is gone).
void SIGNAL_GROUP(pid_t pid, int signal);
// How long an ended command has between SIGTERM and SIGKILL.
constexpr std::chrono::milliseconds TERMINATION_GRACE{1000};

// The deadline family with "<program> DID NOT FINISH WITHIN <n> SECONDS" (or MILLISECONDS for a
// deadline that is not a whole number of seconds).
XCode DEADLINE_PASSED(const String& program, std::chrono::milliseconds deadline);

// Success for exit status 0, the exit-status family with "<program> EXITED WITH STATUS <n>"
// otherwise, the signal family with "<program> KILLED BY SIGNAL <n>" for a signal.
XCode WAIT_STATUS_TO_XCODE(const String& program, int waitStatus);
// The errno family with "CANNOT START <program>: <strerror>".
XCode CANNOT_START(const String& program, int error);

}  // namespace Kt::process
