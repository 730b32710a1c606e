#include "platform/posix/ProcessSpawn.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace Kt::process {

namespace {

// Never destroyed: children may still be reaped while static objects go away.
struct RunningCount {
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t count = 0;
};

RunningCount& RUNNING_COUNT() {
    // Never destroyed: the reactor thread counts children until the process is gone.
    static RunningCount* running = new RunningCount();  // NOLINT(cppcoreguidelines-owning-memory)
    return *running;
}

bool isExecutableFile(const std::string& path, int& error) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        error = errno;
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = EACCES;
        return false;
    }
    if (::access(path.c_str(), X_OK) != 0) {
        error = errno;
        return false;
    }
    return true;
}

// posix_spawn's setup objects, destroyed on every path out of SPAWN.
class SpawnSetup {
  public:
    SpawnSetup() {
        actionsError_ = ::posix_spawn_file_actions_init(&actions_);
        attributesError_ = ::posix_spawnattr_init(&attributes_);
    }
    ~SpawnSetup() {
        if (actionsError_ == 0) {
            ::posix_spawn_file_actions_destroy(&actions_);
        }
        if (attributesError_ == 0) {
            ::posix_spawnattr_destroy(&attributes_);
        }
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    int prepare(int outFd, int errFd) {
        if (actionsError_ != 0) {
            return actionsError_;
        }
        if (attributesError_ != 0) {
            return attributesError_;
        }
        int error =
            ::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        if (error == 0) {
            error = redirect(outFd, STDOUT_FILENO);
        }
        if (error == 0) {
            error = redirect(errFd, STDERR_FILENO);
        }
        if (error == 0) {
            // Descriptors of other threads opened without close-on-exec do not leak either.
            error = ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
        }
        if (error == 0) {
            error = ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP |
                                                                 POSIX_SPAWN_SETSIGMASK |
                                                                 POSIX_SPAWN_SETSIGDEF);
        }
        if (error == 0) {
            error = ::posix_spawnattr_setpgroup(&attributes_, 0);
        }
        if (error == 0) {
            sigset_t none;
            sigemptyset(&none);
            error = ::posix_spawnattr_setsigmask(&attributes_, &none);
        }
        if (error == 0) {
            // A host that ignores SIGPIPE (or SIGTERM) must not hand that on to the tools.
            sigset_t all;
            sigfillset(&all);
            sigdelset(&all, SIGKILL);
            sigdelset(&all, SIGSTOP);
            error = ::posix_spawnattr_setsigdefault(&attributes_, &all);
        }
        return error;
    }

    const posix_spawn_file_actions_t* actions() const { return &actions_; }
    const posix_spawnattr_t* attributes() const { return &attributes_; }

  private:
    int redirect(int fd, int target) {
        if (fd < 0) {
            return ::posix_spawn_file_actions_addopen(&actions_, target, "/dev/null", O_WRONLY, 0);
        }
        return ::posix_spawn_file_actions_adddup2(&actions_, fd, target);
    }

    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
    int actionsError_ = 0;
    int attributesError_ = 0;
};

// Program names resolved so far. Never destroyed, like the running count.
struct ProgramCache {
    std::mutex mutex;
    std::map<std::string, std::string> paths;
};

ProgramCache& PROGRAM_CACHE() {
    // Never destroyed: a command may be started while static objects go away.
    static ProgramCache* cache = new ProgramCache();  // NOLINT(cppcoreguidelines-owning-memory)
    return *cache;
}

// Looks in the absolute directories of TOOL_PATH only.
int searchToolPath(const std::string& name, String& path) {
    const std::string directories = TOOL_PATH;
    int firstError = ENOENT;
    int error = 0;
    std::size_t start = 0;
    while (start <= directories.size()) {
        std::size_t end = directories.find(':', start);
        if (end == std::string::npos) {
            end = directories.size();
        }
        std::string directory = directories.substr(start, end - start);
        start = end + 1;
        if (directory.empty() || directory.front() != '/') {
            continue;
        }
        std::string candidate = directory;
        candidate += '/';
        candidate += name;
        if (isExecutableFile(candidate, error)) {
            path = String(candidate);
            return 0;
        }
        // Like exec: a program found but not runnable is reported as such, not as missing.
        if (error != ENOENT && error != ENOTDIR && firstError == ENOENT) {
            firstError = error;
        }
    }
    return firstError;
}

