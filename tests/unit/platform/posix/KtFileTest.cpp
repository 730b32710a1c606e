#include "platform/KtFile.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>

#include <cerrno>

#include "platform/simulated/DeviceDirectory.h"
#include "unit/platform/DeviceTestSupport.h"

namespace {

using devicetest::namesIn;
using devicetest::readFile;
using devicetest::TemporaryDirectory;
using devicetest::writeFile;
namespace fs = std::filesystem;

constexpr int READ_ONLY = 0;
constexpr int WRITE_CREATE = 65;               // O_WRONLY | O_CREAT
constexpr int WRITE_CREATE_TRUNCATE = 577;     // O_WRONLY | O_CREAT | O_TRUNC
constexpr int WRITE_TRUNCATE_NO_CREATE = 513;  // O_WRONLY | O_TRUNC

class KtFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(directory.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
    }
    void TearDown() override { Device::SET_ROOT(""); }

    std::string flash(const std::string& relative) const {
        return directory.path() + "/flash/" + relative;
    }
    std::string flashDir() const { return directory.path() + "/flash"; }

    TemporaryDirectory directory;
};

String text(const std::string& s) {
    return String(s.data(), s.size());
}

// Whether every descriptor of this process that points below `directory` is close-on-exec;
// `count` gets how many there are.
bool descriptorsBelowAreCloseOnExec(const std::string& directory, int& count) {
    count = 0;
    bool all = true;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        fs::path target = fs::read_symlink(entry.path(), error);
        if (error || target.string().rfind(directory, 0) != 0) {
            continue;
        }
        ++count;
        std::string info = readFile("/proc/self/fdinfo/" + entry.path().filename().string());
        auto flagsAt = info.find("flags:");
        unsigned long flags = std::stoul(info.substr(flagsAt + 6), nullptr, 8);
        all = all && (flags & O_CLOEXEC) != 0;
    }
    return all;
}

TEST_F(KtFileTest, pathsAreMappedIntoTheDeviceDirectory) {
    KtFile file("/flash/dialplan/office");
    EXPECT_EQ(file.getPath(), String("/flash/dialplan/office"));
    EXPECT_EQ(file.getSystemPath(), text(flash("dialplan/office")));
}

TEST_F(KtFileTest, unmappedPathsAreTakenAsTheyAre) {
    KtFile file(text(flash("x")), false, false);
    EXPECT_EQ(file.getSystemPath(), text(flash("x")));
    KtFile flashFile("/flash/x", false, false);
    EXPECT_EQ(flashFile.getSystemPath(), String("/flash/x"));
}

TEST_F(KtFileTest, readTextFileReadsEverythingIncludingNulBytes) {
    std::string content(200000, 'x');
    content[5] = '\0';
    content += "\r\nend";
    writeFile(flash("big"), content);
    String read = "old";
    ASSERT_TRUE(
        KtFile::READ_TEXT_FILE<String>("/flash/big", read, READ_ONLY, true, true).isSuccess());
    EXPECT_EQ(read, text(content));
}

TEST_F(KtFileTest, readTextFileOfAnEmptyFileGivesEmptyContent) {
    writeFile(flash("empty"), "");
    String read = "old";
    ASSERT_TRUE(
        KtFile::READ_TEXT_FILE<String>("/flash/empty", read, READ_ONLY, true, true).isSuccess());
    EXPECT_TRUE(read.isEmpty());
}

TEST_F(KtFileTest, missingFileFailsWithErrnoAndTheDevicePath) {
    String read = "old";
    XCode result = KtFile::READ_TEXT_FILE<String>("/flash/missing", read, READ_ONLY, true, false);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result, XCode::fromErrno(ENOENT));
    EXPECT_EQ(result.getString(), String("CANNOT OPEN /flash/missing: No such file or directory"));
    EXPECT_EQ(read, String("old"));
}

TEST_F(KtFileTest, readingADirectoryFails) {
    String read;
    XCode result = KtFile::READ_TEXT_FILE<String>("/flash/dialplan", read, READ_ONLY, true, true);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result, XCode::fromErrno(EISDIR));
    EXPECT_EQ(result.getString(), String("CANNOT READ /flash/dialplan: Is a directory"));
}

