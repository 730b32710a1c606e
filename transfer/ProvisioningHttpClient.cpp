#include "transfer/ProvisioningHttpClient.h"

#include <memory>
#include <utility>
#include <vector>

#include "engine/Monitors.h"
#include "platform/KtSemaphore.h"
#include "platform/StringTokenizer.h"
#include "platform/WgetUtil.h"

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

XCode failure(const char* message) {
    XCode result = testExpression(false);
    result.setString(message);
    return result;
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

// The private files of one wget run (credentials, CA directory). Released when wget has ended, or
// when the last holder lets go (a run that was abandoned or never started).
class WgetSecrets {
  public:
    explicit WgetSecrets(std::vector<String> wgetArgs) : args(std::move(wgetArgs)) {}
    ~WgetSecrets() { release(); }
    WgetSecrets(const WgetSecrets&) = delete;
    WgetSecrets& operator=(const WgetSecrets&) = delete;
    void release() { WgetUtil::RELEASE_SECRETS(args); }

  private:
    std::vector<String> args;
};

// What a blocking call waits for; shared with the completion so that neither side outlives it.
struct BlockingOutcome {
    KtSemaphore done{0, 2147483647, KtSemaphore::MONOTONIC};
    XCode result;
};

}  // namespace

ProvisioningHttpClient::ProvisioningHttpClient(const String& clientName, const String& oemName,
                                               const String& modelName, const String& serialNumber,
                                               const String& swVersion, const String& hwVersion,
                                               const String& hwRevision, KtEventLoop& loop)
    : eventLoop(loop),
      name(clientName),
      oemName(oemName),
      modelName(modelName),
      serialNumber(serialNumber),
      swVersion(swVersion),
      hwVersion(hwVersion),
      hwRevision(hwRevision) {}

ProvisioningHttpClient::~ProvisioningHttpClient() {
    // A running wget is ended and reaped before the client goes: its callbacks never run, and
    // nothing writes the output file any more.
    future.abandonAndReap();
    completion = Kt::Function<void(XCode)>();
}

XCode ProvisioningHttpClient::getHttpInBackground(const String& url, const String& outFile,
                                                  Kt::Function<void(XCode)> done) {
    return getHttpHttpsInBackground(url, String::s_empty, String::s_empty, outFile, String::s_empty,
                                    String::s_empty, String::s_empty, std::move(done));
}

XCode ProvisioningHttpClient::getHttpInBackground(const String& url, const String& user,
                                                  const String& password, const String& outFile,
                                                  Kt::Function<void(XCode)> done) {
    return getHttpHttpsInBackground(url, user, password, outFile, String::s_empty, String::s_empty,
                                    String::s_empty, std::move(done));
}

XCode ProvisioningHttpClient::getHttpsInBackground(const String& url, const String& outFile,
                                                   const String& https1, const String& https2,
                                                   const String& https3,
                                                   Kt::Function<void(XCode)> done) {
    return getHttpHttpsInBackground(url, String::s_empty, String::s_empty, outFile, https1, https2,
                                    https3, std::move(done));
}

XCode ProvisioningHttpClient::getHttpsInBackground(const String& url, const String& user,
                                                   const String& password, const String& outFile,
                                                   const String& https1, const String& https2,
                                                   const String& https3,
                                                   Kt::Function<void(XCode)> done) {
    return getHttpHttpsInBackground(url, user, password, outFile, https1, https2, https3,
                                    std::move(done));
}

