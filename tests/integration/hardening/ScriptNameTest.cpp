// A script job's name names its fingerprint file "/flash/provisioning/<name>". A name that climbs
// out of that directory ("../preferences/key") made a successful run overwrite the device's key
// with the script's last 20 characters. provctl refuses such a name before anything runs.
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Process.h"
#include "support/ProvctlRun.h"
#include "support/TempDir.h"
#include "support/TftpServer.h"

namespace provtest::hardening {
namespace {

const char* const OLD_KEY = "old key\n";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class ScriptNameTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        writeFile(dir.file("device/flash/preferences/key"), OLD_KEY);
        archive = "script-" + std::to_string(::getpid()) + "-" +
                  ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".tar";
        // A script the controller runs successfully: its last 20 characters would be stored.
        writeFile(server.root() + "/src/manifest", "hostname provisioned-unit\n");
        CommandResult made = runCommand({"/bin/tar", "cf", server.root() + "/" + archive, "-C",
                                         server.root() + "/src", "manifest"});
        ASSERT_EQ(made.exitStatus, 0) << made.output;
    }
    // Where provctl's job downloads the archive: the device's own work directory.
    std::string workFile() const { return dir.file("device/tmp/provisioning/" + archive); }

    std::string url() const {
        return "tftp://127.0.0.1:" + std::to_string(server.port()) + "/" + archive;
    }
    ProvctlOutcome runScript(const std::string& name) {
        return runProvctl(dir, {"script", "--name", name, "--device", dir.file("device"), url()});
    }

    TempDir dir{"prov-scriptname"};
    TftpServer server;
    std::string archive;
};

TEST_F(ScriptNameTest, nameClimbingToTheKeyIsAUsageErrorAndTheKeyStays) {
    ProvctlOutcome run = runScript("../preferences/key");
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.status, 2) << run.err << run.out;
    EXPECT_TRUE(contains(run.err,
                         "provctl: --name ../preferences/key: a script's name is one "
                         "file name in /flash/provisioning"))
        << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(readFile(dir.file("device/flash/preferences/key")), OLD_KEY);
    // Refused before anything ran: nothing was downloaded.
    EXPECT_FALSE(fileExists(workFile()));
}

TEST_F(ScriptNameTest, everyNameOutsideTheDirectoryIsAUsageError) {
    for (const char* name : {"..", ".", "a/b", "/flash/preferences/key"}) {
        SCOPED_TRACE(name);
        ProvctlOutcome run = runScript(name);
        EXPECT_EQ(run.status, 2) << run.err << run.out;
        EXPECT_TRUE(contains(run.err, "a script's name is one file name")) << run.err;
    }
    EXPECT_EQ(readFile(dir.file("device/flash/preferences/key")), OLD_KEY);
}

TEST_F(ScriptNameTest, plainNameStillStoresItsFingerprint) {
    ProvctlOutcome run = runScript("nightly");
    EXPECT_EQ(run.status, 0) << run.err << run.out;
    EXPECT_EQ(readFile(dir.file("device/flash/provisioning/nightly")), "me provisioned-unit\n");
    // The same place, seen holding the download: the check above looks where it would be.
    EXPECT_TRUE(fileExists(workFile()));
    EXPECT_EQ(readFile(dir.file("device/flash/preferences/key")), OLD_KEY);
}

}  // namespace
}  // namespace provtest::hardening
