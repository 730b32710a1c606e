#include "Cli.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <vector>

#include "Device.h"
#include "KtFile.h"

namespace {

XCode failure(String& error, const String& text) {
    error = text;
    XCode code(XCode::GENERIC_FAILURE);
    return code.setString(text);
}

// The system's reason for a failed file operation: strerror of its errno, or its own message.
String reasonOf(const XCode& code) {
    if (code.getFamily() == XCode::ERRNO_FAMILY) {
        return std::strerror(static_cast<int>(code.getDetail()));
    }
    return code.getString();
}

// The host path of a stored configuration. Refused: a name that could reach outside config/,
// and any name while no device directory is set.
XCode configurationPath(const String& name, String& path, String& error) {
    if (name.isEmpty() || name.indexOf('/') >= 0 || name.indexOf("..") >= 0) {
        return failure(error, String::format("Invalid configuration name '%s'", name.c_str()));
    }
    if (Device::ROOT().isEmpty()) {
        return failure(error,
                       String::format("No device directory for configuration '%s'", name.c_str()));
    }
    path = Device::ROOT() + "/config/" + name;
    return XCode::SUCCESS;
}

}  // namespace

namespace CLI {

String GET_STARTUP_CONFIGURATION_NAME() {
    return "startup-config";
}

XCode GET_CONFIGURATION_CONTENT(const String& name, String& content, String& error) {
    String path;
    XCode result = configurationPath(name, path, error);
    if (result.isErr()) {
        return result;
    }
    String stored;
    result = KtFile::READ_TEXT_FILE<String>(path, stored, O_RDONLY, false, true);
    if (result.isErr()) {
        if (result.getFamily() == XCode::ERRNO_FAMILY && result.getDetail() == ENOENT) {
            return failure(error, String::format("No configuration '%s' stored", name.c_str()));
        }
        return failure(error, String::format("Cannot read configuration '%s': %s", name.c_str(),
                                             reasonOf(result).c_str()));
    }
    content = stored;
    return XCode::SUCCESS;
}

XCode STORE_CONFIGURATION_CONTENT(const String& name, const String& content, String& error) {
    String path;
    XCode result = configurationPath(name, path, error);
    if (result.isErr()) {
        return result;
    }
    result = KtFile::WRITE_TEXT_FILE(path, content, false);
    if (result.isErr()) {
        return failure(error, String::format("Cannot store configuration '%s': %s", name.c_str(),
                                             reasonOf(result).c_str()));
    }
    return XCode::SUCCESS;
}

}  // namespace CLI

namespace {

// First words of the commands that the device's configuration language knows at top level.
const std::set<String>& knownCommands() {
    static const std::set<String> words = {
        "cli",     "context",  "port",      "interface",     "profile",     "system",
        "service", "ip",       "dial-plan", "sip",           "gateway",     "bind",
        "use",     "hostname", "ntp",       "dns",           "snmp",        "webserver",
        "exit",    "config",   "no",        "administrator", "operator",    "timezone",
        "date",    "clock",    "sntp",      "routing-table", "call-router", "mapping-table",
        "voip",    "pstn",     "isdn",      "tone-set",      "codec"};
    return words;
}

String firstWord(const String& line) {
    int end = 0;
    while (end < line.length() && line.at(end) != ' ' && line.at(end) != '\t') {
        ++end;
    }
    return line.substring(0, end);
}

// Serialises the read-modify-write of running-config between callers on different threads.
std::mutex& runningConfigMutex() {
    static std::mutex mutex;
    return mutex;
}

}  // namespace

namespace CmdExec {

XCode EXECUTE(const String& commands, bool stopOnError, RTD::Monitor* monitor, int /*flags*/) {
    String executed;
    XCode result;
    const std::vector<String> lines = commands.split('\n');
    for (std::size_t index = 0; index < lines.size(); ++index) {
        String line = lines[index];
        line.trim();
        if (line.isEmpty() || line.startsWith("!") || line.startsWith("#")) {
            continue;
        }
        if (knownCommands().count(firstWord(line)) == 0) {
            if (result.isSuccess()) {
                result = XCode::GENERIC_FAILURE;
                result.setStringF("EXECUTION FAILED AT LINE %u: %s",
                                  static_cast<unsigned int>(index + 1), line.c_str());
            }
            if (stopOnError) {
                break;
            }
            continue;
        }
        if (monitor != nullptr) {
            monitor->monitor(6, "[CmdExec] %s", line.c_str());
        }
        executed += line;
        executed += "\n";
    }
    if (result.isErr() || executed.isEmpty() || Device::ROOT().isEmpty()) {
        return result;
    }

    std::lock_guard<std::mutex> lock(runningConfigMutex());
    const String path = Device::ROOT() + "/running-config";
    String running;
    XCode read = KtFile::READ_TEXT_FILE<String>(path, running, O_RDONLY, false, true);
    if (read.isErr() && !(read.getFamily() == XCode::ERRNO_FAMILY && read.getDetail() == ENOENT)) {
        return read.extendString("CANNOT UPDATE RUNNING CONFIGURATION", ": ");
    }
    XCode written = KtFile::WRITE_TEXT_FILE(path, running + executed, false);
    if (written.isErr()) {
        return written.extendString("CANNOT UPDATE RUNNING CONFIGURATION", ": ");
    }
    return XCode::SUCCESS;
}

}  // namespace CmdExec
