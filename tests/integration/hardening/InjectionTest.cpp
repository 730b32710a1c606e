// Text from outside reaches the command lines of tftp, wget and tar: locations, device values in
// expressions, DHCP options, redirect targets, realms, users and passwords. None of it may run a
// second command or add an option to a tool. A recording stand-in (tests/data/hardening/
// record-argv.sh) is put first on the tool path and shows every argument list a tool was given.
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "integration/hardening/HardeningSupport.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/content/UploadProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "platform/testing/ShellHooks.h"
#include "support/FixtureServer.h"
#include "support/Process.h"
#include "support/TftpServer.h"

namespace {

using namespace provtest::hardening;
using provtest::decodeBasic;
using provtest::FixtureResponse;
using provtest::FixtureServer;
using provtest::TftpServer;

using Runs = std::vector<std::vector<std::string>>;

std::string show(const std::vector<std::string>& args) {
    std::string text;
    for (const std::string& arg : args) {
        text += "[" + arg + "] ";
    }
    return text;
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

// The tools get the host path of the device's work directory.
std::string workDirectory() {
    return Device::MAP_PATH("/tmp/provisioning").str();
}

// tftp -g -l FILE -r PATH HOST [PORT]: six arguments, or seven with a port; the file a work
// file, the path absolute, the host no option, the port a number.
::testing::AssertionResult tftpRunsAreClean(const Runs& runs) {
    for (const auto& args : runs) {
        bool clean = (args.size() == 6 || args.size() == 7) && args[0] == "-g" && args[1] == "-l" &&
                     startsWith(args[2], workDirectory() + "/") && args[3] == "-r" &&
                     startsWith(args[4], "/") && !args[5].empty() && args[5][0] != '-';
        if (clean && args.size() == 7) {
            clean =
                !args[6].empty() && args[6].find_first_not_of("0123456789") == std::string::npos;
        }
        if (!clean) {
            return ::testing::AssertionFailure()
                   << "tftp got " << args.size() << " arguments: " << show(args);
        }
    }
    return ::testing::AssertionSuccess();
}

// The wget options of a download in the order docs/WGET.md gives them; "<config>" is
// --no-config or the private credentials file, "<file>" the work file, "<url>" the URL.
const std::vector<std::string> WGET_ARGS = {
    "-q",        "-S",        "<config>",     "--no-netrc",       "--no-proxy",
    "--no-hsts", "--tries=1", "--timeout=30", "--max-redirect=0", "-O",
    "<file>",    "--",        "<url>"};

::testing::AssertionResult wgetRunsAreClean(const Runs& runs) {
    for (const auto& args : runs) {
        bool clean = args.size() == WGET_ARGS.size();
        for (std::size_t i = 0; clean && i < args.size(); ++i) {
            const std::string& expected = WGET_ARGS[i];
            if (expected == "<config>") {
                clean = args[i] == "--no-config" ||
                        (startsWith(args[i], "--config=" + workDirectory() + "/.wget-") &&
                         args[i].size() == ("--config=" + workDirectory() + "/.wget-").size() +
                                               std::string("XXXXXX/wgetrc").size());
            } else if (expected == "<file>") {
                clean = startsWith(args[i], workDirectory() + "/");
            } else if (expected == "<url>") {
                clean = startsWith(args[i], "http://") || startsWith(args[i], "https://");
            } else {
                clean = args[i] == expected;
            }
        }
        if (!clean) {
            return ::testing::AssertionFailure()
                   << "wget got " << args.size() << " arguments: " << show(args);
        }
    }
    return ::testing::AssertionSuccess();
}

// tar xf FILE -C /tmp/provisioning manifest, as the tool gets it (host paths).
::testing::AssertionResult tarRunsAreClean(const Runs& runs) {
    for (const auto& args : runs) {
        if (args.size() != 5 || args[0] != "xf" || !startsWith(args[1], workDirectory() + "/") ||
            args[2] != "-C" || args[3] != workDirectory() || args[4] != "manifest") {
            return ::testing::AssertionFailure()
                   << "tar got " << args.size() << " arguments: " << show(args);
        }
    }
    return ::testing::AssertionSuccess();
}

// Texts that would run a second command in a shell or add an option to a tool.
std::vector<std::string> hostileTexts(const std::string& marker) {
    return {"x;touch " + marker,
            "x`touch " + marker + "`",
            "x$IFS;touch$IFS" + marker,
            "x|touch " + marker,
            "x&&touch " + marker,
            "x\ntouch " + marker,
            "x -l " + marker,
            "x\t-l\t" + marker,
            "\"x -l\" " + marker,
            "-l" + marker,
            "--help",
            "x -O " + marker,
            "x --to-command=touch " + marker};
}

class InjectionTest : public DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        marker = "/tmp/" + unique + "-owned";
        ::unlink(marker.c_str());
    }
    void TearDown() override {
        ::unlink(marker.c_str());
        DeviceTest::TearDown();
    }

