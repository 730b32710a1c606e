#include "InteropCells.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include "platform/simulated/SimulatedUpdateController.h"
#include "platform/testing/StatusDbHooks.h"

namespace interop {

namespace {

const std::string MANIFEST = "sw_type=X\nsw_version=1.3\nsw_build_num=1\n";
// What the device runs and holds before the firmware job: the manifest's version is newer.
const char* const STORED_VERSION_1 = "X 1.0 1";
const char* const STORED_VERSION_2 = "X 1.1 1";
const char* const ACTIVE_VERSION = "X 1.2 7";

bool writeSparseImage(const std::string& path, std::string& error) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    bool ok = fd >= 0 && ::ftruncate(fd, LargeFirmware::IMAGE_SIZE) == 0;
    for (long long offset = 0; ok && offset < LargeFirmware::IMAGE_SIZE; offset += 1024 * 1024) {
        char marker[32];
        int length = std::snprintf(marker, sizeof marker, "MiB %lld\n", offset / (1024 * 1024));
        ok = ::pwrite(fd, marker, static_cast<std::size_t>(length), offset) == length;
    }
    if (fd >= 0) {
        ::close(fd);
    }
    if (!ok) {
        error = "cannot write the sparse image " + path;
    }
    return ok;
}

// The status code of a status line ("HTTP/1.1 404 Not Found"), -1 when it has none.
int statusCodeOf(const std::string& statusLine) {
    std::size_t blank = statusLine.find(' ');
    return blank == std::string::npos ? -1 : std::atoi(statusLine.c_str() + blank + 1);
}

}  // namespace

LargeFirmware::LargeFirmware() {
    provtest::writeFile(dir_.file("content/manifest"), MANIFEST);
    if (!writeSparseImage(dir_.file("content/image"), error)) {
        return;
    }
    archive = dir_.file("firmware.tar");
    ::testing::AssertionResult made =
        provtest::makeTar(archive, dir_.file("content"), {"manifest", "image"});
    if (!made) {
        error = made.message();
        return;
    }
    archiveSize = fileSize(archive);
    archiveDigest = sha256Of(archive);
    imageDigest = sha256Of(dir_.file("content/image"));
    if (archiveDigest.empty() || imageDigest.empty()) {
        error = "sha256sum failed";
    }
}

void Cell::SetUp() {
    Device::SET_ROOT(device.path().c_str());
    ASSERT_TRUE(Device::PREPARE().isSuccess());
    DB::Table::ProvisioningStatusHooks::RESET();
    MON_PROV = &prov;
    MON_XFER = &xfer;
    MON_EVENT = &event;
}

void Cell::TearDown() {
    MON_PROV = nullptr;
    MON_XFER = nullptr;
    MON_EVENT = nullptr;
    if (scenario_.empty()) {
        return;
    }
    std::string result = "passes";
    if (HasFailure()) {
        if (failure_.empty()) {
            const ::testing::TestResult& run =
                *::testing::UnitTest::GetInstance()->current_test_info()->result();
            failure_ = run.total_part_count() > 0 ? run.GetTestPartResult(0).summary() : "?";
        }
        result = "FAILS: " + firstLine(failure_);
    } else if (!reason_.empty()) {
        result = reason_;
    }
    Matrix::get().record(server_, scenario_, result);
}

bool Cell::claim(const std::string& server, const std::string& scenario, const std::string& reason,
                 const std::string& serverError) {
    server_ = server;
    scenario_ = scenario;
    reason_ = reason;
    if (!reason.empty()) {
        return false;
    }
    if (!serverError.empty()) {
        failure_ = "the server did not start: " + serverError;
        ADD_FAILURE() << failure_;
        reason_ = failure_;
        return false;
    }
    return true;
}

void Cell::expectPasses(const ::testing::AssertionResult& verdict) {
    if (!verdict) {
        if (failure_.empty()) {
            failure_ = verdict.message();
        }
        ADD_FAILURE() << verdict.message();
    }
}

