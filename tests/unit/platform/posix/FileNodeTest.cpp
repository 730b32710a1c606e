// Nodes of the work directory looked at, removed and read without following links, opening
// special files or reading without end.

#include "platform/FileNode.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "platform/posix/FileNodeCaps.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace {

class FileNodeTest : public ::testing::Test {
  protected:
    // A directory beside the one the tests work in, with a file that must never change.
    void SetUp() override {
        provtest::writeFile(outside.file("secret"), "root only");
        ASSERT_EQ(::chmod(outside.file("secret").c_str(), 0600), 0);
    }
    void expectOutsideUntouched() {
        EXPECT_EQ(provtest::readFile(outside.file("secret")), "root only");
        struct stat status {};
        ASSERT_EQ(::stat(outside.file("secret").c_str(), &status), 0);
        EXPECT_EQ(status.st_nlink, 1u);
    }
    String at(const std::string& name) const { return work.file(name).c_str(); }

    provtest::TempDir work{"prov-node"};
    provtest::TempDir outside{"prov-node-outside"};
};

TEST_F(FileNodeTest, inspectSeesTheLinkNotItsTarget) {
    ASSERT_EQ(::symlink(outside.file("secret").c_str(), work.file("link").c_str()), 0);
    FileNode::Info info;
    ASSERT_TRUE(FileNode::INSPECT(at("link"), info).isSuccess());
    EXPECT_EQ(info.kind, FileNode::Kind::SymbolicLink);
    EXPECT_FALSE(FileNode::IS_PLAIN_FILE(info));
    EXPECT_EQ(FileNode::WHY_NOT_PLAIN(info), "is a symbolic link");
}

TEST_F(FileNodeTest, inspectCountsHardLinks) {
    ASSERT_EQ(::link(outside.file("secret").c_str(), work.file("hard").c_str()), 0);
    FileNode::Info info;
    ASSERT_TRUE(FileNode::INSPECT(at("hard"), info).isSuccess());
    EXPECT_EQ(info.kind, FileNode::Kind::Regular);
    EXPECT_EQ(info.links, 2u);
    EXPECT_EQ(FileNode::WHY_NOT_PLAIN(info), "has 2 links");
}

TEST_F(FileNodeTest, inspectOfNothingIsMissing) {
    FileNode::Info info;
    info.kind = FileNode::Kind::Regular;
    ASSERT_TRUE(FileNode::INSPECT(at("none"), info).isSuccess());
    EXPECT_EQ(info.kind, FileNode::Kind::Missing);
}

