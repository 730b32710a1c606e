#include "platform/Cli.h"

#include <fcntl.h>
#include <fnmatch.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/KtFile.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedCmdExec.h"

namespace {

XCode failWith(String& error, const String& text) {
    error = text;
    return XCode::FAILURE(text);
}

// The system's reason for a failed file operation: strerror of its errno, or its own message.
String reasonOf(const XCode& code) {
    if (code.getFamily() == XCode::ERRNO_FAMILY) {
        return XCode::REASON(static_cast<int>(code.getDetail()));
    }
    return code.getString();
}

// The host path of a stored configuration. Refused: a name that could reach outside config/,
// and any name while no device directory is set.
XCode configurationPath(const String& name, String& path, String& error) {
    if (name.isEmpty() || name.indexOf('/') >= 0 || name.indexOf("..") >= 0) {
        return failWith(error, String::format("Invalid configuration name '%s'", name.c_str()));
    }
    if (Device::ROOT().isEmpty()) {
        return failWith(error,
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
    result = KtFile::READ_TEXT_FILE<String>(path, stored, KtFile::READ_ONLY, false, true);
    if (result.isErr()) {
        if (result.getFamily() == XCode::ERRNO_FAMILY && result.getDetail() == ENOENT) {
            return failWith(error, String::format("No configuration '%s' stored", name.c_str()));
        }
        return failWith(error, String::format("Cannot read configuration '%s': %s", name.c_str(),
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
        return failWith(error, String::format("Cannot store configuration '%s': %s", name.c_str(),
                                              reasonOf(result).c_str()));
    }
    return XCode::SUCCESS;
}

}  // namespace CLI

namespace {

// One line of a configuration text as the running system sees it.
struct ConfigLine {
    enum Kind { Skipped, Command, SubCommand, Malformed };
    Kind kind = Skipped;
    String recorded;  // for running-config: indentation kept, trailing blanks dropped
    String command;   // without indentation: what is logged, matched and named in a failure
};

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// A control character would reach running-config, the logs and the failure message as it is;
// a tab is indentation or a separator, and a carriage return may end a line (CRLF texts).
bool holdsControlCharacter(const String& line) {
    for (int at = 0; at < line.length(); ++at) {
        const auto byte = static_cast<unsigned char>(line.at(at));
        if ((byte < 0x20 && byte != '\t') || byte == 0x7F) {
            return true;
        }
    }
    return false;
}

String withoutTrailingBlanks(const String& line) {
    int end = line.length();
    while (end > 0 && isBlank(line.at(end - 1))) {
        --end;
    }
    return line.substring(0, end);
}

String withoutIndentation(const String& line) {
    int start = 0;
    while (start < line.length() && isBlank(line.at(start))) {
        ++start;
    }
    return line.substring(start);
}

ConfigLine readConfigLine(const String& raw) {
    String line = raw.endsWith("\r") ? raw.substring(0, raw.length() - 1) : raw;
    ConfigLine parsed;
    parsed.recorded = withoutTrailingBlanks(line);
    parsed.command = withoutIndentation(parsed.recorded);
    if (holdsControlCharacter(line)) {
        parsed.kind = ConfigLine::Malformed;
    } else if (parsed.command.isEmpty() || parsed.command.startsWith("!") ||
               parsed.command.startsWith("#")) {
        parsed.kind = ConfigLine::Skipped;
    } else {
        parsed.kind = isBlank(line.at(0)) ? ConfigLine::SubCommand : ConfigLine::Command;
    }
    return parsed;
}

std::mutex& rejectedMutex() {
    static std::mutex mutex;
    return mutex;
}

std::vector<String>& rejectedPatterns() {
    static std::vector<String> patterns;
    return patterns;
}

std::vector<String> currentRejectedPatterns() {
    std::lock_guard<std::mutex> lock(rejectedMutex());
    return rejectedPatterns();
}

bool isRejected(const String& command, const std::vector<String>& patterns) {
    for (const String& pattern : patterns) {
        if (::fnmatch(pattern.c_str(), command.c_str(), 0) == 0) {
            return true;
        }
    }
    return false;
}

// A sub-command belongs to the command above it; one before any command has none.
bool isExecutable(const ConfigLine& line, bool afterCommand, const std::vector<String>& rejected) {
    if (line.kind == ConfigLine::Malformed ||
        (line.kind == ConfigLine::SubCommand && !afterCommand)) {
        return false;
    }
    return !isRejected(line.command, rejected);
}

XCode executionFailure(std::size_t index, const ConfigLine& line) {
    return XCode::FAILURE_F("EXECUTION FAILED AT LINE %u: %s", static_cast<unsigned int>(index + 1),
                            RTD::Monitor::ESCAPE_CONTROLS(line.command).c_str());
}

// Serialises the read-modify-write of running-config between callers on different threads.
std::mutex& runningConfigMutex() {
    static std::mutex mutex;
    return mutex;
}

XCode appendToRunningConfig(const String& executed) {
    std::lock_guard<std::mutex> lock(runningConfigMutex());
    const String path = Device::ROOT() + "/running-config";
    String running;
    XCode read = KtFile::READ_TEXT_FILE<String>(path, running, KtFile::READ_ONLY, false, true);
    if (read.isErr() && !(read.getFamily() == XCode::ERRNO_FAMILY && read.getDetail() == ENOENT)) {
        return read.extendString("CANNOT UPDATE RUNNING CONFIGURATION", ": ");
    }
    XCode written = KtFile::WRITE_TEXT_FILE(path, running + executed, false);
    if (written.isErr()) {
        return written.extendString("CANNOT UPDATE RUNNING CONFIGURATION", ": ");
    }
    return XCode::SUCCESS;
}

}  // namespace

namespace CmdExec {

void SET_REJECTED_COMMANDS(std::vector<String> patterns) {
    std::lock_guard<std::mutex> lock(rejectedMutex());
    rejectedPatterns() = std::move(patterns);
}

XCode EXECUTE(const String& commands, bool stopOnError, RTD::Monitor* monitor, int /*flags*/) {
    const std::vector<String> rejected = currentRejectedPatterns();
    String executed;
    XCode result;
    bool afterCommand = false;
    const std::vector<String> lines = commands.split('\n');
    for (std::size_t index = 0; index < lines.size(); ++index) {
        const ConfigLine line = readConfigLine(lines[index]);
        if (line.kind == ConfigLine::Skipped) {
            continue;
        }
        afterCommand = afterCommand || line.kind == ConfigLine::Command;
        if (!isExecutable(line, afterCommand, rejected)) {
            if (result.isSuccess()) {
                result = executionFailure(index, line);
            }
            if (stopOnError) {
                break;
            }
            continue;
        }
        if (monitor != nullptr) {
            monitor->monitor(6, "[CmdExec] %s", line.command.c_str());
        }
        executed += line.recorded;
        executed += "\n";
    }
    if (result.isErr() || executed.isEmpty() || Device::ROOT().isEmpty()) {
        return result;
    }
    return appendToRunningConfig(executed);
}

}  // namespace CmdExec
