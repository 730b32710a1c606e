#include "jobs/content/FlashFile.h"

#include "platform/FileNode.h"
#include "platform/KtFile.h"

namespace FlashFile {

XCode READ_DOWNLOADED(const String& workFile, String& content) {
    return ProvisioningJob::READ_WORK_FILE(workFile, content, FileNode::CONTENT_CAP(),
                                           "Cannot read content of downloaded file");
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
