// libFuzzer target for the HTTP client's analysis of a wget run: onWgetOutput, onWgetResult and
// the parsing members parseResponseLine, getHeaderLine, parseLocationHeader, parseAuthHeader.
//
// Input: the first line describes the result the shell reports and the header the direct
// getHeaderLine call looks for, "<kind><number>[+] [header name]":
//   s success          e exit status <number> (family 0x12)   k killed by signal <number>
//   n system error     h HTTP status <number>                 g the generic failure
//   anything else: the value <number> as it stands
// '+' gives the code a message, as the shell's codes have. The rest of the input is what wget
// printed, in pieces separated by the byte 0x1E; the pieces reach onWgetOutput one by one.
//
// Every outcome, field and log line is compared with a model written here from the contract,
// with std::string only, so that the client and the model do not share a helper.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "engine/Monitors.h"
#include "platform/KtEventLoop.h"
#include "platform/KtFunction.h"
#include "platform/Monitor.h"
#include "transfer/ProvisioningHttpClient.h"

// Reaches the client's shell callbacks and run state without running wget.
struct ProvisioningHttpClientTestHook {
    static void output(ProvisioningHttpClient& client, const String& text) {
        client.onWgetOutput(text);
    }
    static void result(ProvisioningHttpClient& client, XCode result, const String& output) {
        client.onWgetResult(std::move(result), output);
    }
    static void setCompletion(ProvisioningHttpClient& client, Kt::Function<void(XCode)> done) {
        client.completion = std::move(done);
    }
    static const String& responseText(const ProvisioningHttpClient& client) {
        return client.responseText;
    }
    static const String& lineBuffer(const ProvisioningHttpClient& client) {
        return client.lineBuffer;
    }
};

