// ProvisioningHttpClient's response analysis: what wget printed and how it ended, turned into the
// one result of a run (success, the HTTP code for 401 or 302, or a failure with a message).

#include "transfer/ProvisioningHttpClient.h"

#include "engine/ProvLog.h"
#include "platform/StringTokenizer.h"

namespace {

constexpr int WGET_EXIT_GENERIC_ERROR = 1;
constexpr int WGET_EXIT_AUTH_FAILURE = 6;
constexpr int WGET_EXIT_SERVER_ERROR = 8;

// wget's exit statuses as this system words them. Status 5 deliberately shares "UNKNOWN ERROR"
// with every status above 8.
const char* WGET_EXIT_STATUS_TEXT(unsigned int status) {
    switch (status) {
        case 0:
            return "OK";
        case 1:
            return "GENERIC ERROR";
        case 2:
            return "PARSE ERROR";
        case 3:
            return "FILE I/O ERROR";
        case 4:
            return "NETWORK FAILURE (NO NAME SERVER, NO ROUTE TO HOST, OR TRANSFER FAILED)";
        case 6:
            return "USERNAME/PASSWORD AUTHENTICATION FAILURE";
        case 7:
            return "HTTP PROTOCOL ERRORS";
        case 8:
            return "HTTP-SERVER-GENERATED ERROR";
        default:
            return "UNKNOWN ERROR";
    }
}

// wget prints the server's response lines indented by two blanks, among lines of its own
// ("Location: /x [following]", "Length: 3"), and a header value may itself hold "HTTP/" (python's
// "Server: SimpleHTTP/0.6") or a header name ("Content-Location:"). So the analysis works on whole
// lines: a status line is a line whose first non-blank characters are "HTTP/", and a header is
// a line of the final response that starts with its name after the same indentation.

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

int firstNonBlank(const String& text, int position) {
    while (position < text.length() && isBlank(text.at(position))) {
        ++position;
    }
    return position;
}

bool holdsAt(const String& text, int position, const String& word) {
    if (position + word.length() > text.length()) {
        return false;
    }
    for (int i = 0; i < word.length(); ++i) {
        if (text.at(position + i) != word.at(i)) {
            return false;
        }
    }
    return true;
}

// Start of the next line, -1 after the last one.
int nextLine(const String& text, int lineStart) {
    int end = text.indexOf('\n', lineStart);
    return end < 0 ? -1 : end + 1;
}

// Where "HTTP/" starts on the last status line of `text`; -1 when there is none.
int lastStatusLine(const String& text) {
    int found = -1;
    for (int line = 0; line >= 0 && line < text.length(); line = nextLine(text, line)) {
        int content = firstNonBlank(text, line);
        if (holdsAt(text, content, "HTTP/")) {
            found = content;
        }
    }
    return found;
}

// Where `name` starts on the first header line of the response whose status line starts at
// `statusStart`, -1 when no header line of that response starts with it. The response's lines
// follow its status line with the same indentation, up to an empty line.
int headerLineOf(const String& text, int statusStart, const String& name) {
    int lineStart = statusStart;
    while (lineStart > 0 && text.at(lineStart - 1) != '\n') {
        --lineStart;
    }
    const String indentation = text.substring(lineStart, statusStart);
    for (int line = nextLine(text, statusStart); line >= 0 && line < text.length();
         line = nextLine(text, line)) {
        int content = firstNonBlank(text, line);
        bool empty =
            content >= text.length() || text.at(content) == '\r' || text.at(content) == '\n';
        if (empty || !holdsAt(text, line, indentation)) {
            return -1;
        }
        if (content == line + indentation.length() && holdsAt(text, content, name)) {
            return content;
        }
    }
    return -1;
}

}  // namespace

XCode ProvisioningHttpClient::parseResponseLine(const String& text, int& status,
                                                String& statusLine) {
    int start = lastStatusLine(text);
    if (start < 0) {
        return XCode::FAILURE("START OF STATUS LINE NOT FOUND");
    }
    int end = text.indexOf("\n", start);
    if (end < 0) {
        return XCode::FAILURE("END OF STATUS LINE NOT FOUND");
    }
    statusLine = text.substring(start, end);
    StringTokenizer tokenizer(statusLine, " ");
    if (tokenizer.countTokens() < 2) {
        return XCode::FAILURE("STATUS CODE NOT FOUND");
    }
    tokenizer.nextToken();
    int code = tokenizer.nextToken().toInteger();
    if (code == -1) {
        return XCode::FAILURE("FAILED TO PARSE STATUS CODE");
    }
    status = code;
    return XCode();
}

XCode ProvisioningHttpClient::getHeaderLine(const String& text, const String& headerName,
                                            String& line) const {
    int responseStart = lastStatusLine(text);
    if (responseStart < 0) {
        return XCode::FAILURE("START OF STATUS LINE NOT FOUND");
    }
    int start = headerLineOf(text, responseStart, headerName);
    if (start < 0) {
        return XCode::FAILURE("START OF HEADER NOT FOUND");
    }
    int end = text.indexOf("\n", start);
    if (end < 0) {
        return XCode::FAILURE("END OF HEADER LINE NOT FOUND");
    }
    line = text.substring(start, end);
    return XCode();
}

