// The dial-plan, key and wizard jobs end to end: each over a real tftpd-hpa with BusyBox's tftp
// client and over a real lighttpd with wget, into a fresh device directory.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "engine/Monitors.h"
#include "jobs/content/DialplanProvisioningJob.h"
#include "jobs/content/KeyProvisioningJob.h"
#include "jobs/content/WizardProvisioningJob.h"
#include "platform/StatusDb.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/testing/StatusDbHooks.h"
#include "support/CaptureMonitor.h"
#include "support/HttpServer.h"
#include "support/TempDir.h"
#include "support/TftpServer.h"

namespace {

using namespace std::chrono_literals;
using provtest::CaptureMonitor;

enum class Protocol { Tftp, Http };

const std::string PLAN = "route 0049* via trunk-a\nroute 00* via trunk-b\n";
const std::string KEY = "-----BEGIN KEY-----\nAAAABBBBCCCC\n-----END KEY-----\n";
const std::string WIZARD = "page 1\n  ask hostname\npage 2\n  ask address\n";
const std::string SHORT = "short\n";

struct RecordingHandler : ProvisioningJob::CallbackHandler {
    void jobFinished(ProvisioningJob&, XCode result) override { results.push_back(result); }
    std::vector<XCode> results;
};

// A store renames a new file over the old one: an unchanged inode means no write.
ino_t inodeOf(const std::string& file) {
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
}

class ContentJobsTest : public ::testing::TestWithParam<Protocol> {
  protected:
    void SetUp() override {
        if (GetParam() == Protocol::Tftp) {
            ASSERT_TRUE(tftp.start());
        } else {
            ASSERT_TRUE(http.start());
        }
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        DB::Table::ProvisioningStatusHooks::RESET();
        MON_PROV = &prov;
        MON_XFER = &xfer;
        MON_EVENT = &event;
        // Unique per test: the work file is named after the remote file, and the work directory
        // is shared by everything on this host.
        std::string testName = ::testing::UnitTest::GetInstance()->current_test_info()->name();
        for (char& c : testName) {
            if (c == '/') {
                c = '-';
            }
        }
        unique = "content-" + std::to_string(::getpid()) + "-" + testName;
    }
    void TearDown() override {
        MON_PROV = nullptr;
        MON_XFER = nullptr;
        MON_EVENT = nullptr;
        for (const std::string& file : workFiles) {
            std::remove(file.c_str());
        }
    }

    // Puts `content` on the server under "<folder>/<unique><suffix>" and returns its location.
    std::string serve(const std::string& folder, const std::string& suffix,
                      const std::string& content) {
        std::string name = unique + suffix;
        workFiles.push_back(Device::MAP_PATH("/tmp/provisioning").str() + "/" + name);
        if (GetParam() == Protocol::Tftp) {
            tftp.put(folder + "/" + name, content);
            return "tftp://127.0.0.1:" + std::to_string(tftp.port()) + "/" + folder + "/" + name;
        }
        http.put("/" + folder + "/" + name, content);
        return http.url("/" + folder + "/" + name);
    }
    // A location on the running server where nothing lies.
    std::string absent(const std::string& folder, const std::string& suffix) {
        std::string name = unique + suffix;
        workFiles.push_back(Device::MAP_PATH("/tmp/provisioning").str() + "/" + name);
        if (GetParam() == Protocol::Tftp) {
            return "tftp://127.0.0.1:" + std::to_string(tftp.port()) + "/" + folder + "/" + name;
        }
        return http.url("/" + folder + "/" + name);
    }

    // Starts the job and runs the loop until the handler is told.
    ::testing::AssertionResult run(ProvisioningJob& job) {
        XCode started = job.execute();
        if (started.isErr()) {
            return ::testing::AssertionFailure()
                   << "execute: " << started.toString().c_str() << "\n"
                   << prov.dump();
        }
        if (!loop.runUntil([this] { return !handler.results.empty(); }, 60s)) {
            return ::testing::AssertionFailure() << "no result\n" << prov.dump();
        }
        if (handler.results.size() != 1) {
            return ::testing::AssertionFailure() << handler.results.size() << " results";
        }
        return ::testing::AssertionSuccess();
    }
    const XCode& result() const { return handler.results.at(0); }

    std::string flash(const std::string& relative) const {
        return device.file("flash/" + relative);
    }

