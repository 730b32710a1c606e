#pragma once

// One cell of the interoperability matrix is one gtest test: a real job of the engine against a
// server that the suite started, checked by what the job reported, stored or sent and logged. The
// checks of each scenario live here, the same for every server.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "InteropReport.h"
#include "engine/Monitors.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/content/UploadProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "platform/Cli.h"
#include "platform/StatusDb.h"
#include "platform/UpdateController.h"
#include "platform/simulated/DeviceDirectory.h"
#include "support/CaptureMonitor.h"
#include "support/Certificates.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "support/UpgradeSupport.h"

namespace interop {

using namespace std::chrono_literals;

const std::string CONFIG =
    "cli version 4.12\ncontext ip router\n  interface lan\nport ethernet 0 0\n";
// The job's name: the first word of every line it logs.
const std::string JOB = "interop";

// HTTPS settings given to a job: CA, client certificate, client key (empty: not given).
struct TlsSettings {
    std::string ca;
    std::string cert;
    std::string key;
};

// Credentials of a realm, as a job gets them from the management process.
struct RealmUser {
    std::string realm;
    std::string user;
    std::string password;
};

// The checks of one cell: every failed check is kept, the first one names the failure.
class Verdict {
  public:
    Verdict& check(bool ok, const std::string& what) {
        if (!ok) {
            failures_.push_back(what);
        }
        return *this;
    }
    // Success, or the failures (the first on the first line) followed by `context`.
    ::testing::AssertionResult result(const std::string& context) const {
        if (failures_.empty()) {
            return ::testing::AssertionSuccess();
        }
        ::testing::AssertionResult failed = ::testing::AssertionFailure();
        for (const std::string& failure : failures_) {
            failed << failure << "\n";
        }
        return failed << context;
    }

  private:
    std::vector<std::string> failures_;
};

inline std::string joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += (text.empty() ? "" : " / ") + line;
    }
    return text.empty() ? "(none)" : text;
}

inline long long fileSize(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? static_cast<long long>(status.st_size) : -1;
}

// The SHA-256 of a file in hex, from coreutils' sha256sum; empty when it failed.
inline std::string sha256Of(const std::string& path) {
    provtest::CommandResult result = provtest::runCommand({"/usr/bin/sha256sum", path});
    return result.exitStatus == 0 ? result.output.substr(0, 64) : "";
}

// A firmware archive of 64 MiB and more, made once per test process: "manifest" announces a
// version newer than the device runs, "image" is a sparse 64 MiB file with a marker at every MiB,
// so that a block delivered in the wrong place changes the digest.
class LargeFirmware {
  public:
    static constexpr long long IMAGE_SIZE = 64LL * 1024 * 1024;

    static const LargeFirmware& get() {
        static LargeFirmware firmware;
        return firmware;
    }
    bool ok() const { return error.empty(); }

    std::string archive;
    long long archiveSize = -1;
    std::string archiveDigest;
    std::string imageDigest;
    std::string error;

  private:
    LargeFirmware();
    provtest::TempDir dir_{"prov-interop-firmware"};
};

// The fixture of every cell: a fresh device directory, captured monitors, one job at a time.
class Cell : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Claims the cell of `server` and `scenario`. False when it does not apply (`reason` says
    // why; the caller skips) or when the server did not start (`serverError`; a failure).
    bool claim(const std::string& server, const std::string& scenario, const std::string& reason,
               const std::string& serverError);
    const std::string& reason() const { return reason_; }
    // The cell fails with the verdict's first line unless it passed.
    void expectPasses(const ::testing::AssertionResult& verdict);
    // The scenario does not apply, which the test has just seen for itself.
    void notApplicable(const std::string& why) { reason_ = why; }

    // Starts `job`, runs the loop until its result and the update controller are through, and
    // returns the result.
    XCode runJob(ProvisioningJob& job);
    std::unique_ptr<ConfigProvisioningJob> configJob(const std::string& location,
                                                     const TlsSettings& tls = {});
    static std::string storedConfig();
    // The work file of a location as the job names it, and where it lies on this host.
    static std::string workFileOf(const std::string& location);
    static std::string hostPath(const std::string& devicePath);
    // The status line of the last HTTP response that the job logged, without the prefix.
    std::string lastStatusLine() const;
    std::string context() const { return "PROV:\n" + prov.dump() + "XFER:\n" + xfer.dump(); }

    // Scenario checks.
    void checkConfigStored(Verdict& verdict, const std::string& location, const std::string& source,
                           const TlsSettings& tls);
    ::testing::AssertionResult configStored(const std::string& location, const std::string& source,
                                            const TlsSettings& tls = {});
    ::testing::AssertionResult redirectFollowed(const std::string& location,
                                                const std::string& target, int status);
    // The job follows the redirect to a folder and refuses the folder, fetching and storing
    // nothing.
    ::testing::AssertionResult redirectedToFolder(const std::string& location,
                                                  const std::string& target, int status);
    ::testing::AssertionResult challengeAnswered(const std::string& location,
                                                 const RealmUser& realmUser,
                                                 const std::string& scheme);
    ::testing::AssertionResult clientCertificateRequired(const std::string& location,
                                                         const TlsSettings& withCertificate);
    ::testing::AssertionResult refusedWithStatus(const std::string& location, int status);
    ::testing::AssertionResult largeFirmwareWritten(const std::string& location);
    ::testing::AssertionResult tftpFileMissing(const std::string& location);
    ::testing::AssertionResult configUploaded(const std::string& location,
                                              const std::function<std::string()>& serverCopy);
    ::testing::AssertionResult uploadRefused(const std::string& location, const std::string& error,
                                             const std::function<bool()>& serverHasFile);

    provtest::TempDir device{"prov-interop-device"};
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    provtest::RecordingJobHandler handler;
    provtest::CaptureMonitor prov{"PROV"};
    provtest::CaptureMonitor xfer{"XFER"};
    provtest::CaptureMonitor event{"EVENT"};

  private:
    std::string server_;
    std::string scenario_;
    std::string reason_;
    std::string failure_;
};

}  // namespace interop
