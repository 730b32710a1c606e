#include "platform/Shell.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/KtEventLoop.h"
#include "platform/KtFunction.h"
#include "platform/posix/ShellControl.h"
#include "platform/testing/ShellHooks.h"
#include "support/TempDir.h"

static void PrintTo(const String& text, std::ostream* out) {
    *out << '"' << text.str() << '"';
}

namespace {

constexpr std::chrono::milliseconds DEADLINE{20000};

std::size_t openDescriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

std::vector<std::string> words(const char* commandLine) {
    std::vector<std::string> result;
    for (const String& word : Kt::Shell::SPLIT_WORDS(commandLine)) {
        result.push_back(word.str());
    }
    return result;
}

// What a background command delivered to the loop, in order.
struct Delivery {
    enum Kind { OUT, ERR, RESULT };
    Kind kind;
    std::string text;
    XCode code;
};

class ShellTest : public ::testing::Test {
  protected:
    Kt::Shell::ResultCallback resultCallback() {
        return {Kt::asyncCall(loop), [this](XCode code, String output) {
                    deliveries.push_back({Delivery::RESULT, output.str(), code});
                }};
    }
    Kt::Shell::OutputCallback outputCallback(Delivery::Kind kind) {
        return {Kt::asyncCall(loop), [this, kind](String text) {
                    deliveries.push_back({kind, text.str(), XCode()});
                }};
    }
    XCode start(const String& commandLine, Kt::Future<String>& future) {
        return Kt::Shell::invoke(commandLine, resultCallback(), outputCallback(Delivery::OUT),
                                 outputCallback(Delivery::ERR), future);
    }
    int countOf(Delivery::Kind kind) const {
        return static_cast<int>(
            std::count_if(deliveries.begin(), deliveries.end(),
                          [kind](const Delivery& d) { return d.kind == kind; }));
    }
    std::string textOf(Delivery::Kind kind) const {
        std::string text;
        for (const Delivery& d : deliveries) {
            if (d.kind == kind) {
                text += d.text;
            }
        }
        return text;
    }
    bool runUntilResult() {
        return loop.runUntil([this] { return countOf(Delivery::RESULT) > 0; }, DEADLINE);
    }
    const Delivery& result() const { return deliveries.back(); }
    // Runs a command to its result and returns it.
    XCode run(const String& commandLine) {
        Kt::Future<String> future;
        XCode started = start(commandLine, future);
        EXPECT_TRUE(started.isSuccess()) << started.toString().str();
        EXPECT_TRUE(runUntilResult());
        EXPECT_FALSE(deliveries.empty());
        return deliveries.empty() ? XCode(XCode::GENERIC_FAILURE) : result().code;
    }

    // Declared first: the loop outlives the deliveries it may still hold.
    KtEventLoop loop;
    std::vector<Delivery> deliveries;
};

// --- word splitting --------------------------------------------------------------------------

struct SplitCase {
    const char* line;
    std::vector<std::string> expected;
};

class SplitWordsTest : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitWordsTest, splitsAsTabulated) {
    EXPECT_EQ(words(GetParam().line), GetParam().expected) << "line: " << GetParam().line;
}

INSTANTIATE_TEST_SUITE_P(
    Table, SplitWordsTest,
    ::testing::Values(SplitCase{"", {}}, SplitCase{"   \t ", {}}, SplitCase{"ls", {"ls"}},
                      SplitCase{"a b  c", {"a", "b", "c"}}, SplitCase{"  a b  ", {"a", "b"}},
                      SplitCase{"a\tb\t\tc", {"a", "b", "c"}}, SplitCase{"\"a b\" c", {"a b", "c"}},
                      SplitCase{"a\"b c\"d e", {"ab cd", "e"}}, SplitCase{"\"\"", {""}},
                      SplitCase{"a \"\" b", {"a", "", "b"}}, SplitCase{"\"a\tb\"", {"a\tb"}},
                      SplitCase{"echo a;touch x", {"echo", "a;touch", "x"}},
                      SplitCase{"echo `id`", {"echo", "`id`"}},
                      SplitCase{"echo $(id)", {"echo", "$(id)"}},
                      SplitCase{"echo $IFS$HOME", {"echo", "$IFS$HOME"}},
                      SplitCase{"a\nb c", {"a\nb", "c"}}, SplitCase{"a\\ b", {"a\\", "b"}},
                      SplitCase{"a\\\"b c\"", {"a\\b c"}}, SplitCase{"'a b'", {"'a", "b'"}},
                      SplitCase{"ls * ?", {"ls", "*", "?"}}, SplitCase{"a|b>c&", {"a|b>c&"}},
                      SplitCase{"\"unterminated quote", {"unterminated quote"}}));

