#include "engine/Monitors.h"
#include "engine/ProvisioningJob.h"
#include "platform/Device.h"
#include "platform/KtFile.h"

namespace {
constexpr const char* WORK_DIRECTORY = "/tmp/provisioning/";
constexpr int OPEN_WRITE_CREATE = 65;  // O_WRONLY | O_CREAT: the transfer replaces the content
// Only the job reads its work file: a key or a configuration may hold secrets.
constexpr unsigned int WORK_FILE_MODE = 0600;
}  // namespace

XCode ProvisioningJob::createOutFile(const String& locationPath) {
    outFile = WORK_DIRECTORY;
    String beforeParameters;
    String ignored;
    if (!locationPath.split(';', beforeParameters, ignored)) {
        beforeParameters = locationPath;
    }
    String fileName = beforeParameters.substring(beforeParameters.lastIndexOf('/') + 1);
    XCode result;
    if (fileName.isEmpty()) {
        result = testExpression(false).setString("INVALID LOCATION: Cannot download folder");
    } else {
        outFile += fileName;
        result = Device::CHECK_WORK_DIRECTORY();
    }
    if (result.isSuccess()) {
        KtFile file(outFile, true, false);
        result = file.open(OPEN_WRITE_CREATE, WORK_FILE_MODE, KtFile::XO_CLOSE_ON_EXEC);
        if (result.isErr()) {
            result.setStringF("FAILED TO CREATE FILE: %s", outFile.c_str());
        }
    }
    if (result.isErr()) {
        outFile = String();
    }
    return result;
}

void ProvisioningJob::removeOutFile() {
    if (outFile.isEmpty()) {
        return;
    }
    KtFile file(outFile, true, false);
    // A work file that is already gone is what we wanted.
    static_cast<void>(file.remove());
}

void ProvisioningJob::addXferLogEntry(const String& result, const String& detail) {
    if (detail.isEmpty()) {
        ProvLog::log(MON_XFER, ProvLog::LEVEL_PROGRESS, "%s : %s -> %s : %s", name.c_str(),
                     downloadLocation.c_str(), uploadLocation.c_str(), result.c_str());
    } else {
        ProvLog::log(MON_XFER, ProvLog::LEVEL_PROGRESS, "%s : %s -> %s %s : %s", name.c_str(),
                     downloadLocation.c_str(), uploadLocation.c_str(), detail.c_str(),
                     result.c_str());
    }
}
