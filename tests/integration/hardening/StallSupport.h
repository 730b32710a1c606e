#pragma once

// Helpers of the deadline, signal and one-report tests: a TFTP server that never finishes, an
// HTTP answer that never finishes, and looks into /proc for the processes a run left behind.

#include <dirent.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/FixtureServer.h"
#include "support/Process.h"

namespace provtest::hardening {

// A body that takes hours to arrive: one byte every half second. wget's own timeout counts per
// read, so it never ends such a transfer by itself.
inline FixtureResponse tricklingAnswer() {
    return FixtureResponse::slow(std::string(100000, 'x'), 1, 500);
}

// tests/data/hardening/tftp_trickle.py on a loopback UDP port: every read request gets one
// block per acknowledgement, a while after it, for hours.
class TricklingTftpServer {
  public:
    ::testing::AssertionResult start() {
        if (!socket_.valid()) {
            return ::testing::AssertionFailure() << socket_.error();
        }
        SpawnSpec spec;
        spec.argv = {"/usr/bin/python3",
                     std::string(PROV_TEST_DATA_DIR) + "/hardening/tftp_trickle.py", "300"};
        spec.fds = {{3, socket_.fd()}};
        spec.logPath = "/dev/null";
        return process_.spawn(spec);
    }
    unsigned int port() const { return socket_.port(); }

  private:
    LoopbackSocket socket_ = LoopbackSocket::udp();
    ServerProcess process_;
};

// A process as /proc shows it.
struct ProcessInfo {
    pid_t pid = 0;
    pid_t parent = 0;
    pid_t group = 0;
    char state = '?';
    std::string command;  // the argument list, NULs as blanks
};

inline std::vector<ProcessInfo> allProcesses() {
    std::vector<ProcessInfo> all;
    DIR* proc = ::opendir("/proc");
    if (proc == nullptr) {
        return all;
    }
    while (dirent* entry = ::readdir(proc)) {
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
            continue;
        }
        std::string base = std::string("/proc/") + entry->d_name;
        std::ifstream stat(base + "/stat");
        std::string content;
        std::getline(stat, content);
        std::size_t close = content.rfind(')');
        if (close == std::string::npos) {
            continue;
        }
        ProcessInfo info;
        info.pid = static_cast<pid_t>(std::stol(entry->d_name));
        std::istringstream fields(content.substr(close + 2));
        long parent = 0;
        long group = 0;
        fields >> info.state >> parent >> group;
        info.parent = static_cast<pid_t>(parent);
        info.group = static_cast<pid_t>(group);
        std::ifstream cmdline(base + "/cmdline");
        std::stringstream words;
        words << cmdline.rdbuf();
        info.command = words.str();
        for (char& c : info.command) {
            c = c == '\0' ? ' ' : c;
        }
        all.push_back(info);
    }
    ::closedir(proc);
    return all;
}

// Living processes (zombies are dead) whose argument list holds `text`.
inline std::vector<ProcessInfo> processesMentioning(const std::string& text) {
    std::vector<ProcessInfo> found;
    for (const ProcessInfo& info : allProcesses()) {
        if (info.state != 'Z' && info.command.find(text) != std::string::npos &&
            info.pid != ::getpid()) {
            found.push_back(info);
        }
    }
    return found;
}

inline std::string describe(const std::vector<ProcessInfo>& processes) {
    std::string text;
    for (const ProcessInfo& info : processes) {
        text += std::to_string(info.pid) + " (parent " + std::to_string(info.parent) + ", group " +
                std::to_string(info.group) + ", state " + info.state + "): " + info.command + "\n";
    }
    return text;
}

// The first child of `parent` whose argument list holds `text` and `alsoText` (an option that
// only the awaited run of a tool has, say), polled until the deadline.
inline bool waitForChild(pid_t parent, const std::string& text, const std::string& alsoText,
                         ProcessInfo& child, std::chrono::milliseconds timeout = DEFAULT_DEADLINE) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        for (const ProcessInfo& info : processesMentioning(text)) {
            if (info.parent == parent && info.command.find(alsoText) != std::string::npos) {
                child = info;
                return true;
            }
        }
        // Polling /proc: a short pause between looks, bounded by the deadline above.
        struct timespec pause = {0, 20 * 1000 * 1000};
        ::nanosleep(&pause, nullptr);
    }
    return false;
}

// Neither the process nor anything of its process group is alive (zombies count as dead).
inline bool goneWithItsGroup(pid_t pid) {
    for (const ProcessInfo& info : allProcesses()) {
        if (info.state != 'Z' && (info.pid == pid || info.group == pid)) {
            return false;
        }
    }
    return true;
}

}  // namespace provtest::hardening
