#include "jobs/content/FlashFile.h"

#include "engine/ProvLog.h"

#include "platform/FileNode.h"
#include "platform/KtFile.h"

namespace FlashFile {

XCode READ_DOWNLOADED(const String& workFile, String& content) {
    return ProvisioningJob::READ_WORK_FILE(workFile, content, FileNode::CONTENT_CAP(),
                                           "Cannot read content of downloaded file");
}

bool UNCHANGED(const char* name, bool compare, const String& target, const String& downloaded,
               const char* what, const char* equal) {
    if (!compare) {
        ProvLog::progress("[%s] No %s comparison is done", name, what);
        return false;
    }
    String stored;
    XCode read = READ_STORED(target, stored);
    if (read.isErr()) {
        ProvLog::progress("[%s] No stored %s: %s", name, what, read.toString().c_str());
        return false;
    }
    if (stored != downloaded) {
        return false;
    }
    ProvLog::progress("[%s] Downloaded and stored %s are equal", name, equal);
    return true;
}

XCode READ_STORED(const String& devicePath, String& content) {
    return KtFile::READ_TEXT_FILE<String>(devicePath, content, KtFile::READ_ONLY, true, true);
}

XCode STORE(const String& devicePath, const String& content, unsigned int mode) {
    // A name from a server that names a folder ("", ".", "..") is never written.
    String fileName = LAST_COMPONENT(devicePath, '/');
    if (fileName.isEmpty() || fileName == "." || fileName == "..") {
        return XCode::FAILURE_F("INVALID FILE NAME: %s", devicePath.c_str());
    }
    KtFile file(devicePath, true, false);
    XCode result = file.open(KtFile::WRITE_CREATE_TRUNCATE, mode, KtFile::XO_CLOSE_ON_EXEC);
    if (result.isSuccess()) {
        result = file.writeFixedSizeBlocking(content.data(),
                                             static_cast<unsigned int>(content.length()), true);
    }
    if (result.isSuccess()) {
        result = file.close();
    }
    return result;
}

String LAST_COMPONENT(const String& text, char separator) {
    return text.substring(text.lastIndexOf(separator) + 1);
}

}  // namespace FlashFile
