// The real provctl refuses a device directory whose device.toml or slots/state holds a mistake:
// exit status 2, one message naming the file, the line and the key, and the device directory
// exactly as it was (nothing is prepared, no job runs).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/ProvctlRun.h"
#include "support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using provtest::readFile;
using provtest::writeFile;
using Outcome = provtest::ProvctlOutcome;
using Listing = std::map<std::string, std::string>;

// Every entry below `root` with its kind and, for a regular file, its content. A FIFO is not
// opened.
Listing listing(const std::string& root) {
    Listing entries;
    std::error_code error;
    for (fs::recursive_directory_iterator it(root, error), end; !error && it != end;
         it.increment(error)) {
        const fs::file_status status = it->symlink_status();
        const std::string name = fs::relative(it->path(), root).string();
        if (fs::is_symlink(status)) {
            entries[name] = "link to " + fs::read_symlink(it->path()).string();
        } else if (fs::is_regular_file(status)) {
            entries[name] = "file: " + readFile(it->path().string());
        } else {
            entries[name] = fs::is_directory(status) ? "directory" : "other";
        }
    }
    return entries;
}

const char* const LOCATION = "tftp://127.0.0.1:9/unit.cfg";

class ProvctlDeviceFileTest : public ::testing::Test {
  protected:
    void SetUp() override { provtest::makeDirs(device()); }

    std::string device() const { return dir_.file("device"); }
    std::string toml() const { return device() + "/device.toml"; }
    std::string slots() const { return device() + "/slots/state"; }

    void writeToml(const std::string& text) {
        writeFile(toml(), text);
        ASSERT_EQ(::chmod(toml().c_str(), 0600), 0);
    }

    Outcome provctl(const std::vector<std::string>& args) {
        Outcome run = provtest::runProvctl(dir_, args);
        EXPECT_TRUE(run.ended) << "provctl did not end";
        return run;
    }

    // `provctl JOB --device DIR LOCATION` ends with status 2 and the single line "provctl:
    // <message>", and leaves the device directory as it was.
    void expectRefused(const std::string& job, const std::string& message) {
        const Listing before = listing(device());
        Outcome run = provctl({job, "--device", device(), LOCATION});
        EXPECT_EQ(run.status, 2) << run.err;
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "provctl: " + message + "\n");
        EXPECT_EQ(listing(device()), before);
        EXPECT_FALSE(provtest::fileExists(device() + "/config/startup-config"));
    }

    provtest::TempDir dir_{"prov-device-file"};
};

// --- unknown tables and keys ---

TEST_F(ProvctlDeviceFileTest, misspeltTableIsRefusedWithTheClosestKnownName) {
    writeToml("[values]\nmodel = \"GW-4\"\n\n[value]\n\"system.mac\" = \"00a0ba0b0c0d\"\n");
    expectRefused("config", toml() +
                                ":4:2: unknown table 'value' (known: values, credentials, https, "
                                "cli); did you mean 'values'?");
}

TEST_F(ProvctlDeviceFileTest, imageTableOfOlderDeviceFilesIsAnUnknownTable) {
    writeToml("[image]\nactive = 2\n");
    expectRefused("firmware", toml() +
                                  ":1:2: unknown table 'image' (known: values, credentials, "
                                  "https, cli)");
}

TEST_F(ProvctlDeviceFileTest, misspeltHttpsKeyIsRefused) {
    writeToml("[https]\ncafile = \"/etc/provisioning/ca.pem\"\n");
    expectRefused("config", toml() + ":2:1: unknown key 'https.cafile' (known: ca, cert, key)");
}

TEST_F(ProvctlDeviceFileTest, misspeltPasswordKeyIsRefusedRatherThanTheMissingPassword) {
    writeToml("[credentials.office]\nuser = \"admin\"\npasword = \"secret\"\n");
    expectRefused("key", toml() +
                             ":3:1: unknown key 'credentials.office.pasword' (known: user, "
                             "password, host); did you mean 'password'?");
}

TEST_F(ProvctlDeviceFileTest, credentialWithoutPasswordIsRefused) {
    writeToml("[credentials.office]\nuser = \"admin\"\n");
    expectRefused("key", toml() + ":1:14: 'credentials.office' has no 'password'");
}

// --- types ---

TEST_F(ProvctlDeviceFileTest, httpsValueOfTheWrongTypeIsRefused) {
    writeToml("[https]\nca = 3\n");
    expectRefused("config", toml() + ":2:1: 'https.ca' must be a string, not an integer");
}

TEST_F(ProvctlDeviceFileTest, credentialUserThatIsATableIsRefused) {
    writeToml("[credentials]\noffice = { user = { name = \"a\" }, password = \"p\" }\n");
    expectRefused("key", toml() + ":2:12: 'credentials.office.user' must be a string, not a table");
}