TEST_F(FileNodeTest, inspectTellsEveryKind) {
    ASSERT_EQ(::mkfifo(work.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mknod(work.file("zero").c_str(), S_IFCHR | 0600, makedev(1, 5)), 0);
    provtest::makeDirs(work.file("dir"));
    provtest::writeFile(work.file("plain"), "x");
    FileNode::Info info;
    ASSERT_TRUE(FileNode::INSPECT(at("fifo"), info).isSuccess());
    EXPECT_EQ(FileNode::WHY_NOT_PLAIN(info), "is a FIFO");
    ASSERT_TRUE(FileNode::INSPECT(at("zero"), info).isSuccess());
    EXPECT_EQ(FileNode::WHY_NOT_PLAIN(info), "is a character device");
    ASSERT_TRUE(FileNode::INSPECT(at("dir"), info).isSuccess());
    EXPECT_EQ(FileNode::WHY_NOT_PLAIN(info), "is a directory");
    ASSERT_TRUE(FileNode::INSPECT(at("plain"), info).isSuccess());
    EXPECT_TRUE(FileNode::IS_PLAIN_FILE(info));
    EXPECT_EQ(info.size, 1u);
}

// A 32-bit build with 32-bit file offsets would fail here with EOVERFLOW.
TEST_F(FileNodeTest, inspectGivesTheSizeOfAFileOverFourGibibytes) {
    const unsigned long long size = 5ULL << 30;
    ASSERT_EQ(
        provtest::runCommand({"/usr/bin/truncate", "-s", std::to_string(size), work.file("image")})
            .exitStatus,
        0);
    FileNode::Info info;
    ASSERT_TRUE(FileNode::INSPECT(at("image"), info).isSuccess());
    EXPECT_TRUE(FileNode::IS_PLAIN_FILE(info));
    EXPECT_EQ(info.size, size);
}

TEST_F(FileNodeTest, removingALinkLeavesItsTarget) {
    ASSERT_EQ(::symlink(outside.file("secret").c_str(), work.file("link").c_str()), 0);
    ASSERT_EQ(::symlink(outside.path().c_str(), work.file("dirlink").c_str()), 0);
    EXPECT_TRUE(FileNode::REMOVE_WITHOUT_FOLLOWING(at("link")).isSuccess());
    EXPECT_TRUE(FileNode::REMOVE_WITHOUT_FOLLOWING(at("dirlink")).isSuccess());
    EXPECT_FALSE(provtest::fileExists(work.file("link")));
    EXPECT_FALSE(provtest::fileExists(work.file("dirlink")));
    expectOutsideUntouched();
}

TEST_F(FileNodeTest, removingATreeRemovesLinksInsideItNotWhatTheyPointTo) {
    provtest::writeFile(work.file("tree/a/b/file"), "x");
    ASSERT_EQ(::symlink(outside.path().c_str(), work.file("tree/a/out").c_str()), 0);
    ASSERT_EQ(::symlink(outside.file("secret").c_str(), work.file("tree/a/b/s").c_str()), 0);
    ASSERT_EQ(::link(outside.file("secret").c_str(), work.file("tree/hard").c_str()), 0);
    ASSERT_EQ(::mkfifo(work.file("tree/a/fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mknod(work.file("tree/zero").c_str(), S_IFCHR | 0600, makedev(1, 5)), 0);
    EXPECT_TRUE(FileNode::REMOVE_WITHOUT_FOLLOWING(at("tree")).isSuccess());
    struct stat status {};
    EXPECT_NE(::lstat(work.file("tree").c_str(), &status), 0);
    expectOutsideUntouched();
}

TEST_F(FileNodeTest, removingADeepTreeHoldsOneDirectoryOpenAtATime) {
    std::string path = work.file("deep");
    std::string relative = "deep";
    for (int level = 0; level < 400; ++level) {
        relative += "/d";
    }
    provtest::makeDirs(work.file(relative));
    provtest::writeFile(work.file(relative + "/leaf"), "x");
    EXPECT_TRUE(FileNode::REMOVE_WITHOUT_FOLLOWING(at("deep")).isSuccess());
    EXPECT_FALSE(provtest::fileExists(path));
}

TEST_F(FileNodeTest, removingAFifoOrNothingSucceedsAtOnce) {
    ASSERT_EQ(::mkfifo(work.file("fifo").c_str(), 0600), 0);
    EXPECT_TRUE(FileNode::REMOVE_WITHOUT_FOLLOWING(at("fifo")).isSuccess());
    EXPECT_TRUE(FileNode::REMOVE_WITHOUT_FOLLOWING(at("fifo")).isSuccess());
    struct stat status {};
    EXPECT_NE(::lstat(work.file("fifo").c_str(), &status), 0);
}

TEST_F(FileNodeTest, readCappedReadsAFileUpToTheCap) {
    provtest::writeFile(work.file("plain"), "0123456789");
    String content;
    ASSERT_TRUE(FileNode::READ_CAPPED(at("plain"), content, 10).isSuccess());
    EXPECT_EQ(content, "0123456789");
}

TEST_F(FileNodeTest, readCappedRefusesAFileOverTheCap) {
    provtest::writeFile(work.file("plain"), "0123456789");
    String content;
    XCode result = FileNode::READ_CAPPED(at("plain"), content, 9);
    EXPECT_TRUE(FileNode::IS_TOO_LARGE(result));
    EXPECT_EQ(result.getString(),
              String::format("FILE TOO LARGE: %s is larger than 9 bytes", at("plain").c_str()));
    EXPECT_TRUE(content.isEmpty());
}

TEST_F(FileNodeTest, readCappedRefusesLinksAndSpecialFilesUnread) {
    ASSERT_EQ(::symlink(outside.file("secret").c_str(), work.file("link").c_str()), 0);
    ASSERT_EQ(::link(outside.file("secret").c_str(), work.file("hard").c_str()), 0);
    ASSERT_EQ(::mkfifo(work.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mknod(work.file("zero").c_str(), S_IFCHR | 0600, makedev(1, 5)), 0);
    provtest::makeDirs(work.file("dir"));
    const char* const expected[][2] = {{"link", "is a symbolic link"},
                                       {"hard", "has 2 links"},
                                       {"fifo", "is a FIFO"},
                                       {"zero", "is a character device"},
                                       {"dir", "is a directory"}};
    for (const auto& [name, why] : expected) {
        String content;
        XCode result = FileNode::READ_CAPPED(at(name), content, 1024);
        EXPECT_TRUE(result.isErr()) << name;
        EXPECT_FALSE(FileNode::IS_TOO_LARGE(result)) << name;
        EXPECT_EQ(result.getString(), String::format("UNSAFE FILE: %s %s", at(name).c_str(), why));
        EXPECT_TRUE(content.isEmpty()) << name;
    }
}

TEST_F(FileNodeTest, readCappedOfNothingIsAnErrorNotTooLarge) {
    String content;
    XCode result = FileNode::READ_CAPPED(at("none"), content, 1024);
    EXPECT_TRUE(result.isErr());
    EXPECT_FALSE(FileNode::IS_TOO_LARGE(result));
}

TEST_F(FileNodeTest, capsAreSettings) {
    EXPECT_EQ(FileNode::MANIFEST_CAP(), 64u * 1024u);
    EXPECT_EQ(FileNode::CONTENT_CAP(), 16u * 1024u * 1024u);
    FileNode::SET_MANIFEST_CAP(100);
    EXPECT_EQ(FileNode::MANIFEST_CAP(), 100u);
    FileNode::SET_MANIFEST_CAP(64 * 1024);
}

}  // namespace
