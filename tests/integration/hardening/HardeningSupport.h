#pragma once

// Helpers of the hardening tests: a device with stored content that must survive every fault, a
// handler that counts what it was told, the argument lists recorded by
// tests/data/hardening/record-argv.sh, a program run in a private mount namespace, and a look at
// this process's descriptors, threads, children and memory.

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "engine/Monitors.h"
#include "engine/ProvisioningJob.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "platform/Cli.h"
#include "platform/KtEventLoop.h"
#include "platform/Shell.h"
#include "platform/StatusDb.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/testing/StatusDbHooks.h"
#include "support/CaptureMonitor.h"
#include "support/Process.h"
#include "support/TempDir.h"

// Readable values in failure messages.
// Shared by the support headers; whichever comes first defines them.
#ifndef PROV_TEST_PRINT_TO
#define PROV_TEST_PRINT_TO
inline void PrintTo(const String& text, std::ostream* out) {
    *out << '"' << text.c_str() << '"';
}
inline void PrintTo(const XCode& code, std::ostream* out) {
    *out << code.toString().c_str();
}
#endif

namespace provtest::hardening {

using namespace std::chrono_literals;

inline const char* const OLD_CONFIG =
    "cli version 4.10\ncontext ip router\n  interface lan\nport ethernet 0 0\n! old\n";
inline const char* const NEW_CONFIG =
    "cli version 4.10\ncontext ip router\n  interface wan\nport ethernet 0 1\n! new\n";
inline const char* const OLD_KEY = "old key\n";
inline const char* const OLD_DIALPLAN = "old plan\n";

// A file of /proc/<pid>/, empty when the process is gone. Read with read(2): a process that ends
// while it is read makes the read fail (ESRCH), which a stream buffer iterator would throw.
inline std::string readProcFile(int pid, const char* what) {
    std::string content;
    const std::string path = "/proc/" + std::to_string(pid) + "/" + what;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return content;
    }
    char buffer[4096];
    ssize_t got;
    while ((got = ::read(fd, buffer, sizeof buffer)) > 0) {
        content.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
    return content;
}

// "<prefix>-<pid>-<test name>": unique among tests running in parallel.
inline std::string uniqueName(const std::string& prefix) {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return prefix + "-" + std::to_string(::getpid()) + "-" + (info ? info->name() : "none");
}

// Every regular file under the device directory `root`, by path relative to it, with its
// content. The status directory and the work directory are left out: they record and carry the
// job, they store nothing.
inline std::map<std::string, std::string> snapshotFiles(const std::string& root) {
    std::map<std::string, std::string> files;
    std::error_code error;
    for (auto it = std::filesystem::recursive_directory_iterator(root, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
        std::string name = std::filesystem::relative(it->path(), root).string();
        if (it->is_regular_file() && name.rfind("status/", 0) != 0 && name.rfind("tmp/", 0) != 0) {
            std::ifstream in(it->path(), std::ios::binary);
            std::stringstream content;
            content << in.rdbuf();
            files[name] = content.str();
        }
    }
    return files;
}

// `text` on one line: line breaks written as "\n".
inline std::string oneLine(const std::string& text) {
    std::string line;
    for (char c : text) {
        line += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return line;
}

// Differences between two snapshots, one line each; empty when they are equal.
inline std::string describeChanges(const std::map<std::string, std::string>& before,
                                   const std::map<std::string, std::string>& after) {
    std::string changes;
    for (const auto& [name, content] : before) {
        auto found = after.find(name);
        if (found == after.end()) {
            changes += "lost: " + name + "\n";
        } else if (found->second != content) {
            changes += "changed: " + name + " ('" + oneLine(content) + "' -> '" +
                       oneLine(found->second) + "')\n";
        }
    }
    for (const auto& [name, content] : after) {
        if (before.count(name) == 0) {
            changes += "added: " + name + "\n";
        }
    }
    return changes;
}

// Counts every call; `then` runs inside the call (to destroy the job, for instance).
struct CountingHandler : ProvisioningJob::CallbackHandler {
    void jobFinished(ProvisioningJob& job, XCode result) override {
        results.push_back(result);
        if (then) {
            then(job, result);
        }
    }
    std::vector<XCode> results;
    std::function<void(ProvisioningJob&, const XCode&)> then;
};

// A device directory with a stored startup configuration, a key and a dial plan, the monitors
// captured, and a snapshot of the device taken before the test's job runs.
class DeviceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        DB::Table::ProvisioningStatusHooks::RESET();
        MON_PROV = &prov;
        MON_XFER = &xfer;
        MON_EVENT = &event;
        unique = uniqueName("hard");
        String error;
        ASSERT_TRUE(
            CLI::STORE_CONFIGURATION_CONTENT("startup-config", OLD_CONFIG, error).isSuccess());
        writeFile(device.file("flash/preferences/key"), OLD_KEY);
        writeFile(device.file("flash/dialplan/office"), OLD_DIALPLAN);
        before = snapshotFiles(device.path());
    }
    void TearDown() override {
        MON_PROV = nullptr;
        MON_XFER = nullptr;
        MON_EVENT = nullptr;
        for (const std::string& file : workFiles) {
            ::unlink(file.c_str());
        }
        // Work files whose names the test did not foresee: everything named after the test.
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(
                 Device::MAP_PATH("/tmp/provisioning").str(), error)) {
            if (entry.path().filename().string().rfind(unique, 0) == 0) {
                std::filesystem::remove(entry.path(), error);
            }
        }
    }