// --- tool map ----------------------------------------------------------------------------------

TEST(ShellToolTest, tftpRunsTheBusyBoxApplet) {
    std::vector<String> resolved = Kt::ShellControl::RESOLVE_TOOL({"tftp", "-g", "host"});
    std::vector<String> expected{"busybox", "tftp", "-g", "host"};
    EXPECT_EQ(resolved, expected);
}

TEST(ShellToolTest, wgetTarAndPathsRunAsThemselves) {
    EXPECT_EQ(Kt::ShellControl::RESOLVE_TOOL({"wget", "-q"}), (std::vector<String>{"wget", "-q"}));
    EXPECT_EQ(Kt::ShellControl::RESOLVE_TOOL({"tar", "-x"}), (std::vector<String>{"tar", "-x"}));
    EXPECT_EQ(Kt::ShellControl::RESOLVE_TOOL({"/usr/bin/tftp"}),
              (std::vector<String>{"/usr/bin/tftp"}));
    EXPECT_TRUE(Kt::ShellControl::RESOLVE_TOOL({}).empty());
}

TEST(ShellToolTest, setToolReplacesTheProgramAndEmptyPrefixRemovesIt) {
    Kt::ShellControl::SET_TOOL("greet", {"echo", "hello"});
    String output;
    XCode code = Kt::Shell::execute("greet world", &output);
    EXPECT_TRUE(code.isSuccess()) << code.toString().str();
    EXPECT_EQ(output, "hello world\n");

    Kt::ShellControl::SET_TOOL("greet", {});
    code = Kt::Shell::execute("greet world", &output);
    EXPECT_EQ(code.getFamily(), XCode::ERRNO_FAMILY);
    EXPECT_EQ(code.getDetail(), static_cast<XCodeValue>(ENOENT));
}

TEST_F(ShellTest, tftpWithoutArgumentsShowsBusyBoxUsageOnErrorOutput) {
    XCode code = run("tftp");
    EXPECT_NE(textOf(Delivery::ERR).find("Usage: tftp"), std::string::npos)
        << textOf(Delivery::ERR);
    EXPECT_EQ(textOf(Delivery::OUT), "");
    EXPECT_EQ(code.getFamily(), XCode::EXIT_STATUS_FAMILY);
    EXPECT_EQ(code.getString(), "tftp EXITED WITH STATUS 1");
}

// --- no shell ----------------------------------------------------------------------------------

TEST_F(ShellTest, shellSyntaxInArgumentsRunsNothingElse) {
    provtest::TempDir dir("shell-test");
    std::string touched = dir.file("touched");
    std::string line = "echo a;touch " + touched + " `touch " + touched + "` $(touch " + touched +
                       ") && touch " + touched + " | touch " + touched;
    XCode code = run(line.c_str());
    EXPECT_TRUE(code.isSuccess()) << code.toString().str();
    EXPECT_EQ(textOf(Delivery::OUT), line.substr(5) + "\n");
    EXPECT_FALSE(std::filesystem::exists(touched));

    String output;
    code = Kt::Shell::execute(line.c_str(), &output);
    EXPECT_TRUE(code.isSuccess());
    EXPECT_FALSE(std::filesystem::exists(touched));
}

TEST_F(ShellTest, variablesAndNewlinesReachTheProgramLiterally) {
    XCode code = run("printf %s| $HOME \"a\nb\" $IFS");
    EXPECT_TRUE(code.isSuccess());
    EXPECT_EQ(textOf(Delivery::OUT), "$HOME|a\nb|$IFS|");
}

// --- output and results ------------------------------------------------------------------------

TEST_F(ShellTest, bothStreamsArriveInOrderBeforeTheResult) {
    XCode code = run("sh -c \"echo one; echo two >&2; echo three; echo four >&2\"");
    EXPECT_TRUE(code.isSuccess());
    EXPECT_EQ(textOf(Delivery::OUT), "one\nthree\n");
    EXPECT_EQ(textOf(Delivery::ERR), "two\nfour\n");
    ASSERT_EQ(countOf(Delivery::RESULT), 1);
    EXPECT_EQ(deliveries.back().kind, Delivery::RESULT);
    // The result's text is all pieces in the order they were delivered.
    std::string all;
    for (std::size_t i = 0; i + 1 < deliveries.size(); ++i) {
        all += deliveries[i].text;
    }
    EXPECT_EQ(result().text, all);
    EXPECT_EQ(all.size(), std::string("one\ntwo\nthree\nfour\n").size());
}