// The tools' whole environment. LC_ALL=C on purpose: the engine reads wget's and tar's messages.
char* const* toolEnvironment() {
    static const std::string pathEntry = std::string("PATH=") + TOOL_PATH;
    static char* const environment[] = {const_cast<char*>(pathEntry.c_str()),
                                        const_cast<char*>("LC_ALL=C"), nullptr};
    return environment;
}

// The child's side of spawnLimited: posix_spawn's setup above, done by hand, then the limits,
// then exec. Only async-signal-safe calls; every signal is blocked until the dispositions are
// back at their defaults. An exec that fails writes its errno to `report`.
[[noreturn]] void runLimitedChild(const char* path, char* const* argv, char* const* environment,
                                  int outFd, int errFd, int devNull, int report,
                                  std::size_t fileSizeLimit) {
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    sigemptyset(&defaults.sa_mask);
    for (int signal = 1; signal < NSIG; ++signal) {
        if (signal != SIGKILL && signal != SIGSTOP) {
            (void)::sigaction(signal, &defaults, nullptr);  // invalid numbers fail; nothing to do
        }
    }
    const rlimit fileSize{static_cast<rlim_t>(fileSizeLimit), static_cast<rlim_t>(fileSizeLimit)};
    const rlimit noCore{0, 0};
    sigset_t none;
    sigemptyset(&none);
    int error = 0;
    if (::setpgid(0, 0) != 0 || ::setrlimit(RLIMIT_FSIZE, &fileSize) != 0 ||
        ::setrlimit(RLIMIT_CORE, &noCore) != 0 || ::dup2(devNull, STDIN_FILENO) < 0 ||
        ::dup2(outFd >= 0 ? outFd : devNull, STDOUT_FILENO) < 0 ||
        ::dup2(errFd >= 0 ? errFd : devNull, STDERR_FILENO) < 0 ||
        // Close-on-exec rather than closed: `report` must stay open until the exec succeeds.
        ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) != 0 ||
        // The forked child has one thread: sigprocmask is pthread_sigmask there.
        ::sigprocmask(SIG_SETMASK, &none, nullptr) != 0) {  // NOLINT(concurrency-mt-unsafe)
        error = errno;
    } else {
        ::execve(path, argv, environment);
        error = errno;
    }
    (void)!::write(report, &error, sizeof error);  // the parent reads EOF as success otherwise
    ::_exit(127);
}

// posix_spawn has no attribute for resource limits, and a limit set on this process around the
// spawn would hold, for that moment, for all of its threads (a large store on another thread would
// be killed by SIGXFSZ) and for the children they start. A child with limits is therefore made
// with fork and sets them itself before exec.
int spawnLimited(const String& path, char* const* argv, char* const* environment, int outFd,
                 int errFd, std::size_t fileSizeLimit, pid_t& pid) {
    int report[2] = {-1, -1};
    if (::pipe2(report, O_CLOEXEC) != 0) {
        return errno;
    }
    const int devNull = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (devNull < 0) {
        const int error = errno;
        ::close(report[0]);
        ::close(report[1]);
        return error;
    }
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    const pid_t child = ::fork();
    if (child == 0) {
        runLimitedChild(path.c_str(), argv, environment, outFd, errFd, devNull, report[1],
                        fileSizeLimit);
    }
    int error = child < 0 ? errno : 0;
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    ::close(report[1]);
    ::close(devNull);
    if (child > 0) {
        ssize_t got;
        do {
            got = ::read(report[0], &error, sizeof error);
        } while (got < 0 && errno == EINTR);
        if (got == static_cast<ssize_t>(sizeof error)) {
            int status = 0;
            while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
            }
        } else {
            error = 0;
            pid = child;
        }
    }
    ::close(report[0]);
    return error;
}

}  // namespace

const char* const TOOL_PATH = "/usr/sbin:/usr/bin:/sbin:/bin";