XCode Cell::runJob(ProvisioningJob& job) {
    handler.results.clear();
    XCode started = job.execute();
    if (started.isErr()) {
        return started;
    }
    if (!loop.runUntil([this] { return !handler.results.empty(); }, 120s)) {
        return XCode(XCode::GENERIC_FAILURE).setString("THE JOB DID NOT REPORT IN TIME");
    }
    if (!UpdateController::WAIT_IDLE(60s)) {
        return XCode(XCode::GENERIC_FAILURE).setString("THE UPDATE CONTROLLER DID NOT FINISH");
    }
    loop.runPending();
    if (handler.results.size() != 1) {
        return XCode(XCode::GENERIC_FAILURE)
            .setStringF("THE JOB REPORTED %zu TIMES", handler.results.size());
    }
    return handler.results.front();
}

std::unique_ptr<ConfigProvisioningJob> Cell::configJob(const std::string& location,
                                                       const TlsSettings& tls) {
    auto job = std::make_unique<ConfigProvisioningJob>(loop, JOB.c_str(), ProvisioningJob::None,
                                                       false, KtList<String>{location.c_str()},
                                                       credentials, resolver, handler);
    job->setAuthentication(tls.ca.c_str(), tls.cert.c_str(), tls.key.c_str());
    return job;
}

std::string Cell::storedConfig() {
    String stored;
    String error;
    if (CLI::GET_CONFIGURATION_CONTENT("startup-config", stored, error).isErr()) {
        return "<none>";
    }
    return stored.str();
}

std::string Cell::workFileOf(const std::string& location) {
    std::string path = location.substr(0, location.find(';'));
    return "/tmp/provisioning/" + path.substr(path.rfind('/') + 1);
}

std::string Cell::hostPath(const std::string& devicePath) {
    return Device::MAP_PATH(devicePath.c_str()).str();
}

std::string Cell::lastStatusLine() const {
    const std::string prefix = "[" + JOB + "/HTTP]   HTTP/";
    std::string found;
    for (const std::string& line : prov.lines()) {
        if (line.rfind(prefix, 0) == 0) {
            found = line.substr(prefix.size() - 5);
        }
    }
    return found;
}

void Cell::checkConfigStored(Verdict& verdict, const std::string& location,
                             const std::string& source, const TlsSettings& tls) {
    XCode result = runJob(*configJob(location, tls));
    const std::string workFile = workFileOf(source);
    const std::vector<std::string> transferLog = {JOB + " : " + source +
                                                  " -> startup-config : succeeded"};
    verdict.check(result.isSuccess(), "the job failed: " + result.toString().str())
        .check(storedConfig() == CONFIG, "the stored configuration is not the served file")
        .check(xfer.lines() == transferLog, "transfer log: " + joined(xfer.lines()))
        .check(prov.indexOf("[" + JOB + "] File downloaded: '" + source + "' -> '" + workFile +
                            "'") >= 0,
               "no \"File downloaded\" line for " + source)
        .check(provtest::fileExists(hostPath(workFile)) &&
                   provtest::readFile(hostPath(workFile)) == CONFIG,
               "the work file " + workFile + " does not hold the served file");
}

::testing::AssertionResult Cell::configStored(const std::string& location,
                                              const std::string& source, const TlsSettings& tls) {
    Verdict verdict;
    checkConfigStored(verdict, location, source, tls);
    return verdict.result(context());
}

::testing::AssertionResult Cell::redirectFollowed(const std::string& location,
                                                  const std::string& target, int status) {
    Verdict verdict;
    checkConfigStored(verdict, location, target, {});
    std::string firstStatus;
    for (const std::string& line : prov.lines()) {
        if (firstStatus.empty() && line.rfind("[" + JOB + "/HTTP]   HTTP/", 0) == 0) {
            firstStatus = line.substr(line.find("HTTP/"));
        }
    }
    verdict
        .check(
            statusCodeOf(firstStatus) == status,
            "the server's first answer was \"" + firstStatus + "\", not " + std::to_string(status))
        .check(
            prov.indexOf("[" + JOB + "] Redirected: '" + location + "' -> '" + target + "'") >= 0,
            "no \"Redirected\" line from " + location + " to " + target);
    return verdict.result(context());
}

