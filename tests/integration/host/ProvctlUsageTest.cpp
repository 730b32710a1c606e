// provctl's command line as a user types it: unknown words named with the nearest valid one,
// enumerated values and per-kind options checked, verbosity, the checks made before a job runs,
// and what a job prints at each verbosity. Every refusal is exit status 2 and leaves the device
// directory as it was (here: not even created).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

#include "support/ProvctlRun.h"
#include "support/TempDir.h"
#include "support/TftpServer.h"

namespace {

using Outcome = provtest::ProvctlOutcome;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class ProvctlUsageTest : public ::testing::Test {
  protected:
    Outcome provctl(const std::vector<std::string>& args,
                    const std::vector<std::string>& extraEnv = {}) {
        Outcome run = provtest::runProvctl(dir_, args, extraEnv);
        EXPECT_TRUE(run.ended) << "provctl did not end";
        return run;
    }

    // A refusal: exit 2, exactly `message` and `hint` (if any) on standard error, nothing on
    // standard output, no device directory made.
    void expectRefused(const std::vector<std::string>& args, const std::string& message,
                       const std::string& hint) {
        std::vector<std::string> all = args;
        Outcome run = provctl(all);
        EXPECT_EQ(run.status, 2) << run.err;
        EXPECT_EQ(run.err, "provctl: " + message + "\n" + (hint.empty() ? "" : hint + "\n"));
        EXPECT_EQ(run.out, "");
        EXPECT_FALSE(std::filesystem::exists(device()));
    }

    static std::string unique(const std::string& stem) {
        static std::atomic<int> counter{0};
        return stem + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    }

    std::string device() const { return dir_.file("device"); }

    provtest::TempDir dir_{"prov-usage"};
};

const char* const LIST_HINT = "Try 'provctl --help' for the list of commands.";

std::string optionsHint(const std::string& command) {
    return "Try 'provctl " + command + " --help' for its options.";
}

TEST_F(ProvctlUsageTest, unknownCommandIsNamedWithTheNearestOne) {
    expectRefused({"configure", "tftp://127.0.0.1/x"},
                  "unknown command 'configure' (did you mean 'config'?)", LIST_HINT);
    expectRefused({"confg", "tftp://127.0.0.1/x"},
                  "unknown command 'confg' (did you mean 'config'?)", LIST_HINT);
    expectRefused({"frobnicate"}, "unknown command 'frobnicate'", LIST_HINT);
    expectRefused({}, "a command is required", LIST_HINT);
}

TEST_F(ProvctlUsageTest, unknownOptionIsNamedWithItsCommandsHelp) {
    expectRefused({"--bogus"}, "unknown option '--bogus'", LIST_HINT);
    expectRefused({"--verison"}, "unknown option '--verison' (did you mean '--version'?)",
                  LIST_HINT);
    expectRefused({"resolve", "-x"}, "unknown option '-x'", optionsHint("resolve"));
    expectRefused({"config", "--devcie", device(), "tftp://127.0.0.1/x"},
                  "unknown option '--devcie' (did you mean '--device'?)", optionsHint("config"));
    expectRefused({"key", "--json=yes", "--bogus=1", "tftp://127.0.0.1/x"},
                  "unknown option '--bogus=1'", optionsHint("key"));
}

TEST_F(ProvctlUsageTest, reloadTypesAreCheckedAndListed) {
    const std::string valid = " (valid: none, immediate, graceful, deferred)";
    expectRefused({"firmware", "--reload", "bogus", "--device", device(), "tftp://127.0.0.1/x"},
                  "--reload bogus: not a reload type" + valid, optionsHint("firmware"));
    expectRefused({"firmware", "--reload", "immedaite", "--device", device(), "tftp://127.0.0.1/x"},
                  "--reload immedaite: not a reload type" + valid + " (did you mean 'immediate'?)",
                  optionsHint("firmware"));
    expectRefused({"script", "--reload", "", "--device", device(), "tftp://127.0.0.1/x"},
                  "--reload : not a reload type" + valid, optionsHint("script"));
}

TEST_F(ProvctlUsageTest, optionsThatAKindIgnoresAreNeitherOfferedNorTaken) {
    expectRefused({"key", "--reload", "immediate", "--device", device(), "tftp://127.0.0.1/k"},
                  "option '--reload' does not apply to key", optionsHint("key"));
    expectRefused({"upload", "--compare", "--device", device(), "tftp://127.0.0.1/u"},
                  "option '--compare' does not apply to upload", optionsHint("upload"));
    expectRefused({"config", "--source", "x", "--device", device(), "tftp://127.0.0.1/c"},
                  "option '--source' does not apply to config", optionsHint("config"));
    EXPECT_FALSE(contains(provctl({"key", "--help"}).out, "--reload"));
    EXPECT_FALSE(contains(provctl({"upload", "--help"}).out, "--compare"));
    const Outcome firmware = provctl({"firmware", "--help"});
    EXPECT_TRUE(contains(firmware.out, "--reload WORD")) << firmware.out;
    EXPECT_TRUE(contains(firmware.out, "--compare")) << firmware.out;
}

TEST_F(ProvctlUsageTest, levelsOutsideTheMonitorsRangeAreRefused) {
    expectRefused({"config", "-v", "8", "--device", device(), "tftp://127.0.0.1/c"},
                  "-v 8: the level is one of 0 to 7", optionsHint("config"));
    expectRefused({"config", "-v", "-1", "--device", device(), "tftp://127.0.0.1/c"},
                  "-v -1: the level is one of 0 to 7", optionsHint("config"));
    expectRefused({"config", "-q", "-v", "--device", device(), "tftp://127.0.0.1/c"},
                  "-q and -v exclude each other", optionsHint("config"));
}

TEST_F(ProvctlUsageTest, emptyDeviceAndNamesThatAreNoFileNamesAreRefused) {
    expectRefused({"config", "--device", "", "tftp://127.0.0.1/c"},
                  "--device: the device directory is empty", optionsHint("config"));
    for (const std::string& name :
         {std::string("a/b"), std::string(".."), std::string(), std::string(256, 'n')}) {
        expectRefused({"config", "--name", name, "--device", device(), "tftp://127.0.0.1/c"},
                      "--name " + name +
                          ": a job's name is one file name in /tmp/provisioning (not \".\" or "
                          "\"..\", no \"/\", at most 255 bytes)",
                      optionsHint("config"));
    }
}

TEST_F(ProvctlUsageTest, certificateFilesAreReadBeforeTheJob) {
    expectRefused({"key", "--ca-certificate", dir_.file("missing.pem"), "--device", device(),
                   "https://127.0.0.1:1/k"},
                  "--ca-certificate " + dir_.file("missing.pem") + ": no such file", "");
    expectRefused(
        {"key", "--private-key", dir_.path(), "--device", device(), "https://127.0.0.1:1/k"},
        "--private-key " + dir_.path() + ": is a directory", "");
    expectRefused({"key", "--https-auth", "a,b", "--device", device(), "https://127.0.0.1:1/k"},
                  "--https-auth a,b: expected CA,CERT,KEY (or use --ca-certificate, "
                  "--certificate, --private-key)",
                  optionsHint("key"));
}

TEST_F(ProvctlUsageTest, aPathWithACommaIsAFileOption) {
    const std::string ca = dir_.file("ca,with-comma.pem");
    provtest::writeFile(ca, "not a certificate\n");
    // The file is taken as it is named; the job runs (and fails on the closed port).
    Outcome run =
        provctl({"key", "--ca-certificate", ca, "--device", device(), "https://127.0.0.1:1/k"});
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_TRUE(contains(run.out, "tried: https://127.0.0.1:1/k: failed: ")) << run.out;
}

TEST_F(ProvctlUsageTest, theDefaultDeviceDirectoryIsNamedWhenItIsMade) {
    const std::string state = dir_.file("state");
    const std::vector<std::string> env = {"XDG_STATE_HOME=" + state};
    Outcome first = provctl({"config", "ftp://127.0.0.1/c"}, env);
    EXPECT_TRUE(
        contains(first.err, "provctl: created the device directory " + state + "/provctl/device\n"))
        << first.err;
    Outcome second = provctl({"config", "ftp://127.0.0.1/c"}, env);
    EXPECT_FALSE(contains(second.err, "created the device directory")) << second.err;
}

TEST_F(ProvctlUsageTest, moreLocationsThanAJobTriesAreWarnedAbout) {
    std::vector<std::string> args = {"config", "--device", device()};
    for (int index = 0; index < 32; ++index) {
        args.push_back("ftp://127.0.0.1/" + std::to_string(index));
    }
    Outcome run = provctl(args);
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(contains(run.err,
                         "provctl: warning: 32 locations given, a job tries at most "
                         "30: the last 2 will never be tried\n"))
        << run.err;
}

TEST_F(ProvctlUsageTest, aResultThatCannotBeWrittenIsAFailure) {
    // Standard output on /dev/full: every write fails with ENOSPC.
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"resolve", "--device", device(), "x"},
          std::vector<std::string>{"config", "--json", "--device", device(), "ftp://h/c"}}) {
        provtest::SpawnSpec spec;
        spec.argv = {PROV_PROVCTL};
        spec.argv.insert(spec.argv.end(), args.begin(), args.end());
        spec.env = {"PATH=/usr/bin:/bin", "LC_ALL=C", "HOME=" + dir_.file("home")};
        spec.fds = {{1, ::open("/dev/full", O_WRONLY | O_CLOEXEC)}};
        spec.captureStdout = false;
        spec.logPath = dir_.file("full.err");
        provtest::ServerProcess process;
        ASSERT_TRUE(process.spawn(spec));
        ::close(spec.fds[0].second);
        ASSERT_TRUE(process.waitExit(provtest::DEFAULT_DEADLINE));
        EXPECT_EQ(process.exitStatus(), 1) << args[0];
        EXPECT_TRUE(contains(provtest::readFile(dir_.file("full.err")),
                             "provctl: cannot write the result to standard output\n"))
            << provtest::readFile(dir_.file("full.err"));
    }
}

TEST_F(ProvctlUsageTest, helpPrintsTheOverviewOrACommandsPage) {
    Outcome overview = provctl({"help"});
    EXPECT_EQ(overview.status, 0);
    EXPECT_EQ(overview.out, provctl({"--help"}).out);
    Outcome config = provctl({"help", "config"});
    EXPECT_EQ(config.status, 0);
    EXPECT_EQ(config.out, provctl({"config", "--help"}).out);
    EXPECT_TRUE(contains(config.out, "provctl config - ")) << config.out;
    expectRefused({"help", "configure"}, "unknown command 'configure' (did you mean 'config'?)",
                  LIST_HINT);
    expectRefused({"help", "config", "key"}, "help takes one command", LIST_HINT);
}

}  // namespace