TEST_F(KtFileTest, readInPiecesReportsTheEnd) {
    writeFile(flash("small"), "abc");
    KtFile file("/flash/small");
    ASSERT_TRUE(file.open(READ_ONLY, 0644, KtFile::XO_NONE).isSuccess());
    String content;
    bool eof = true;
    ASSERT_TRUE(file.read(content, eof, false).isSuccess());
    EXPECT_EQ(content, String("abc"));
    EXPECT_FALSE(eof);
    ASSERT_TRUE(file.read(content, eof, false).isSuccess());
    EXPECT_TRUE(content.isEmpty());
    EXPECT_TRUE(eof);
    EXPECT_TRUE(file.close().isSuccess());
}

TEST_F(KtFileTest, writeCreateDoesNotTruncate) {
    writeFile(flash("keep"), "0123456789");
    KtFile file("/flash/keep");
    ASSERT_TRUE(file.open(WRITE_CREATE, 0644, KtFile::XO_CLOSE_ON_EXEC).isSuccess());
    ASSERT_TRUE(file.writeFixedSizeBlocking("ab", 2, true).isSuccess());
    ASSERT_TRUE(file.close().isSuccess());
    EXPECT_EQ(readFile(flash("keep")), "ab23456789");
}

TEST_F(KtFileTest, writeCreateMakesTheFileWithTheModeLessUmask) {
    KtFile file("/flash/new");
    ASSERT_TRUE(file.open(WRITE_CREATE, 0640, KtFile::XO_CLOSE_ON_EXEC).isSuccess());
    ASSERT_TRUE(file.close().isSuccess());
    EXPECT_TRUE(fs::is_regular_file(flash("new")));
    EXPECT_EQ(devicetest::modeOf(flash("new")), 0640U & ~devicetest::currentUmask());
}

TEST_F(KtFileTest, truncatingWriteReplacesOnlyAtClose) {
    writeFile(flash("dialplan/office"), "the old and much longer dial plan");
    KtFile file("/flash/dialplan/office");
    ASSERT_TRUE(file.open(WRITE_CREATE_TRUNCATE, 0644, KtFile::XO_CLOSE_ON_EXEC).isSuccess());
    ASSERT_TRUE(file.writeFixedSizeBlocking("new plan", 8, true).isSuccess());
    EXPECT_EQ(readFile(flash("dialplan/office")), "the old and much longer dial plan");
    EXPECT_EQ(namesIn(flash("dialplan")).size(), 2U);  // the target and its temporary
    ASSERT_TRUE(file.close().isSuccess());
    EXPECT_EQ(readFile(flash("dialplan/office")), "new plan");
    EXPECT_EQ(namesIn(flash("dialplan")), std::set<std::string>{"office"});
}

TEST_F(KtFileTest, truncatingWriteCreatesAMissingFileWithTheMode) {
    ASSERT_TRUE(KtFile::WRITE_TEXT_FILE("/flash/wizard/w", "wizard").isSuccess());
    EXPECT_EQ(readFile(flash("wizard/w")), "wizard");
    EXPECT_EQ(devicetest::modeOf(flash("wizard/w")), 0644U & ~devicetest::currentUmask());
    EXPECT_EQ(namesIn(flash("wizard")), std::set<std::string>{"w"});
}

TEST_F(KtFileTest, writeTextFileReplacesAnExistingFile) {
    writeFile(flash("preferences/key"), "old key material that is longer");
    ASSERT_TRUE(KtFile::WRITE_TEXT_FILE("/flash/preferences/key", "k").isSuccess());
    EXPECT_EQ(readFile(flash("preferences/key")), "k");
    EXPECT_EQ(namesIn(flash("preferences")), std::set<std::string>{"key"});
}

TEST_F(KtFileTest, writeTextFileOfEmptyContentLeavesAnEmptyFile) {
    writeFile(flash("x"), "something");
    ASSERT_TRUE(KtFile::WRITE_TEXT_FILE("/flash/x", "").isSuccess());
    EXPECT_TRUE(fs::exists(flash("x")));
    EXPECT_EQ(fs::file_size(flash("x")), 0U);
}