    // Runs a config job over `locations` to its end with a handler of its own and returns what
    // that handler was told (exactly once, or the test fails).
    XCode runConfigJob(const char* name, const KtList<String>& locations) {
        CountingHandler told;
        ConfigProvisioningJob job(loop, name, ProvisioningJob::None, false, locations, credentials,
                                  resolver, told);
        static_cast<void>(job.execute());
        EXPECT_TRUE(loop.runUntil([&] { return !told.results.empty(); }, 120s)) << prov.dump();
        loop.runPending();
        EXPECT_EQ(told.results.size(), 1U) << name;
        return told.results.empty() ? XCode(-1) : told.results.front();
    }

    std::string marker;
};

// --- Locations -------------------------------------------------------------------------------

TEST_F(InjectionTest, hostileLocationsReachTftpAndWgetOnlyAsSingleArguments) {
    ToolRecorder recorder("argv");
    recorder.record("tftp");
    recorder.record("wget");
    provtest::LoopbackSocket udp = provtest::LoopbackSocket::udp();
    provtest::LoopbackSocket tcp = provtest::LoopbackSocket::tcpRefusing();
    for (const std::string& text : hostileTexts(marker)) {
        SCOPED_TRACE(text);
        KtList<String> locations;
        for (const char* form : {"tftp://127.0.0.1:%u/%s/%s", "http://127.0.0.1:%u/%s/%s"}) {
            unsigned int port = form[0] == 't' ? udp.port() : tcp.port();
            locations.pushBack(String::format(form, port, unique.c_str(), text.c_str()));
            locations.pushBack(String::format(form, port, text.c_str(), unique.c_str()));
        }
        locations.pushBack(String::format("tftp://%s/%s", text.c_str(), unique.c_str()));
        locations.pushBack(String::format("http://%s/%s", text.c_str(), unique.c_str()));
        XCode told = runConfigJob("loc", locations);
        EXPECT_TRUE(told.isErr());
    }
    Runs tftp, wget;
    for (const auto& args : recorder.runs()) {
        (!args.empty() && args[0] == "-g" ? tftp : wget).push_back(args);
    }
    EXPECT_FALSE(tftp.empty());
    EXPECT_FALSE(wget.empty());
    EXPECT_TRUE(tftpRunsAreClean(tftp)) << recorder.dump();
    EXPECT_TRUE(wgetRunsAreClean(wget)) << recorder.dump();
    EXPECT_FALSE(provtest::fileExists(marker));
    EXPECT_TRUE(deviceUnchanged());
}