namespace {

// The value of the header `name` of the final response: its line after the first blank, trimmed.
XCode headerValue(const ProvisioningHttpClient& client, const String& text, const char* name,
                  String& line) {
    XCode result = client.getHeaderLine(text, name, line);
    if (result.isErr()) {
        return result;
    }
    const int blank = line.indexOf(' ');
    if (blank < 0) {
        return XCode::FAILURE("MISSING WSP");
    }
    line.deleteRegion(0, blank).trim();
    return result;
}

}  // namespace

XCode ProvisioningHttpClient::parseLocationHeader(const String& text) {
    String line;
    XCode result = headerValue(*this, text, "Location:", line);
    if (result.isSuccess()) {
        location = line;
    }
    return result;
}

XCode ProvisioningHttpClient::parseAuthHeader(const String& text) {
    String line;
    XCode result = headerValue(*this, text, "WWW-Authenticate:", line);
    if (result.isErr()) {
        return result;
    }
    int blank = line.indexOf(' ');
    if (blank < 0) {
        return XCode::FAILURE("MISSING WSP");
    }
    authScheme = line.substring(0, blank);
    line.deleteRegion(0, blank).trim();

    StringTokenizer parameters(line, ",");
    while (parameters.hasMoreTokens()) {
        String parameter = parameters.nextToken();
        parameter.trim();
        StringTokenizer nameValue(parameter, "=");
        String parameterName = nameValue.hasMoreTokens() ? nameValue.nextToken() : String();
        String value = nameValue.hasMoreTokens() ? nameValue.nextToken() : String();
        if (parameterName == "realm") {
            // Intended: the first and last characters go whether or not they are quotes.
            realm = value.substring(1, value.length() - 1);
            break;
        }
    }
    return result;
}

// The outcome of a run that wget reported as a failed request (an exit status): a challenge, a
// redirect or an answer the job does not handle.
XCode ProvisioningHttpClient::analyseWgetExit(const XCode& result) {
    String statusLine;
    XCode outcome;
    const int exitStatus = static_cast<int>(result.getDetail());
    if (exitStatus == WGET_EXIT_AUTH_FAILURE) {
        outcome = parseResponseLine(responseText, lastStatus, statusLine);
        if (outcome.isSuccess() && lastStatus == 401) {
            outcome = parseAuthHeader(responseText);
            return outcome.isSuccess() ? XCode::httpStatus(401) : outcome;
        }
        if (outcome.isSuccess()) {
            outcome = XCode::FAILURE();
            outcome.extendString(
                String::format("UNHANDLED AUTH RESPONSE STATUS: %s", statusLine.c_str()), ": ");
        }
        return outcome;
    }
    if (exitStatus == WGET_EXIT_SERVER_ERROR || exitStatus == WGET_EXIT_GENERIC_ERROR) {
        outcome = parseResponseLine(responseText, lastStatus, statusLine);
        if (outcome.isSuccess() && (lastStatus == 301 || lastStatus == 302)) {
            // A 301 is reported as a 302: the job follows both alike.
            outcome = parseLocationHeader(responseText);
            return outcome.isSuccess() ? XCode::httpStatus(302) : outcome;
        }
        if (outcome.isSuccess()) {
            outcome = result;
            outcome.extendString(
                String::format("UNHANDLED ERROR RESPONSE STATUS: %s", statusLine.c_str()), ": ");
        }
        return outcome;
    }
    outcome = result;
    outcome.extendString(WGET_EXIT_STATUS_TEXT(result.getDetail()), ": ");
    return outcome;
}

void ProvisioningHttpClient::onWgetResult(XCode result, String output) {
    (void)output;  // onWgetOutput collected the same text piece by piece
    ProvLog::progress("[%s/HTTP] Handle result of wget: %s\n%s", name.c_str(),
                      result.toString().c_str(), responseText.c_str());

    XCode outcome;
    if (result.isSuccess()) {
        String statusLine;
        outcome = parseResponseLine(responseText, lastStatus, statusLine);
        if (outcome.isSuccess()) {
            outcome = testExpression(lastStatus == 200 || lastStatus == 201);
            if (outcome.isErr()) {
                outcome.extendString(
                    String::format("STATUS IS NOT 200 OK or 201 CREATED: %s", statusLine.c_str()),
                    ": ");
            }
        }
    } else if (result.getFamily() != XCode::EXIT_STATUS_FAMILY) {
        outcome = result;
    } else {
        outcome = analyseWgetExit(result);
    }

    if (!outcome.getString().isEmpty()) {
        ProvLog::progressPrefixed(String::format("[%s/HTTP] ", name.c_str()), outcome.getString());
    }
    // Called through a copy: the completion may start the next run on this client, which
    // replaces the stored one, or (blocking form) let another thread destroy the client.
    Kt::Function<void(XCode)> done = completion;
    done(std::move(outcome));
}
