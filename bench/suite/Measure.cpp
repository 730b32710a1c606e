#include "Measure.h"

#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

extern char** environ;

namespace suite {

long long NOW_NS() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

std::string JSON_STRING(const std::string& text) {
    std::string quoted = "\"";
    for (char c : text) {
        switch (c) {
            case '"':
                quoted += "\\\"";
                break;
            case '\\':
                quoted += "\\\\";
                break;
            case '\n':
                quoted += "\\n";
                break;
            case '\t':
                quoted += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    quoted += escaped;
                } else {
                    quoted += c;
                }
        }
    }
    return quoted + "\"";
}

Recorder::Recorder(std::string section, const std::string& path) : section_(std::move(section)) {
    out_ = path.empty() ? stdout : std::fopen(path.c_str(), "a");
    if (out_ == nullptr) {
        std::fprintf(stderr, "cannot append to %s: %s\n", path.c_str(), std::strerror(errno));
        out_ = stdout;
    }
}

Recorder::~Recorder() {
    if (out_ != stdout) {
        std::fclose(out_);
    }
}

void Recorder::series(const Series& series) {
    std::ostringstream line;
    line << "{\"section\": " << JSON_STRING(section_)
         << ", \"kind\": \"series\", \"name\": " << JSON_STRING(series.name)
         << ", \"unit\": " << JSON_STRING(series.unit) << ", \"values\": [";
    for (std::size_t i = 0; i < series.values.size(); ++i) {
        char number[64];
        std::snprintf(number, sizeof number, "%.9g", series.values[i]);
        line << (i == 0 ? "" : ", ") << number;
    }
    line << "]}\n";
    std::fputs(line.str().c_str(), out_);
    std::fflush(out_);
}

void Recorder::check(const Check& check) {
    std::ostringstream line;
    line << "{\"section\": " << JSON_STRING(section_)
         << ", \"kind\": \"check\", \"name\": " << JSON_STRING(check.name)
         << ", \"passed\": " << (check.passed ? "true" : "false")
         << ", \"detail\": " << JSON_STRING(check.detail) << "}\n";
    std::fputs(line.str().c_str(), out_);
    std::fflush(out_);
    std::fprintf(stderr, "  check %-40s %s (%s)\n", check.name.c_str(),
                 check.passed ? "ok" : "FAILED", check.detail.c_str());
}

void Recorder::value(const std::string& name, const std::string& unit, double value) {
    series(Series{name, unit, {value}});
}

void Recorder::note(const std::string& text) {
    std::fprintf(stderr, "[%s] %s\n", section_.c_str(), text.c_str());
}

bool ChildOutcome::ok() const {
    return started && WIFEXITED(waitStatus) && WEXITSTATUS(waitStatus) == 0;
}

std::string ChildOutcome::describe() const {
    if (!started) {
        return "could not start";
    }
    if (WIFEXITED(waitStatus)) {
        return "exited with status " + std::to_string(WEXITSTATUS(waitStatus));
    }
    if (WIFSIGNALED(waitStatus)) {
        return "killed by signal " + std::to_string(WTERMSIG(waitStatus));
    }
    return "ended oddly";
}

ChildOutcome RUN_TOOL(const std::vector<std::string>& argv, const std::string& logPath,
                      const std::vector<std::string>& extraEnv) {
    ChildOutcome outcome;
    std::vector<char*> arguments;
    for (const std::string& word : argv) {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        envStrings.emplace_back(*entry);
    }
    envStrings.insert(envStrings.end(), extraEnv.begin(), extraEnv.end());
    std::vector<char*> env;
    for (std::string& entry : envStrings) {
        env.push_back(entry.data());
    }
    env.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    if (logPath.empty()) {
        ::posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        ::posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    } else {
        ::posix_spawn_file_actions_addopen(&actions, 1, logPath.c_str(),
                                           O_WRONLY | O_CREAT | O_APPEND, 0644);
        ::posix_spawn_file_actions_adddup2(&actions, 1, 2);
    }
    pid_t pid = -1;
    int error = ::posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), env.data());
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        return outcome;
    }
    outcome.started = true;
    rusage usage{};
    pid_t reaped;
    do {
        reaped = ::wait4(pid, &outcome.waitStatus, 0, &usage);
    } while (reaped < 0 && errno == EINTR);
    if (reaped == pid) {
        outcome.maxRssKiB = usage.ru_maxrss;
    }
    return outcome;
}

double CPU_MS() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto ms = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

namespace {

long long threadSleeps(const std::string& task) {
    std::ifstream status("/proc/self/task/" + task + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
            return std::atoll(line.c_str() + 24);
        }
    }
    return 0;
}

}  // namespace

long long MAIN_THREAD_SLEEPS() {
    return threadSleeps(std::to_string(::getpid()));
}

long long OTHER_THREADS_SLEEPS() {
    const std::string self = std::to_string(::getpid());
    DIR* directory = ::opendir("/proc/self/task");
    if (directory == nullptr) {
        return 0;
    }
    long long total = 0;
    while (dirent* entry = ::readdir(directory)) {
        if (entry->d_name[0] != '.' && self != entry->d_name) {
            total += threadSleeps(entry->d_name);
        }
    }
    ::closedir(directory);
    return total;
}

int OPEN_DESCRIPTORS() {
    DIR* directory = ::opendir("/proc/self/fd");
    if (directory == nullptr) {
        return -1;
    }
    int count = 0;
    while (dirent* entry = ::readdir(directory)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    ::closedir(directory);
    return count - 1;  // the directory's own descriptor
}

int THREADS() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("Threads:", 0) == 0) {
            return std::atoi(line.c_str() + 8);
        }
    }
    return -1;
}

int CHILD_PROCESSES() {
    const pid_t self = ::getpid();
    DIR* directory = ::opendir("/proc");
    if (directory == nullptr) {
        return -1;
    }
    int count = 0;
    while (dirent* entry = ::readdir(directory)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
            continue;
        }
        std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
        std::string text;
        std::getline(stat, text);
        // "pid (comm) state ppid ...": the name may hold blanks and parentheses.
        std::size_t close = text.rfind(')');
        if (close == std::string::npos) {
            continue;
        }
        std::istringstream rest(text.substr(close + 1));
        std::string state;
        long parent = 0;
        rest >> state >> parent;
        if (parent == self) {
            ++count;
        }
    }
    ::closedir(directory);
    return count;
}

bool WRITE_SIZED_FILE(const std::string& path, long long size) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    std::string block(static_cast<std::size_t>(MIB), 'p');
    for (long long left = size; left > 0 && file; left -= MIB) {
        file.write(block.data(), static_cast<std::streamsize>(left < MIB ? left : MIB));
    }
    return static_cast<bool>(file);
}

void REMOVE(const std::string& path) {
    ::unlink(path.c_str());
}

}  // namespace suite
