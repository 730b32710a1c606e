#pragma once

// Helpers of the firmware and script job tests: jobs with their protected members opened, a
// recording handler, tar archives made with the real tar, unique names, and the lock that
// serialises the use of an extracted manifest "/tmp/provisioning/manifest" between test processes
// that run in parallel (each device directory has its own; the lock still serves tests that share
// one).

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "engine/ProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "jobs/upgrade/ScriptProvisioningJob.h"
#include "support/Process.h"

// Readable values in the failure messages of the tests that use these helpers.
// Shared by the support headers; whichever comes first defines them.
#ifndef PROV_TEST_PRINT_TO
#define PROV_TEST_PRINT_TO
inline void PrintTo(const String& text, std::ostream* out) {
    *out << '"' << text.c_str() << '"';
}
inline void PrintTo(const XCode& code, std::ostream* out) {
    *out << code.toString().c_str();
}
#endif

namespace provtest {

// "<prefix>-<pid>-<test name>": unique among tests running in parallel.
inline std::string uniqueName(const std::string& prefix) {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return prefix + "-" + std::to_string(::getpid()) + "-" + (info ? info->name() : "none");
}

// `tar cf archive -C directory members...`; -P keeps absolute and ".." names as given.
inline ::testing::AssertionResult makeTar(const std::string& archive, const std::string& directory,
                                          const std::vector<std::string>& members,
                                          bool keepNames = false) {
    std::vector<std::string> argv = {"/bin/tar", "cf", archive};
    if (keepNames) {
        argv.push_back("-P");
    }
    argv.push_back("-C");
    argv.push_back(directory);
    argv.insert(argv.end(), members.begin(), members.end());
    CommandResult result = runCommand(argv);
    if (result.exitStatus != 0) {
        return ::testing::AssertionFailure() << "tar cf failed: " << result.output;
    }
    return ::testing::AssertionSuccess();
}

struct RecordingJobHandler : ProvisioningJob::CallbackHandler {
    void jobFinished(ProvisioningJob& job, XCode result) override {
        jobs.push_back(&job);
        results.push_back(result);
        if (then) {
            then(job, result);
        }
    }
    std::vector<ProvisioningJob*> jobs;
    std::vector<XCode> results;
    // Runs inside jobFinished, e.g. to look at the device at the moment the job is told.
    std::function<void(ProvisioningJob&, const XCode&)> then;
};

// The protected members of the two jobs, opened for the tests that drive them directly.
template <typename Job>
class OpenJob : public Job {
  public:
    using Job::Job;
    using Job::onFailedFileDownload;
    using Job::onSuccessfulFileDownload;
    using Job::onSuccessfulFileDownloadManifest;
    using Job::onSuccessfulFileDownloadTar;

    // The current location as the walk leaves it after a download.
    void setDownloaded(const String& location, const String& workFile, unsigned int protocolNumber,
                       const String& hostName, unsigned int portNumber, const String& remotePath) {
        this->downloadLocation = location;
        this->outFile = workFile;
        this->protocol = protocolNumber;
        this->host = hostName;
        this->port = portNumber;
        this->path = remotePath;
    }
    // Credentials as a challenge of `origin` (UriUtil::buildOrigin) left them.
    void setRealm(const String& user, const String& password, const String& origin) {
        this->realmUser = user;
        this->realmPassword = password;
        this->realmOrigin = origin;
    }
    // A login as a location of `origin` left it held.
    void setLogin(const String& user, const String& password, const String& origin) {
        this->heldLogin = UriUtil::Login{true, user, password};
        this->heldLoginOrigin = origin;
    }
    void setAsyncPending(bool pending) { this->asyncPending = pending; }
    void setImageAction(ProvisioningJob::ImageAction action) { this->imageAction = action; }
    // The job as the update controller sees it.
    UpdateController::CallbackHandler* controllerHandler() { return this; }
};

class OpenFirmwareJob : public OpenJob<FirmwareProvisioningJob> {
  public:
    using OpenJob<FirmwareProvisioningJob>::OpenJob;
    using FirmwareProvisioningJob::decideActions;
    using FirmwareProvisioningJob::determineActionsNeeded;
};

class OpenScriptJob : public OpenJob<ScriptProvisioningJob> {
  public:
    using OpenJob<ScriptProvisioningJob>::OpenJob;
    const String& getChecksum() const { return checksum; }
};

}  // namespace provtest
