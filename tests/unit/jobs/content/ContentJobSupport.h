#pragma once

// Helpers of the content job tests: the jobs with their protected members opened, a recording
// handler, a fixture with a fresh device directory and captured monitors, and a guard that makes
// writes of this process fail (as root, file modes stop nothing).

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "engine/Monitors.h"
#include "engine/ProvisioningJob.h"
#include "platform/KtEventLoop.h"
#include "platform/StatusDb.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/testing/StatusDbHooks.h"
#include "support/CaptureMonitor.h"
#include "support/TempDir.h"

// Readable values in failure messages.
inline void PrintTo(const String& text, std::ostream* out) {
    *out << '"' << text.c_str() << '"';
}
inline void PrintTo(const XCode& code, std::ostream* out) {
    *out << code.toString().c_str();
}

namespace contenttest {

struct RecordingHandler : ProvisioningJob::CallbackHandler {
    void jobFinished(ProvisioningJob&, XCode result) override { results.push_back(result); }
    std::vector<XCode> results;
};

// A content job with the members that the walk would drive opened for the tests.
template <typename Job>
class OpenJob : public Job {
  public:
    using Job::addXferLogEntry;
    using Job::getFileForUpload;
    using Job::Job;
    using Job::onFailedFileDownload;
    using Job::onSuccessfulFileDownload;

    // The current location as the walk leaves it after a download into `workFile`.
    void setDownloaded(const String& location, const String& workFile,
                       const String& remotePath = String()) {
        this->downloadLocation = location;
        this->outFile = workFile;
        this->path = remotePath;
    }
    void setOutFile(const String& file) { this->outFile = file; }
    void setUploadLocation(const String& location) { this->uploadLocation = location; }
    // As the HTTP download leaves it: false after a 201.
    void setComparisonAllowed(bool allowed) { this->comparisonAllowed = allowed; }
    void setActivationFlag(bool flag) { this->activationFlag = flag; }
};

// "<prefix>-<pid>-<test name>": unique among tests that run in parallel on this host.
inline std::string uniqueName(const std::string& prefix) {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = info != nullptr ? info->name() : "none";
    for (char& c : name) {
        if (c == '/') {
            c = '-';
        }
    }
    return prefix + "-" + std::to_string(::getpid()) + "-" + name;
}

// The inode of a file, 0 when it does not exist. A store replaces the file by renaming a new one
// over it, so an unchanged inode means the file was not rewritten.
inline ino_t inodeOf(const std::string& file) {
    struct stat status {};
    return ::stat(file.c_str(), &status) == 0 ? status.st_ino : 0;
}

// While it lives, this process cannot make a file longer than `bytes`: a larger write fails with
// "File too large" (EFBIG). Works as root, where read-only modes do not.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
        EXPECT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &previous_));
        struct rlimit limited = previous_;
        limited.rlim_cur = bytes;
        EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limited));
    }
    ~FileSizeLimit() {
        EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &previous_));
        std::signal(SIGXFSZ, previousHandler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    struct rlimit previous_ {};
    void (*previousHandler_)(int) = SIG_DFL;
};

// A fresh device directory, the three monitors captured and a unique work file.
class ContentJobTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        DB::Table::ProvisioningStatusHooks::RESET();
        MON_PROV = &prov;
        MON_XFER = &xfer;
        MON_EVENT = &event;
        unique = uniqueName("content");
        // The host path of a file in the device's work directory: the job uses it as it is.
        workFile = Device::MAP_PATH(("/tmp/provisioning/" + unique).c_str()).str();
    }
    void TearDown() override {
        MON_PROV = nullptr;
        MON_XFER = nullptr;
        MON_EVENT = nullptr;
        std::remove(workFile.c_str());
    }

    void download(const std::string& content) { provtest::writeFile(workFile, content); }
    std::string flash(const std::string& relative) const {
        return device.file("flash/" + relative);
    }

    provtest::TempDir device{"prov-content"};
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    RecordingHandler handler;
    provtest::CaptureMonitor prov{"PROV"};
    provtest::CaptureMonitor xfer{"XFER"};
    provtest::CaptureMonitor event{"EVENT"};
    std::string unique;
    std::string workFile;
};

}  // namespace contenttest