TEST_F(ShellTest, largeOutputArrivesCompletely) {
    XCode code = run("head -c 1000000 /dev/zero");
    EXPECT_TRUE(code.isSuccess());
    EXPECT_EQ(textOf(Delivery::OUT).size(), 1000000U);
    EXPECT_EQ(result().text.size(), 1000000U);
}

TEST_F(ShellTest, outputArrivesWhileTheCommandRuns) {
    Kt::Future<String> future;
    ASSERT_TRUE(start("sh -c \"echo first; exec sleep 30\"", future).isSuccess());
    ASSERT_TRUE(loop.runUntil([this] { return textOf(Delivery::OUT) == "first\n"; }, DEADLINE));
    EXPECT_EQ(countOf(Delivery::RESULT), 0);
    EXPECT_FALSE(future.isFinished());
    future.reset();
    EXPECT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, DEADLINE));
}

TEST_F(ShellTest, standardInputIsEmpty) {
    XCode code = run("cat");
    EXPECT_TRUE(code.isSuccess());
    EXPECT_EQ(result().text, "");
}

TEST_F(ShellTest, nonZeroExitGivesTheExitStatusFamily) {
    XCode code = run("sh -c \"echo bye; exit 3\"");
    EXPECT_TRUE(code.isErr());
    EXPECT_EQ(code.getValue(), 0x12000003U);
    EXPECT_EQ(code.getString(), "sh EXITED WITH STATUS 3");
    EXPECT_EQ(result().text, "bye\n");
}

TEST_F(ShellTest, signalGivesTheSignalFamily) {
    XCode code = run("sh -c \"kill -9 $$\"");
    EXPECT_EQ(code.getValue(), 0x13000009U);
    EXPECT_EQ(code.getString(), "sh KILLED BY SIGNAL 9");
}

TEST_F(ShellTest, programsRunInTheirOwnProcessGroup) {
    XCode code = run("cat /proc/self/stat");
    ASSERT_TRUE(code.isSuccess());
    std::istringstream fields(result().text);
    long pid = 0;
    std::string name;
    std::string state;
    long parent = 0;
    long group = 0;
    fields >> pid >> name >> state >> parent >> group;
    EXPECT_EQ(group, pid);
    EXPECT_NE(group, static_cast<long>(::getpgrp()));
}

TEST_F(ShellTest, noDescriptorLeaksIntoTheChild) {
    int inheritable = ::open("/dev/null", O_RDONLY);  // deliberately without O_CLOEXEC
    ASSERT_GE(inheritable, 0);
    XCode code = run("ls /proc/self/fd");
    ::close(inheritable);
    ASSERT_TRUE(code.isSuccess());
    std::set<std::string> fds;
    std::istringstream lines(result().text);
    for (std::string line; std::getline(lines, line);) {
        fds.insert(line);
    }
    // 0 to 2 and the directory that ls itself reads.
    EXPECT_EQ(fds, (std::set<std::string>{"0", "1", "2", "3"})) << result().text;
}

TEST_F(ShellTest, ignoredSignalsAreNotHandedToTheChild) {
    struct sigaction ignore {};
    struct sigaction previous {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGTERM, &ignore, &previous);
    XCode code = run("sh -c \"kill -TERM $$\"");
    ::sigaction(SIGTERM, &previous, nullptr);
    EXPECT_EQ(code.getValue(), 0x1300000FU);
}

// --- cannot start ------------------------------------------------------------------------------

TEST_F(ShellTest, missingProgramCannotStartAndCallsNothing) {
    Kt::Future<String> future;
    XCode code = start("no-such-program-for-the-shell-test arg", future);
    EXPECT_EQ(code.getValue(), (XCode::ERRNO_FAMILY << 24) | ENOENT);
    EXPECT_EQ(code.getString(),
              String::format("CANNOT START no-such-program-for-the-shell-test: %s",
                             std::strerror(ENOENT)));
    EXPECT_FALSE(future.isValid());
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
    loop.runPending();
    EXPECT_TRUE(deliveries.empty());
}

TEST_F(ShellTest, fileWithoutExecutePermissionCannotStart) {
    provtest::TempDir dir("shell-test");
    std::string script = dir.file("script");
    provtest::writeFile(script, "#!/bin/sh\necho run\n");
    ::chmod(script.c_str(), 0644);
    Kt::Future<String> future;
    XCode code = start(script.c_str(), future);
    EXPECT_EQ(code.getValue(), (XCode::ERRNO_FAMILY << 24) | EACCES);
    EXPECT_EQ(code.getString(),
              String::format("CANNOT START %s: %s", script.c_str(), std::strerror(EACCES)));
    code = start(dir.path().c_str(), future);
    EXPECT_EQ(code.getValue(), (XCode::ERRNO_FAMILY << 24) | EACCES);
    EXPECT_FALSE(future.isValid());
    loop.runPending();
    EXPECT_TRUE(deliveries.empty());
}