XCode ProvisioningHttpClient::getHttpHttpsInBackground(const String& url, const String& user,
                                                       const String& password,
                                                       const String& outFile, const String& https1,
                                                       const String& https2, const String& https3,
                                                       Kt::Function<void(XCode)> done) {
    XCode result;
    completion = std::move(done);

    std::vector<String> args;
    result = WgetUtil::buildArgs(true, url, user, password, outFile, https1, https2, https3, false,
                                 args, String::s_empty);
    if (result.isSuccess()) {
        String commandLine("wget");
        for (const String& arg : args) {
            bool quote = arg.indexOf(' ') >= 0 || arg.indexOf('\t') >= 0;
            commandLine.concatf(quote ? " \"%s\"" : " %s", arg.c_str());
        }
        ProvLog::progress("[%s/HTTP] Invoke wget with cmdline: %s", name.c_str(),
                          commandLine.c_str());

        responseText = String();
        lineBuffer = String();

        Kt::Shell::ResultCallback onResult(Kt::asyncCall(eventLoop),
                                           [this](XCode code, String output) {
                                               onWgetResult(std::move(code), std::move(output));
                                           });
        Kt::Shell::OutputCallback onOutput(Kt::asyncCall(eventLoop),
                                           [this](String text) { onWgetOutput(std::move(text)); });
        Kt::Shell::OutputCallback onErrorOutput(
            Kt::asyncCall(eventLoop), [this](String text) { onWgetOutput(std::move(text)); });
        // The shell calls this on its own thread as soon as wget has ended: the private files
        // go at once, and the result travels on to the loop. Abandoning the run drops it
        // unused, which releases the files too.
        auto secrets = std::make_shared<WgetSecrets>(std::move(args));
        Kt::Shell::ResultCallback onEnded(Kt::directCall(),
                                          [secrets, onResult](XCode code, String output) {
                                              secrets->release();
                                              onResult(std::move(code), std::move(output));
                                          });

        // An earlier run still going is abandoned, so its callbacks cannot mix with this one's.
        future.reset();
        result = Kt::Shell::invoke(commandLine, onEnded, onOutput, onErrorOutput, future);
        if (result.isSuccess()) {
            return result;
        }
        secrets->release();
    }
    ProvLog::progressPrefixed(String::format("[%s/HTTP] ", name.c_str()), result.toString());
    return result;
}

XCode ProvisioningHttpClient::getHttp(const String& url, const String& outFile) {
    return getHttpHttps(url, String::s_empty, String::s_empty, outFile, String::s_empty,
                        String::s_empty, String::s_empty);
}

XCode ProvisioningHttpClient::getHttp(const String& url, const String& user, const String& password,
                                      const String& outFile) {
    return getHttpHttps(url, user, password, outFile, String::s_empty, String::s_empty,
                        String::s_empty);
}

XCode ProvisioningHttpClient::getHttps(const String& url, const String& outFile,
                                       const String& https1, const String& https2,
                                       const String& https3) {
    return getHttpHttps(url, String::s_empty, String::s_empty, outFile, https1, https2, https3);
}

XCode ProvisioningHttpClient::getHttps(const String& url, const String& user,
                                       const String& password, const String& outFile,
                                       const String& https1, const String& https2,
                                       const String& https3) {
    return getHttpHttps(url, user, password, outFile, https1, https2, https3);
}

XCode ProvisioningHttpClient::getHttpHttps(const String& url, const String& user,
                                           const String& password, const String& outFile,
                                           const String& https1, const String& https2,
                                           const String& https3) {
    XCode result;
    if (KtEventLoop::current() == &eventLoop) {
        // The outcome is produced on this very loop: waiting here would never end.
        result = failure("BLOCKING HTTP CALL ON THE CLIENT'S EVENT LOOP");
        ProvLog::progressPrefixed(String::format("[%s/HTTP] ", name.c_str()), result.toString());
        return result;
    }
    auto outcome = std::make_shared<BlockingOutcome>();
    Kt::Function<void(XCode)> done(Kt::directCall(), [outcome](XCode code) {
        outcome->result = std::move(code);
        // Cannot fail: one signal per run, far below the maximum.
        (void)outcome->done.signal();
    });
    result = getHttpHttpsInBackground(url, user, password, outFile, https1, https2, https3, done);
    if (result.isErr()) {
        return result;
    }
    result = outcome->done.wait();
    if (result.isErr()) {
        return result;
    }
    return outcome->result;
}

void ProvisioningHttpClient::onWgetOutput(String text) {
    responseText += text;
    lineBuffer += text;
    // "\r\n" is a set of delimiters: a line may end in "\n" alone. The empty piece between '\r'
    // and '\n' (or of an empty line) is not logged.
    StringTokenizer tokenizer(lineBuffer, "\r\n");
    const std::vector<String>& pieces = tokenizer.getTokens();
    if (pieces.size() <= 1) {
        return;
    }
    for (std::size_t i = 0; i + 1 < pieces.size(); ++i) {
        if (!pieces[i].isEmpty()) {
            ProvLog::progress("[%s/HTTP] %s", name.c_str(), pieces[i].c_str());
        }
    }
    lineBuffer = pieces.back();
}