    // A remote name "<unique><suffix>" whose work file is removed after the test.
    std::string remote(const std::string& suffix) {
        std::string name = unique + suffix;
        workFiles.push_back(workFileOf(name));
        return name;
    }
    static std::string workFileOf(const std::string& name) {
        return Device::MAP_PATH("/tmp/provisioning").str() + "/" + name.substr(name.rfind('/') + 1);
    }

    ::testing::AssertionResult runToEnd(std::chrono::milliseconds timeout = 60s) {
        if (!loop.runUntil([this] { return !handler.results.empty(); }, timeout)) {
            return ::testing::AssertionFailure() << "the job did not finish; log:\n" << prov.dump();
        }
        // Whatever is still queued runs too: a second report would show here.
        loop.runPending();
        if (handler.results.size() != 1) {
            return ::testing::AssertionFailure()
                   << "the handler was told " << handler.results.size() << " times";
        }
        return ::testing::AssertionSuccess();
    }
    const XCode& told() const { return handler.results.front(); }

    // A configuration job of this device on the one `location`.
    std::unique_ptr<ConfigProvisioningJob> configJob(const String& location,
                                                     const char* name = "cfg") {
        return std::make_unique<ConfigProvisioningJob>(loop, name, ProvisioningJob::None, false,
                                                       KtList<String>{location}, credentials,
                                                       resolver, handler);
    }

    // Nothing in flash or the configuration store was lost, torn, changed or added.
    ::testing::AssertionResult deviceUnchanged() const {
        std::string changes = describeChanges(before, snapshotFiles(device.path()));
        if (!changes.empty()) {
            return ::testing::AssertionFailure() << changes;
        }
        return ::testing::AssertionSuccess();
    }
    // Only `allowed` changed (each to `expected`); nothing else was lost, torn or added.
    ::testing::AssertionResult deviceChangedOnly(const std::string& allowed,
                                                 const std::string& expected) const {
        std::map<std::string, std::string> wanted = before;
        wanted[allowed] = expected;
        std::string changes = describeChanges(wanted, snapshotFiles(device.path()));
        if (!changes.empty()) {
            return ::testing::AssertionFailure() << changes;
        }
        return ::testing::AssertionSuccess();
    }
    static std::string storedConfig() {
        String stored;
        String error;
        if (CLI::GET_CONFIGURATION_CONTENT("startup-config", stored, error).isErr()) {
            return "<none: " + error.str() + ">";
        }
        return stored.str();
    }

    TempDir device{"prov-hard"};
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    CountingHandler handler;
    CaptureMonitor prov{"PROV"};
    CaptureMonitor xfer{"XFER"};
    CaptureMonitor event{"EVENT"};
    std::string unique;
    std::vector<std::string> workFiles;
    std::map<std::string, std::string> before;
};

// Runs the loop until `done` holds, also while no event arrives (a file growing, a server's
// request log): the condition is looked at again every few milliseconds. False at the deadline.
inline bool runUntilPolled(KtEventLoop& loop, const std::function<bool()>& done,
                           std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (loop.runUntil(done, 10ms)) {
            return true;
        }
    }
    return done();
}

// --- Recorded argument lists ------------------------------------------------------------------

