// Children started with limits (Shell::execute with Shell::Limits): the file-size limit holds,
// passing it is reported as such, and the child is set up as every other child is.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/Shell.h"
#include "platform/XCode.h"
#include "support/TempDir.h"

namespace {

Kt::Shell::Limits fileSizeLimit(std::size_t bytes) {
    Kt::Shell::Limits limits;
    limits.fileSize = bytes;
    return limits;
}

std::string ddWriting(const std::string& file, int kibibytes) {
    return "dd if=/dev/zero of=" + file + " bs=1024 count=" + std::to_string(kibibytes);
}

TEST(ShellLimitsTest, childPassingItsFileSizeLimitIsStoppedThere) {
    provtest::TempDir dir("prov-limits");
    const std::string file = dir.file("big");
    XCode result = Kt::Shell::execute(ddWriting(file, 64).c_str(), nullptr, fileSizeLimit(4096));
    EXPECT_EQ(result.getFamily(), XCode::SIGNAL_FAMILY) << result.toString().c_str();
    EXPECT_EQ(result.getString(),
              "FILE TOO LARGE: dd tried to write more than 4096 bytes to a file");
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 4096);
}

TEST(ShellLimitsTest, childWithinItsLimitRunsAsUsual) {
    provtest::TempDir dir("prov-limits");
    const std::string file = dir.file("small");
    String output;
    XCode result = Kt::Shell::execute(ddWriting(file, 4).c_str(), &output, fileSizeLimit(4096));
    EXPECT_TRUE(result.isSuccess()) << result.toString().c_str() << output.c_str();
    EXPECT_TRUE(output.indexOf("4096 bytes") >= 0) << output.c_str();
}

TEST(ShellLimitsTest, limitedChildHasOnlyItsThreeStreamsAndStandardInputFromDevNull) {
    const int opened = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(opened, 0);
    const int leaked = ::fcntl(opened, F_DUPFD, 50);  // not close-on-exec on purpose
    ::close(opened);
    ASSERT_GE(leaked, 50);
    String output;
    XCode result = Kt::Shell::execute("ls -l /proc/self/fd/", &output, fileSizeLimit(4096));
    ::close(leaked);
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
    EXPECT_TRUE(output.indexOf(" 0 -> /dev/null") >= 0) << output.c_str();
    // ls itself opens one descriptor (3) for the listing; nothing else is there.
    EXPECT_FALSE(output.indexOf(String::format(" %d -> ", leaked)) >= 0) << output.c_str();
    EXPECT_FALSE(output.indexOf(" 4 -> ") >= 0) << output.c_str();
}

TEST(ShellLimitsTest, limitedChildRunsInAProcessGroupOfItsOwn) {
    String output;
    XCode result = Kt::Shell::execute("cat /proc/self/stat", &output, fileSizeLimit(4096));
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
    // Fields: pid (comm) state ppid pgrp ...
    std::string stat = output.str();
    std::string afterComm = stat.substr(stat.rfind(')') + 2);
    long pid = std::stol(stat);
    long pgrp = 0;
    char state = 0;
    long ppid = 0;
    ASSERT_EQ(std::sscanf(afterComm.c_str(), "%c %ld %ld", &state, &ppid, &pgrp), 3);
    EXPECT_EQ(pgrp, pid);
    EXPECT_EQ(ppid, static_cast<long>(::getpid()));
}

TEST(ShellLimitsTest, programThatCannotBeExecutedIsReportedAsNotStarted) {
    provtest::TempDir dir("prov-limits");
    const std::string program = dir.file("not-a-program");
    provtest::writeFile(program, "neither an executable format nor a script\n");
    ASSERT_EQ(::chmod(program.c_str(), 0755), 0);
    XCode result = Kt::Shell::execute(program.c_str(), nullptr, fileSizeLimit(4096));
    EXPECT_EQ(result.getString(),
              String::format("CANNOT START %s: %s", program.c_str(), std::strerror(ENOEXEC)));
}

}  // namespace