TEST_F(ShellTest, emptyCommandLineCannotStart) {
    Kt::Future<String> future;
    XCode code = start(" \t ", future);
    EXPECT_EQ(code.getFamily(), XCode::ERRNO_FAMILY);
    EXPECT_FALSE(future.isValid());
    EXPECT_EQ(Kt::Shell::execute("").getFamily(), XCode::ERRNO_FAMILY);
}

// --- abandonment -------------------------------------------------------------------------------

TEST_F(ShellTest, destroyingTheLastFutureTerminatesAndReapsTheCommand) {
    // The first command starts the shell's thread, whose descriptors stay.
    EXPECT_TRUE(run("true").isSuccess());
    deliveries.clear();
    std::size_t descriptors = openDescriptors();

    Kt::Future<String> future;
    ASSERT_TRUE(start("sleep 30", future).isSuccess());
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 1U);
    EXPECT_GT(openDescriptors(), descriptors);
    Kt::Future<String> copy = future;
    future.reset();
    EXPECT_FALSE(copy.isFinished());  // a copy keeps the command
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 1U);
    copy.reset();

    ASSERT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, DEADLINE));
    EXPECT_EQ(openDescriptors(), descriptors);
    loop.runPending();
    EXPECT_TRUE(deliveries.empty());
}

TEST_F(ShellTest, childIgnoringTerminationIsKilled) {
    Kt::Future<String> future;
    ASSERT_TRUE(start("sh -c \"trap '' TERM; echo ready; exec sleep 30\"", future).isSuccess());
    ASSERT_TRUE(loop.runUntil([this] { return textOf(Delivery::OUT) == "ready\n"; }, DEADLINE));
    future.reset();
    EXPECT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, DEADLINE));
    deliveries.clear();
    loop.runPending();
    EXPECT_TRUE(deliveries.empty());
}

TEST_F(ShellTest, abandoningTerminatesTheWholeProcessGroup) {
    Kt::Future<String> future;
    ASSERT_TRUE(start("sh -c \"sleep 30 & echo $!; wait\"", future).isSuccess());
    ASSERT_TRUE(loop.runUntil(
        [this] { return textOf(Delivery::OUT).find('\n') != std::string::npos; }, DEADLINE));
    pid_t grandchild = static_cast<pid_t>(std::stol(textOf(Delivery::OUT)));
    int grandchildFd = static_cast<int>(::syscall(SYS_pidfd_open, grandchild, 0));
    ASSERT_GE(grandchildFd, 0) << std::strerror(errno);
    future.reset();
    EXPECT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, DEADLINE));
    pollfd exited{grandchildFd, POLLIN, 0};
    EXPECT_EQ(::poll(&exited, 1, static_cast<int>(DEADLINE.count())), 1);
    ::close(grandchildFd);
}

TEST_F(ShellTest, destroyingTheFutureCancelsDeliveriesStillQueued) {
    Kt::Future<String> future;
    ASSERT_TRUE(start("echo queued", future).isSuccess());
    // The loop does not run: everything the command produced waits in its queue.
    XCode code = future.wait();
    EXPECT_TRUE(code.isSuccess());
    EXPECT_TRUE(future.isFinished());
    future.reset();
    loop.runPending();
    EXPECT_TRUE(deliveries.empty());
}

TEST_F(ShellTest, waitReturnsTheResultAndTheCallbacksStillArrive) {
    Kt::Future<String> future;
    ASSERT_TRUE(start("sh -c \"echo out; exit 2\"", future).isSuccess());
    XCode code = future.wait();
    EXPECT_EQ(code.getValue(), 0x12000002U);
    EXPECT_EQ(code.getString(), "sh EXITED WITH STATUS 2");
    EXPECT_TRUE(future.isFinished());
    ASSERT_TRUE(runUntilResult());
    EXPECT_EQ(result().code, code);
    EXPECT_EQ(result().text, "out\n");
}

TEST(ShellFutureTest, futureWithoutCommandIsFinishedAndCannotBeWaitedFor) {
    Kt::Future<String> future;
    EXPECT_FALSE(future.isValid());
    EXPECT_TRUE(future.isFinished());
    EXPECT_TRUE(future.wait().isErr());
}