inline std::string recorderScript() {
    return std::string(PROV_TEST_DATA_DIR) + "/hardening/record-argv.sh";
}

// Puts the recorder first on the path of `tool` for the life of the object. `realProgram`: the
// words of the real tool that the recorder runs after recording (empty: it exits with 1).
// The recorded runs go to a file of the test's own, named in PROV_ARGV_LOG.
class ToolRecorder {
  public:
    explicit ToolRecorder(const std::string& logName) : log_(dir_.file(logName)) {
        ::setenv("PROV_ARGV_LOG", log_.c_str(), 1);
    }
    ~ToolRecorder() {
        for (const std::string& tool : tools_) {
            RESTORE(tool);
        }
        ::unsetenv("PROV_ARGV_LOG");
    }
    ToolRecorder(const ToolRecorder&) = delete;
    ToolRecorder& operator=(const ToolRecorder&) = delete;

    void record(const std::string& tool, const std::vector<std::string>& realProgram = {}) {
        // The tools get the platform's environment, not ours: the log's name travels in the
        // argument list.
        std::vector<String> prefix{"/usr/bin/env", ("PROV_ARGV_LOG=" + log_).c_str(), "/bin/sh",
                                   recorderScript().c_str(),
                                   std::to_string(realProgram.size()).c_str()};
        for (const std::string& word : realProgram) {
            prefix.push_back(word.c_str());
        }
        Kt::ShellControl::SET_TOOL(tool.c_str(), prefix);
        tools_.push_back(tool);
    }

    // Every recorded run, in order: its arguments (without the program name).
    std::vector<std::vector<std::string>> runs() const {
        std::vector<std::vector<std::string>> all;
        if (!fileExists(log_)) {
            return all;
        }
        std::istringstream in(readFile(log_));
        std::string line;
        while (std::getline(in, line)) {
            if (line.rfind("argc ", 0) != 0) {
                ADD_FAILURE() << "malformed argument log at '" << line << "':\n" << readFile(log_);
                return all;
            }
            int count = std::stoi(line.substr(5));
            std::vector<std::string> args;
            for (int i = 0; i < count && std::getline(in, line); ++i) {
                args.push_back(line);
            }
            all.push_back(args);
        }
        return all;
    }
    std::string dump() const { return fileExists(log_) ? readFile(log_) : "<no runs>"; }

    // The tools as the platform has them by default.
    static void RESTORE(const std::string& tool) {
        if (tool == "tftp") {
            Kt::ShellControl::SET_TOOL("tftp", {"busybox", "tftp"});
        } else {
            Kt::ShellControl::SET_TOOL(tool.c_str(), {});
        }
    }

  private:
    TempDir dir_{"prov-argv"};
    std::string log_;
    std::vector<std::string> tools_;
};

// --- A program in a private mount namespace ------------------------------------------------

// A mount made in the child's own mount namespace before the program runs.
struct PrivateMount {
    enum class Kind { Tmpfs, ReadOnlyBind };
    Kind kind;
    std::string target;
    std::string options;  // tmpfs only, e.g. "size=64k"
};

struct IsolatedRun {
    // Not empty when the namespace or a mount was not permitted here: the test skips.
    std::string notPermitted;
    // Any other failure to run the program.
    std::string error;
    int exitStatus = -1;
    // Standard output and standard error, interleaved.
    std::string output;
};

