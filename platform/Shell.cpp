#include "Shell.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>

#include "ProcessReactor.h"
#include "ProcessSpawn.h"

namespace Kt {

namespace {

struct ToolMap {
    std::mutex mutex;
    // The device's `tftp` is the BusyBox applet here; `wget` and `tar` run as themselves.
    std::map<String, std::vector<String>> tools{{"tftp", {"busybox", "tftp"}}};
};

ToolMap& TOOLS() {
    // Never destroyed: commands may still be started while static objects go away.
    static ToolMap* tools = new ToolMap();
    return *tools;
}

XCode emptyCommandLine() {
    XCode code = XCode::fromErrno(EINVAL);
    code.setString("CANNOT START: EMPTY COMMAND LINE");
    return code;
}

// The argument list to run and the program's path, or the "cannot start" code.
XCode prepare(const String& commandLine, String& program, std::vector<String>& arguments,
              String& path) {
    std::vector<String> words = Shell::SPLIT_WORDS(commandLine);
    if (words.empty()) {
        return emptyCommandLine();
    }
    program = words.front();
    arguments = Shell::RESOLVE_TOOL(words);
    int error = process::FIND_PROGRAM(arguments.front(), path);
    if (error != 0) {
        return process::CANNOT_START(program, error);
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

pid_t waitForChild(pid_t pid, int& status) {
    pid_t reaped;
    do {
        reaped = ::waitpid(pid, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    return reaped;
}

}  // namespace

template <>
XCode Future<String>::wait() const {
    if (!command_) {
        XCode code(XCode::GENERIC_FAILURE);
        return code.setString("NO COMMAND TO WAIT FOR");
    }
    return command_->wait();
}

template <>
bool Future<String>::isFinished() const {
    return !command_ || command_->isFinished();
}

std::vector<String> Shell::SPLIT_WORDS(const String& commandLine) {
    std::vector<String> words;
    String word;
    bool inWord = false;
    bool quoted = false;
    for (char c : commandLine.str()) {
        if (c == '"') {
            quoted = !quoted;
            inWord = true;
        } else if (!quoted && (c == ' ' || c == '\t')) {
            if (inWord) {
                words.push_back(word);
                word = String();
                inWord = false;
            }
        } else {
            word += c;
            inWord = true;
        }
    }
    // An unterminated quote runs to the end of the line.
    if (inWord) {
        words.push_back(word);
    }
    return words;
}

void Shell::SET_TOOL(const String& name, const std::vector<String>& replacementPrefix) {
    ToolMap& map = TOOLS();
    std::lock_guard<std::mutex> guard(map.mutex);
    if (replacementPrefix.empty()) {
        map.tools.erase(name);
    } else {
        map.tools[name] = replacementPrefix;
    }
}

std::vector<String> Shell::RESOLVE_TOOL(const std::vector<String>& words) {
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

std::size_t Shell::RUNNING_COMMANDS() {
    return process::RUNNING();
}

bool Shell::WAIT_FOR_RUNNING_COMMANDS(std::size_t count, std::chrono::milliseconds timeout) {
    return process::WAIT_FOR_RUNNING(count, timeout);
}

XCode Shell::invoke(const String& commandLine, ResultCallback result, OutputCallback output,
                    OutputCallback errorOutput, Future<String>& future) {
    String program;
    std::vector<String> arguments;
    String path;
    XCode code = prepare(commandLine, program, arguments, path);
    if (code.isErr()) {
        return code;
    }
    process::Reactor& reactor = process::Reactor::INSTANCE();
    int error = reactor.start();
    int outPipe[2] = {-1, -1};
    int errPipe[2] = {-1, -1};
    if (error == 0 && (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0)) {
        error = errno;
    }
    pid_t pid = -1;
    if (error == 0) {
        error = process::SPAWN(path, arguments, outPipe[1], errPipe[1], pid);
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

    auto command =
        std::make_shared<process::Command>(program, pid, openPidFd(pid), outPipe[0], errPipe[0]);
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
    String program;
    std::vector<String> arguments;
    String path;
    XCode code = prepare(commandLine, program, arguments, path);
    if (code.isErr()) {
        return code;
    }
    int outPipe[2] = {-1, -1};
    if (output != nullptr && ::pipe2(outPipe, O_CLOEXEC) != 0) {
        return process::CANNOT_START(program, errno);
    }
    pid_t pid = -1;
    // Both streams share one pipe, so the collected text keeps their interleaving.
    int error = process::SPAWN(path, arguments, outPipe[1], outPipe[1], pid, limits.fileSize);
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
        char buffer[16 * 1024];
        while (true) {
            ssize_t count = ::read(outPipe[0], buffer, sizeof buffer);
            if (count > 0) {
                output->append(buffer, static_cast<std::size_t>(count));
            } else if (count == 0 || errno != EINTR) {
                break;
            }
        }
        closeBoth(outPipe);
    }
    int status = 0;
    pid_t reaped = waitForChild(pid, status);
    process::REAPED();
    if (reaped < 0) {
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