namespace {

using Hook = ProvisioningHttpClientTestHook;

const char* const CLIENT_NAME = "fuzz%s";
const char PIECE_SEPARATOR = '\x1e';
const std::uint32_t GENERIC = 0x7FFFFFFF;

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

std::vector<std::string>& logLines() {
    static std::vector<std::string> lines;
    return lines;
}

RTD::Monitor& captureMonitor() {
    static RTD::Monitor monitor("PROV", 6, [](const RTD::Monitor&, int, const String& line) {
        logLines().push_back(line.str());
    });
    return monitor;
}

// What "%s" makes of a text: everything before the first NUL.
std::string asFormatted(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

// A line as the monitor's sink gets it: control characters from the server escaped.
std::string shown(const std::string& line) {
    return RTD::Monitor::ESCAPE_CONTROLS(String(line)).str();
}

std::string logLine(const std::string& text) {
    return shown(std::string("[") + CLIENT_NAME + "/HTTP] " + asFormatted(text));
}

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string trimmed(const std::string& text) {
    std::size_t first = 0;
    std::size_t last = text.size();
    while (first < last && isSpace(text[first])) {
        ++first;
    }
    while (last > first && isSpace(text[last - 1])) {
        --last;
    }
    return text.substr(first, last - first);
}

// Pieces between delimiter characters, empty ones kept; an empty text has none.
std::vector<std::string> tokens(const std::string& text, const std::string& delimiters) {
    std::vector<std::string> pieces;
    if (text.empty()) {
        return pieces;
    }
    std::size_t start = 0;
    while (true) {
        std::size_t end = text.find_first_of(delimiters, start);
        if (end == std::string::npos) {
            pieces.push_back(text.substr(start));
            return pieces;
        }
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

// Optional sign, decimal digits, at most INT_MAX in magnitude; -1 otherwise.
int integerOf(const std::string& text) {
    std::size_t position = 0;
    bool negative = false;
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
        negative = text[0] == '-';
        position = 1;
    }
    if (position == text.size()) {
        return -1;
    }
    long long value = 0;
    for (; position < text.size(); ++position) {
        if (text[position] < '0' || text[position] > '9') {
            return -1;
        }
        value = value * 10 + (text[position] - '0');
        if (value > 2147483647LL) {
            return -1;
        }
    }
    return static_cast<int>(negative ? -value : value);
}

struct Code {
    std::uint32_t value = 0;
    std::string message;
};

Code failure(const char* message) {
    return Code{GENERIC, message};
}

// XCode::extendString: the new text goes in front.
void extend(Code& code, const std::string& prefix) {
    if (prefix.empty()) {
        return;
    }
    if (code.message.empty()) {
        code.message = prefix;
    } else if (prefix.back() == ' ') {
        code.message = prefix + code.message;
    } else {
        code.message = prefix + ": " + code.message;
    }
}

bool same(const XCode& actual, const Code& expected) {
    return actual.getValue() == expected.value && actual.getString().str() == expected.message;
}

// The client's fields as the contract says they evolve.
struct Model {
    int lastStatus = -1;
    std::string realm;
    std::string scheme;
    std::string location;

    // Where each line of `text` starts; the last line may lack its '\n'.
    static std::vector<std::size_t> lineStarts(const std::string& text) {
        std::vector<std::size_t> starts;
        std::size_t at = 0;
        while (at < text.size()) {
            starts.push_back(at);
            std::size_t newline = text.find('\n', at);
            if (newline == std::string::npos) {
                break;
            }
            at = newline + 1;
        }
        return starts;
    }

    // Start of "HTTP/" on the last line that begins with it after blanks and tabs.
    static std::size_t lastStatusLine(const std::string& text) {
        std::size_t found = std::string::npos;
        for (std::size_t start : lineStarts(text)) {
            std::size_t content = text.find_first_not_of(" \t", start);
            if (content != std::string::npos && text.compare(content, 5, "HTTP/") == 0) {
                found = content;
            }
        }
        return found;
    }

    // Start of `name` on the first line after the status line that carries the status line's
    // indentation and then the name; the response ends at an empty line or another indentation.
    static std::size_t headerOf(const std::string& text, std::size_t status,
                                const std::string& name) {
        std::size_t statusLineStart = text.rfind('\n', status);
        statusLineStart = statusLineStart == std::string::npos ? 0 : statusLineStart + 1;
        const std::string indentation = text.substr(statusLineStart, status - statusLineStart);
        for (std::size_t start : lineStarts(text)) {
            if (start <= status) {
                continue;
            }
            std::size_t content = text.find_first_not_of(" \t", start);
            bool empty =
                content == std::string::npos || text[content] == '\r' || text[content] == '\n';
            if (empty || text.compare(start, indentation.size(), indentation) != 0) {
                return std::string::npos;
            }
            if (content == start + indentation.size() &&
                text.compare(content, name.size(), name) == 0) {
                return content;
            }
        }
        return std::string::npos;
    }

    static bool parseResponseLine(const std::string& text, int& status, std::string& statusLine,
                                  Code& code) {
        std::size_t start = lastStatusLine(text);
        if (start == std::string::npos) {
            code = failure("START OF STATUS LINE NOT FOUND");
            return false;
        }
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            code = failure("END OF STATUS LINE NOT FOUND");
            return false;
        }
        statusLine = text.substr(start, end - start);
        std::vector<std::string> words = tokens(statusLine, " ");
        if (words.size() < 2) {
            code = failure("STATUS CODE NOT FOUND");
            return false;
        }
        int value = integerOf(words[1]);
        if (value == -1) {
            code = failure("FAILED TO PARSE STATUS CODE");
            return false;
        }
        status = value;
        code = Code();
        return true;
    }

    static bool getHeaderLine(const std::string& text, const std::string& name, std::string& line,
                              Code& code) {
        std::size_t response = lastStatusLine(text);
        if (response == std::string::npos) {
            code = failure("START OF STATUS LINE NOT FOUND");
            return false;
        }
        std::size_t start = headerOf(text, response, name);
        if (start == std::string::npos) {
            code = failure("START OF HEADER NOT FOUND");
            return false;
        }
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            code = failure("END OF HEADER LINE NOT FOUND");
            return false;
        }
        line = text.substr(start, end - start);
        code = Code();
        return true;
    }

    bool parseLocationHeader(const std::string& text, Code& code) {
        std::string line;
        if (!getHeaderLine(text, "Location:", line, code)) {
            return false;
        }
        std::size_t blank = line.find(' ');
        if (blank == std::string::npos) {
            code = failure("MISSING WSP");
            return false;
        }
        location = trimmed(line.substr(blank));
        return true;
    }

    bool parseAuthHeader(const std::string& text, Code& code) {
        std::string line;
        if (!getHeaderLine(text, "WWW-Authenticate:", line, code)) {
            return false;
        }
        std::size_t blank = line.find(' ');
        if (blank == std::string::npos) {
            code = failure("MISSING WSP");
            return false;
        }
        line = trimmed(line.substr(blank));
        blank = line.find(' ');
        if (blank == std::string::npos) {
            code = failure("MISSING WSP");
            return false;
        }
        scheme = line.substr(0, blank);
        line = trimmed(line.substr(blank));
        for (const std::string& parameter : tokens(line, ",")) {
            std::vector<std::string> nameValue = tokens(trimmed(parameter), "=");
            std::string name = nameValue.empty() ? std::string() : nameValue[0];
            std::string value = nameValue.size() < 2 ? std::string() : nameValue[1];
            if (name == "realm") {
                // The first and the last character go, quotes or not.
                realm = value.size() < 2 ? std::string() : value.substr(1, value.size() - 2);
                break;
            }
        }
        return true;
    }

    static const char* exitStatusText(std::uint32_t status) {
        static const char* const TEXTS[] = {
            "OK",
            "GENERIC ERROR",
            "PARSE ERROR",
            "FILE I/O ERROR",
            "NETWORK FAILURE (NO NAME SERVER, NO ROUTE TO HOST, OR TRANSFER FAILED)",
            "UNKNOWN ERROR",
            "USERNAME/PASSWORD AUTHENTICATION FAILURE",
            "HTTP PROTOCOL ERRORS",
            "HTTP-SERVER-GENERATED ERROR",
        };
        return status < 9 ? TEXTS[status] : "UNKNOWN ERROR";
    }

    Code onWgetResult(const Code& result, const std::string& text) {
        Code outcome;
        std::string statusLine;
        if (result.value == 0) {
            if (parseResponseLine(text, lastStatus, statusLine, outcome) && lastStatus != 200 &&
                lastStatus != 201) {
                outcome = Code{GENERIC, ""};
                extend(outcome, "STATUS IS NOT 200 OK or 201 CREATED: " + asFormatted(statusLine));
            }
            return outcome;
        }
        if ((result.value >> 24) != 0x12) {
            return result;
        }
        std::uint32_t exitStatus = result.value & 0xFFFFFF;
        if (exitStatus == 6) {
            if (!parseResponseLine(text, lastStatus, statusLine, outcome)) {
                return outcome;
            }
            if (lastStatus == 401) {
                if (parseAuthHeader(text, outcome)) {
                    outcome = Code{(0x14U << 24) | 401U, ""};
                }
                return outcome;
            }
            outcome = Code{GENERIC, ""};
            extend(outcome, "UNHANDLED AUTH RESPONSE STATUS: " + asFormatted(statusLine));
            return outcome;
        }
        if (exitStatus == 8 || exitStatus == 1) {
            if (!parseResponseLine(text, lastStatus, statusLine, outcome)) {
                return outcome;
            }
            if (lastStatus == 301 || lastStatus == 302) {
                if (parseLocationHeader(text, outcome)) {
                    outcome = Code{(0x14U << 24) | 302U, ""};
                }
                return outcome;
            }
            outcome = result;
            extend(outcome, "UNHANDLED ERROR RESPONSE STATUS: " + asFormatted(statusLine));
            return outcome;
        }
        outcome = result;
        extend(outcome, exitStatusText(exitStatus));
        return outcome;
    }
};

void checkFields(const ProvisioningHttpClient& client, const Model& model) {
    check(client.getLastStatus() == model.lastStatus);
    check(client.getRealm().str() == model.realm);
    check(client.getAuthScheme().str() == model.scheme);
    check(client.getLocation().str() == model.location);
}

// The shell's result as the first input line describes it; `code` mirrors it for the model.
XCode shellResult(const std::string& header, Code& code, std::string& headerName) {
    std::size_t position = 1;
    std::uint32_t number = 0;
    while (position < header.size() && header[position] >= '0' && header[position] <= '9') {
        number = (number * 10 + static_cast<std::uint32_t>(header[position] - '0')) & 0xFFFFFF;
        ++position;
    }
    bool withMessage = position < header.size() && header[position] == '+';
    std::size_t blank = header.find(' ');
    if (blank != std::string::npos) {
        headerName = header.substr(blank + 1);
    }
    XCode result;
    switch (header.empty() ? 's' : header[0]) {
        case 's':
            result = XCode();
            break;
        case 'e':
            result = XCode::family(XCode::EXIT_STATUS_FAMILY, number);
            break;
        case 'k':
            result = XCode::family(XCode::SIGNAL_FAMILY, number);
            break;
        case 'n':
            result = XCode::family(XCode::ERRNO_FAMILY, number);
            break;
        case 'h':
            result = XCode::httpStatus(static_cast<int>(number));
            break;
        case 'g':
            result = XCode(XCode::GENERIC_FAILURE);
            break;
        default:
            result = XCode(number);
            break;
    }
    if (withMessage) {
        result.setStringF("wget EXITED WITH STATUS %u", number);
    }
    code.value = result.getValue();
    code.message = result.getString().str();
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::size_t headerEnd = input.find('\n');
    const std::string header = headerEnd == std::string::npos ? input : input.substr(0, headerEnd);
    const std::string body =
        headerEnd == std::string::npos ? std::string() : input.substr(headerEnd + 1);

    MON_PROV = &captureMonitor();
    logLines().clear();
    KtEventLoop loop;
    ProvisioningHttpClient client(CLIENT_NAME, "oem", "model", "serial", "sw", "hw", "rev", loop);
    Model model;
    checkFields(client, model);

    // Output, piece by piece: the log lines and what is kept back do not depend on the pieces.
    std::string text;
    std::size_t start = 0;
    while (true) {
        std::size_t end = body.find(PIECE_SEPARATOR, start);
        const std::string piece = body.substr(start, end == std::string::npos ? end : end - start);
        text += piece;
        Hook::output(client, String(piece));
        check(Hook::responseText(client).str() == text);
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    std::vector<std::string> expectedLines;
    std::string kept = text;
    std::vector<std::string> lines = tokens(text, "\r\n");
    if (lines.size() > 1) {
        for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
            if (!lines[i].empty()) {
                expectedLines.push_back(logLine(lines[i]));
            }
        }
        kept = lines.back();
    }
    check(logLines() == expectedLines);
    check(Hook::lineBuffer(client).str() == kept);
    checkFields(client, model);

    // The result: one completion with the outcome, the fields, and the log lines around it.
    Code resultCode;
    std::string headerName = "Location:";
    XCode result = shellResult(header, resultCode, headerName);
    logLines().clear();
    int completions = 0;
    XCode outcome;
    // The completion replaces the stored one first, as a completion that starts the next run on
    // the same client does; the client must not be running the replaced one when it goes.
    Hook::setCompletion(client, Kt::Function<void(XCode)>(Kt::directCall(), [&](XCode code) {
                            Hook::setCompletion(client, Kt::Function<void(XCode)>());
                            ++completions;
                            outcome = std::move(code);
                        }));
    Hook::result(client, result, "ignored output");
    const Code expected = model.onWgetResult(resultCode, text);
    check(completions == 1);
    check(same(outcome, expected));
    checkFields(client, model);
    check(!logLines().empty());
    check(logLines().front() ==
          logLine("Handle result of wget: " + result.toString().str() + "\n" + asFormatted(text)));
    if (expected.message.empty()) {
        check(logLines().size() == 1);
    } else {
        check(logLines().size() == 2);
        check(logLines().back() == logLine(expected.message));
    }

    // The parsing members on their own, on the same client: what they leave untouched stays.
    const String response(text);
    int status = 12345;
    String statusLine("untouched");
    int modelStatus = 12345;
    std::string modelStatusLine = "untouched";
    Code code;
    Model::parseResponseLine(text, modelStatus, modelStatusLine, code);
    check(same(client.parseResponseLine(response, status, statusLine), code));
    check(status == modelStatus);
    check(statusLine.str() == modelStatusLine);

    String line("untouched");
    std::string modelLine = "untouched";
    Model::getHeaderLine(text, headerName, modelLine, code);
    check(same(client.getHeaderLine(response, String(headerName), line), code));
    check(line.str() == modelLine);

    model.parseLocationHeader(text, code);
    check(same(client.parseLocationHeader(response), code));
    model.parseAuthHeader(text, code);
    check(same(client.parseAuthHeader(response), code));
    checkFields(client, model);

    MON_PROV = nullptr;
    return 0;
}