TEST_F(ProvctlDeviceFileTest, integerIsTakenForANumericDeviceValue) {
    writeToml("[values]\nsystem.hw.major = 2\n\"cli.minor\" = 0\n");
    Outcome run = provctl({"resolve", "--device", device(),
                           "/$(system.hw.major>=2|new|old)/$(system.hw.major).$(cli.minor)"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "/new/2.0\n");
}

TEST_F(ProvctlDeviceFileTest, floatForANumericDeviceValueIsRefused) {
    writeToml("[values]\nsystem.hw.major = 2.5\n");
    expectRefused("config", toml() +
                                ":2:11: device value 'system.hw.major' must be a string or a "
                                "non-negative integer, not a float");
}

TEST_F(ProvctlDeviceFileTest, integerForATextDeviceValueIsRefused) {
    writeToml("[values]\n\"system.serial\" = 17\n");
    expectRefused("config",
                  toml() + ":2:1: device value 'system.serial' must be a string, not an integer");
}

// --- given twice ---

TEST_F(ProvctlDeviceFileTest, valueGivenQuotedAndDottedIsRefusedNamingBothLines) {
    writeToml("[values]\n\"system.mac\" = \"00a0ba0b0c0d\"\nsystem.mac = \"00a0ba0b0c0e\"\n");
    expectRefused("config", toml() + ":3:8: device value 'system.mac' given twice (lines 2 and 3)");
}

TEST_F(ProvctlDeviceFileTest, keyGivenTwiceInOneTableIsRefusedNamingTheKey) {
    writeToml("[values]\nmodel = \"GW-4\"\nmodel = \"GW-5\"\n");
    Outcome run = provctl({"config", "--device", device(), LOCATION});
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_EQ(run.err.rfind("provctl: " + toml() + ":3:", 0), 0U) << run.err;
    EXPECT_NE(run.err.find("'model'"), std::string::npos) << run.err;
    EXPECT_EQ(listing(device()).size(), 1U);
}

// --- a device.toml that cannot be read ---

TEST_F(ProvctlDeviceFileTest, directoryInPlaceOfTheFileIsRefused) {
    provtest::makeDirs(toml());
    expectRefused("config", toml() + ": not a regular file (a directory)");
}

TEST_F(ProvctlDeviceFileTest, danglingLinkInPlaceOfTheFileIsRefused) {
    ASSERT_EQ(::symlink("settings/device.toml", toml().c_str()), 0);
    expectRefused("config", toml() + ": dangling symbolic link (to settings/device.toml)");
}

TEST_F(ProvctlDeviceFileTest, fifoInPlaceOfTheFileIsRefusedWithoutWaiting) {
    ASSERT_EQ(::mkfifo(toml().c_str(), 0600), 0);
    expectRefused("config", toml() + ": not a regular file (a FIFO)");
}

// Root reads any file: the run is an ordinary user's, who may not read the file and, when the
// test runs as root, may not even search the test's directory.
TEST_F(ProvctlDeviceFileTest, unreadableFileGivesTheSystemsReason) {
    writeToml("[values]\nmodel = \"GW-4\"\n");
    ASSERT_EQ(::chmod(toml().c_str(), 0), 0);
    ASSERT_EQ(::chmod(dir_.path().c_str(), 0700), 0);
    const std::vector<std::string> args = {"resolve", "--device", device(), "$(model)"};
    Outcome run = ::geteuid() == 0 ? provtest::runProvctlAsNobody(dir_, args)
                                   : provtest::runProvctl(dir_, args);
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "provctl: " + toml() + ": Permission denied\n");
}

// --- slots/state ---

TEST_F(ProvctlDeviceFileTest, thirdSlotInTheSlotStateIsRefusedBeforeTheFirmwareJob) {
    writeFile(slots(), "active=3\nnext=1\nversion.1=X 1.2 7\nversion.2=\n");
    expectRefused("firmware", slots() +
                                  ":1: active must be 1 or 2 (the device has two slots), "
                                  "not '3'");
}

TEST_F(ProvctlDeviceFileTest, slotStateThatIsNoNumberIsRefused) {
    writeFile(slots(), "active=1\nnext = two\n");
    expectRefused("script",
                  slots() + ":2: next must be 1 or 2 (the device has two slots), not 'two'");
}

TEST_F(ProvctlDeviceFileTest, misspeltKeyInTheSlotStateIsRefusedForEveryJob) {
    writeFile(slots(), "active=1\nnxt=2\n");
    expectRefused("config",
                  slots() + ":2: unknown key 'nxt' (known: active, next, version.1, version.2)");
}

}  // namespace