TEST_F(KtFileTest, unclosedTruncatingWriteIsAbandoned) {
    writeFile(flash("x"), "old");
    {
        KtFile file("/flash/x");
        ASSERT_TRUE(file.open(WRITE_CREATE_TRUNCATE, 0644, KtFile::XO_NONE).isSuccess());
        ASSERT_TRUE(file.writeFixedSizeBlocking("new", 3, true).isSuccess());
    }
    EXPECT_EQ(readFile(flash("x")), "old");
    EXPECT_EQ(namesIn(flashDir()).count("x"), 1U);
    for (const std::string& name : namesIn(flashDir())) {
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
    }
}

TEST_F(KtFileTest, readOnlyDirectoryRefusesTheWriteAndKeepsTheOldFile) {
    const std::string dir = flash("dialplan");
    writeFile(dir + "/office", "old plan");
    fs::permissions(dir, fs::perms(0555));
    devicetest::runUnprivileged([] {
        KtFile file("/flash/dialplan/office");
        XCode result = file.open(WRITE_CREATE_TRUNCATE, 0644, KtFile::XO_CLOSE_ON_EXEC);
        ASSERT_TRUE(result.isErr());
        EXPECT_EQ(result, XCode::fromErrno(EACCES));
        EXPECT_EQ(result.getString(),
                  String("CANNOT OPEN /flash/dialplan/office: Permission denied"));
        XCode written = KtFile::WRITE_TEXT_FILE("/flash/dialplan/office", "new plan");
        EXPECT_EQ(written, XCode::fromErrno(EACCES));
    });
    fs::permissions(dir, fs::perms(0755));
    EXPECT_EQ(readFile(dir + "/office"), "old plan");
    EXPECT_EQ(namesIn(dir), std::set<std::string>{"office"});
}

TEST_F(KtFileTest, failedWriteKeepsTheOldFileAndLeavesNoTemporary) {
    writeFile(flash("x"), "old content");
    // A file size limit makes the write fail half way, as a full flash would.
    struct sigaction ignore {};
    struct sigaction previousAction {};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(::sigaction(SIGXFSZ, &ignore, &previousAction), 0);
    struct rlimit previousLimit {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &previousLimit), 0);
    struct rlimit small = previousLimit;
    small.rlim_cur = 4;

    KtFile file("/flash/x");
    ASSERT_TRUE(file.open(WRITE_CREATE_TRUNCATE, 0644, KtFile::XO_CLOSE_ON_EXEC).isSuccess());
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    XCode written = file.writeFixedSizeBlocking("much too long", 13, true);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &previousLimit), 0);
    ::sigaction(SIGXFSZ, &previousAction, nullptr);

    ASSERT_TRUE(written.isErr());
    EXPECT_EQ(written, XCode::fromErrno(EFBIG));
    EXPECT_EQ(written.getString(), String("CANNOT WRITE /flash/x: File too large"));
    XCode closed = file.close();
    ASSERT_TRUE(closed.isErr());
    EXPECT_EQ(closed.getString(), String("CANNOT REPLACE /flash/x: an earlier write failed"));
    EXPECT_EQ(readFile(flash("x")), "old content");
    for (const std::string& name : namesIn(flashDir())) {
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
    }
}

TEST_F(KtFileTest, failedCommitRemovesTheTemporary) {
    writeFile(flash("x"), "old");
    KtFile file("/flash/x");
    ASSERT_TRUE(file.open(WRITE_CREATE_TRUNCATE, 0644, KtFile::XO_CLOSE_ON_EXEC).isSuccess());
    ASSERT_TRUE(file.writeFixedSizeBlocking("new", 3, true).isSuccess());
    // Someone puts a non-empty folder where the file was: the rename cannot replace it.
    fs::remove(flash("x"));
    fs::create_directory(flash("x"));
    writeFile(flash("x/inside"), "");
    XCode closed = file.close();
    ASSERT_TRUE(closed.isErr());
    EXPECT_EQ(closed.getFamily(), XCode::ERRNO_FAMILY);
    EXPECT_TRUE(closed.getString().startsWith("CANNOT REPLACE /flash/x: "));
    for (const std::string& name : namesIn(flashDir())) {
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
    }
}