XCode ProvisioningHttpClient::parseResponseLine(const String& text, int& status,
                                                String& statusLine) {
    int start = lastStatusLine(text);
    if (start < 0) {
        return failure("START OF STATUS LINE NOT FOUND");
    }
    int end = text.indexOf("\n", start);
    if (end < 0) {
        return failure("END OF STATUS LINE NOT FOUND");
    }
    statusLine = text.substring(start, end);
    StringTokenizer tokenizer(statusLine, " ");
    if (tokenizer.countTokens() < 2) {
        return failure("STATUS CODE NOT FOUND");
    }
    tokenizer.nextToken();
    int code = tokenizer.nextToken().toInteger();
    if (code == -1) {
        return failure("FAILED TO PARSE STATUS CODE");
    }
    status = code;
    return XCode();
}

XCode ProvisioningHttpClient::getHeaderLine(const String& text, const String& headerName,
                                            String& line) const {
    int responseStart = lastStatusLine(text);
    if (responseStart < 0) {
        return failure("START OF STATUS LINE NOT FOUND");
    }
    int start = headerLineOf(text, responseStart, headerName);
    if (start < 0) {
        return failure("START OF HEADER NOT FOUND");
    }
    int end = text.indexOf("\n", start);
    if (end < 0) {
        return failure("END OF HEADER LINE NOT FOUND");
    }
    line = text.substring(start, end);
    return XCode();
}

XCode ProvisioningHttpClient::parseLocationHeader(const String& text) {
    String line;
    XCode result = getHeaderLine(text, "Location:", line);
    if (result.isErr()) {
        return result;
    }
    int blank = line.indexOf(' ');
    if (blank < 0) {
        return failure("MISSING WSP");
    }
    line.deleteRegion(0, blank).trim();
    location = line;
    return result;
}

XCode ProvisioningHttpClient::parseAuthHeader(const String& text) {
    String line;
    XCode result = getHeaderLine(text, "WWW-Authenticate:", line);
    if (result.isErr()) {
        return result;
    }
    int blank = line.indexOf(' ');
    if (blank < 0) {
        return failure("MISSING WSP");
    }
    line.deleteRegion(0, blank).trim();
    blank = line.indexOf(' ');
    if (blank < 0) {
        return failure("MISSING WSP");
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

void ProvisioningHttpClient::onWgetResult(XCode result, String output) {
    (void)output;  // onWgetOutput collected the same text piece by piece
    ProvLog::progress("[%s/HTTP] Handle result of wget: %s\n%s", name.c_str(),
                      result.toString().c_str(), responseText.c_str());

    XCode outcome;
    String statusLine;
    if (result.isSuccess()) {
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
        int exitStatus = static_cast<int>(result.getDetail());
        if (exitStatus == WGET_EXIT_AUTH_FAILURE) {
            outcome = parseResponseLine(responseText, lastStatus, statusLine);
            if (outcome.isSuccess()) {
                if (lastStatus == 401) {
                    outcome = parseAuthHeader(responseText);
                    if (outcome.isSuccess()) {
                        outcome = XCode::httpStatus(401);
                    }
                } else {
                    outcome = XCode(-1);
                    outcome.extendString(
                        String::format("UNHANDLED AUTH RESPONSE STATUS: %s", statusLine.c_str()),
                        ": ");
                }
            }
        } else if (exitStatus == WGET_EXIT_SERVER_ERROR || exitStatus == WGET_EXIT_GENERIC_ERROR) {
            outcome = parseResponseLine(responseText, lastStatus, statusLine);
            if (outcome.isSuccess()) {
                if (lastStatus == 301 || lastStatus == 302) {
                    // A 301 is reported as a 302: the job follows both alike.
                    outcome = parseLocationHeader(responseText);
                    if (outcome.isSuccess()) {
                        outcome = XCode::httpStatus(302);
                    }
                } else {
                    outcome = result;
                    outcome.extendString(
                        String::format("UNHANDLED ERROR RESPONSE STATUS: %s", statusLine.c_str()),
                        ": ");
                }
            }
        } else {
            outcome = result;
            outcome.extendString(WGET_EXIT_STATUS_TEXT(result.getDetail()), ": ");
        }
    }

    if (!outcome.getString().isEmpty()) {
        ProvLog::progressPrefixed(String::format("[%s/HTTP] ", name.c_str()), outcome.getString());
    }
    // Called through a copy: the completion may start the next run on this client, which
    // replaces the stored one, or (blocking form) let another thread destroy the client.
    Kt::Function<void(XCode)> done = completion;
    done(std::move(outcome));
}
