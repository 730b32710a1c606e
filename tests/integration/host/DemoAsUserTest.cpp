// `provctl demo` run by an ordinary user: the installed program, its servers (atftpd, lighttpd)
// and its device directory need no privilege. The test itself runs as root and drops to nobody
// for the run.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "support/InstalledPackage.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace {

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(DemoAsUserTest, anOrdinaryUserRunsTheWholeDemo) {
    provtest::TempDir dir("prov-demo-user");
    // The installation and the user's home and temporary directory, all reachable by nobody.
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    provtest::InstalledPackage package;
    ASSERT_TRUE(package.install(dir.file("prefix")));
    const std::string home = dir.file("home");
    std::filesystem::create_directories(home);
    ASSERT_EQ(::chmod(home.c_str(), 0777), 0);
    provtest::CommandResult run = provtest::runCommand(
        {"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "/usr/bin/env",
         "HOME=" + home, "TMPDIR=" + home, "PATH=/usr/bin:/bin:/usr/sbin:/sbin",
         dir.file("prefix") + "/bin/provctl", "demo"},
        std::chrono::seconds(120));
    EXPECT_EQ(run.exitStatus, 0) << run.output;
    EXPECT_TRUE(contains(run.output, "(atftpd)")) << run.output;
    EXPECT_TRUE(contains(run.output, "All 16 jobs did what they should.")) << run.output;
    EXPECT_FALSE(contains(run.output, "must be started by root")) << run.output;
}

}  // namespace
