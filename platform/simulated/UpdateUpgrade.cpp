#include "platform/simulated/UpdateUpgrade.h"

#include <string>
#include <vector>

#include "platform/Cli.h"
#include "platform/KtManifestParser.h"
#include "platform/Monitor.h"
#include "platform/UriUtil.h"

namespace UpdateController {

namespace {

XCode parseManifest(const String& text, KtManifestEntry& entry) {
    KtManifestParser parser;
    XCode result = parser.parse(text);
    if (result.isSuccess()) {
        result = parser.getManifestEntry(entry);
    }
    return result;
}

String versionOf(const KtManifestEntry& entry) {
    return entry.getParam("sw_type") + " " + entry.getParam("sw_version") + " " +
           entry.getParam("sw_build_num");
}

// An absolute URI as it is; a name starting with "/" from the manifest server's root; any other
// name beside the manifest.
XCode resolveImage(const String& manifestUri, const String& image, String& imageUri) {
    if (image.isEmpty()) {
        return XCode::FAILURE_F("IMAGE MISSING IN MANIFEST");
    }
    if (image.indexOf("://") >= 0) {
        imageUri = image;
        return XCode(XCode::SUCCESS);
    }
    String scheme, host, path, error;
    unsigned int port = 0;
    XCode result = UriUtil::splitUri(manifestUri, scheme, host, port, path, error);
    if (result.isErr()) {
        return result.setStringF("CANNOT FETCH %s: %s", manifestUri.c_str(), error.c_str());
    }
    // The manifest's query and fragment are its own: the image lies beside its path.
    const String directory = UriUtil::pathOnly(path);
    String imagePath = image.startsWith("/")
                           ? image
                           : directory.substring(0, directory.lastIndexOf('/') + 1) + image;
    imageUri = UriUtil::buildUri(scheme, host, port, imagePath);
    return result;
}

}  // namespace

void Upgrade::run() {
    XCode result = work_.create();
    if (result.isSuccess()) {
        progress(String::format("working in %s", work_.path().c_str()));
        const String& source = request_.files.front();
        result = source.startsWith(ARCHIVE_PREFIX)
                     ? fromArchive(source.substring(
                           static_cast<int>(std::char_traits<char>::length(ARCHIVE_PREFIX))))
                     : fromUri(source);
    }
    // The work is over, its files included, before the termination is reported.
    work_.remove();
    String text = result.isSuccess() ? summary_ : result.getString();
    // Ignored on purpose: a cancelled upgrade reports nothing.
    static_cast<void>(session_->postTerminated(text, result, imageWritten_, imageWritten_));
}

XCode Upgrade::checkStop() const {
    return session_->stopRequested() ? XCode::FAILURE_F("UPGRADE CANCELLED")
                                     : XCode(XCode::SUCCESS);
}

void Upgrade::progress(const String& text) {
    // Ignored on purpose: a cancelled upgrade reports nothing.
    static_cast<void>(session_->postProgress(text));
}

XCode Upgrade::fromArchive(const String& archive) {
    bool hasImage = false;
    XCode result = EXTRACT_ARCHIVE(*this, archive, work_.path(), hasImage);
    if (result.isErr()) {
        return result;
    }
    String manifest;
    result = readText(work_.file("manifest"), "MANIFEST", manifest);
    if (result.isErr()) {
        return result;
    }
    KtManifestEntry entry;
    XCode parsed = parseManifest(manifest, entry);
    bool namesImage = parsed.isSuccess() && entry.hasParam("image");
    if (!hasImage && !namesImage) {
        return runScript(manifest);
    }
    if (!hasImage) {
        return XCode::FAILURE_F("IMAGE MISSING IN ARCHIVE");
    }
    if (parsed.isErr()) {
        return parsed.extendString("INVALID MANIFEST IN ARCHIVE", ": ");
    }
    return writeImage(work_.file("image"), versionOf(entry));
}

XCode Upgrade::fromUri(const String& uri) {
    const String downloaded = work_.file("download");
    XCode result = FETCH(*this, request_, uri, downloaded);
    if (result.isErr()) {
        return result;
    }
    String text;
    result = readText(downloaded, "DOWNLOADED FILE", text);
    if (result.isErr()) {
        return result;
    }
    KtManifestEntry entry;
    if (parseManifest(text, entry).isErr() || !entry.hasParam("image")) {
        return runScript(text);
    }
    String image = entry.getParam("image");
    image.trim();
    String imageUri;
    result = resolveImage(uri, image, imageUri);
    if (result.isErr()) {
        return result;
    }
    const String imageFile = work_.file("image");
    result = FETCH(*this, request_, imageUri, imageFile);
    if (result.isErr()) {
        return result;
    }
    return writeImage(imageFile, versionOf(entry));
}

XCode Upgrade::writeImage(const String& imageFile, const String& version) {
    XCode result = WRITE_IMAGE(*this, imageFile, version, summary_);
    imageWritten_ = result.isSuccess();
    return result;
}

XCode Upgrade::runScript(const String& script) {
    std::vector<String> lines = script.split('\n');
    progress(String::format("running script of %u lines", static_cast<unsigned int>(lines.size())));
    RTD::Monitor* monitor = RTD::REPOSITORY::GET_MONITOR_IF_ENABLED_FOR_LOGGING(eventMonitor_, 6);
    unsigned int executed = 0;
    for (std::size_t index = 0; index < lines.size(); ++index) {
        String stripped = lines[index];
        stripped.trim();
        if (stripped.isEmpty()) {
            continue;
        }
        XCode result = checkStop();
        if (result.isErr()) {
            return result;
        }
        result = CmdExec::EXECUTE(stripped, true, monitor, 0);
        if (result.isErr()) {
            String reason = result.hasMessage() ? result.getString() : result.toString();
            return result.setStringF("SCRIPT FAILED AT LINE %u: %s",
                                     static_cast<unsigned int>(index + 1), reason.c_str());
        }
        ++executed;
    }
    summary_ = String::format("script executed: %u lines", executed);
    return XCode(XCode::SUCCESS);
}

}  // namespace UpdateController