::testing::AssertionResult Cell::redirectedToFolder(const std::string& location,
                                                    const std::string& target, int status) {
    XCode result = runJob(*configJob(location));
    Verdict verdict;
    verdict
        .check(result.getString() == "INVALID LOCATION: Cannot download folder",
               "the job did not refuse the folder: " + result.toString().str())
        .check(
            lastStatusLine().find(" " + std::to_string(status) + " ") != std::string::npos,
            "the server's answer was \"" + lastStatusLine() + "\", not " + std::to_string(status))
        .check(
            prov.indexOf("[" + JOB + "] Redirected: '" + location + "' -> '" + target + "'") >= 0,
            "no \"Redirected\" line from " + location + " to " + target)
        .check(storedConfig() == "<none>", "a configuration was stored")
        .check(xfer.lines().empty(), "transfer log: " + joined(xfer.lines()));
    return verdict.result(context());
}

::testing::AssertionResult Cell::challengeAnswered(const std::string& location,
                                                   const RealmUser& realmUser,
                                                   const std::string& scheme) {
    // Another realm first: the job must pick the challenging one.
    EXPECT_TRUE(credentials.add("elsewhere", "stranger", "not-this-one").isSuccess());
    EXPECT_TRUE(
        credentials.add(realmUser.realm.c_str(), realmUser.user.c_str(), realmUser.password.c_str())
            .isSuccess());
    Verdict verdict;
    checkConfigStored(verdict, location, location, {});
    verdict
        .check(prov.contains("[" + JOB + "/HTTP]   WWW-Authenticate: " + scheme + " "),
               "no " + scheme + " challenge")
        .check(prov.indexOf("[" + JOB + "]   Realm:  " + realmUser.realm) >= 0,
               "the retry does not name the realm " + realmUser.realm)
        .check(prov.indexOf("[" + JOB + "]   User:   " + realmUser.user) >= 0,
               "the retry does not name the user " + realmUser.user)
        .check(prov.count("/HTTP] Invoke wget with cmdline: ") == 2,
               "not exactly one retry after the challenge")
        .check(!prov.contains(realmUser.password) && !xfer.contains(realmUser.password),
               "the password was logged");
    return verdict.result(context());
}

::testing::AssertionResult Cell::clientCertificateRequired(const std::string& location,
                                                           const TlsSettings& withCertificate) {
    XCode refused = runJob(*configJob(location, {withCertificate.ca, "", ""}));
    Verdict verdict;
    verdict.check(refused.isErr(), "the server let the job in without a client certificate")
        .check(storedConfig() == "<none>", "a configuration was stored without a certificate")
        .check(xfer.lines().empty(), "transfer log without a certificate: " + joined(xfer.lines()));
    const std::string refusal = context();
    prov.clear();
    xfer.clear();
    checkConfigStored(verdict, location, location, withCertificate);
    return verdict.result("without a certificate:\n" + refusal + "with the certificate:\n" +
                          context());
}

::testing::AssertionResult Cell::refusedWithStatus(const std::string& location, int status) {
    XCode result = runJob(*configJob(location));
    const std::string statusLine = lastStatusLine();
    const std::string message =
        "UNHANDLED ERROR RESPONSE STATUS: " + statusLine + ": wget EXITED WITH STATUS 8";
    Verdict verdict;
    verdict
        .check(statusCodeOf(statusLine) == status,
               "the server answered \"" + statusLine + "\", not " + std::to_string(status))
        .check(result.getValue() == 0x12000008U && result.getString().str() == message,
               "result " + result.toString().str() + " instead of \"" + message + "\"")
        .check(prov.levelOf("[" + JOB + "] FAILED TO DOWNLOAD CONFIGURATION") == 3,
               "no level-3 \"FAILED TO DOWNLOAD CONFIGURATION\"")
        .check(xfer.lines().empty(), "transfer log: " + joined(xfer.lines()))
        .check(storedConfig() == "<none>", "a configuration was stored")
        .check(!provtest::fileExists(hostPath(workFileOf(location))), "the work file was left");
    return verdict.result(context());
}