// With the real client: a blank in a TFTP path must not move tftp's local file elsewhere.
TEST_F(InjectionTest, blankInATftpPathCannotChooseTftpsLocalFile) {
    TftpServer server;
    std::string name = remote(".cfg");
    server.put(name, NEW_CONFIG);
    ASSERT_TRUE(server.start());
    // Before the fix this reached busybox as "-l <marker>" after the job's own "-l": the last
    // one wins and the server's file lands wherever the location says.
    String location =
        String::format("tftp://127.0.0.1:%u/%s -l %s", server.port(), name.c_str(), marker.c_str());
    workFiles.push_back(workFileOf(marker));
    XCode told = runConfigJob("blank", {location});
    EXPECT_TRUE(told.isErr());
    EXPECT_EQ(told.getString(), "INVALID CHARACTER IN TFTP ARGUMENT") << prov.dump();
    EXPECT_FALSE(provtest::fileExists(marker));
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(InjectionTest, uploadToALocationWithoutPathStartsNoTftp) {
    ToolRecorder recorder("argv");
    recorder.record("tftp");
    provtest::LoopbackSocket udp = provtest::LoopbackSocket::udp();
    CountingHandler told;
    UploadProvisioningJob job(loop, "up", ProvisioningJob::None, false,
                              {String::format("tftp://127.0.0.1:%u", udp.port())}, credentials,
                              resolver, told);
    XCode started = job.execute();
    // "-r" would otherwise take the host as the remote file.
    EXPECT_EQ(started.getString(), "INVALID CHARACTER IN TFTP ARGUMENT");
    ASSERT_EQ(told.results.size(), 1U);
    EXPECT_TRUE(recorder.runs().empty()) << recorder.dump();
}

// --- Device values and DHCP options -----------------------------------------------------------

TEST_F(InjectionTest, hostileDeviceValuesInExpressionsStayOneArgument) {
    ToolRecorder recorder("argv");
    recorder.record("tftp");
    recorder.record("wget");
    provtest::LoopbackSocket udp = provtest::LoopbackSocket::udp();
    provtest::LoopbackSocket tcp = provtest::LoopbackSocket::tcpRefusing();
    std::vector<std::string> values = hostileTexts(marker);
    values.push_back("$(touch " + marker + ")");
    values.push_back("-");
    for (const std::string& value : values) {
        SCOPED_TRACE(value);
        resolver.macAddress = value.c_str();
        resolver.serialNumber = value.c_str();
        resolver.productName = value.c_str();
        std::string u = unique;
        XCode told = runConfigJob(
            "values",
            {String::format("tftp://127.0.0.1:%u/%s-$(system.mac).cfg", udp.port(), u.c_str()),
             String::format("tftp://127.0.0.1:%u/$(system.serial)", udp.port()),
             String::format("tftp://$(system.mac)/%s", u.c_str()),
             String::format("tftp://127.0.0.1:$(system.serial)/%s", u.c_str()),
             String::format("http://127.0.0.1:%u/%s/$(system.product.name)", tcp.port(), u.c_str()),
             String::format("http://127.0.0.1:%u/$(system.mac)/%s", tcp.port(), u.c_str()),
             String::format("http://$(system.serial)/%s", u.c_str())});
        EXPECT_TRUE(told.isErr());
    }
    Runs tftp, wget;
    for (const auto& args : recorder.runs()) {
        (!args.empty() && args[0] == "-g" ? tftp : wget).push_back(args);
    }
    EXPECT_FALSE(tftp.empty());
    EXPECT_FALSE(wget.empty());
    EXPECT_TRUE(tftpRunsAreClean(tftp)) << recorder.dump();
    EXPECT_TRUE(wgetRunsAreClean(wget)) << recorder.dump();
    EXPECT_FALSE(provtest::fileExists(marker));
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(InjectionTest, hostileDhcpOptionsAsHostAndPathStayOneArgument) {
    ToolRecorder recorder("argv");
    recorder.record("tftp");
    recorder.record("wget");
    provtest::LoopbackSocket udp = provtest::LoopbackSocket::udp();
    provtest::LoopbackSocket tcp = provtest::LoopbackSocket::tcpRefusing();
    std::string tftpServer = "127.0.0.1:" + std::to_string(udp.port());
    std::string httpServer = "127.0.0.1:" + std::to_string(tcp.port());
    // Option 66 names the server, option 67 the file.
    std::vector<std::pair<std::string, std::string>> options;
    for (const std::string& text : hostileTexts(marker)) {
        options.emplace_back(tftpServer, unique + text);
        options.emplace_back(text, unique);
        options.emplace_back(tftpServer + " " + text, unique);
        options.emplace_back(tftpServer + "/" + text, unique);
    }
    options.emplace_back(tftpServer, "-l " + marker);
    options.emplace_back(tftpServer, "");
    for (const auto& [server, file] : options) {
        SCOPED_TRACE(server + " | " + file);
        resolver.tftpServer = server.c_str();
        resolver.tftpFileName = file.c_str();
        XCode told =
            runConfigJob("dhcp", {"tftp://$(dhcp.66)/$(dhcp.67)", "http://$(dhcp.66)/$(dhcp.67)"});
        EXPECT_TRUE(told.isErr());
        resolver.tftpServer = httpServer.c_str();
        told = runConfigJob("dhcp", {"http://$(dhcp.66)/$(dhcp.67)"});
        EXPECT_TRUE(told.isErr());
    }
    Runs tftp, wget;
    for (const auto& args : recorder.runs()) {
        (!args.empty() && args[0] == "-g" ? tftp : wget).push_back(args);
    }
    EXPECT_FALSE(tftp.empty());
    EXPECT_FALSE(wget.empty());
    EXPECT_TRUE(tftpRunsAreClean(tftp)) << recorder.dump();
    EXPECT_TRUE(wgetRunsAreClean(wget)) << recorder.dump();
    EXPECT_FALSE(provtest::fileExists(marker));
    EXPECT_TRUE(deviceUnchanged());
}

// --- Redirect targets, realms, users and passwords ---------------------------------------------

TEST_F(InjectionTest, hostileRedirectTargetsStayOneArgument) {
    FixtureServer server;
    ASSERT_TRUE(server.start());
    ToolRecorder recorder("argv");
    recorder.record("tftp");
    // The real wget runs after recording, so that the redirects really come.
    recorder.record("wget", {"/usr/bin/wget"});
    provtest::LoopbackSocket udp = provtest::LoopbackSocket::udp();
    std::vector<std::string> targets;
    for (const std::string& text : hostileTexts(marker)) {
        if (text.find('\n') != std::string::npos) {
            continue;  // would end the header line
        }
        targets.push_back("http://127.0.0.1:{port}/" + unique + "/" + text);
        targets.push_back("/" + unique + "/" + text);
        targets.push_back(text);
        // Across protocols: an HTTP server sends the job to a TFTP location.
        targets.push_back("tftp://127.0.0.1:" + std::to_string(udp.port()) + "/" + unique + "/" +
                          text);
        targets.push_back("tftp://" + text + "/" + unique);
    }
    KtList<String> hops;
    for (std::size_t i = 0; i < targets.size(); ++i) {
        std::string hop = "/" + unique + "-hop" + std::to_string(i);
        server.route(hop, {FixtureResponse::redirect(302, targets[i])});
        hops.pushBack(server.url(hop).c_str());
    }
    // Ten hops per job: a job stops after thirty locations, and each hop counts twice.
    KtList<String> batch;
    for (const String& hop : hops) {
        batch.pushBack(hop);
        if (batch.size() == 10) {
            EXPECT_TRUE(runConfigJob("redirect", batch).isErr());
            batch = KtList<String>();
        }
    }
    if (!batch.isEmpty()) {
        EXPECT_TRUE(runConfigJob("redirect", batch).isErr());
    }
    EXPECT_GE(prov.count("[redirect] Redirected: "), static_cast<int>(targets.size()))
        << prov.dump();
    Runs tftp, wget;
    for (const auto& args : recorder.runs()) {
        (!args.empty() && args[0] == "-g" ? tftp : wget).push_back(args);
    }
    EXPECT_FALSE(tftp.empty());
    EXPECT_GE(wget.size(), hops.size());
    EXPECT_TRUE(tftpRunsAreClean(tftp)) << recorder.dump();
    EXPECT_TRUE(wgetRunsAreClean(wget)) << recorder.dump();
    EXPECT_FALSE(provtest::fileExists(marker));
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(InjectionTest, hostileRealmsUsersAndPasswordsStayOutOfTheArgumentList) {
    FixtureServer server;
    ASSERT_TRUE(server.start());
    ToolRecorder recorder("argv");
    recorder.record("wget", {"/usr/bin/wget"});
    std::vector<std::string> texts = hostileTexts(marker);
    int jobs = 0;
    for (const std::string& text : texts) {
        if (text.find('\n') != std::string::npos) {
            continue;  // refused as credentials; a header cannot carry it as a realm either
        }
        SCOPED_TRACE(text);
        std::string path = "/" + unique + "-auth" + std::to_string(jobs++);
        workFiles.push_back(workDirectory() + path);
        // The realm loses its first and last character: the quotes.
        // wget itself asks once more without credentials before it sends them.
        FixtureResponse challenge = FixtureResponse::challenge("Basic realm=\"" + text + "\"");
        server.route(path, {challenge, challenge, FixtureResponse::ok(NEW_CONFIG)});
        credentials = ProvisioningCredentials();
        // A user and a password made of the same text, a leading "-" or "--" included. Also
        // under the wild-card realm: a realm with '=' or ',' reaches the job cut short.
        ASSERT_TRUE(
            credentials.add(text.c_str(), text.c_str(), (text + "#pw").c_str()).isSuccess());
        ASSERT_TRUE(credentials.add("", text.c_str(), (text + "#pw").c_str()).isSuccess());
        XCode told = runConfigJob("auth", {server.url(path).c_str()});
        EXPECT_TRUE(told.isSuccess()) << told.toString().c_str() << "\n" << prov.dump();
        std::vector<provtest::RecordedRequest> requests = server.requestsFor(path);
        ASSERT_EQ(requests.size(), 3U);
        EXPECT_EQ(decodeBasic(requests[2].header("Authorization")), text + ":" + text + "#pw");
    }
    Runs runs = recorder.runs();
    EXPECT_EQ(runs.size(), 2U * static_cast<std::size_t>(jobs));
    EXPECT_TRUE(wgetRunsAreClean(runs)) << recorder.dump();
    for (const auto& args : runs) {
        for (const std::string& arg : args) {
            EXPECT_EQ(arg.find("#pw"), std::string::npos) << show(args);
        }
    }
    EXPECT_FALSE(provtest::fileExists(marker));
}

// --- tar -------------------------------------------------------------------------------------

TEST_F(InjectionTest, hostileArchiveNamesReachTarAsOneArgument) {
    FixtureServer server;
    ToolRecorder recorder("argv");
    recorder.record("tar");
    std::vector<std::string> names = {unique + "-plain.tar", "-" + unique + ".tar",
                                      unique + " --to-command=sh x.tar", unique + "\t-C\tx.tar",
                                      unique + ";touch$IFS" + marker + ".tar"};
    for (const std::string& name : names) {
        // How wget asks for a blank: percent-encoded.
        std::string requested;
        for (char c : name) {
            requested += c == ' ' ? "%20" : c == '\t' ? "%09" : std::string(1, c);
        }
        server.route("/" + requested, {FixtureResponse::ok("archive")});
        workFiles.push_back(workDirectory() + "/" + name);
    }
    ASSERT_TRUE(server.start());
    for (const std::string& name : names) {
        SCOPED_TRACE(name);
        CountingHandler told;
        FirmwareProvisioningJob job(loop, "tar", ProvisioningJob::None, false,
                                    {server.url("/" + name).c_str()}, credentials, resolver, told,
                                    "", "", "", 1, 1);
        static_cast<void>(job.execute());
        ASSERT_TRUE(loop.runUntil([&] { return !told.results.empty(); }, 60s)) << prov.dump();
        ASSERT_EQ(told.results.size(), 1U);
        EXPECT_TRUE(told.results[0].isErr());
    }
    Runs runs = recorder.runs();
    // The two names without blank, tab or ';' got to tar (and the stand-in refused them). The
    // file of the ';' name is named by what comes before the ';', which is no archive's name.
    EXPECT_EQ(runs.size(), 2U) << recorder.dump();
    EXPECT_TRUE(tarRunsAreClean(runs)) << recorder.dump();
    EXPECT_FALSE(provtest::fileExists(marker));
    EXPECT_TRUE(deviceUnchanged());
}

// With the real tar: an archive left in the work directory by an earlier download, and a
// location whose name adds "--to-command=sh" to tar's arguments, would run the archive's
// manifest as a shell script.
TEST_F(InjectionTest, optionInALocationNameCannotMakeTarRunACommand) {
    provtest::TempDir source("prov-hard-tar");
    provtest::writeFile(source.file("manifest"), "touch " + marker + "\n");
    std::string archive = remote(".tar");
    ASSERT_TRUE(provtest::runCommand(
                    {"/bin/tar", "cf", workFileOf(archive), "-C", source.path(), "manifest"})
                    .exitStatus == 0);
    FixtureServer server;
    std::string name = archive + " --to-command=sh x.tar";
    server.route("/" + archive + "%20--to-command=sh%20x.tar", {FixtureResponse::ok("x")});
    workFiles.push_back(workFileOf(name));
    ASSERT_TRUE(server.start());
    FirmwareProvisioningJob job(loop, "tar", ProvisioningJob::None, false,
                                {server.url("/" + name).c_str()}, credentials, resolver, handler,
                                "", "", "", 1, 1);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(told().getString(), "INVALID CHARACTER IN ARCHIVE NAME") << prov.dump();
    EXPECT_FALSE(provtest::fileExists(marker));
    EXPECT_TRUE(deviceUnchanged());
}

}  // namespace
