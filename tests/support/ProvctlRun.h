#pragma once

// The built provctl run as a user would run it: standard output and standard error kept apart, a
// clean environment, and a deadline after which the run counts as hung.

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TempDir.h"

namespace provtest {

struct ProvctlOutcome {
    int status = -1;  // -1: did not exit by itself before the deadline (or was killed)
    bool ended = false;
    std::string out;
    std::string err;
};

// Runs `argv`, provctl or a program that starts it, as runProvctl does.
inline ProvctlOutcome runProvctlCommand(const TempDir& dir, const std::vector<std::string>& argv,
                                        const std::vector<std::string>& extraEnv,
                                        std::chrono::milliseconds deadline) {
    static int runs = 0;
    const std::string stem = dir.file("provctl-run-" + std::to_string(runs++));
    const std::string outPath = stem + ".out";
    const std::string errPath = stem + ".err";
    int outFd = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int errFd = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int inFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    SpawnSpec spec;
    spec.argv = argv;
    spec.env = {"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL=C",
                "HOME=" + dir.file("home")};
    spec.env.insert(spec.env.end(), extraEnv.begin(), extraEnv.end());
    spec.fds = {{0, inFd}, {1, outFd}, {2, errFd}};
    ProvctlOutcome run;
    ServerProcess process;
    ::testing::AssertionResult started = process.spawn(spec);
    ::close(outFd);
    ::close(errFd);
    ::close(inFd);
    EXPECT_TRUE(started);
    if (started) {
        run.ended = process.waitExit(deadline);
        process.stop();
        run.status = run.ended ? process.exitStatus() : -1;
    }
    run.out = readFile(outPath);
    run.err = readFile(errPath);
    return run;
}

// Runs provctl with `args`; HOME points into `dir`, so no real per-user state is touched, and
// `extraEnv` ("NAME=value") is added to the environment. A run that passes `deadline` is
// terminated and reported with `ended` false.
inline ProvctlOutcome runProvctl(const TempDir& dir, const std::vector<std::string>& args,
                                 const std::vector<std::string>& extraEnv = {},
                                 std::chrono::milliseconds deadline = DEFAULT_DEADLINE) {
    std::vector<std::string> argv = {PROV_PROVCTL};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProvctlCommand(dir, argv, extraEnv, deadline);
}

// The same run as the user "nobody" (uid and gid 65534, no supplementary groups), started by
// setpriv: for what root may do and an ordinary user may not.
inline ProvctlOutcome runProvctlAsNobody(const TempDir& dir, const std::vector<std::string>& args) {
    std::vector<std::string> argv = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
                                     "--clear-groups", PROV_PROVCTL};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProvctlCommand(dir, argv, {}, DEFAULT_DEADLINE);
}

}  // namespace provtest
