#include "host/HttpsFiles.h"

#include "platform/FileNode.h"
#include "platform/KtFile.h"

namespace Provctl {

namespace {

XCode refused(const char* option, const String& path, const String& why) {
    return XCode::FAILURE_F("%s %s: %s", option, path.c_str(), why.c_str());
}

// Opens the file and reads one block of it. A FIFO or device is refused before it is opened: the
// open would wait for a writer.
XCode checkReadable(const char* option, const String& path) {
    FileNode::Info info;
    XCode inspected = FileNode::INSPECT(path, info);
    if (inspected.isErr()) {
        return refused(option, path, inspected.getString());
    }
    if (info.kind == FileNode::Kind::Missing) {
        return refused(option, path, "no such file");
    }
    if (info.kind != FileNode::Kind::Regular && info.kind != FileNode::Kind::SymbolicLink) {
        return refused(option, path, String("is ") + FileNode::KIND_NAME(info.kind));
    }
    KtFile file(path);
    XCode result = file.open(KtFile::READ_ONLY, 0, KtFile::XO_NONE);
    if (result.isSuccess()) {
        String block;
        bool eof = false;
        result = file.read(block, eof, false);
    }
    static_cast<void>(file.close());
    return result.isErr() ? refused(option, path, result.getString()) : XCode::SUCCESS;
}

}  // namespace

XCode CHECK_HTTPS_FILES(const DeviceSettings& settings) {
    if (!settings.httpsGiven) {
        return XCode::SUCCESS;
    }
    const struct {
        const char* option;
        const String& path;
    } files[] = {{"--ca-certificate", settings.httpsCa},
                 {"--certificate", settings.httpsCert},
                 {"--private-key", settings.httpsKey}};
    for (const auto& file : files) {
        if (file.path.isEmpty()) {
            continue;
        }
        XCode result = checkReadable(file.option, file.path);
        if (result.isErr()) {
            return result;
        }
    }
    return XCode::SUCCESS;
}

}  // namespace Provctl
