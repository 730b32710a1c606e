#include "engine/ProvLog.h"
#include "engine/ProvisioningJob.h"
#include "platform/Device.h"
#include "platform/FileNode.h"
#include "platform/KtFile.h"
#include "platform/UriUtil.h"

namespace {
constexpr const char* WORK_DIRECTORY = "/tmp/provisioning/";

// Creates `file` as a new inode. Whatever had the name goes first, without being followed: a
// link planted there (by an archive, or another user) would have the download written wherever
// it points, and an earlier file may still be held open by a tool that outlived its job and
// keeps writing; the job must never store what such a tool writes. A directory under the name
// stays: nothing can be written through it, and the creation fails.
XCode createFreshFile(const String& file) {
    FileNode::Info info;
    XCode result = FileNode::INSPECT(file, info);
    if (result.isSuccess() && info.kind != FileNode::Kind::Directory) {
        result = FileNode::REMOVE_WITHOUT_FOLLOWING(file);
    }
    if (result.isSuccess()) {
        KtFile created(file, true, false);
        // Private to the device's processes: a work file may hold a key or a configuration.
        result = created.open(
            KtFile::WRITE_ONLY | KtFile::CREATE | KtFile::EXCLUSIVE | KtFile::NO_FOLLOW,
            KtFile::MODE_PRIVATE, KtFile::XO_CLOSE_ON_EXEC);
    }
    return result;
}
}  // namespace

String ProvisioningJob::WORK_FILE_NAME(const String& locationPath) {
    // A query or fragment may hold any text, "/" and ";" included: it never names the file.
    const String named = UriUtil::pathOnly(locationPath);
    String beforeParameters;
    String ignored;
    if (!named.split(';', beforeParameters, ignored)) {
        beforeParameters = named;
    }
    return beforeParameters.substring(beforeParameters.lastIndexOf('/') + 1);
}

XCode ProvisioningJob::createOutFile(const String& locationPath) {
    outFile = WORK_DIRECTORY;
    String fileName = WORK_FILE_NAME(locationPath);
    XCode result;
    if (fileName.isEmpty()) {
        result = XCode::FAILURE("INVALID LOCATION: Cannot download folder");
    } else {
        outFile += fileName;
        result = Device::CHECK_WORK_DIRECTORY();
    }
    if (result.isSuccess()) {
        result = createFreshFile(outFile);
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

XCode ProvisioningJob::READ_WORK_FILE(const String& path, String& content, std::size_t cap,
                                      const char* failure) {
    XCode result = FileNode::READ_CAPPED(path, content, cap);
    if (FileNode::IS_TOO_LARGE(result)) {
        result.extendString(failure, ": ");  // the cap stays visible behind the job's text
    } else if (result.isErr()) {
        result.setString(failure);
    }
    return result;
}