    provtest::TftpServer tftp;
    provtest::HttpServer http;
    provtest::TempDir device{"prov-contentjobs"};
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    RecordingHandler handler;
    CaptureMonitor prov{"PROV"};
    CaptureMonitor xfer{"XFER"};
    CaptureMonitor event{"EVENT"};
    std::string unique;
    std::vector<std::string> workFiles;
};

std::string protocolName(const ::testing::TestParamInfo<Protocol>& info) {
    return info.param == Protocol::Tftp ? "Tftp" : "Http";
}

INSTANTIATE_TEST_SUITE_P(Protocols, ContentJobsTest,
                         ::testing::Values(Protocol::Tftp, Protocol::Http), protocolName);

// Dial plan.

TEST_P(ContentJobsTest, dialplanIsDownloadedAndStored) {
    std::string location = serve("plans", ".txt", PLAN);
    DialplanProvisioningJob job(loop, "dp", "dialplan:office", ProvisioningJob::None, true,
                                {location.c_str()}, credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    ASSERT_TRUE(result().isSuccess()) << result().toString().c_str() << "\n" << prov.dump();
    EXPECT_EQ(provtest::readFile(flash("dialplan/office")), PLAN);
    EXPECT_GE(prov.find("[dp] No stored dialplan: "), 0) << prov.dump();
    EXPECT_EQ(event.levelOf("[dp] Received and stored dialplan update"), 6) << event.dump();
    ASSERT_EQ(xfer.lines().size(), 1u) << xfer.dump();
    EXPECT_EQ(xfer.levelOf("dp : " + location + " -> dialplan:office : succeeded"), 6)
        << xfer.dump();
}

TEST_P(ContentJobsTest, dialplanUnchangedWithCompareIsNotWritten) {
    provtest::writeFile(flash("dialplan/office"), PLAN);
    ino_t before = inodeOf(flash("dialplan/office"));
    std::string location = serve("plans", ".txt", PLAN);
    DialplanProvisioningJob job(loop, "dp", "dialplan:office", ProvisioningJob::None, true,
                                {location.c_str()}, credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    ASSERT_TRUE(result().isSuccess()) << result().toString().c_str();
    EXPECT_EQ(inodeOf(flash("dialplan/office")), before);
    EXPECT_GE(prov.indexOf("[dp] Downloaded and stored dialplans are equal"), 0) << prov.dump();
    EXPECT_TRUE(xfer.lines().empty()) << xfer.dump();
    EXPECT_TRUE(event.lines().empty());
}

TEST_P(ContentJobsTest, dialplanChangedWithCompareIsReplacedWhole) {
    provtest::writeFile(flash("dialplan/office"), PLAN + PLAN);
    std::string location = serve("plans", ".txt", SHORT);
    DialplanProvisioningJob job(loop, "dp", "dialplan:office", ProvisioningJob::None, true,
                                {location.c_str()}, credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    ASSERT_TRUE(result().isSuccess()) << result().toString().c_str();
    EXPECT_EQ(provtest::readFile(flash("dialplan/office")), SHORT);
    EXPECT_GE(xfer.indexOf("dp : " + location + " -> dialplan:office : succeeded"), 0)
        << xfer.dump();
}

TEST_P(ContentJobsTest, dialplanMissingOnTheServerFailsAndWritesNothing) {
    std::string location = absent("plans", ".txt");
    DialplanProvisioningJob job(loop, "dp", "dialplan:office", ProvisioningJob::None, true,
                                {location.c_str()}, credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    EXPECT_TRUE(result().isErr());
    EXPECT_EQ(prov.levelOf("[dp] FAILED TO DOWNLOAD DIALPLAN"), 3) << prov.dump();
    EXPECT_FALSE(provtest::fileExists(flash("dialplan/office")));
    EXPECT_TRUE(event.lines().empty());
}

// Key.

TEST_P(ContentJobsTest, keyIsDownloadedAndStored) {
    std::string location = serve("keys", ".key", KEY);
    KeyProvisioningJob job(loop, "key", ProvisioningJob::None, true, {location.c_str()},
                           credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    ASSERT_TRUE(result().isSuccess()) << result().toString().c_str() << "\n" << prov.dump();
    EXPECT_EQ(provtest::readFile(flash("preferences/key")), KEY);
    EXPECT_TRUE(job.getActivationFlag());
    EXPECT_GE(prov.find("[key] No stored key: "), 0) << prov.dump();
    EXPECT_EQ(event.levelOf("[key] Received and stored key update"), 6) << event.dump();
    ASSERT_EQ(xfer.lines().size(), 1u) << xfer.dump();
    EXPECT_EQ(xfer.levelOf("key : " + location + " ->  : succeeded"), 6) << xfer.dump();
}

TEST_P(ContentJobsTest, keyUnchangedWithCompareIsNotWritten) {
    provtest::writeFile(flash("preferences/key"), KEY);
    ino_t before = inodeOf(flash("preferences/key"));
    std::string location = serve("keys", ".key", KEY);
    KeyProvisioningJob job(loop, "key", ProvisioningJob::None, true, {location.c_str()},
                           credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    ASSERT_TRUE(result().isSuccess()) << result().toString().c_str();
    EXPECT_EQ(inodeOf(flash("preferences/key")), before);
    EXPECT_FALSE(job.getActivationFlag());
    EXPECT_GE(prov.indexOf("[key] Downloaded and stored key are equal"), 0) << prov.dump();
    EXPECT_TRUE(xfer.lines().empty()) << xfer.dump();
    EXPECT_TRUE(event.lines().empty());
}

TEST_P(ContentJobsTest, keyChangedWithCompareIsReplacedWhole) {
    provtest::writeFile(flash("preferences/key"), KEY + KEY);
    std::string location = serve("keys", ".key", SHORT);
    KeyProvisioningJob job(loop, "key", ProvisioningJob::None, true, {location.c_str()},
                           credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    ASSERT_TRUE(result().isSuccess()) << result().toString().c_str();
    EXPECT_EQ(provtest::readFile(flash("preferences/key")), SHORT);
    EXPECT_TRUE(job.getActivationFlag());
    EXPECT_GE(xfer.indexOf("key : " + location + " ->  : succeeded"), 0) << xfer.dump();
}

TEST_P(ContentJobsTest, keyMissingOnTheServerFailsAndWritesNothing) {
    std::string location = absent("keys", ".key");
    KeyProvisioningJob job(loop, "key", ProvisioningJob::None, true, {location.c_str()},
                           credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    EXPECT_TRUE(result().isErr());
    EXPECT_EQ(prov.levelOf("[key] FAILED TO DOWNLOAD KEY"), 3) << prov.dump();
    EXPECT_FALSE(provtest::fileExists(flash("preferences/key")));
    EXPECT_FALSE(job.getActivationFlag());
}

// Wizard.

TEST_P(ContentJobsTest, wizardIsStoredUnderItsOwnNameWithAFollowUp) {
    std::string location = serve("w", ".wiz", WIZARD);
    std::string fileName = unique + ".wiz";
    WizardProvisioningJob job(loop, "wiz", ProvisioningJob::None, true, {location.c_str()},
                              credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    ASSERT_TRUE(result().isSuccess()) << result().toString().c_str() << "\n" << prov.dump();
    EXPECT_EQ(provtest::readFile(flash("wizard/" + fileName)), WIZARD);
    EXPECT_TRUE(job.isFollowUpPending());
    ASSERT_EQ(job.getFollowUpArguments().size(), 1u);
    EXPECT_EQ(job.getFollowUpArguments().front(), fileName.c_str());
    EXPECT_EQ(job.getFollowUpMode(), "Wizard");
    EXPECT_EQ(job.getFollowUpCommand(), "add wizard");
    EXPECT_EQ(event.levelOf("[wiz] Received and stored wizard update"), 6) << event.dump();
    ASSERT_EQ(xfer.lines().size(), 1u) << xfer.dump();
    EXPECT_EQ(xfer.levelOf("wiz : " + location + " -> wizard : succeeded"), 6) << xfer.dump();
}

TEST_P(ContentJobsTest, wizardUnchangedWithCompareIsNotWrittenAndAsksNothing) {
    std::string fileName = unique + ".wiz";
    provtest::writeFile(flash("wizard/" + fileName), WIZARD);
    ino_t before = inodeOf(flash("wizard/" + fileName));
    std::string location = serve("w", ".wiz", WIZARD);
    WizardProvisioningJob job(loop, "wiz", ProvisioningJob::None, true, {location.c_str()},
                              credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    ASSERT_TRUE(result().isSuccess()) << result().toString().c_str();
    EXPECT_EQ(inodeOf(flash("wizard/" + fileName)), before);
    EXPECT_FALSE(job.isFollowUpPending());
    EXPECT_EQ(job.getFollowUpArguments().size(), 0u);
    EXPECT_GE(prov.indexOf("[wiz] Downloaded and stored wizards are equal"), 0) << prov.dump();
    EXPECT_TRUE(xfer.lines().empty()) << xfer.dump();
    EXPECT_TRUE(event.lines().empty());
}

TEST_P(ContentJobsTest, wizardChangedWithCompareIsReplacedWhole) {
    std::string fileName = unique + ".wiz";
    provtest::writeFile(flash("wizard/" + fileName), WIZARD + WIZARD);
    std::string location = serve("w", ".wiz", SHORT);
    WizardProvisioningJob job(loop, "wiz", ProvisioningJob::None, true, {location.c_str()},
                              credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    ASSERT_TRUE(result().isSuccess()) << result().toString().c_str();
    EXPECT_EQ(provtest::readFile(flash("wizard/" + fileName)), SHORT);
    EXPECT_TRUE(job.isFollowUpPending());
    EXPECT_GE(xfer.indexOf("wiz : " + location + " -> wizard : succeeded"), 0) << xfer.dump();
}

TEST_P(ContentJobsTest, wizardMissingOnTheServerFailsWithoutFollowUp) {
    std::string location = absent("w", ".wiz");
    WizardProvisioningJob job(loop, "wiz", ProvisioningJob::None, true, {location.c_str()},
                              credentials, resolver, handler);
    ASSERT_TRUE(run(job));
    EXPECT_TRUE(result().isErr());
    EXPECT_EQ(prov.levelOf("[wiz] FAILED TO DOWNLOAD WIZARD"), 3) << prov.dump();
    EXPECT_FALSE(provtest::fileExists(flash("wizard/" + unique + ".wiz")));
    EXPECT_FALSE(job.isFollowUpPending());
}

}  // namespace
