#include "platform/Shell.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <map>
#include <mutex>

#include "platform/posix/DevicePaths.h"
#include "platform/posix/ProcessReactor.h"
#include "platform/posix/ProcessSpawn.h"
#include "platform/posix/ShellControl.h"
#include "platform/testing/ShellHooks.h"

namespace Kt {

namespace {

struct ToolMap {
    std::mutex mutex;
    // The device's `tftp` is the BusyBox applet here; `wget` and `tar` run as themselves.
    std::map<String, std::vector<String>> tools{{"tftp", {"busybox", "tftp"}}};
};

ToolMap& TOOLS() {
    // Never destroyed: commands may still be started while static objects go away.
    static ToolMap* tools = new ToolMap();  // NOLINT(cppcoreguidelines-owning-memory)
    return *tools;
}

std::atomic<long long> g_deadlineMs{ShellControl::DEFAULT_COMMAND_DEADLINE.count()};

XCode emptyCommandLine() {
    XCode code = XCode::fromErrno(EINVAL);
    code.setString("CANNOT START: EMPTY COMMAND LINE");
    return code;
}

// A device path as a whole word, or as the value of a "--name=value" word.
XCode mapWord(String& word) {
    int valueAt = 0;
    if (word.startsWith("--") && word.indexOf('=') > 0) {
        valueAt = word.indexOf('=') + 1;
    }
    String value = word.substring(valueAt);
    if (!Device::IS_MAPPED_PATH(value)) {
        return XCode(XCode::SUCCESS);
    }
    String hostPath;
    XCode result = Device::MAP_PATH_CHECKED(value, hostPath);
    if (result.isSuccess()) {
        word = word.substring(0, valueAt) + hostPath;
    }
    return result;
}

// Commands name files by their device paths ("/tmp/provisioning/x", "/flash/..."), as they are
// logged; the tool gets the host paths. The value of tftp's "-r" names a file on the server and
// stays as it is.
XCode mapDevicePaths(std::vector<String>& words) {
    const bool tftp = words.front() == "tftp";
    for (std::size_t i = 1; i < words.size(); ++i) {
        if (tftp && words[i - 1] == "-r") {
            continue;
        }
        XCode result = mapWord(words[i]);
        if (result.isErr()) {
            return result;
        }
    }
    return XCode(XCode::SUCCESS);
}

// A command line made ready to run: the program's name as the line gives it (for messages), the
// argument list to run and the program's path.
struct Prepared {
    String program;
    std::vector<String> arguments;
    String path;
};

// The command ready to run, or the "cannot start" code.
XCode prepare(const String& commandLine, Prepared& prepared) {
    std::vector<String> words = Shell::SPLIT_WORDS(commandLine);
    if (words.empty()) {
        return emptyCommandLine();
    }
    prepared.program = words.front();
    XCode mapped = mapDevicePaths(words);
    if (mapped.isErr()) {
        return mapped;
    }
    prepared.arguments = ShellControl::RESOLVE_TOOL(words);
    int error = process::FIND_PROGRAM(prepared.arguments.front(), prepared.path);
    if (error != 0) {
        return process::CANNOT_START(prepared.program, error);
    }
    return XCode(XCode::SUCCESS);
}

void closeBoth(int fds[2]) {
    for (int i = 0; i < 2; ++i) {
        if (fds[i] >= 0) {
            ::close(fds[i]);
            fds[i] = -1;
        }
    }
}

int openPidFd(pid_t pid) {
    // Without pidfds (old kernels) the reactor polls for the exit instead.
    return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

pid_t tryWait(pid_t pid, int& status) {
    pid_t reaped;
    do {
        reaped = ::waitpid(pid, &status, WNOHANG);
    } while (reaped < 0 && errno == EINTR);
    return reaped;
}

// A synchronous command from its start to its reaping: collects its output (when `outFd` is a
// pipe) and ends it at its deadline like the reactor ends a background one.
class SyncRun {
  public:
    SyncRun(pid_t pid, int outFd, String* output)
        : pid_(pid), pidFd_(openPidFd(pid)), outFd_(outFd), output_(output) {}
    ~SyncRun() {
        for (int fd : {pidFd_, outFd_}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    }
    SyncRun(const SyncRun&) = delete;
    SyncRun& operator=(const SyncRun&) = delete;

    // Until the child is reaped and its output at an end; false when waitpid failed.
    bool run(std::chrono::milliseconds deadline, int& status, bool& timedOut) {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point endAt = Clock::now() + deadline;
        Clock::time_point killAt;
        bool reaped = false;
        bool ok = true;
        bool killed = false;
        timedOut = false;
        while (true) {
            if (!reaped) {
                pid_t result = tryWait(pid_, status);
                reaped = result != 0;
                ok = result >= 0;
            }
            Clock::time_point now = Clock::now();
            // Output still held open by something that left the group ends with the deadline.
            if (reaped && (outFd_ < 0 || timedOut || now >= endAt)) {
                return ok;
            }
            if (!reaped && !timedOut && now >= endAt) {
                process::SIGNAL_GROUP(pid_, SIGTERM);
                timedOut = true;
                killAt = now + process::TERMINATION_GRACE;
            } else if (!reaped && timedOut && !killed && now >= killAt) {
                process::SIGNAL_GROUP(pid_, SIGKILL);
                killed = true;
            }
            Clock::time_point until = !timedOut ? endAt : killed ? now + REAP_POLL : killAt;
            waitForEvent(reaped, until, now);
        }
    }

  private:
    static constexpr std::chrono::milliseconds REAP_POLL{50};

    void waitForEvent(bool reaped, std::chrono::steady_clock::time_point until,
                      std::chrono::steady_clock::time_point now) {
        long long left = std::chrono::duration_cast<std::chrono::milliseconds>(until - now).count();
        // Without a pidfd the exit is looked for every REAP_POLL.
        long long most = (pidFd_ >= 0 || reaped) ? INT_MAX : REAP_POLL.count();
        int timeout = static_cast<int>(std::min(std::max(left, 0LL) + 1, most));
        pollfd fds[2] = {{reaped ? -1 : pidFd_, POLLIN, 0}, {outFd_, POLLIN, 0}};
        if (::poll(fds, 2, timeout) > 0 && fds[1].revents != 0) {
            readOutput();
        }
    }
    void readOutput() {
        char buffer[16 * 1024];
        ssize_t count = ::read(outFd_, buffer, sizeof buffer);
        if (count > 0) {
            output_->append(buffer, static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            ::close(outFd_);
            outFd_ = -1;
        }
    }

    pid_t pid_;
    int pidFd_;
    int outFd_;
    String* output_;
};

}  // namespace

template <>
XCode Future<String>::wait() const {
    if (!command_) {
        return XCode::FAILURE("NO COMMAND TO WAIT FOR");
    }
    return command_->wait();
}

template <>
bool Future<String>::isFinished() const {
    return !command_ || command_->isFinished();
}

template <>
void Future<String>::abandonAndReap() {
    if (command_) {
        command_->abandonAndReap();
        command_.reset();
    }
}

void ShellControl::SET_COMMAND_DEADLINE(std::chrono::milliseconds deadline) {
    constexpr long long MOST = 30LL * 24 * 60 * 60 * 1000;
    g_deadlineMs.store(std::min<long long>(std::max<long long>(deadline.count(), 1), MOST));
}

std::chrono::milliseconds ShellControl::COMMAND_DEADLINE() {
    return std::chrono::milliseconds(g_deadlineMs.load());
}

void ShellControl::SET_TOOL(const String& name, const std::vector<String>& replacementPrefix) {
    ToolMap& map = TOOLS();
    std::lock_guard<std::mutex> guard(map.mutex);
    if (replacementPrefix.empty()) {
        map.tools.erase(name);
    } else {
        map.tools[name] = replacementPrefix;
    }
}

std::vector<String> ShellControl::RESOLVE_TOOL(const std::vector<String>& words) {
    if (words.empty()) {
        return words;
    }
    std::vector<String> resolved;
    {
        ToolMap& map = TOOLS();
        std::lock_guard<std::mutex> guard(map.mutex);
        auto found = map.tools.find(words.front());
        if (found == map.tools.end()) {
            return words;
        }
        resolved = found->second;
    }
    resolved.insert(resolved.end(), words.begin() + 1, words.end());
    return resolved;
}

std::size_t ShellHooks::RUNNING_COMMANDS() {
    return process::RUNNING();
}

bool ShellControl::WAIT_FOR_RUNNING_COMMANDS(std::size_t count, std::chrono::milliseconds timeout) {
    return process::WAIT_FOR_RUNNING(count, timeout);
}

XCode Shell::invoke(const String& commandLine, ResultCallback result, OutputCallback output,
                    OutputCallback errorOutput, Future<String>& future) {
    Prepared prepared;
    XCode code = prepare(commandLine, prepared);
    if (code.isErr()) {
        return code;
    }
    const String& program = prepared.program;
    process::Reactor& reactor = process::Reactor::INSTANCE();
    int error = reactor.start();
    int outPipe[2] = {-1, -1};
    int errPipe[2] = {-1, -1};
    if (error == 0 && (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0)) {
        error = errno;
    }
    pid_t pid = -1;
    if (error == 0) {
        error = process::SPAWN(prepared.path, prepared.arguments, outPipe[1], errPipe[1], pid);
    }
    // The child holds the write ends now; ours would keep the pipes from ever reaching EOF.
    for (int* fds : {outPipe, errPipe}) {
        if (fds[1] >= 0) {
            ::close(fds[1]);
            fds[1] = -1;
        }
    }
    if (error != 0) {
        closeBoth(outPipe);
        closeBoth(errPipe);
        return process::CANNOT_START(program, error);
    }
    ::fcntl(outPipe[0], F_SETFL, O_NONBLOCK);
    ::fcntl(errPipe[0], F_SETFL, O_NONBLOCK);

    auto command = std::make_shared<process::Command>(program, pid, openPidFd(pid), outPipe[0],
                                                      errPipe[0], ShellControl::COMMAND_DEADLINE());
    command->result = std::move(result);
    command->output = std::move(output);
    command->errorOutput = std::move(errorOutput);
    future = Future<String>(std::make_shared<RunningCommand>(command));
    reactor.add(std::move(command));
    return code;
}

XCode Shell::execute(const String& commandLine, String* output) {
    return execute(commandLine, output, Limits());
}

XCode Shell::execute(const String& commandLine, String* output, const Limits& limits) {
    Prepared prepared;
    XCode code = prepare(commandLine, prepared);
    if (code.isErr()) {
        return code;
    }
    const String& program = prepared.program;
    int outPipe[2] = {-1, -1};
    if (output != nullptr && ::pipe2(outPipe, O_CLOEXEC) != 0) {
        return process::CANNOT_START(program, errno);
    }
    pid_t pid = -1;
    // Both streams share one pipe, so the collected text keeps their interleaving.
    int error = process::SPAWN(prepared.path, prepared.arguments, outPipe[1], outPipe[1], pid,
                               limits.fileSize);
    if (outPipe[1] >= 0) {
        ::close(outPipe[1]);
        outPipe[1] = -1;
    }
    if (error != 0) {
        closeBoth(outPipe);
        return process::CANNOT_START(program, error);
    }
    if (output != nullptr) {
        *output = String();
    }
    int status = 0;
    bool timedOut = false;
    // The run owns the read end from here.
    bool reaped =
        SyncRun(pid, outPipe[0], output).run(ShellControl::COMMAND_DEADLINE(), status, timedOut);
    process::REAPED();
    if (timedOut) {
        return process::DEADLINE_PASSED(program, ShellControl::COMMAND_DEADLINE());
    }
    if (!reaped) {
        code = XCode::fromErrno(errno);
        return code.setStringF("%s ENDED WITH UNKNOWN STATUS", program.c_str());
    }
    code = process::WAIT_STATUS_TO_XCODE(program, status);
    if (limits.fileSize > 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) {
        code.setStringF("FILE TOO LARGE: %s tried to write more than %zu bytes to a file",
                        program.c_str(), limits.fileSize);
    }
    return code;
}

}  // namespace Kt
