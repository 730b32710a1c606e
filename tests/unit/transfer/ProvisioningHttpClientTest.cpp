#include "transfer/ProvisioningHttpClient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "engine/Monitors.h"
#include "platform/Shell.h"
#include "platform/WgetUtil.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/testing/ShellHooks.h"
#include "support/CaptureMonitor.h"
#include "support/TempDir.h"

// Reaches the client's shell callbacks and run state, so that recorded wget output can be fed
// without running wget.
struct ProvisioningHttpClientTestHook {
    static void output(ProvisioningHttpClient& client, const String& text) {
        client.onWgetOutput(text);
    }
    static void result(ProvisioningHttpClient& client, XCode result) {
        client.onWgetResult(std::move(result), String());
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

constexpr XCodeValue GENERIC = XCode::GENERIC_FAILURE;

XCode exitStatus(int status) {
    if (status == 0) {
        return XCode();
    }
    // What the shell reports for a command that exited with a status.
    XCode code = XCode::family(XCode::EXIT_STATUS_FAMILY, static_cast<XCodeValue>(status));
    code.setStringF("wget EXITED WITH STATUS %d", status);
    return code;
}

std::string readData(const std::string& name) {
    std::ifstream in(std::string(PROV_TEST_DATA_DIR) + "/wget/" + name, std::ios::binary);
    EXPECT_TRUE(in.good()) << name;
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

struct Transcript {
    std::string text;
    int exit = -1;
};

// A transcript recorded from wget (tests/data/wget/record.sh): what it printed, and its status.
Transcript recorded(const std::string& name) {
    Transcript transcript;
    transcript.text = readData(name + ".txt");
    transcript.exit = std::stoi(readData(name + ".exit"));
    return transcript;
}

class ProvisioningHttpClientTest : public ::testing::Test {
  protected:
    void SetUp() override { MON_PROV = &monitor; }
    void TearDown() override { MON_PROV = nullptr; }

    // Feeds `text` as wget's output and `result` as its end; returns what the completion got.
    XCode finish(const std::string& text, XCode result) {
        completions = 0;
        Hook::setCompletion(client, Kt::Function<void(XCode)>(Kt::directCall(), [this](XCode c) {
                                ++completions;
                                outcome = std::move(c);
                            }));
        Hook::output(client, String(text));
        Hook::result(client, std::move(result));
        EXPECT_EQ(completions, 1);
        return outcome;
    }
    XCode finish(const Transcript& transcript) {
        return finish(transcript.text, exitStatus(transcript.exit));
    }

    provtest::CaptureMonitor monitor{"PROV"};
    KtEventLoop loop;
    ProvisioningHttpClient client{"job", "oem", "model", "serial", "1.0", "hw", "rev", loop};
    int completions = 0;
    XCode outcome;
};

// --- recorded responses -------------------------------------------------------------------

TEST_F(ProvisioningHttpClientTest, okIsSuccess) {
    XCode result = finish(recorded("200-ok"));
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(result.getString(), "");
    EXPECT_EQ(client.getLastStatus(), 200);
}

TEST_F(ProvisioningHttpClientTest, createdIsSuccessAndRecordsTheStatus) {
    XCode result = finish(recorded("201-created"));
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(client.getLastStatus(), 201);
}

TEST_F(ProvisioningHttpClientTest, noContentFailsNamingTheStatusLine) {
    XCode result = finish(recorded("204-no-content"));
    EXPECT_EQ(result.getValue(), GENERIC);
    EXPECT_EQ(result.getString(), "STATUS IS NOT 200 OK or 201 CREATED: HTTP/1.1 204 No Content");
    EXPECT_EQ(client.getLastStatus(), 204);
}

TEST_F(ProvisioningHttpClientTest, notFoundKeepsTheExitStatusAndNamesTheStatusLine) {
    XCode result = finish(recorded("404-not-found"));
    EXPECT_EQ(result.getValue(), 0x12000008U);
    EXPECT_EQ(result.getString(),
              "UNHANDLED ERROR RESPONSE STATUS: HTTP/1.1 404 Not Found: wget EXITED WITH STATUS 8");
    EXPECT_EQ(client.getLastStatus(), 404);
}

TEST_F(ProvisioningHttpClientTest, basicChallengeGivesTheHttp401CodeSchemeAndRealm) {
    XCode result = finish(recorded("401-basic"));
    EXPECT_TRUE(result.isHttpErr(401));
    EXPECT_EQ(result.getValue(), 0x14000000U + 401);
    EXPECT_EQ(client.getAuthScheme(), "Basic");
    EXPECT_EQ(client.getRealm(), "dev");
    EXPECT_EQ(client.getLastStatus(), 401);
}

TEST_F(ProvisioningHttpClientTest, digestChallengeGivesTheHttp401CodeSchemeAndRealm) {
    XCode result = finish(recorded("401-digest"));
    EXPECT_TRUE(result.isHttpErr(401));
    EXPECT_EQ(client.getAuthScheme(), "Digest");
    EXPECT_EQ(client.getRealm(), "dev");
}

TEST_F(ProvisioningHttpClientTest, challengeAnsweredWithCredentialsCountsTheLastResponse) {
    XCode result = finish(recorded("401-then-200"));
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(client.getLastStatus(), 200);
    // The challenge of the first response is not looked at.
    EXPECT_EQ(client.getRealm(), "");
}

TEST_F(ProvisioningHttpClientTest, movedPermanentlyIsReportedAsFoundWithTheLocation) {
    XCode result = finish(recorded("301-moved"));
    EXPECT_TRUE(result.isHttpErr(302));
    EXPECT_EQ(result.getString(), "");
    EXPECT_EQ(client.getLastStatus(), 301);
    EXPECT_EQ(client.getLocation().str().rfind("http://127.0.0.1:", 0), 0U);
    EXPECT_TRUE(client.getLocation().endsWith("/file/10"));
}

TEST_F(ProvisioningHttpClientTest, foundWithARelativeLocation) {
    XCode result = finish(recorded("302-relative"));
    EXPECT_TRUE(result.isHttpErr(302));
    EXPECT_EQ(client.getLocation(), "/new/cfg.txt");
}

TEST_F(ProvisioningHttpClientTest, connectionRefusedIsANetworkFailure) {
    Transcript transcript = recorded("connection-refused");
    EXPECT_EQ(transcript.exit, 4);
    XCode result = finish(transcript);
    EXPECT_EQ(result.getValue(), 0x12000004U);
    EXPECT_EQ(result.getString(),
              "NETWORK FAILURE (NO NAME SERVER, NO ROUTE TO HOST, OR TRANSFER FAILED): "
              "wget EXITED WITH STATUS 4");
    EXPECT_EQ(client.getLastStatus(), -1);
}

TEST_F(ProvisioningHttpClientTest, untrustedCertificateIsExitFiveUnknownError) {
    Transcript transcript = recorded("untrusted-cert");
    EXPECT_EQ(transcript.exit, 5);
    XCode result = finish(transcript);
    EXPECT_EQ(result.getValue(), 0x12000005U);
    EXPECT_EQ(result.getString(), "UNKNOWN ERROR: wget EXITED WITH STATUS 5");
}

// --- exit statuses ------------------------------------------------------------------------

TEST_F(ProvisioningHttpClientTest, authFailureWithAnotherStatusIsUnhandled) {
    // wget itself ends a 403 with status 8; status 6 with a 403 needs a made-up pairing.
    XCode result = finish(recorded("403-forbidden").text, exitStatus(6));
    EXPECT_EQ(result.getValue(), GENERIC);
    EXPECT_EQ(result.getString(), "UNHANDLED AUTH RESPONSE STATUS: HTTP/1.1 403 Forbidden");
}

TEST_F(ProvisioningHttpClientTest, genericErrorWithARedirectIsFollowedLikeStatusEight) {
    XCode result = finish("  HTTP/1.1 302 Found\n  Location: http://h/x\n", exitStatus(1));
    EXPECT_TRUE(result.isHttpErr(302));
    EXPECT_EQ(client.getLocation(), "http://h/x");
}

TEST_F(ProvisioningHttpClientTest, genericErrorWithAnotherStatusIsUnhandled) {
    XCode result = finish("  HTTP/1.1 500 Internal Server Error\n", exitStatus(1));
    EXPECT_EQ(result.getValue(), 0x12000001U);
    EXPECT_EQ(result.getString(),
              "UNHANDLED ERROR RESPONSE STATUS: HTTP/1.1 500 Internal Server Error: "
              "wget EXITED WITH STATUS 1");
}

TEST_F(ProvisioningHttpClientTest, otherExitStatusesAddTheirTableText) {
    struct Row {
        int status;
        const char* text;
    };
    const Row rows[] = {
        {2, "PARSE ERROR"},
        {3, "FILE I/O ERROR"},
        {4, "NETWORK FAILURE (NO NAME SERVER, NO ROUTE TO HOST, OR TRANSFER FAILED)"},
        {5, "UNKNOWN ERROR"},
        {7, "HTTP PROTOCOL ERRORS"},
        {9, "UNKNOWN ERROR"},
        {42, "UNKNOWN ERROR"},
        {255, "UNKNOWN ERROR"},
    };
    for (const Row& row : rows) {
        XCode result = finish("  HTTP/1.1 200 OK\n", exitStatus(row.status));
        EXPECT_EQ(result.getValue(), 0x12000000U + static_cast<XCodeValue>(row.status));
        EXPECT_EQ(result.getString(),
                  String::format("%s: wget EXITED WITH STATUS %d", row.text, row.status))
            << row.status;
    }
}

TEST_F(ProvisioningHttpClientTest, exitStatusWithoutMessageGetsTheTableTextAlone) {
    XCode bare = XCode::family(XCode::EXIT_STATUS_FAMILY, 4);
    XCode result = finish("", bare);
    EXPECT_EQ(result.getString(),
              "NETWORK FAILURE (NO NAME SERVER, NO ROUTE TO HOST, OR TRANSFER FAILED)");
}

TEST_F(ProvisioningHttpClientTest, resultThatIsNoExitStatusPassesUnchanged) {
    XCode killed = XCode::family(XCode::SIGNAL_FAMILY, 9);
    killed.setString("wget KILLED BY SIGNAL 9");
    XCode result = finish("  HTTP/1.1 200 OK\n", killed);
    EXPECT_EQ(result.getValue(), killed.getValue());
    EXPECT_EQ(result.getString(), "wget KILLED BY SIGNAL 9");

    XCode cannotStart = XCode::fromErrno(2);
    result = finish("", cannotStart);
    EXPECT_EQ(result.getValue(), cannotStart.getValue());
    EXPECT_EQ(result.getString(), cannotStart.getString());
}

TEST_F(ProvisioningHttpClientTest, successWithoutAnyOutputHasNoStatusLine) {
    XCode result = finish("", XCode());
    EXPECT_EQ(result.getString(), "START OF STATUS LINE NOT FOUND");
    EXPECT_EQ(client.getLastStatus(), -1);
}

TEST_F(ProvisioningHttpClientTest, authFailureWithoutChallengeHeaderFails) {
    XCode result = finish("  HTTP/1.1 401 Unauthorized\n  Content-Length: 0\n", exitStatus(6));
    EXPECT_EQ(result.getValue(), GENERIC);
    EXPECT_EQ(result.getString(), "START OF HEADER NOT FOUND");
}

TEST_F(ProvisioningHttpClientTest, challengeNamingOnlyASchemeFailsWithMissingWsp) {
    XCode result =
        finish("  HTTP/1.1 401 Unauthorized\n  WWW-Authenticate: Basic\n", exitStatus(6));
    EXPECT_EQ(result.getValue(), GENERIC);
    EXPECT_EQ(result.getString(), "MISSING WSP");
}

TEST_F(ProvisioningHttpClientTest, unquotedRealmLosesItsFirstAndLastLetters) {
    XCode result = finish("  HTTP/1.1 401 Unauthorized\n  WWW-Authenticate: Digest realm=dev\n",
                          exitStatus(6));
    EXPECT_TRUE(result.isHttpErr(401));
    EXPECT_EQ(client.getRealm(), "e");
}

TEST_F(ProvisioningHttpClientTest, redirectWithoutBlankAfterLocationFailsWithMissingWsp) {
    XCode result = finish("  HTTP/1.1 302 Found\n  Location:/x\n", exitStatus(8));
    EXPECT_EQ(result.getValue(), GENERIC);
    EXPECT_EQ(result.getString(), "MISSING WSP");
}

TEST_F(ProvisioningHttpClientTest, statusOfAnEarlierRunStaysWhenTheNextHasNoStatusLine) {
    ASSERT_TRUE(finish(recorded("201-created")).isSuccess());
    XCode result = finish(recorded("connection-refused"));
    EXPECT_TRUE(result.isErr());
    EXPECT_EQ(client.getLastStatus(), 201);
}

// --- logging of a result ------------------------------------------------------------------

TEST_F(ProvisioningHttpClientTest, resultIsLoggedWithTheWholeResponseText) {
    Transcript transcript = recorded("404-not-found");
    XCode shell = exitStatus(8);
    static_cast<void>(finish(transcript));  // the log is what is checked
    std::string expected =
        "[job/HTTP] Handle result of wget: " + shell.toString().str() + "\n" + transcript.text;
    EXPECT_GE(monitor.indexOf(expected), 0) << monitor.dump();
    EXPECT_GE(monitor.indexOf("[job/HTTP] UNHANDLED ERROR RESPONSE STATUS: HTTP/1.1 404 Not Found: "
                              "wget EXITED WITH STATUS 8"),
              0)
        << monitor.dump();
    EXPECT_EQ(monitor.levelOf(expected), 6);
}

TEST_F(ProvisioningHttpClientTest, outcomeWithoutMessageIsNotLogged) {
    static_cast<void>(finish(recorded("302-relative")));
    std::vector<std::string> lines = monitor.lines();
    for (const std::string& line : lines) {
        EXPECT_NE(line, "[job/HTTP] ");
    }
    int handled = 0;
    for (const std::string& line : lines) {
        handled += line.rfind("[job/HTTP] Handle result of wget: ", 0) == 0 ? 1 : 0;
    }
    EXPECT_EQ(handled, 1);
    // The header lines themselves were logged as output, one line each, plus the result line.
    EXPECT_EQ(monitor.count("Location: /new/cfg.txt"), 2) << monitor.dump();
}

// --- parsing members ----------------------------------------------------------------------

TEST_F(ProvisioningHttpClientTest, statusLineKeepsItsCarriageReturn) {
    int status = -1;
    String line;
    ASSERT_TRUE(
        client.parseResponseLine("HTTP/1.1 404 Not Found\r\nX: y\r\n", status, line).isSuccess());
    EXPECT_EQ(status, 404);
    EXPECT_EQ(line, "HTTP/1.1 404 Not Found\r");
}

TEST_F(ProvisioningHttpClientTest, statusLineErrors) {
    struct Row {
        const char* text;
        const char* message;
    };
    const Row rows[] = {
        {"", "START OF STATUS LINE NOT FOUND"},
        {"http/1.1 200 OK\n", "START OF STATUS LINE NOT FOUND"},
        {"  HTTP/1.1 200 OK", "END OF STATUS LINE NOT FOUND"},
        {"  HTTP/1.1 200 OK\n  HTTP/1.1 404", "END OF STATUS LINE NOT FOUND"},
        {"  HTTP/1.1\n", "STATUS CODE NOT FOUND"},
        {"  HTTP/1.1 abc OK\n", "FAILED TO PARSE STATUS CODE"},
        {"  HTTP/1.1  200 OK\n", "FAILED TO PARSE STATUS CODE"},
    };
    for (const Row& row : rows) {
        int status = 77;
        String line;
        XCode result = client.parseResponseLine(row.text, status, line);
        EXPECT_EQ(result.getValue(), GENERIC) << row.text;
        EXPECT_EQ(result.getString(), row.message) << row.text;
        EXPECT_EQ(status, 77) << row.text;
    }
}

TEST_F(ProvisioningHttpClientTest, statusLineOfTheLastResponseCounts) {
    int status = -1;
    String line;
    ASSERT_TRUE(client
                    .parseResponseLine("  HTTP/1.1 401 Unauthorized\n  X: 1\n  HTTP/1.1 200 OK\n",
                                       status, line)
                    .isSuccess());
    EXPECT_EQ(status, 200);
    EXPECT_EQ(line, "HTTP/1.1 200 OK");
}

TEST_F(ProvisioningHttpClientTest, headerLineIsFoundOnlyInTheLastResponse) {
    const String text(
        "  HTTP/1.1 302 Found\n  Location: /first\n  HTTP/1.1 404 Not Found\n  Server: x\n");
    String line;
    XCode result = client.getHeaderLine(text, "Location:", line);
    EXPECT_EQ(result.getString(), "START OF HEADER NOT FOUND");
    ASSERT_TRUE(client.getHeaderLine(text, "Server:", line).isSuccess());
    EXPECT_EQ(line, "Server: x");
}

TEST_F(ProvisioningHttpClientTest, headerNameIsCaseSensitive) {
    String line;
    XCode result =
        client.getHeaderLine("  HTTP/1.1 302 Found\n  location: /x\n", "Location:", line);
    EXPECT_EQ(result.getString(), "START OF HEADER NOT FOUND");
}

// What python's stock server answers, as wget -S prints it: "HTTP/" also appears in a header.
TEST_F(ProvisioningHttpClientTest, statusLineIsALineThatStartsWithHttp) {
    const String text(
        "HTTP request sent, awaiting response... \n"
        "  HTTP/1.0 200 OK\n"
        "  Server: SimpleHTTP/0.6 Python/3.11.7\n"
        "  Content-Length: 3\n"
        "Length: 3 [text/plain]\n");
    int status = -1;
    String line;
    ASSERT_TRUE(client.parseResponseLine(text, status, line).isSuccess());
    EXPECT_EQ(status, 200);
    EXPECT_EQ(line, "HTTP/1.0 200 OK");
}

TEST_F(ProvisioningHttpClientTest, statusLineMayBeIndentedWithTabs) {
    int status = -1;
    String line;
    ASSERT_TRUE(client.parseResponseLine("\t HTTP/1.1 201 Created\n", status, line).isSuccess());
    EXPECT_EQ(status, 201);
    EXPECT_EQ(line, "HTTP/1.1 201 Created");
}

TEST_F(ProvisioningHttpClientTest, httpInsideALineIsNoStatusLine) {
    int status = 77;
    String line;
    XCode result = client.parseResponseLine("  Server: SimpleHTTP/0.6\n", status, line);
    EXPECT_EQ(result.getString(), "START OF STATUS LINE NOT FOUND");
    EXPECT_EQ(status, 77);
}

TEST_F(ProvisioningHttpClientTest, headerIsFoundOnlyAtTheStartOfALine) {
    struct Row {
        const char* text;
        const char* name;
        const char* expected;  // the line found, or the error message
    };
    const Row rows[] = {
        // another header's name ends with the one looked for
        {"  HTTP/1.1 301 Moved\n  Content-Location: /wrong\n  Location: /right\n",
         "Location:", "Location: /right"},
        {"  HTTP/1.1 301 Moved\n  Content-Location: /wrong\n",
         "Location:", "START OF HEADER NOT FOUND"},
        {"  HTTP/1.1 401 Unauthorized\n  X-WWW-Authenticate: Basic realm=\"x\"\n",
         "WWW-Authenticate:", "START OF HEADER NOT FOUND"},
        // another header's value holds the name
        {"  HTTP/1.1 302 Found\n  X-Note: see Location: /evil\n",
         "Location:", "START OF HEADER NOT FOUND"},
        // wget's own line after the response is not one of the response's headers
        {"  HTTP/1.0 301 Moved\n  Server: x\nLocation: /d/ [following]\n",
         "Location:", "START OF HEADER NOT FOUND"},
        // a line indented deeper is not a header line of its own
        {"  HTTP/1.1 302 Found\n    Location: /deeper\n  Location: /x\n",
         "Location:", "Location: /x"},
        // the response ends at an empty line
        {"  HTTP/1.1 302 Found\n\n  Location: /after\n", "Location:", "START OF HEADER NOT FOUND"},
        // no indentation at all, as in a bare response
        {"HTTP/1.1 302 Found\r\nServer: a\r\nLocation: /bare\r\n",
         "Location:", "Location: /bare\r"},
    };
    for (const Row& row : rows) {
        String line;
        XCode result = client.getHeaderLine(row.text, row.name, line);
        EXPECT_EQ(result.isSuccess() ? line : result.getString(), row.expected) << row.text;
    }
}

TEST_F(ProvisioningHttpClientTest, contentLocationIsNotTakenForTheRedirect) {
    ASSERT_TRUE(client
                    .parseLocationHeader("  HTTP/1.1 301 Moved Permanently\n"
                                         "  Content-Location: /index.html\n"
                                         "  Location: /new/cfg.txt\n")
                    .isSuccess());
    EXPECT_EQ(client.getLocation(), "/new/cfg.txt");
}

TEST_F(ProvisioningHttpClientTest, headerLineErrors) {
    String line = "untouched";
    EXPECT_EQ(client.getHeaderLine("Location: /x\n", "Location:", line).getString(),
              "START OF STATUS LINE NOT FOUND");
    EXPECT_EQ(
        client.getHeaderLine("  HTTP/1.1 302 Found\n  Location: /x", "Location:", line).getString(),
        "END OF HEADER LINE NOT FOUND");
    EXPECT_EQ(line, "untouched");
}

TEST_F(ProvisioningHttpClientTest, locationIsTrimmed) {
    ASSERT_TRUE(client.parseLocationHeader("  HTTP/1.1 301 Moved\r\n  Location:   http://h/x  \r\n")
                    .isSuccess());
    EXPECT_EQ(client.getLocation(), "http://h/x");
}

TEST_F(ProvisioningHttpClientTest, challengeWithoutRealmLeavesTheRealmAsItWas) {
    ASSERT_TRUE(client
                    .parseAuthHeader("  HTTP/1.1 401 Unauthorized\n"
                                     "  WWW-Authenticate: Digest realm=\"first\"\n")
                    .isSuccess());
    ASSERT_EQ(client.getRealm(), "first");
    ASSERT_TRUE(client
                    .parseAuthHeader("  HTTP/1.1 401 Unauthorized\n"
                                     "  WWW-Authenticate: Negotiate token=abc\n")
                    .isSuccess());
    EXPECT_EQ(client.getAuthScheme(), "Negotiate");
    EXPECT_EQ(client.getRealm(), "first");
}

TEST_F(ProvisioningHttpClientTest, realmIsFoundAmongOtherParameters) {
    ASSERT_TRUE(client
                    .parseAuthHeader("  HTTP/1.1 401 Unauthorized\n  WWW-Authenticate: Digest "
                                     "nonce=\"x\",  realm=\"dev zone\", qop=\"auth\"\n")
                    .isSuccess());
    EXPECT_EQ(client.getRealm(), "dev zone");
}

TEST_F(ProvisioningHttpClientTest, realmNameMustMatchExactly) {
    ASSERT_TRUE(client
                    .parseAuthHeader("  HTTP/1.1 401 Unauthorized\n"
                                     "  WWW-Authenticate: Basic Realm=\"a\", realm =\"b\"\n")
                    .isSuccess());
    EXPECT_EQ(client.getRealm(), "");
}

TEST_F(ProvisioningHttpClientTest, challengeWithoutBlankAfterTheHeaderNameFailsWithMissingWsp) {
    XCode result =
        client.parseAuthHeader("  HTTP/1.1 401 Unauthorized\n  WWW-Authenticate:Basic\n");
    EXPECT_EQ(result.getString(), "MISSING WSP");
}

// --- output lines -------------------------------------------------------------------------

TEST_F(ProvisioningHttpClientTest, incompleteLastLineIsKeptUntilMoreOutputArrives) {
    Hook::output(client, "HTTP/1.1 200 OK\r\nServer: x\r\nConn");
    EXPECT_EQ(monitor.lines(),
              (std::vector<std::string>{"[job/HTTP] HTTP/1.1 200 OK", "[job/HTTP] Server: x"}));
    EXPECT_EQ(Hook::lineBuffer(client), "Conn");
    Hook::output(client, "ection: close\r\n");
    EXPECT_EQ(monitor.lines().back(), "[job/HTTP] Connection: close");
    EXPECT_EQ(monitor.lines().size(), 3U);
    EXPECT_EQ(Hook::lineBuffer(client), "");
    EXPECT_EQ(Hook::responseText(client), "HTTP/1.1 200 OK\r\nServer: x\r\nConnection: close\r\n");
}

TEST_F(ProvisioningHttpClientTest, linesEndingInNewlineAloneAreLogged) {
    Hook::output(client, recorded("302-relative").text);
    EXPECT_EQ(monitor.lines().size(), 5U) << monitor.dump();
    EXPECT_EQ(monitor.lines().front(), "[job/HTTP]   HTTP/1.1 302 Found");
    EXPECT_EQ(monitor.lines().back(), "[job/HTTP]   Content-Length: 6");
    EXPECT_EQ(Hook::lineBuffer(client), "");
}

TEST_F(ProvisioningHttpClientTest, outputWithoutLineEndIsNotLoggedYet) {
    Hook::output(client, "  HTTP/1.1 2");
    Hook::output(client, "00 OK");
    EXPECT_TRUE(monitor.lines().empty());
    EXPECT_EQ(Hook::lineBuffer(client), "  HTTP/1.1 200 OK");
    Hook::output(client, "\n");
    EXPECT_EQ(monitor.lines(), (std::vector<std::string>{"[job/HTTP]   HTTP/1.1 200 OK"}));
}

TEST_F(ProvisioningHttpClientTest, carriageReturnSplitAcrossPiecesLogsNoEmptyLine) {
    Hook::output(client, "A\r");
    Hook::output(client, "\nB\r\n\r\n");
    EXPECT_EQ(monitor.lines(), (std::vector<std::string>{"[job/HTTP] A", "[job/HTTP] B"}));
}

// --- starting a run -----------------------------------------------------------------------

// "wget" runs `true` instead: the run starts and ends at once, no server needed.
class ProvisioningHttpClientStartTest : public ProvisioningHttpClientTest {
  protected:
    // wget's private files go into the device's work directory: a device of its own, so that
    // the tests do not depend on the host's /tmp/provisioning.
    void SetUp() override {
        ProvisioningHttpClientTest::SetUp();
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        Kt::ShellControl::SET_TOOL("wget", {"true"});
    }
    void TearDown() override {
        Kt::ShellControl::SET_TOOL("wget", {});
        Device::SET_ROOT("");
        ProvisioningHttpClientTest::TearDown();
    }

    provtest::TempDir device{"http-client-device"};

    Kt::Function<void(XCode)> counting() {
        return Kt::Function<void(XCode)>(Kt::asyncCall(loop), [this](XCode c) {
            ++completions;
            outcome = std::move(c);
        });
    }

    std::string commandLine() const {
        const std::string prefix = "[job/HTTP] Invoke wget with cmdline: ";
        for (const std::string& line : monitor.lines()) {
            if (line.rfind(prefix, 0) == 0) {
                return line.substr(prefix.size());
            }
        }
        return "";
    }
};

TEST_F(ProvisioningHttpClientStartTest, argumentsWithBlankOrTabAreQuotedOthersBare) {
    const String url("http://h/a b");
    const String out("/tmp/provisioning/t\tab");
    ASSERT_TRUE(client.getHttpInBackground(url, out, counting()).isSuccess());
    std::vector<String> args;
    ASSERT_TRUE(
        WgetUtil::buildArgs(true, url, "", "", out, "", "", "", false, args, "").isSuccess());
    std::string expected = "wget";
    for (const String& arg : args) {
        bool quote = arg.indexOf(' ') >= 0 || arg.indexOf('\t') >= 0;
        expected += quote ? " \"" + arg.str() + "\"" : " " + arg.str();
    }
    EXPECT_EQ(commandLine(), expected);
    EXPECT_NE(commandLine().find(" \"http://h/a b\""), std::string::npos);
    EXPECT_NE(commandLine().find(" \"/tmp/provisioning/t\tab\""), std::string::npos);
    EXPECT_NE(commandLine().find(" -O "), std::string::npos);
    // The shell's word splitter gives back exactly the argument list.
    std::vector<String> words = Kt::Shell::SPLIT_WORDS(String(commandLine()));
    ASSERT_FALSE(words.empty());
    EXPECT_EQ(words.front(), "wget");
    EXPECT_EQ(std::vector<String>(words.begin() + 1, words.end()), args);
    // The run ends with `true`'s empty output.
    ASSERT_TRUE(loop.runUntil([this] { return completions > 0; }, std::chrono::seconds(20)));
    EXPECT_EQ(completions, 1);
    EXPECT_EQ(outcome.getString(), "START OF STATUS LINE NOT FOUND");
}

TEST_F(ProvisioningHttpClientStartTest, commandLineNeverHoldsThePassword) {
    ASSERT_TRUE(client
                    .getHttpInBackground("http://h/x", "user name", "pass word",
                                         "/tmp/provisioning/x", counting())
                    .isSuccess());
    std::string line = commandLine();
    EXPECT_NE(line.find(" --config=/tmp/provisioning/.wget-"), std::string::npos) << line;
    EXPECT_EQ(line.find("pass word"), std::string::npos) << line;
    EXPECT_EQ(line.find("user name"), std::string::npos) << line;
    ASSERT_TRUE(loop.runUntil([this] { return completions > 0; }, std::chrono::seconds(20)));
}

TEST_F(ProvisioningHttpClientStartTest, privateFilesAreGoneWhenTheRunHasEnded) {
    ASSERT_TRUE(client
                    .getHttpsInBackground("https://h/x", "user", "secret", "/tmp/provisioning/x",
                                          "/c/ca.pem", "", "", counting())
                    .isSuccess());
    std::string line = commandLine();
    std::size_t at = line.find("--config=");
    ASSERT_NE(at, std::string::npos);
    std::string config = line.substr(at + 9, line.find(' ', at) - at - 9);
    ASSERT_TRUE(loop.runUntil([this] { return completions > 0; }, std::chrono::seconds(20)));
    EXPECT_FALSE(provtest::fileExists(config)) << config;
    EXPECT_FALSE(provtest::fileExists(config.substr(0, config.rfind('/')))) << config;
}

TEST_F(ProvisioningHttpClientStartTest, failingBuildArgsReturnsLogsAndStartsNothing) {
    std::size_t running = Kt::ShellHooks::RUNNING_COMMANDS();
    XCode result = client.getHttpInBackground("http://h/a\"b", "/tmp/provisioning/x", counting());
    EXPECT_EQ(result.getValue(), GENERIC);
    EXPECT_EQ(result.getString(), "INVALID CHARACTER IN WGET ARGUMENT");
    EXPECT_EQ(monitor.lines(), (std::vector<std::string>{"[job/HTTP] " + result.toString().str()}));
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), running);
    loop.runPending();
    EXPECT_EQ(completions, 0);
}

TEST_F(ProvisioningHttpClientStartTest, toolThatCannotStartIsReturnedAndLogged) {
    Kt::ShellControl::SET_TOOL("wget", {"/nonexistent/wget"});
    XCode result = client.getHttpInBackground("http://h/x", "/tmp/provisioning/x", counting());
    EXPECT_TRUE(result.isErr());
    EXPECT_GE(monitor.indexOf("[job/HTTP] " + result.toString().str()), 0) << monitor.dump();
    loop.runPending();
    EXPECT_EQ(completions, 0);
}

TEST_F(ProvisioningHttpClientStartTest, newRunClearsTheCollectedText) {
    Hook::output(client, "old output\nhalf");
    ASSERT_TRUE(
        client.getHttpInBackground("http://h/x", "/tmp/provisioning/x", counting()).isSuccess());
    EXPECT_EQ(Hook::responseText(client), "");
    EXPECT_EQ(Hook::lineBuffer(client), "");
    ASSERT_TRUE(loop.runUntil([this] { return completions > 0; }, std::chrono::seconds(20)));
}

TEST_F(ProvisioningHttpClientStartTest, blockingCallOnTheLoopThreadIsRefused) {
    XCode result;
    loop.post([&] {
        result = client.getHttp("http://h/x", "/tmp/provisioning/x");
        loop.stop();
    });
    loop.run();
    EXPECT_EQ(result.getString(), "BLOCKING HTTP CALL ON THE CLIENT'S EVENT LOOP");
}

}  // namespace
