#include "platform/posix/PrivateFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "unit/platform/DeviceTestSupport.h"

namespace {

using devicetest::TemporaryDirectory;
using devicetest::writeFile;

constexpr std::size_t LIMIT = 64;

class PrivateFileTest : public ::testing::Test {
  protected:
    // READ of `file`; its message, or "read: <text>" when it succeeded.
    std::string read(const std::string& file) {
        String text;
        exists = false;
        XCode result = PrivateFile::READ(file.c_str(), LIMIT, text, access, exists);
        return result.isErr() ? result.getString().str() : "read: " + text.str();
    }

    std::string path() const { return directory.path() + "/settings"; }

    TemporaryDirectory directory;
    PrivateFile::Access access;
    bool exists = true;
};

TEST_F(PrivateFileTest, regularFileIsReadWithItsAccess) {
    writeFile(path(), "a = 1\n");
    ASSERT_EQ(::chmod(path().c_str(), 0640), 0);
    EXPECT_EQ(read(path()), "read: a = 1\n");
    EXPECT_TRUE(exists);
    EXPECT_EQ(access.mode, 0640U);
    EXPECT_EQ(access.owner, static_cast<unsigned int>(::geteuid()));
    EXPECT_FALSE(access.ownerOnly());
}

TEST_F(PrivateFileTest, missingFileIsNoError) {
    EXPECT_EQ(read(path()), "read: ");
    EXPECT_FALSE(exists);
}

TEST_F(PrivateFileTest, linkToAFileIsFollowed) {
    writeFile(path() + "-target", "x");
    ASSERT_EQ(::symlink("settings-target", path().c_str()), 0);
    EXPECT_EQ(read(path()), "read: x");
}

TEST_F(PrivateFileTest, danglingLinkIsAnErrorNamingItsTarget) {
    ASSERT_EQ(::symlink("nowhere/settings", path().c_str()), 0);
    EXPECT_EQ(read(path()), path() + ": dangling symbolic link (to nowhere/settings)");
}

TEST_F(PrivateFileTest, directoryIsNotARegularFile) {
    ASSERT_EQ(::mkdir(path().c_str(), 0700), 0);
    EXPECT_EQ(read(path()), path() + ": not a regular file (a directory)");
}

TEST_F(PrivateFileTest, fifoIsRefusedWithoutWaitingForAWriter) {
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    EXPECT_EQ(read(path()), path() + ": not a regular file (a FIFO)");
}

TEST_F(PrivateFileTest, largerThanTheLimitIsAnError) {
    writeFile(path(), std::string(LIMIT + 1, 'x'));
    EXPECT_EQ(read(path()), path() + ": larger than 64 bytes");
}

// Root reads anything: the reader here is an ordinary user, who may not read the file and, when
// the test runs as root, may not even search the test's directory (mode 0700, root's).
TEST_F(PrivateFileTest, unreadableFileGivesTheSystemsReason) {
    writeFile(path(), "a = 1\n");
    ASSERT_EQ(::chmod(path().c_str(), 0), 0);
    ASSERT_EQ(::chmod(directory.path().c_str(), 0700), 0);
    std::string message;
    devicetest::runUnprivileged([&] { message = read(path()); });
    EXPECT_EQ(message, path() + ": Permission denied");
}

}  // namespace
