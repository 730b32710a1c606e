#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <vector>

#include "platform/KtFunction.h"
#include "platform/String.h"
#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

namespace Kt {

class RunningCommand;  // the platform's record of one child process

// Handle of a background command started by Shell::invoke. Copies share the command. Destroying
// the last handle of a command still running abandons it: its callbacks never run, the child is
// terminated and reaped, and its descriptors are closed.
template <typename T>
class Future {
  public:
    Future() = default;
    explicit Future(std::shared_ptr<RunningCommand> command) : command_(std::move(command)) {}

    bool isValid() const { return command_ != nullptr; }
    // Releases this handle (abandoning the command if it was the last).
    void reset() { command_.reset(); }
    // Abandons the command whatever other handles exist, blocks until its child has been reaped,
    // and releases this handle. Nothing of the command runs or writes after this returns. Not
    // from a direct-kind callback of a command (they run on the shell's thread).
    void abandonAndReap();
    // Blocks until the command has ended and its result has been delivered or abandoned. Must not
    // be called on the loop that receives the command's callbacks.
    [[nodiscard]] XCode wait() const;
    bool isFinished() const;
    std::shared_ptr<RunningCommand> command() const { return command_; }

  private:
    std::shared_ptr<RunningCommand> command_;
};

// The platform provides the members for command handles. isFinished() holds once the command has
// ended (the result callback may still be under way); wait() returns the result once it has been
// handed to the callback. A handle without command counts as finished; waiting on it is an error.
template <>
[[nodiscard]] XCode Future<String>::wait() const;
template <>
bool Future<String>::isFinished() const;
template <>
void Future<String>::abandonAndReap();

// Runs programs without a shell: the command line is split into words (blanks and tabs separate,
// double quotes group and are removed, nothing else is special) and the first word is executed
// directly. Program names without a slash are looked up, after the tool map below, in the system
// directories only (the caller's PATH is never searched), once per name. Every tool runs with a
// fixed environment of the platform's (PATH of the system directories, LC_ALL=C), none of the
// caller's, and every command has a deadline.
// Arguments that are device paths of flash or of the work directory (a whole word, or the value
// of a "--name=value" word) are mapped to where the device keeps them just before the program
// starts, except the value of tftp's "-r" (a name on the server); a path that the mapping refuses
// (an unsafe work directory, a ".." out of flash) means the command cannot start.
class Shell {
  public:
    using ResultCallback = Function<void(XCode, String)>;
    using OutputCallback = Function<void(String)>;

    // Starts the command in the background and returns at once. Output of standard output and
    // standard error is delivered piece by piece while the command runs; `result` is called
    // once, after the command ended, with success for exit status 0, the exit status (family
    // 0x12) or the signal (family 0x13) otherwise, or the deadline family (0x15, "<program> DID
    // NOT FINISH WITHIN <n> SECONDS") when it ran past the deadline and was ended, and all
    // output. A command that cannot be
    // started returns an error and calls nothing.
    // Callbacks are called from the shell's own thread, in the order the output was read and the
    // result last; async ones therefore arrive on their loop in that order. Direct and sync ones
    // run on the shell's thread and must return quickly.
    [[nodiscard]] static XCode invoke(const String& commandLine, ResultCallback result,
                                      OutputCallback output, OutputCallback errorOutput,
                                      Future<String>& future);
    // Runs the command to its end (or its deadline, as above) on the calling thread. `output`,
    // when given, is set to both streams as the command wrote them; without it they go to
    // /dev/null.
    [[nodiscard]] static XCode execute(const String& commandLine, String* output = nullptr);

    // Limits put on a child before it runs.
    struct Limits {
        // The largest file the child may write, in bytes (0: no limit). A child that tries to
        // write more is killed (SIGXFSZ, without a core file) and reported as "FILE TOO LARGE:
        // <program> tried to write more than <n> bytes to a file". The file keeps the first n.
        std::size_t fileSize = 0;
    };
    // As above, with limits.
    [[nodiscard]] static XCode execute(const String& commandLine, String* output,
                                       const Limits& limits);

    static std::vector<String> SPLIT_WORDS(const String& commandLine);
    // The one way to build a command line: the line that SPLIT_WORDS splits into exactly
    // `words`, each word as it is, in double quotes when it is empty or holds a blank or a tab.
    // A word holding a double quote (which the splitting removes) or a NUL (which no program
    // receives) cannot be passed: refused with "ARGUMENT CANNOT BE PASSED TO <first word>:
    // <word>" (control characters escaped), `commandLine` left as it was.
    [[nodiscard]] static XCode JOIN_WORDS(const std::vector<String>& words, String& commandLine);
};

}  // namespace Kt

#pragma GCC visibility pop
