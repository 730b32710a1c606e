#pragma once

#include <poll.h>

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/Shell.h"
#include "platform/String.h"
#include "platform/XCode.h"

// The background side of Shell::invoke: one thread for the whole process that watches the pipes
// and the exits of every running command and delivers their output and results. Private to the
// platform.
namespace Kt::process {

// One started child as the reactor sees it.
struct Command {
    Command(String programName, pid_t childPid, int childPidFd, int stdoutFd, int stderrFd,
            std::chrono::milliseconds runDeadline)
        : program(std::move(programName)),
          pid(childPid),
          deadline(runDeadline),
          deadlineAt(std::chrono::steady_clock::now() + runDeadline),
          pidFd(childPidFd),
          outFd(stdoutFd),
          errFd(stderrFd) {}
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    const String program;  // the command's first word, as used in result messages
    const pid_t pid;
    const std::chrono::milliseconds deadline;  // how long the command may run
    const std::chrono::steady_clock::time_point deadlineAt;

    // Reactor thread only (after the command was handed over).
    int pidFd;  // -1 when the kernel has no pidfd: the reactor then polls for the exit
    int outFd;  // -1 once at end of file
    int errFd;
    bool reaped = false;
    int waitStatus = 0;
    bool statusLost = false;  // reaped by someone else (SIGCHLD ignored by the host)
    String collected;
    bool timedOut = false;     // ran past its deadline: ended, and its result says so
    bool terminating = false;  // SIGTERM sent after abandonment or the deadline
    bool killed = false;       // SIGKILL sent after the grace period
    std::chrono::steady_clock::time_point killAt;

    // Deliveries. Every call to a callback is made with deliveryMutex held and only while
    // `abandoned` is false; abandonment sets it under the same mutex, so no call starts after it.
    // Recursive so that a direct-kind callback may drop the last handle from inside the call.
    std::recursive_mutex deliveryMutex;
    Shell::ResultCallback result;
    Shell::OutputCallback output;
    Shell::OutputCallback errorOutput;
    std::atomic<bool> abandoned{false};

    // Completion, for Future::wait and isFinished.
    std::mutex doneMutex;
    std::condition_variable doneChanged;
    bool ended = false;      // the child has been reaped
    bool finished = false;   // ended: reaped and both pipes at their end
    bool delivered = false;  // and the result was handed to the result callback
    XCode outcome;
};

class Reactor {
  public:
    static Reactor& INSTANCE();

    // Starts the reactor thread unless it runs already. Returns 0 or an errno.
    int start();
    // Hands a started child (with non-blocking pipe read ends) over to the reactor thread, which
    // from now on owns its descriptors and reaps it. Requires a successful start().
    void add(std::shared_ptr<Command> command);
    // Makes the reactor thread look at its commands again (after an abandonment).
    void wake();

  private:
    // Which descriptor of a command a poll entry is.
    enum class Watch { PidFd, Out, Err };
    struct PollSet {
        std::vector<pollfd> fds;
        std::vector<std::pair<Command*, Watch>> watched;  // for each entry after the first
        int timeout = -1;
        void add(int fd, Command* command, Watch watch) {
            fds.push_back({fd, POLLIN, 0});
            watched.emplace_back(command, watch);
        }
    };

    Reactor() = default;
    static void* THREAD_MAIN(void* reactor);
    void run();
    void buildPollSet(PollSet& set, std::chrono::steady_clock::time_point now);
    void retireFinished();
    void dispatch(Command& command, Watch watch);
    void takeOverIncoming();
    void handleAbandonment(Command& command, std::chrono::steady_clock::time_point now);
    void handleDeadline(Command& command, std::chrono::steady_clock::time_point now);
    static void endChild(Command& command, std::chrono::steady_clock::time_point now);
    void readPipe(Command& command, bool errorStream);
    void tryReap(Command& command);
    static void closeFd(int& fd);
    static void finish(Command& command);

    std::mutex mutex_;
    bool started_ = false;
    int wakeFd_ = -1;
    std::vector<std::shared_ptr<Command>> incoming_;

    // Reactor thread only.
    std::vector<std::shared_ptr<Command>> active_;
};

}  // namespace Kt::process

namespace Kt {

// The handle's view of a background command: the last Future handle going away destroys it, and
// that abandons the command.
class RunningCommand {
  public:
    explicit RunningCommand(std::shared_ptr<process::Command> command)
        : command_(std::move(command)) {}
    // Abandons the command: no callback is called after this returns, the callbacks are released
    // on the calling thread, and the reactor terminates and reaps the child.
    ~RunningCommand();
    RunningCommand(const RunningCommand&) = delete;
    RunningCommand& operator=(const RunningCommand&) = delete;

    XCode wait() const;
    bool isFinished() const;
    // Abandons the command as the destructor does and blocks until the reactor has reaped the
    // child (SIGTERM, SIGKILL after the grace period). Not on the reactor thread.
    void abandonAndReap();

  private:
    void abandon();

    std::shared_ptr<process::Command> command_;
};

}  // namespace Kt