TEST_F(KtFileTest, truncatingWriteOnADirectoryFailsAtOpen) {
    KtFile file("/flash/dialplan");
    XCode result = file.open(WRITE_CREATE_TRUNCATE, 0644, KtFile::XO_NONE);
    EXPECT_EQ(result, XCode::fromErrno(EISDIR));
    EXPECT_EQ(result.getString(), String("CANNOT OPEN /flash/dialplan: Is a directory"));
}

TEST_F(KtFileTest, truncatingWriteWithoutCreateNeedsAnExistingFile) {
    KtFile missing("/flash/missing");
    EXPECT_EQ(missing.open(WRITE_TRUNCATE_NO_CREATE, 0644, KtFile::XO_NONE),
              XCode::fromErrno(ENOENT));
    EXPECT_FALSE(fs::exists(flash("missing")));

    writeFile(flash("present"), "long old text");
    KtFile present("/flash/present");
    ASSERT_TRUE(present.open(WRITE_TRUNCATE_NO_CREATE, 0644, KtFile::XO_NONE).isSuccess());
    ASSERT_TRUE(present.writeFixedSizeBlocking("new", 3, true).isSuccess());
    ASSERT_TRUE(present.close().isSuccess());
    EXPECT_EQ(readFile(flash("present")), "new");
}

TEST_F(KtFileTest, missingDirectoryFailsTheWrite) {
    XCode result = KtFile::WRITE_TEXT_FILE("/flash/nowhere/x", "content");
    EXPECT_EQ(result, XCode::fromErrno(ENOENT));
    EXPECT_EQ(result.getString(),
              String("CANNOT OPEN /flash/nowhere/x: No such file or directory"));
}

TEST_F(KtFileTest, descriptorsAreAlwaysCloseOnExec) {
    writeFile(flash("x"), "x");
    KtFile reader("/flash/x");
    ASSERT_TRUE(reader.open(READ_ONLY, 0644, KtFile::XO_NONE).isSuccess());
    KtFile appender("/flash/x");
    ASSERT_TRUE(appender.open(WRITE_CREATE, 0644, KtFile::XO_NONE).isSuccess());
    KtFile replacer("/flash/x");
    ASSERT_TRUE(replacer.open(WRITE_CREATE_TRUNCATE, 0644, KtFile::XO_NONE).isSuccess());
    int count = 0;
    EXPECT_TRUE(descriptorsBelowAreCloseOnExec(flashDir(), count));
    EXPECT_EQ(count, 3);
}

TEST_F(KtFileTest, pathThatLeavesFlashIsRefused) {
    for (const char* path : {"/flash/../../etc/x", "/flash/dialplan/../../x", "/flash/../x"}) {
        KtFile file(path);
        for (int flags : {READ_ONLY, WRITE_CREATE, WRITE_CREATE_TRUNCATE}) {
            XCode result = file.open(flags, 0644, KtFile::XO_CLOSE_ON_EXEC);
            ASSERT_TRUE(result.isErr()) << path;
            EXPECT_EQ(result.getString(), String::format("PATH LEAVES FLASH: %s", path));
        }
        EXPECT_EQ(file.remove().getString(), String::format("PATH LEAVES FLASH: %s", path));
        EXPECT_TRUE(KtFile::WRITE_TEXT_FILE(path, "x").isErr());
    }
    EXPECT_FALSE(fs::exists(directory.path() + "/x"));
    EXPECT_FALSE(fs::exists(directory.path() + "/etc"));
    EXPECT_FALSE(fs::exists(flash("x")));
    EXPECT_FALSE(fs::exists(flash("etc")));
}

TEST_F(KtFileTest, removeDeletesTheFile) {
    writeFile(flash("x"), "x");
    KtFile file("/flash/x");
    ASSERT_TRUE(file.remove().isSuccess());
    EXPECT_FALSE(fs::exists(flash("x")));
    XCode again = file.remove();
    EXPECT_EQ(again, XCode::fromErrno(ENOENT));
    EXPECT_EQ(again.getString(), String("CANNOT REMOVE /flash/x: No such file or directory"));
}

