// libFuzzer target for CmdExec::EXECUTE, the simulated running system that executes what a server
// sent after an HTTP 201 and the lines of a script.
//
// Input: a configuration text. When its first line starts with "#!" (a comment to the executor),
// the rest of that line is a list of rejected patterns separated by '|'.
//
// Both with and without stopOnError, the outcome equals a model written here from the contract:
// "!" and "#" lines and blank lines are skipped; an indented line is a sub-command and refused
// before any command; a line holding a control character other than tab (a carriage return may
// end it) is refused; a line that a pattern matches (fnmatch, no flags, against the line without
// indentation and trailing blanks) is refused. The failure names the first refused line's number
// and holds no control character; the lines logged are those run; running-config receives the
// run lines with their indentation, and only when nothing was refused.

#include <fnmatch.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/Cli.h"
#include "platform/Monitor.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedCmdExec.h"

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

struct Outcome {
    bool ok = true;
    std::size_t failedLine = 0;  // 1-based
    std::string failedCommand;
    std::vector<std::string> logged;
    std::string recorded;
};

std::vector<std::string> splitAt(const std::string& text, char separator) {
    std::vector<std::string> pieces;
    std::size_t begin = 0;
    while (true) {
        const std::size_t found = text.find(separator, begin);
        pieces.push_back(text.substr(begin, found - begin));
        if (found == std::string::npos) {
            return pieces;
        }
        begin = found + 1;
    }
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

bool isControl(unsigned char c) {
    return (c < 0x20 && c != '\t') || c == 0x7F;
}

bool holdsControl(const std::string& text) {
    for (char c : text) {
        if (isControl(static_cast<unsigned char>(c))) {
            return true;
        }
    }
    return false;
}

bool isPrintableAscii(const std::string& text) {
    for (char c : text) {
        if (c < 0x20 || c > 0x7E) {
            return false;
        }
    }
    return true;
}

bool matchesAny(const std::string& command, const std::vector<std::string>& patterns) {
    for (const std::string& pattern : patterns) {
        if (::fnmatch(pattern.c_str(), command.c_str(), 0) == 0) {
            return true;
        }
    }
    return false;
}

Outcome model(const std::string& text, const std::vector<std::string>& patterns, bool stop) {
    Outcome outcome;
    bool afterCommand = false;
    const std::vector<std::string> lines = splitAt(text, '\n');
    for (std::size_t index = 0; index < lines.size(); ++index) {
        std::string line = lines[index];
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        std::string recorded = line;
        while (!recorded.empty() && isBlank(recorded.back())) {
            recorded.pop_back();
        }
        std::size_t start = 0;
        while (start < recorded.size() && isBlank(recorded[start])) {
            ++start;
        }
        const std::string command = recorded.substr(start);
        const bool control = holdsControl(line);
        if (!control && (command.empty() || command[0] == '!' || command[0] == '#')) {
            continue;
        }
        const bool sub = start > 0;
        afterCommand = afterCommand || (!control && !sub);
        const bool refused = control || (sub && !afterCommand) || matchesAny(command, patterns);
        if (refused) {
            if (outcome.ok) {
                outcome.ok = false;
                outcome.failedLine = index + 1;
                outcome.failedCommand = command;
            }
            if (stop) {
                break;
            }
            continue;
        }
        outcome.logged.push_back("[CmdExec] " + command);
        outcome.recorded += recorded + "\n";
    }
    return outcome;
}

std::vector<std::string> patternsOf(const std::string& input) {
    if (input.compare(0, 2, "#!") != 0) {
        return {};
    }
    return splitAt(input.substr(2, input.find('\n') - 2), '|');
}

void removeDeviceDirectory();

// Made and set as the device root once: every root ever set is kept for the life of the process.
// Never destroyed, so that the removal at exit can still name it.
const std::string& deviceDirectory() {
    static const std::string* directory = [] {
        char name[] = "/tmp/prov-fuzz-cmdexec-XXXXXX";
        check(::mkdtemp(name) != nullptr);
        Device::SET_ROOT(name);
        std::atexit(removeDeviceDirectory);
        return new std::string(name);
    }();
    return *directory;
}

void removeDeviceDirectory() {
    ::unlink((deviceDirectory() + "/running-config").c_str());
    ::rmdir(deviceDirectory().c_str());
}

bool readFile(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::stringstream buffer;
    buffer << in.rdbuf();
    content = buffer.str();
    return true;
}

void checkRun(const std::string& input, bool stop) {
    const std::vector<std::string> patterns = patternsOf(input);
    const Outcome expected = model(input, patterns, stop);
    const std::string running = deviceDirectory() + "/running-config";
    ::unlink(running.c_str());

    std::vector<std::string> logged;
    RTD::Monitor monitor("FUZZ", 6, [&logged](const RTD::Monitor&, int level, const String& line) {
        check(level == 6);
        logged.push_back(line.str());
    });
    std::vector<String> rejected;
    for (const std::string& pattern : patterns) {
        rejected.emplace_back(pattern);
    }
    CmdExec::SET_REJECTED_COMMANDS(rejected);
    const XCode result = CmdExec::EXECUTE(String(input), stop, &monitor, 0);

    check(result.isSuccess() == expected.ok);
    if (!expected.ok) {
        check(result.getValue() == XCode::GENERIC_FAILURE);
        const std::string message = result.getString().str();
        const std::string prefix =
            "EXECUTION FAILED AT LINE " + std::to_string(expected.failedLine) + ": ";
        check(message.compare(0, prefix.size(), prefix) == 0);
        check(!holdsControl(message));
        if (isPrintableAscii(expected.failedCommand)) {
            check(message == prefix + expected.failedCommand);
        }
    }
    // The monitor escapes what is not printable UTF-8; plain lines arrive as they are.
    check(logged.size() == expected.logged.size());
    for (std::size_t i = 0; i < logged.size(); ++i) {
        if (isPrintableAscii(expected.logged[i])) {
            check(logged[i] == expected.logged[i]);
        }
    }
    std::string content;
    const bool written = readFile(running, content);
    check(written == (expected.ok && !expected.recorded.empty()));
    check(!written || content == expected.recorded);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    checkRun(input, true);
    checkRun(input, false);
    CmdExec::SET_REJECTED_COMMANDS({});
    return 0;
}