// Runs `argv` (argv[0] a path) in a child that first enters a mount namespace of its own
// (unshare(CLONE_NEWNS)), makes every mount private there (so nothing propagates back) and then
// makes `mounts`. The namespace, and the mounts with it, go away with the child.
inline IsolatedRun runWithPrivateMounts(const std::vector<PrivateMount>& mounts,
                                        const std::vector<std::string>& argv,
                                        std::chrono::milliseconds timeout = 120s) {
    IsolatedRun run;
    // Everything the child needs is made before fork: after it, only system calls.
    std::vector<char*> args;
    for (const std::string& word : argv) {
        args.push_back(const_cast<char*>(word.c_str()));
    }
    args.push_back(nullptr);
    int output[2];
    int report[2];
    if (::pipe2(output, O_CLOEXEC) != 0 || ::pipe2(report, O_CLOEXEC) != 0) {
        run.error = std::string("pipe: ") + std::strerror(errno);
        return run;
    }
    pid_t pid = ::fork();
    if (pid < 0) {
        run.error = std::string("fork: ") + std::strerror(errno);
        return run;
    }
    if (pid == 0) {
        // Step numbers: 0 unshare, 1 private propagation, 2 + i mount i, 99 exec.
        auto fail = [&](int step) {
            int failure[2] = {step, errno};
            ssize_t written = ::write(report[1], failure, sizeof failure);
            (void)written;
            ::_exit(127);
        };
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::unshare(CLONE_NEWNS) != 0) {
            fail(0);
        }
        if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            fail(1);
        }
        for (std::size_t i = 0; i < mounts.size(); ++i) {
            const PrivateMount& mount = mounts[i];
            const char* target = mount.target.c_str();
            if (mount.kind == PrivateMount::Kind::Tmpfs) {
                if (::mount("tmpfs", target, "tmpfs", MS_NOSUID | MS_NODEV,
                            mount.options.c_str()) != 0) {
                    fail(2 + static_cast<int>(i));
                }
            } else if (::mount(target, target, nullptr, MS_BIND, nullptr) != 0 ||
                       ::mount(nullptr, target, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY,
                               nullptr) != 0) {
                fail(2 + static_cast<int>(i));
            }
        }
        ::dup2(output[1], STDOUT_FILENO);
        ::dup2(output[1], STDERR_FILENO);
        ::execv(args[0], args.data());
        fail(99);
    }
    ::close(output[1]);
    ::close(report[1]);
    int failure[2] = {0, 0};
    ssize_t got = ::read(report[0], failure, sizeof failure);
    ::close(report[0]);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    char buffer[4096];
    while (got <= 0) {
        int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        deadline - std::chrono::steady_clock::now())
                                        .count());
        if (left <= 0) {
            run.error = "the program did not end before the deadline";
            ::kill(pid, SIGKILL);
            break;
        }
        pollfd readable{output[0], POLLIN, 0};
        if (::poll(&readable, 1, left) <= 0) {
            continue;
        }
        ssize_t count = ::read(output[0], buffer, sizeof buffer);
        if (count <= 0) {
            break;
        }
        run.output.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(output[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (got > 0) {
        const char* what = failure[0] == 0    ? "unshare(CLONE_NEWNS)"
                           : failure[0] == 1  ? "mount --make-rprivate /"
                           : failure[0] == 99 ? "exec"
                                              : "mount";
        std::string text = std::string(what) + ": " + std::strerror(failure[1]);
        bool refused = failure[1] == EPERM || failure[1] == EACCES || failure[1] == ENOSYS ||
                       failure[1] == EINVAL;
        (failure[0] != 99 && refused ? run.notPermitted : run.error) = text;
        return run;
    }
    run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

// --- This process's resources ---------------------------------------------------------------

struct Resources {
    int descriptors = 0;
    int threads = 0;
    int children = 0;
    long residentKiB = 0;
};

inline int countEntries(const char* directory) {
    int count = 0;
    if (DIR* dir = ::opendir(directory)) {
        while (dirent* entry = ::readdir(dir)) {
            if (entry->d_name[0] != '.') {
                ++count;
            }
        }
        ::closedir(dir);
    }
    return count;
}

inline Resources currentResources() {
    Resources now;
    // One of them is the directory being read.
    now.descriptors = countEntries("/proc/self/fd") - 1;
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("Threads:", 0) == 0) {
            now.threads = std::stoi(line.substr(8));
        }
    }
    long pages = 0;
    long resident = 0;
    std::ifstream statm("/proc/self/statm");
    statm >> pages >> resident;
    now.residentKiB = resident * (::sysconf(_SC_PAGESIZE) / 1024);
    // Children of any thread of this process: /proc/<pid>/stat's fourth field is the parent.
    const std::string self = std::to_string(::getpid());
    if (DIR* proc = ::opendir("/proc")) {
        while (dirent* entry = ::readdir(proc)) {
            if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
                continue;
            }
            std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
            std::string content;
            std::getline(stat, content);
            std::size_t close = content.rfind(')');
            if (close == std::string::npos) {
                continue;
            }
            std::istringstream fields(content.substr(close + 2));
            std::string state;
            std::string parent;
            fields >> state >> parent;
            if (parent == self) {
                ++now.children;
            }
        }
        ::closedir(proc);
    }
    return now;
}

}  // namespace provtest::hardening
