#include "platform/Shell.h"
#include "platform/simulated/UpdateSteps.h"

namespace UpdateController {

namespace {

// A member name as `tar --quoting-style=c` lists it: false for lines that are not a quoted name.
// Only the quote and the backslash are unescaped; other escapes stand for characters that are
// neither '/' nor '.', so they are kept as they are.
bool unquoteMember(const String& line, String& member) {
    if (line.length() < 2 || !line.startsWith("\"") || !line.endsWith("\"")) {
        return false;
    }
    member = String();
    for (int i = 1; i < line.length() - 1; ++i) {
        char c = line.at(i);
        if (c == '\\' && i + 1 < line.length() - 1 &&
            (line.at(i + 1) == '"' || line.at(i + 1) == '\\')) {
            c = line.at(++i);
        }
        member += c;
    }
    return true;
}

bool isUnsafeMember(const String& member) {
    if (member.startsWith("/")) {
        return true;
    }
    for (const String& component : member.split('/')) {
        if (component == "..") {
            return true;
        }
    }
    return false;
}

// Every member checked; which of the two wanted ones the archive has.
XCode listArchive(const String& archive, bool& hasManifest, bool& hasImage) {
    // C quoting puts every name in double quotes, so that tar's own diagnostics (which share
    // the output) cannot be taken for member names.
    String command;
    if (Kt::Shell::JOIN_WORDS({"tar", "--quoting-style=c", "-t", "-f", archive}, command).isErr()) {
        return XCode::FAILURE_F("INVALID ARCHIVE NAME %s", archive.c_str());
    }
    String listing;
    XCode result = Kt::Shell::execute(command, &listing);
    if (result.isErr()) {
        return result.setStringF("CANNOT LIST ARCHIVE %s: %s", archive.c_str(),
                                 describeToolFailure(result, listing).c_str());
    }
    hasManifest = false;
    hasImage = false;
    for (const String& line : listing.split('\n')) {
        String member;
        if (!unquoteMember(line, member)) {
            continue;
        }
        if (isUnsafeMember(member)) {
            return XCode::FAILURE_F("UNSAFE MEMBER IN ARCHIVE: %s", member.c_str());
        }
        hasManifest = hasManifest || member == "manifest";
        hasImage = hasImage || member == "image";
    }
    return XCode(XCode::SUCCESS);
}

}  // namespace

XCode EXTRACT_ARCHIVE(StepContext& context, const String& archive, const String& directory,
                      bool& hasImage) {
    bool hasManifest = false;
    XCode result = listArchive(archive, hasManifest, hasImage);
    if (result.isErr()) {
        return result;
    }
    if (!hasManifest) {
        return XCode::FAILURE_F("MANIFEST MISSING IN ARCHIVE");
    }
    result = context.checkStop();
    if (result.isErr()) {
        return result;
    }
    // The directory is the upgrade's own and fresh; only the two named members are extracted.
    // Neither word holds a double quote: the archive's was checked by the listing, and the
    // directory's name is mkdtemp's.
    std::vector<String> words = {"tar", "xf", archive, "-C", directory, "manifest"};
    if (hasImage) {
        words.push_back("image");
    }
    String command;
    result = Kt::Shell::JOIN_WORDS(words, command);
    String output;
    if (result.isSuccess()) {
        result = Kt::Shell::execute(command, &output);
    }
    if (result.isErr()) {
        return result.setStringF("CANNOT EXTRACT ARCHIVE %s: %s", archive.c_str(),
                                 describeToolFailure(result, output).c_str());
    }
    return result;
}

}  // namespace UpdateController
