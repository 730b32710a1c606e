#include "jobs/upgrade/UpgradeProvisioningJob.h"

#include <vector>

#include "engine/ProvLog.h"
#include "platform/FileNode.h"
#include "platform/Shell.h"
#include "platform/UriUtil.h"

namespace {
constexpr const char* DESTINATION = "flash:";
constexpr const char* ACTION = "update";
constexpr const char* CALLER = "Provisioning";
constexpr int MINIMUM_TEXT_LENGTH = 20;
}  // namespace

UpgradeProvisioningJob::UpgradeProvisioningJob(KtEventLoop& loop, const String& jobName,
                                               ReloadType reload, bool compare,
                                               const KtList<String>& jobLocations,
                                               const ProvisioningCredentials& jobCredentials,
                                               ExpressionResolver& resolver,
                                               ProvisioningJob::CallbackHandler& handler)
    : ProvisioningJob(loop, jobName, reload, Download, compare, jobLocations, jobCredentials,
                      resolver, handler) {
    uploadLocation = DESTINATION;
}

UpgradeProvisioningJob::~UpgradeProvisioningJob() {
    // A running upgrade goes on in the controller, but reports nothing to a job that is gone.
    UpdateController::CANCEL(this);
}

XCode UpgradeProvisioningJob::chooseFlow(Flow& flow) const {
    // The name the file was fetched under, as the work file has it: a query may name anything.
    const String fileName = WORK_FILE_NAME(path);
    if (fileName.endsWith(".tar")) {
        flow = Flow::Tar;
        return testExpression(true);
    }
    if (fileName.endsWith("manifest")) {
        flow = Flow::Manifest;
        return testExpression(true);
    }
    return XCode::FAILURE("Provisioned file type not supported");
}

XCode UpgradeProvisioningJob::READ_UPGRADE_TEXT(const String& filePath, String& text) {
    XCode result = READ_WORK_FILE(filePath, text, FileNode::MANIFEST_CAP(),
                                  "Cannot read content of downloaded script");
    if (result.isSuccess() && text.length() < MINIMUM_TEXT_LENGTH) {
        return XCode::FAILURE("Size of downloaded script too small");
    }
    return result;
}

XCode UpgradeProvisioningJob::readArchiveManifest(String& text) const {
    // The work file's name comes from the location. The shell splits the unquoted command line
    // at blanks and tabs and drops double quotes, so such a name would hand tar words of the
    // location's choosing ("--to-command=sh" runs the member as a script): refused.
    for (char c : outFile.str()) {
        if (c == ' ' || c == '\t' || c == '"' || c == '\n' || c == '\r') {
            return XCode::FAILURE("INVALID CHARACTER IN ARCHIVE NAME");
        }
    }
    // tar writes through a link it finds under the member's name, and into a directory: nothing
    // of an earlier extraction may stay there.
    XCode result = FileNode::REMOVE_WITHOUT_FOLLOWING(EXTRACTED_MANIFEST);
    if (result.isErr()) {
        return result;
    }
    // Only the member "manifest" is extracted. The command keeps the device's form; GNU tar's
    // defaults already strip a leading "/" and refuse ".." in member names, and the controller
    // checks every member of the archive before it extracts anything itself. The file-size
    // limit stops a member that expands without end (a compressed archive of a few KiB can
    // hold gigabytes) as soon as it passes the manifest cap.
    String command;
    result =
        Kt::Shell::JOIN_WORDS({"tar", "xf", outFile, "-C", EXTRACT_DIRECTORY, "manifest"}, command);
    if (result.isErr()) {
        return result;
    }
    Kt::Shell::Limits limits;
    limits.fileSize = FileNode::MANIFEST_CAP();
    result = Kt::Shell::execute(command, nullptr, limits);
    if (result.isSuccess()) {
        result = CHECK_EXTRACTED_MANIFEST();
    }
    if (result.isSuccess()) {
        result = READ_UPGRADE_TEXT(EXTRACTED_MANIFEST, text);
    }
    if (result.isErr()) {
        // Nothing of a refused or partly written member stays behind. A removal that fails leaves
        // the member to the removal before the next extraction, which then refuses to run tar.
        static_cast<void>(FileNode::REMOVE_WITHOUT_FOLLOWING(EXTRACTED_MANIFEST));
    }
    return result;
}

XCode UpgradeProvisioningJob::CHECK_EXTRACTED_MANIFEST() {
    // tar creates a symbolic or hard link, a directory tree, a FIFO or a device node under the
    // member's name as readily as a file; only a file with one link is read.
    FileNode::Info info;
    XCode result = FileNode::INSPECT(EXTRACTED_MANIFEST, info);
    if (result.isSuccess() && info.kind != FileNode::Kind::Missing &&
        !FileNode::IS_PLAIN_FILE(info)) {
        result = XCode::FAILURE_F("UNSAFE MEMBER IN ARCHIVE: manifest %s",
                                  FileNode::WHY_NOT_PLAIN(info).c_str());
    }
    return result;
}

XCode UpgradeProvisioningJob::readDownloadedManifest(String& text) const {
    return READ_UPGRADE_TEXT(outFile, text);
}

XCode UpgradeProvisioningJob::startUpgradeFromArchive() {
    std::vector<String> files{String::format("file:%s", outFile.c_str()), DESTINATION};
    String output;  // the controller's to fill; not read
    return onUpgradeStarted(
        UpdateController::PERFORM_UPGRADE_IMAGE_JOB(ACTION, files, "", output, CALLER, this));
}

XCode UpgradeProvisioningJob::startUpgradeFromLocation() {
    const char* scheme = nullptr;
    switch (protocol) {
        case 0:
            scheme = "tftp";
            break;
        case 1:
            scheme = "http";
            break;
        case 2:
            scheme = "https";
            break;
        default:
            return XCode::FAILURE("Invalid protocol");
    }
    std::vector<String> files{UriUtil::buildUri(scheme, host, port, UriUtil::withoutFragment(path)),
                              DESTINATION};
    // Only what was obtained for this very origin goes with the manifest's location.
    String user;
    String password;
    heldCredentialsFor(UriUtil::buildOrigin(scheme, host, port), user, password);
    String output;  // the controller's to fill; not read
    return onUpgradeStarted(
        UpdateController::PERFORM_UPGRADE_IMAGE_JOB(ACTION, files, "", user, password, authParam1,
                                                    authParam2, authParam3, output, CALLER, this));
}

XCode UpgradeProvisioningJob::onUpgradeStarted(XCode started) {
    if (started.isSuccess()) {
        asyncPending = true;
    }
    return started;
}

XCode UpgradeProvisioningJob::failUpgrade(XCode result) {
    addXferLogEntry(result.toString(), "");
    return result;
}

void UpgradeProvisioningJob::logUpgradeTerminated(const XCode& result) const {
    if (RTD::REPOSITORY::GET_MONITOR_IF_ENABLED_FOR_LOGGING(MON_PROV, ProvLog::LEVEL_PROGRESS) !=
        nullptr) {
        ProvLog::progress("[%s/Update] Terminated: %s", name.c_str(), result.toString().c_str());
    }
}

void UpgradeProvisioningJob::onUpgradeProgressUpdate(const String& /*text*/) {}