TEST_F(KtFileTest, operationsOnAClosedFileFail) {
    KtFile file("/flash/x");
    String content;
    bool eof = false;
    EXPECT_EQ(file.read(content, eof, true), XCode::fromErrno(EBADF));
    EXPECT_EQ(file.writeFixedSizeBlocking("x", 1, true), XCode::fromErrno(EBADF));
    EXPECT_TRUE(file.close().isSuccess());
}

TEST_F(KtFileTest, secondOpenIsRefused) {
    writeFile(flash("x"), "x");
    KtFile file("/flash/x");
    ASSERT_TRUE(file.open(READ_ONLY, 0644, KtFile::XO_NONE).isSuccess());
    XCode again = file.open(READ_ONLY, 0644, KtFile::XO_NONE);
    EXPECT_EQ(again, XCode::fromErrno(EBUSY));
    EXPECT_EQ(again.getString(), String("CANNOT OPEN /flash/x: already open"));
}

TEST_F(KtFileTest, fileCanBeReopenedAfterClose) {
    KtFile file("/flash/x");
    ASSERT_TRUE(file.open(WRITE_CREATE_TRUNCATE, 0644, KtFile::XO_NONE).isSuccess());
    ASSERT_TRUE(file.writeFixedSizeBlocking("first", 5, true).isSuccess());
    ASSERT_TRUE(file.close().isSuccess());
    ASSERT_TRUE(file.open(READ_ONLY, 0644, KtFile::XO_NONE).isSuccess());
    String content;
    bool eof = false;
    ASSERT_TRUE(file.read(content, eof, true).isSuccess());
    EXPECT_EQ(content, String("first"));
    EXPECT_TRUE(eof);
}

TEST_F(KtFileTest, workFilesLiveInTheDevicesWorkDirectory) {
    const std::string name = "/tmp/provisioning/device-ktfile-" + std::to_string(::getpid());
    const std::string hostPath = directory.path() + name;
    KtFile file(name.c_str());
    EXPECT_EQ(file.getSystemPath(), String(hostPath.c_str()));
    ASSERT_TRUE(file.open(WRITE_CREATE, 0644, KtFile::XO_CLOSE_ON_EXEC).isSuccess());
    ASSERT_TRUE(file.close().isSuccess());
    EXPECT_TRUE(fs::exists(hostPath));
    EXPECT_FALSE(fs::exists(name));
    EXPECT_TRUE(file.remove().isSuccess());
    EXPECT_FALSE(fs::exists(hostPath));
}

TEST_F(KtFileTest, otherPathsOutsideFlashAreRealPaths) {
    const std::string name = directory.path() + "/plain-" + std::to_string(::getpid());
    KtFile file(name.c_str());
    EXPECT_EQ(file.getSystemPath(), String(name.c_str()));
}

// The device's numbering is the one the device's interface gives, on every architecture.
static_assert(KtFile::READ_ONLY == 0 && KtFile::WRITE_CREATE_TRUNCATE == 577 &&
                  (KtFile::WRITE_ONLY | KtFile::CREATE) == 65 && KtFile::MODE_SHARED == 420,
              "the device's open flags and modes");

TEST_F(KtFileTest, noFollowIsTranslatedToTheHostsOwnFlag) {
    // O_NOFOLLOW has another value on ARM than Linux's generic one: without the translation the
    // link below would be followed there.
    const std::string link = directory.path() + "/link";
    writeFile(flash("target"), "x");
    ASSERT_EQ(::symlink(flash("target").c_str(), link.c_str()), 0);
    KtFile file(text(link), false);
    XCode result = file.open(KtFile::READ_ONLY | KtFile::NO_FOLLOW, 0, KtFile::XO_NONE);
    EXPECT_EQ(result.getFamily(), XCode::ERRNO_FAMILY);
    EXPECT_EQ(result.getDetail(), static_cast<XCodeValue>(ELOOP)) << result.toString().str();
}

TEST_F(KtFileTest, anUnknownOpenFlagIsRefused) {
    KtFile file("/flash/x");
    XCode result = file.open(KtFile::READ_ONLY | 010, 0, KtFile::XO_NONE);  // not a device flag
    EXPECT_EQ(result.getDetail(), static_cast<XCodeValue>(EINVAL));
    EXPECT_EQ(result.getString(), "CANNOT OPEN /flash/x: unknown open flags 010");
}

}  // namespace