::testing::AssertionResult Cell::largeFirmwareWritten(const std::string& location) {
    const LargeFirmware& firmware = LargeFirmware::get();
    if (!firmware.ok()) {
        return ::testing::AssertionFailure() << "no firmware archive: " << firmware.error;
    }
    FirmwareProvisioningJob job(loop, JOB.c_str(), ProvisioningJob::None, true,
                                {String(location.c_str())}, credentials, resolver, handler,
                                STORED_VERSION_1, STORED_VERSION_2, ACTIVE_VERSION, 2, 1);
    XCode result = runJob(job);
    const std::string workFile = hostPath(workFileOf(location));
    const std::string slot = device.file("slots/2");
    const std::vector<std::string> transferLog = {JOB + " : " + location +
                                                  " -> flash: : succeeded"};
    Verdict verdict;
    verdict.check(result.isSuccess(), "the job failed: " + result.toString().str())
        .check(fileSize(workFile) == firmware.archiveSize,
               "the work file holds " + std::to_string(fileSize(workFile)) + " bytes, not " +
                   std::to_string(firmware.archiveSize))
        .check(sha256Of(workFile) == firmware.archiveDigest, "the work file's digest differs")
        .check(fileSize(slot) == LargeFirmware::IMAGE_SIZE,
               "slot 2 holds " + std::to_string(fileSize(slot)) + " bytes")
        .check(sha256Of(slot) == firmware.imageDigest, "slot 2's digest differs from the image's")
        .check(xfer.lines() == transferLog, "transfer log: " + joined(xfer.lines()));
    return verdict.result(context());
}

::testing::AssertionResult Cell::tftpFileMissing(const std::string& location) {
    XCode result = runJob(*configJob(location));
    Verdict verdict;
    verdict.check(result.getValue() == 0x12000001U, "result " + result.toString().str())
        .check(prov.contains("[TFTP] tftp: server error: (1) "),
               "the server's error 1 (file not found) did not reach the monitor")
        .check(prov.levelOf("[" + JOB + "] FAILED TO DOWNLOAD CONFIGURATION") == 3,
               "no level-3 \"FAILED TO DOWNLOAD CONFIGURATION\"")
        .check(xfer.lines().empty(), "transfer log: " + joined(xfer.lines()))
        .check(storedConfig() == "<none>", "a configuration was stored")
        .check(!provtest::fileExists(hostPath(workFileOf(location))), "the work file was left");
    return verdict.result(context());
}

::testing::AssertionResult Cell::configUploaded(const std::string& location,
                                                const std::function<std::string()>& serverCopy) {
    String error;
    EXPECT_TRUE(
        CLI::STORE_CONFIGURATION_CONTENT("startup-config", CONFIG.c_str(), error).isSuccess())
        << error.str();
    UploadProvisioningJob job(loop, JOB.c_str(), ProvisioningJob::None, false,
                              {String(location.c_str())}, credentials, resolver, handler);
    XCode result = runJob(job);
    Verdict verdict;
    verdict.check(result.isSuccess(), "the job failed: " + result.toString().str())
        .check(serverCopy() == CONFIG, "the server's copy is not the stored configuration")
        .check(prov.indexOf("[" + JOB + "] File uploaded : '/tmp/provisioning/file' -> '" +
                            location + "'") >= 0,
               "no \"File uploaded\" line")
        .check(xfer.lines().empty(), "transfer log: " + joined(xfer.lines()));
    return verdict.result(context());
}

::testing::AssertionResult Cell::uploadRefused(const std::string& location,
                                               const std::string& error,
                                               const std::function<bool()>& serverHasFile) {
    String storeError;
    EXPECT_TRUE(
        CLI::STORE_CONFIGURATION_CONTENT("startup-config", CONFIG.c_str(), storeError).isSuccess())
        << storeError.str();
    UploadProvisioningJob job(loop, JOB.c_str(), ProvisioningJob::None, false,
                              {String(location.c_str())}, credentials, resolver, handler);
    XCode result = runJob(job);
    Verdict verdict;
    verdict.check(result.isErr(), "the upload succeeded")
        .check(prov.contains("[TFTP] tftp: server error: " + error), "no \"" + error + "\"")
        .check(!serverHasFile(), "the server holds the file");
    return verdict.result(context());
}

}  // namespace interop