TEST_F(ShellTest, startingAnotherCommandOnTheSameFutureAbandonsTheFirst) {
    Kt::Future<String> future;
    ASSERT_TRUE(start("sleep 30", future).isSuccess());
    ASSERT_TRUE(start("echo second", future).isSuccess());
    ASSERT_TRUE(runUntilResult());
    EXPECT_EQ(result().text, "second\n");
    EXPECT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, DEADLINE));
    loop.runPending();
    EXPECT_EQ(countOf(Delivery::RESULT), 1);
}

TEST(ShellDirectTest, directCallbacksRunOnTheShellThread) {
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
    XCode outcome;
    std::string output;
    Kt::Shell::ResultCallback result(Kt::directCall(), [&](XCode code, String text) {
        std::lock_guard<std::mutex> guard(mutex);
        outcome = code;
        output = text.str();
        done = true;
        changed.notify_all();
    });
    Kt::Future<String> future;
    ASSERT_TRUE(Kt::Shell::invoke("echo direct", result, {}, {}, future).isSuccess());
    std::unique_lock<std::mutex> lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, DEADLINE, [&] { return done; }));
    EXPECT_TRUE(outcome.isSuccess());
    EXPECT_EQ(output, "direct\n");
}

// --- many commands -----------------------------------------------------------------------------

TEST_F(ShellTest, twoHundredConcurrentCommandsEachDeliverOneResult) {
    constexpr int COUNT = 200;
    std::vector<int> results(COUNT, 0);
    std::vector<std::string> outputs(COUNT);
    std::vector<Kt::Future<String>> futures(COUNT);
    int total = 0;
    for (int i = 0; i < COUNT; ++i) {
        Kt::Shell::ResultCallback callback(Kt::asyncCall(loop), [&, i](XCode code, String text) {
            EXPECT_TRUE(code.isSuccess()) << code.toString().str();
            ++results[static_cast<std::size_t>(i)];
            outputs[static_cast<std::size_t>(i)] = text.str();
            ++total;
        });
        XCode code = Kt::Shell::invoke(String::format("echo %d", i), callback, {}, {},
                                       futures[static_cast<std::size_t>(i)]);
        ASSERT_TRUE(code.isSuccess()) << code.toString().str();
    }
    ASSERT_TRUE(loop.runUntil([&] { return total == COUNT; }, DEADLINE));
    EXPECT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, DEADLINE));
    loop.runPending();
    EXPECT_EQ(total, COUNT);
    for (int i = 0; i < COUNT; ++i) {
        EXPECT_EQ(results[static_cast<std::size_t>(i)], 1) << i;
        EXPECT_EQ(outputs[static_cast<std::size_t>(i)], std::to_string(i) + "\n");
        EXPECT_TRUE(futures[static_cast<std::size_t>(i)].isFinished());
    }
}

// --- execute -----------------------------------------------------------------------------------

TEST(ShellExecuteTest, collectsBothStreamsAndTheExitStatus) {
    String output = "old";
    XCode code = Kt::Shell::execute("sh -c \"echo a; echo b >&2; exit 4\"", &output);
    EXPECT_EQ(code.getValue(), 0x12000004U);
    EXPECT_EQ(code.getString(), "sh EXITED WITH STATUS 4");
    EXPECT_EQ(output, "a\nb\n");
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
}

TEST(ShellExecuteTest, succeedsWithoutOutputArgument) {
    EXPECT_TRUE(Kt::Shell::execute("echo discarded").isSuccess());
    XCode code = Kt::Shell::execute("sh -c \"kill -TERM $$\"");
    EXPECT_EQ(code.getValue(), 0x1300000FU);
    EXPECT_EQ(code.getString(), "sh KILLED BY SIGNAL 15");
}

TEST(ShellExecuteTest, missingProgramCannotStart) {
    String output;
    XCode code = Kt::Shell::execute("no-such-program-for-the-shell-test", &output);
    EXPECT_EQ(code.getValue(), (XCode::ERRNO_FAMILY << 24) | ENOENT);
    EXPECT_EQ(code.getString(),
              String::format("CANNOT START no-such-program-for-the-shell-test: %s",
                             std::strerror(ENOENT)));
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
}

TEST(ShellExecuteTest, absolutePathRunsWithoutPathLookup) {
    String output;
    XCode code = Kt::Shell::execute("/bin/echo \"two  blanks\"", &output);
    EXPECT_TRUE(code.isSuccess());
    EXPECT_EQ(output, "two  blanks\n");
}

}  // namespace
