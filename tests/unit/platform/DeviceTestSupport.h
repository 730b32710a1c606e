#pragma once

// Helpers of the platform tests that work on the simulated device directory: a private temporary
// directory per test, whole-file helpers and a way to act without root's file privileges.

#include <sys/fsuid.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace devicetest {

namespace fs = std::filesystem;

// A fresh directory under /tmp, removed with everything in it (read-only parts included) at the
// end of the test.
class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string pattern = "/tmp/prov-device-test-XXXXXX";
        char* made = ::mkdtemp(pattern.data());
        EXPECT_NE(made, nullptr);
        path_ = pattern;
        fs::permissions(path_, fs::perms(0755));
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        for (auto it = fs::recursive_directory_iterator(path_, ignored);
             it != fs::recursive_directory_iterator(); it.increment(ignored)) {
            if (it->is_directory(ignored)) {
                fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
            }
        }
        fs::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// Names in a directory, so that a test can see that no temporary was left behind.
inline std::set<std::string> namesIn(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

inline unsigned int modeOf(const std::string& path) {
    return static_cast<unsigned int>(fs::status(path).permissions()) & 0777U;
}

inline unsigned int currentUmask() {
    mode_t mask = ::umask(022);
    ::umask(mask);
    return static_cast<unsigned int>(mask);
}

// Runs `action` with the file permissions of an ordinary user, so that a read-only directory
// refuses writes also when the tests run as root: a root process does it on a thread of its own
// whose file-system user is "nobody" (that drops the thread's file capabilities).
inline void runUnprivileged(const std::function<void()>& action) {
    if (::geteuid() != 0) {
        action();
        return;
    }
    std::thread worker([&action] {
        ::setfsuid(65534);
        ::setfsgid(65534);
        action();
    });
    worker.join();
}

}  // namespace devicetest