int FIND_PROGRAM(const String& name, String& path) {
    if (name.isEmpty()) {
        return ENOENT;
    }
    int error = 0;
    if (name.indexOf('/') >= 0) {
        if (!isExecutableFile(name.str(), error)) {
            return error;
        }
        path = name;
        return 0;
    }
    ProgramCache& cache = PROGRAM_CACHE();
    {
        std::lock_guard<std::mutex> guard(cache.mutex);
        auto found = cache.paths.find(name.str());
        if (found != cache.paths.end()) {
            path = String(found->second);
            return 0;
        }
    }
    error = searchToolPath(name.str(), path);
    if (error == 0) {
        std::lock_guard<std::mutex> guard(cache.mutex);
        cache.paths.emplace(name.str(), path.str());
    }
    return error;
}

int SPAWN(const String& path, const std::vector<String>& argv, int outFd, int errFd, pid_t& pid,
          std::size_t fileSizeLimit) {
    std::vector<char*> arguments;
    arguments.reserve(argv.size() + 1);
    for (const String& word : argv) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    char* const* environment = toolEnvironment();
    int error = 0;
    if (fileSizeLimit > 0) {
        error = spawnLimited(path, arguments.data(), environment, outFd, errFd, fileSizeLimit, pid);
    } else {
        SpawnSetup setup;
        error = setup.prepare(outFd, errFd);
        if (error == 0) {
            error = ::posix_spawn(&pid, path.c_str(), setup.actions(), setup.attributes(),
                                  arguments.data(), environment);
        }
    }
    if (error == 0) {
        STARTED();
    }
    return error;
}

void STARTED() {
    RunningCount& running = RUNNING_COUNT();
    std::lock_guard<std::mutex> guard(running.mutex);
    ++running.count;
}

void REAPED() {
    RunningCount& running = RUNNING_COUNT();
    {
        std::lock_guard<std::mutex> guard(running.mutex);
        --running.count;
    }
    running.changed.notify_all();
}

std::size_t RUNNING() {
    RunningCount& running = RUNNING_COUNT();
    std::lock_guard<std::mutex> guard(running.mutex);
    return running.count;
}

bool WAIT_FOR_RUNNING(std::size_t count, std::chrono::milliseconds timeout) {
    RunningCount& running = RUNNING_COUNT();
    std::unique_lock<std::mutex> lock(running.mutex);
    return running.changed.wait_for(lock, timeout, [&] { return running.count <= count; });
}

void SIGNAL_GROUP(pid_t pid, int signal) {
    // The child leads its own process group; what it started goes with it. The group id is
    // still ours while the leader is not reaped.
    if (::kill(-pid, signal) != 0) {
        ::kill(pid, signal);
    }
}

XCode DEADLINE_PASSED(const String& program, std::chrono::milliseconds deadline) {
    const long long milliseconds = deadline.count();
    const bool wholeSeconds = milliseconds % 1000 == 0;
    const long long amount = wholeSeconds ? milliseconds / 1000 : milliseconds;
    XCode code = XCode::family(XCode::DEADLINE_FAMILY,
                               static_cast<XCodeValue>(std::min<long long>(amount, 0xFFFFFF)));
    code.setStringF("%s DID NOT FINISH WITHIN %lld %s", program.c_str(), amount,
                    wholeSeconds ? "SECONDS" : "MILLISECONDS");
    return code;
}

XCode WAIT_STATUS_TO_XCODE(const String& program, int waitStatus) {
    if (WIFEXITED(waitStatus)) {
        int status = WEXITSTATUS(waitStatus);
        if (status == 0) {
            return XCode(XCode::SUCCESS);
        }
        XCode code = XCode::family(XCode::EXIT_STATUS_FAMILY, static_cast<XCodeValue>(status));
        code.setStringF("%s EXITED WITH STATUS %d", program.c_str(), status);
        return code;
    }
    if (WIFSIGNALED(waitStatus)) {
        int signal = WTERMSIG(waitStatus);
        XCode code = XCode::family(XCode::SIGNAL_FAMILY, static_cast<XCodeValue>(signal));
        code.setStringF("%s KILLED BY SIGNAL %d", program.c_str(), signal);
        return code;
    }
    return XCode::FAILURE_F("%s ENDED WITH UNKNOWN STATUS 0x%X", program.c_str(),
                            static_cast<unsigned>(waitStatus));
}

XCode CANNOT_START(const String& program, int error) {
    XCode code = XCode::fromErrno(error);
    code.setStringF("CANNOT START %s: %s", program.c_str(), XCode::REASON(error).c_str());
    return code;
}

}  // namespace Kt::process
