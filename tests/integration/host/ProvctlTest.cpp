// Black-box runs of the built provctl binary: command line, device directory, output formats,
// and real transfers against tftpd-hpa on loopback.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/Certificates.h"
#include "support/FixtureServer.h"
#include "support/HttpServer.h"
#include "support/Process.h"
#include "support/ProvctlRun.h"
#include "support/TempDir.h"
#include "support/TftpServer.h"

namespace {

using provtest::readFile;
using provtest::TempDir;
using provtest::writeFile;

using Outcome = provtest::ProvctlOutcome;

class ProvctlTest : public ::testing::Test {
  protected:
    Outcome provctl(const std::vector<std::string>& args,
                    const std::vector<std::string>& extraEnv = {}) {
        Outcome run = provtest::runProvctl(dir_, args, extraEnv);
        EXPECT_TRUE(run.ended) << "provctl did not end";
        return run;
    }

    // A name no other test (or test process) uses, for files that meet in /tmp/provisioning/.
    static std::string unique(const std::string& stem) {
        static std::atomic<int> counter{0};
        return stem + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    }

    std::string device() const { return dir_.file("device"); }

    TempDir dir_{"prov-provctl"};
    int runs_ = 0;
};

std::string lastLine(const std::string& text) {
    std::string trimmed = text;
    while (!trimmed.empty() && trimmed.back() == '\n') {
        trimmed.pop_back();
    }
    std::size_t newline = trimmed.rfind('\n');
    return newline == std::string::npos ? trimmed : trimmed.substr(newline + 1);
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// "provctl JOB ..." with --json: the one object on standard output.
nlohmann::json parseJson(const Outcome& run) {
    nlohmann::json object = nlohmann::json::parse(run.out, nullptr, false);
    EXPECT_FALSE(object.is_discarded()) << "not JSON: " << run.out;
    return object;
}

const char* const VALID_CONFIG =
    "cli version 4.12\n"
    "context ip router\n"
    "  interface eth0\n"
    "port ethernet 0 0\n";

// --- resolve ---

TEST_F(ProvctlTest, resolvePrintsTheResolvedTextWithSetValues) {
    Outcome run = provctl({"resolve", "--device", device(), "--set", "system.mac=00a0ba0b0c0d",
                           "tftp://10.0.0.1/$(system.mac).cfg"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "tftp://10.0.0.1/00a0ba0b0c0d.cfg\n");
}

TEST_F(ProvctlTest, resolveConditionalExpression) {
    Outcome run = provctl({"resolve", "--device", device(), "--set", "system.hw.major=2",
                           "/$(system.hw.major>=2|new|old)/image.tar"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "/new/image.tar\n");
}

TEST_F(ProvctlTest, resolveFailureExitsOneWithMessageOnStderrAndNothingOnStdout) {
    Outcome run = provctl({"resolve", "--device", device(), "tftp://h/$(nosuch)"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("CANNOT RESOLVE ALL EXPRESSIONS", 0), 0U) << run.err;
}

TEST_F(ProvctlTest, resolveUnclosedExpressionFails) {
    Outcome run = provctl({"resolve", "--device", device(), "$(system.serial"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("CANNOT RESOLVE ALL EXPRESSIONS", 0), 0U) << run.err;
}

TEST_F(ProvctlTest, resolveUnknownValueNameIsAUsageError) {
    Outcome run = provctl({"resolve", "--device", device(), "--set", "system.nosuch=1", "x"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(contains(run.err, "system.nosuch")) << run.err;
}

TEST_F(ProvctlTest, resolveReservedEncryptedNameIsAUsageError) {
    Outcome run =
        provctl({"resolve", "--device", device(), "--set", "system.mac-encrypted=1", "x"});
    EXPECT_EQ(run.status, 2);
}

TEST_F(ProvctlTest, resolveSetWithoutEqualsIsAUsageError) {
    Outcome run = provctl({"resolve", "--device", device(), "--set", "system.mac", "x"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
}

TEST_F(ProvctlTest, resolveWithoutTextIsAUsageError) {
    Outcome run = provctl({"resolve", "--device", device()});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
}

TEST_F(ProvctlTest, resolveAcceptsTheValuesWithoutExpressionName) {
    Outcome run =
        provctl({"resolve", "--device", device(), "--set", "model=M1", "--set", "oem=O", "--set",
                 "hw.version=1", "--set", "hw.revision=B", "--set", "sw.version=13.1", "plain"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "plain\n");
}

TEST_F(ProvctlTest, resolveReadsValuesFromDeviceToml) {
    writeFile(device() + "/device.toml",
              "[values]\n\"system.serial\" = \"S-17\"\nsystem.hw.major = \"3\"\n");
    Outcome run = provctl(
        {"resolve", "--device", device(), "/$(system.serial)/$(system.hw.major>2|big|small)"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "/S-17/big\n");
}

TEST_F(ProvctlTest, resolveSetOverridesDeviceToml) {
    writeFile(device() + "/device.toml", "[values]\n\"system.serial\" = \"S-17\"\n");
    Outcome run = provctl(
        {"resolve", "--device", device(), "--set", "system.serial=S-99", "$(system.serial)"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "S-99\n");
}

TEST_F(ProvctlTest, resolveUnknownNameInDeviceTomlIsAUsageError) {
    writeFile(device() + "/device.toml", "[values]\n\"system.bogus\" = \"1\"\n");
    Outcome run = provctl({"resolve", "--device", device(), "x"});
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(contains(run.err, "system.bogus")) << run.err;
}

TEST_F(ProvctlTest, resolveNonStringValueInDeviceTomlIsAUsageError) {
    writeFile(device() + "/device.toml", "[values]\n\"system.hw.major\" = 2.0\n");
    Outcome run = provctl({"resolve", "--device", device(), "x"});
    EXPECT_EQ(run.status, 2);
}

TEST_F(ProvctlTest, resolveMalformedDeviceTomlIsAUsageErrorNamingTheFile) {
    writeFile(device() + "/device.toml", "[values\n");
    Outcome run = provctl({"resolve", "--device", device(), "x"});
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(contains(run.err, "device.toml")) << run.err;
}

TEST_F(ProvctlTest, resolveLeavesAMissingDeviceDirectoryMissing) {
    Outcome run = provctl({"resolve", "--device", device(), "x"});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_FALSE(provtest::fileExists(device()));
}

// --- usage ---

TEST_F(ProvctlTest, noCommandIsAUsageError) {
    Outcome run = provctl({});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
}

TEST_F(ProvctlTest, unknownCommandIsAUsageError) {
    Outcome run = provctl({"flash", "tftp://127.0.0.1/x"});
    EXPECT_EQ(run.status, 2);
}

TEST_F(ProvctlTest, unknownOptionIsAUsageError) {
    Outcome run = provctl({"config", "--device", device(), "--bogus", "tftp://127.0.0.1/x"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
}

TEST_F(ProvctlTest, jobWithoutLocationIsAUsageError) {
    Outcome run = provctl({"config", "--device", device()});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
}

TEST_F(ProvctlTest, optionOfAnotherJobKindIsAUsageError) {
    Outcome run = provctl({"config", "--device", device(), "--source", "x", "tftp://127.0.0.1/x"});
    EXPECT_EQ(run.status, 2);
}

TEST_F(ProvctlTest, httpsAuthNeedsThreeParts) {
    Outcome run = provctl(
        {"config", "--device", device(), "--https-auth", "ca.pem,cert.pem", "https://127.0.0.1/x"});
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(contains(run.err, "CA,CERT,KEY")) << run.err;
}

TEST_F(ProvctlTest, credentialNeedsRealmUserAndPassword) {
    Outcome run = provctl(
        {"config", "--device", device(), "--credential", "realm-only", "http://127.0.0.1/x"});
    EXPECT_EQ(run.status, 2);
    EXPECT_TRUE(contains(run.err, "REALM:USER:PASSWORD")) << run.err;
}

TEST_F(ProvctlTest, unknownDeviceValueOfAJobIsAUsageError) {
    Outcome run =
        provctl({"config", "--device", device(), "--set", "nosuch=1", "tftp://127.0.0.1/x"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_FALSE(provtest::fileExists(device()));  // a refused command line creates nothing
}

TEST_F(ProvctlTest, malformedCredentialsInDeviceTomlAreAUsageError) {
    writeFile(device() + "/device.toml", "[credentials]\nrealm = \"user:password\"\n");
    Outcome run = provctl({"config", "--device", device(), "http://127.0.0.1/x"});
    EXPECT_EQ(run.status, 2);
}

TEST_F(ProvctlTest, rejectListOfTheWrongTypeInDeviceTomlIsAUsageError) {
    writeFile(device() + "/device.toml", "[cli]\nreject = \"no *\"\n");
    Outcome run = provctl({"config", "--device", device(), "http://127.0.0.1/x"});
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(contains(
        run.err, "provctl: " + device() +
                     "/device.toml:2:1: 'cli.reject' must be an array of strings, not a string\n"))
        << run.err;
    EXPECT_FALSE(provtest::fileExists(device() + "/config"));
}

TEST_F(ProvctlTest, versionIsPrinted) {
    Outcome run = provctl({"--version"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out.rfind("provctl ", 0), 0U) << run.out;
}

TEST_F(ProvctlTest, everyCommandHasAManualPage) {
    for (const char* command : {"resolve", "config", "upload", "cdr-upload", "dialplan", "key",
                                "wizard", "firmware", "script"}) {
        Outcome run = provctl({command, "--help"});
        EXPECT_EQ(run.status, 0) << command;
        for (const char* section : {"NAME\n", "SYNOPSIS\n", "DESCRIPTION\n", "OPTIONS\n",
                                    "EXIT STATUS\n", "EXAMPLES\n"}) {
            EXPECT_TRUE(contains(run.out, section)) << command << " lacks " << section;
        }
        EXPECT_TRUE(contains(run.out, std::string("provctl ") + command)) << command;
    }
    Outcome overview = provctl({"--help"});
    EXPECT_EQ(overview.status, 0);
    EXPECT_TRUE(contains(overview.out, "COMMANDS\n")) << overview.out;
}

TEST_F(ProvctlTest, dialplanPageNamesItsOwnOption) {
    Outcome run = provctl({"dialplan", "--help"});
    EXPECT_TRUE(contains(run.out, "--dialplan NAME")) << run.out;
    Outcome config = provctl({"config", "--help"});
    EXPECT_FALSE(contains(config.out, "--dialplan NAME")) << config.out;
}

// --- jobs without a server ---

TEST_F(ProvctlTest, cdrUploadFailsWithNotImplemented) {
    Outcome run = provctl({"cdr-upload", "--device", device(), "tftp://127.0.0.1:9/cdr.txt"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(lastLine(run.out), "result: NOT IMPLEMENTED (0x7FFFFFFF)") << run.out;
    EXPECT_TRUE(contains(run.err, "PROV 3 [cdr-upload] EXECUTION FAILED: NOT IMPLEMENTED"))
        << run.err;
}

TEST_F(ProvctlTest, jsonOutcomeHasEveryFieldWithItsType) {
    Outcome run = provctl({"cdr-upload", "--json", "--device", device(), "--source", "calls",
                           "tftp://127.0.0.1:9/cdr.txt"});
    EXPECT_EQ(run.status, 1);
    ASSERT_EQ(std::count(run.out.begin(), run.out.end(), '\n'), 1) << run.out;
    nlohmann::json object = parseJson(run);
    ASSERT_TRUE(object.is_object());
    EXPECT_EQ(object.size(), 14U) << object.dump();
    EXPECT_EQ(object["schemaVersion"], 1);
    EXPECT_EQ(object["kind"], "cdr-upload");
    EXPECT_EQ(object["name"], "cdr-upload");
    EXPECT_EQ(object["reason"], "");
    EXPECT_EQ(object["locations"], nlohmann::json::array());
    EXPECT_EQ(object["ok"], false);
    EXPECT_EQ(object["value"], 0x7FFFFFFF);
    EXPECT_EQ(object["message"], "NOT IMPLEMENTED");
    EXPECT_EQ(object["text"], "NOT IMPLEMENTED (0x7FFFFFFF)");
    EXPECT_EQ(object["imageAction"], "No Action");
    EXPECT_EQ(object["activation"], false);
    EXPECT_EQ(object["postUpgrade"], false);
    ASSERT_TRUE(object["followUp"].is_object());
    EXPECT_EQ(object["followUp"].size(), 4U);
    EXPECT_EQ(object["followUp"]["pending"], false);
    EXPECT_EQ(object["followUp"]["mode"], "");
    EXPECT_EQ(object["followUp"]["command"], "");
    EXPECT_TRUE(object["followUp"]["arguments"].is_array());
    EXPECT_TRUE(object["statusLocation"].is_string());
}

TEST_F(ProvctlTest, unsupportedProtocolFailsAndLogsOnStderr) {
    Outcome run =
        provctl({"config", "-v", "--json", "--device", device(), "ftp://127.0.0.1/x.cfg"});
    EXPECT_EQ(run.status, 1);
    nlohmann::json object = parseJson(run);
    EXPECT_EQ(object["message"], "PROTOCOL FTP NOT SUPPORTED");
    EXPECT_TRUE(contains(run.err, "PROV 6 [config] Starting execution\n")) << run.err;
    EXPECT_TRUE(contains(run.err, "PROV 3 [config] EXECUTION FAILED: PROTOCOL FTP NOT SUPPORTED"))
        << run.err;
}

TEST_F(ProvctlTest, monitorLevelHidesProgressLines) {
    Outcome run = provctl(
        {"config", "-v", "3", "--name", "quiet", "--device", device(), "ftp://127.0.0.1/x.cfg"});
    EXPECT_EQ(run.status, 1);
    EXPECT_FALSE(contains(run.err, "PROV 6")) << run.err;
    EXPECT_TRUE(contains(run.err, "PROV 3 [quiet] EXECUTION FAILED")) << run.err;
}

TEST_F(ProvctlTest, jobNameDefaultsToTheKindAndCanBeSet) {
    Outcome run =
        provctl({"key", "-v", "--name", "mykey", "--device", device(), "ftp://127.0.0.1/k"});
    EXPECT_TRUE(contains(run.err, "[mykey] Starting execution")) << run.err;
}

TEST_F(ProvctlTest, jobPreparesTheDeviceDirectory) {
    Outcome run = provctl({"key", "-v", "--device", device(), "ftp://127.0.0.1/k"});
    EXPECT_EQ(run.status, 1);
    for (const char* sub : {"/flash/dialplan", "/flash/preferences", "/flash/wizard",
                            "/flash/provisioning", "/config", "/slots", "/status"}) {
        EXPECT_TRUE(provtest::fileExists(device() + sub)) << sub;
    }
    EXPECT_TRUE(provtest::fileExists(device() + "/tmp/provisioning"));
}

TEST_F(ProvctlTest, defaultDeviceDirectoryFollowsXdgStateHome) {
    const std::string state = dir_.file("state");
    Outcome run = provctl({"key", "ftp://127.0.0.1/k"}, {"XDG_STATE_HOME=" + state});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(provtest::fileExists(state + "/provctl/device/flash/preferences"));
}

TEST_F(ProvctlTest, defaultDeviceDirectoryWithoutXdgIsUnderHome) {
    Outcome run = provctl({"key", "ftp://127.0.0.1/k"});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(provtest::fileExists(dir_.file("home") + "/.local/state/provctl/device/flash"));
}

TEST_F(ProvctlTest, expressionInLocationIsResolvedWithDeviceValues) {
    writeFile(device() + "/device.toml", "[values]\n\"system.mac\" = \"00a0ba0b0c0d\"\n");
    Outcome run =
        provctl({"config", "-v", "--device", device(), "ftp://127.0.0.1/$(system.mac).cfg"});
    EXPECT_TRUE(contains(run.err, "Location resolved to ftp://127.0.0.1/00a0ba0b0c0d.cfg"))
        << run.err;
}

#ifdef PROV_JEMALLOC
TEST_F(ProvctlTest, allocatorIsJemalloc) {
    Outcome run = provctl({"resolve", "--device", device(), "x"}, {"MALLOC_CONF=stats_print:true"});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(contains(run.err, "jemalloc")) << run.err.substr(0, 400);
}
#endif

// --- TFTP ---

class ProvctlTftpTest : public ProvctlTest {
  protected:
    void SetUp() override { ASSERT_TRUE(server_.start()); }

    std::string url(const std::string& name) const {
        return "tftp://127.0.0.1:" + std::to_string(server_.port()) + "/" + name;
    }

    provtest::TftpServer server_;
};

TEST_F(ProvctlTftpTest, configIsStoredAsStartupConfigWithAnXferLine) {
    const std::string name = unique("unit") + ".cfg";
    server_.put(name, VALID_CONFIG);
    Outcome run = provctl({"config", "-v", "--device", device(), url(name)});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(lastLine(run.out), "result: OK") << run.out;
    EXPECT_EQ(readFile(device() + "/config/startup-config"), VALID_CONFIG);
    EXPECT_TRUE(
        contains(run.err, "XFER 6 config : " + url(name) + " -> startup-config : succeeded\n"))
        << run.err;
    EXPECT_TRUE(contains(run.err, "EVENT 6 [config] Received and stored configuration update"))
        << run.err;
    EXPECT_TRUE(contains(run.out, "status location: " + url(name) + "\n")) << run.out;
}

TEST_F(ProvctlTftpTest, secondConfigRunWithCompareStoresNothingAndWritesNoXferLine) {
    const std::string name = unique("unit") + ".cfg";
    server_.put(name, VALID_CONFIG);
    Outcome first = provctl({"config", "-v", "--device", device(), url(name)});
    ASSERT_EQ(first.status, 0) << first.err;
    const std::string stored = device() + "/config/startup-config";
    Outcome second =
        provctl({"config", "-v", "--compare", "--json", "--device", device(), url(name)});
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_FALSE(contains(second.err, "XFER ")) << second.err;
    EXPECT_TRUE(contains(second.err, "Downloaded and stored configurations are equal"))
        << second.err;
    EXPECT_FALSE(contains(second.err, "Storing configuration")) << second.err;
    nlohmann::json object = parseJson(second);
    EXPECT_EQ(object["ok"], true);
    EXPECT_EQ(object["activation"], false);
    EXPECT_EQ(readFile(stored), VALID_CONFIG);
}

TEST_F(ProvctlTftpTest, invalidConfigIsRefused) {
    const std::string name = unique("bad") + ".cfg";
    server_.put(name, "hostname x\n");
    Outcome run = provctl({"config", "--json", "--device", device(), url(name)});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(parseJson(run)["message"], "DOWNLOADED FILE IS NOT A VALID CONFIGURATION");
    EXPECT_FALSE(provtest::fileExists(device() + "/config/startup-config"));
}

TEST_F(ProvctlTftpTest, missingFileFailsTheLocation) {
    Outcome run = provctl({"config", "--device", device(), url(unique("absent") + ".cfg")});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(contains(run.err, "PROV 3 [config] FAILED TO DOWNLOAD CONFIGURATION")) << run.err;
}

TEST_F(ProvctlTftpTest, uploadPutsTheStartupConfigurationOnTheServer) {
    writeFile(device() + "/config/startup-config", VALID_CONFIG);
    const std::string name = unique("backup") + ".cfg";
    Outcome run = provctl({"upload", "--device", device(), url(name)});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(lastLine(run.out), "result: OK");
    EXPECT_EQ(server_.received(name, std::string(VALID_CONFIG).size()), VALID_CONFIG);
}

TEST_F(ProvctlTftpTest, uploadWithoutStartupConfigurationFails) {
    Outcome run = provctl({"upload", "--device", device(), url(unique("backup") + ".cfg")});
    EXPECT_EQ(run.status, 1);
}

TEST_F(ProvctlTftpTest, dialplanKeyAndWizardAreStoredInFlash) {
    const std::string plan = unique("plan") + ".txt";
    const std::string key = unique("unit") + ".key";
    const std::string wizard = unique("intro") + ".wiz";
    server_.put(plan, "dial plan\n");
    server_.put(key, "key material\n");
    server_.put("w/" + wizard, "wizard text\n");
    Outcome planRun =
        provctl({"dialplan", "--dialplan", "flash:office", "--device", device(), url(plan)});
    EXPECT_EQ(planRun.status, 0) << planRun.err;
    EXPECT_EQ(readFile(device() + "/flash/dialplan/office"), "dial plan\n");
    Outcome keyRun = provctl({"key", "--json", "--device", device(), url(key)});
    EXPECT_EQ(keyRun.status, 0) << keyRun.err;
    EXPECT_EQ(parseJson(keyRun)["activation"], true);
    EXPECT_EQ(readFile(device() + "/flash/preferences/key"), "key material\n");
    Outcome wizardRun = provctl({"wizard", "--json", "--device", device(), url("w/" + wizard)});
    EXPECT_EQ(wizardRun.status, 0) << wizardRun.err;
    EXPECT_EQ(readFile(device() + "/flash/wizard/" + wizard), "wizard text\n");
    nlohmann::json followUp = parseJson(wizardRun)["followUp"];
    EXPECT_EQ(followUp["pending"], true);
    EXPECT_EQ(followUp["mode"], "Wizard");
    EXPECT_EQ(followUp["command"], "add wizard");
    EXPECT_EQ(followUp["arguments"], nlohmann::json::array({wizard}));
}

TEST_F(ProvctlTftpTest, locationWithSemicolonRunsNoSecondCommand) {
    const std::string owned = "/tmp/owned-" + unique("semicolon");
    Outcome run = provctl({"config", "--device", device(), url(unique("x") + ";touch " + owned)});
    EXPECT_EQ(run.status, 1);
    EXPECT_FALSE(provtest::fileExists(owned));
}

TEST_F(ProvctlTftpTest, locationWithBackquotesRunsNoSecondCommand) {
    const std::string owned = "/tmp/owned-" + unique("backquote");
    Outcome run =
        provctl({"config", "--device", device(), url(unique("x") + "`touch " + owned + "`")});
    EXPECT_EQ(run.status, 1);
    EXPECT_FALSE(provtest::fileExists(owned));
    Outcome dollar =
        provctl({"config", "--device", device(), url(unique("y") + "$(touch " + owned + ")")});
    EXPECT_EQ(dollar.status, 1);
    EXPECT_FALSE(provtest::fileExists(owned));
}

TEST_F(ProvctlTftpTest, laterLocationIsTriedAfterAFailedOne) {
    const std::string name = unique("unit") + ".cfg";
    server_.put(name, VALID_CONFIG);
    Outcome run =
        provctl({"config", "--device", device(), url(unique("absent") + ".cfg"), url(name)});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(readFile(device() + "/config/startup-config"), VALID_CONFIG);
}

// --- HTTP and HTTPS ---

class ProvctlHttpTest : public ProvctlTest {
  protected:
    void startWithAuth() {
        server_.options().auth.push_back(
            {"/secure/", "dev", provtest::HttpServer::Scheme::Basic, "u", "p"});
        server_.put(keyPath_, "secret key\n");
        ASSERT_TRUE(server_.start()) << server_.log();
    }
    std::string keyUrl() const { return server_.url(keyPath_); }

    // Unique: the work file in /tmp/provisioning/ is named after the location's last component.
    const std::string keyPath_ = "/secure/" + unique("unit") + ".key";

    provtest::HttpServer server_;
};

TEST_F(ProvctlHttpTest, realmCredentialsComeFromDeviceToml) {
    startWithAuth();
    writeFile(device() + "/device.toml",
              "[credentials]\ndev = { user = \"u\", password = \"p\" }\n");
    ASSERT_EQ(::chmod((device() + "/device.toml").c_str(), 0600), 0);
    Outcome run = provctl({"key", "--device", device(), keyUrl()});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(readFile(device() + "/flash/preferences/key"), "secret key\n");
}

TEST_F(ProvctlHttpTest, starRealmInDeviceTomlIsTheWildCard) {
    startWithAuth();
    writeFile(device() + "/device.toml",
              "[credentials]\n\"*\" = { user = \"u\", password = \"p\" }\n");
    ASSERT_EQ(::chmod((device() + "/device.toml").c_str(), 0600), 0);
    Outcome run = provctl({"key", "--device", device(), keyUrl()});
    EXPECT_EQ(run.status, 0) << run.err;
}

TEST_F(ProvctlHttpTest, credentialOptionOverridesDeviceToml) {
    startWithAuth();
    writeFile(device() + "/device.toml",
              "[credentials]\ndev = { user = \"u\", password = \"wrong\" }\n");
    ASSERT_EQ(::chmod((device() + "/device.toml").c_str(), 0600), 0);
    Outcome wrong = provctl({"key", "--device", device(), keyUrl()});
    EXPECT_EQ(wrong.status, 1);
    Outcome right = provctl({"key", "--device", device(), "--credential", "dev:u:p", keyUrl()});
    EXPECT_EQ(right.status, 0) << right.err;
}

TEST_F(ProvctlHttpTest, withoutCredentialsTheChallengeFailsTheJob) {
    startWithAuth();
    Outcome run = provctl({"key", "--device", device(), keyUrl()});
    EXPECT_EQ(run.status, 1);
    EXPECT_FALSE(provtest::fileExists(device() + "/flash/preferences/key"));
}

class ProvctlHttpsTest : public ProvctlTest {
  protected:
    void SetUp() override {
        ASSERT_TRUE(certs_.ok()) << certs_.error();
        provtest::HttpServer::Options options;
        options.https = true;
        options.requireClientCert = true;
        server_ = std::make_unique<provtest::HttpServer>(options);
        server_->put(keyPath_, "tls key\n");
        ASSERT_TRUE(server_->start()) << server_->log();
    }

    const std::string keyPath_ = "/" + unique("tls") + ".key";
    const provtest::Certificates& certs_ = provtest::Certificates::get();
    std::unique_ptr<provtest::HttpServer> server_;
};

TEST_F(ProvctlHttpsTest, httpsSettingsComeFromDeviceToml) {
    writeFile(device() + "/device.toml", "[https]\nca = \"" + certs_.rootCa() + "\"\ncert = \"" +
                                             certs_.clientCert() + "\"\nkey = \"" +
                                             certs_.clientKey() + "\"\n");
    Outcome run = provctl({"key", "--device", device(), server_->url(keyPath_)});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(readFile(device() + "/flash/preferences/key"), "tls key\n");
}

TEST_F(ProvctlHttpsTest, httpsAuthOptionGivesTheThreeStrings) {
    Outcome without = provctl({"key", "--device", device(), server_->url(keyPath_)});
    EXPECT_EQ(without.status, 1);
    Outcome with = provctl({"key", "--device", device(), "--https-auth",
                            certs_.rootCa() + "," + certs_.clientCert() + "," + certs_.clientKey(),
                            server_->url(keyPath_)});
    EXPECT_EQ(with.status, 0) << with.err;
}

// --- HTTP 201: executed on the running system ---

// An ordinary configuration: comments, a blank line, and sub-commands two levels deep.
const char* const NESTED_CONFIG =
    "! unit 17\n"
    "cli version 4.12\n"
    "\n"
    "context ip router\n"
    "  interface eth0\n"
    "    ipaddress 10.0.0.1 255.255.255.0\n"
    "port ethernet 0 0\n"
    "  bind interface eth0 router\n";
const char* const NESTED_RUNNING =
    "cli version 4.12\n"
    "context ip router\n"
    "  interface eth0\n"
    "    ipaddress 10.0.0.1 255.255.255.0\n"
    "port ethernet 0 0\n"
    "  bind interface eth0 router\n";

class ProvctlCreatedTest : public ProvctlTest {
  protected:
    void SetUp() override {
        server_.route(path_, {provtest::FixtureResponse::withStatus(201, NESTED_CONFIG)});
        ASSERT_TRUE(server_.start()) << server_.log();
    }
    std::string url() const { return server_.url(path_); }

    const std::string path_ = "/" + unique("created") + ".cfg";
    provtest::FixtureServer server_;
};

TEST_F(ProvctlCreatedTest, configIsExecutedIntoRunningConfigWithItsIndentation) {
    Outcome run = provctl({"config", "-v", "--device", device(), url()});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(lastLine(run.out), "result: OK") << run.out;
    EXPECT_TRUE(contains(run.out, "activation: no\n")) << run.out;
    EXPECT_EQ(readFile(device() + "/running-config"), NESTED_RUNNING);
    EXPECT_FALSE(provtest::fileExists(device() + "/config/startup-config"));
    EXPECT_TRUE(contains(run.err, "PROV 6 [CmdExec] ipaddress 10.0.0.1 255.255.255.0\n"))
        << run.err;
    EXPECT_TRUE(contains(run.err, "XFER 6 config : " + url() + " -> running-config : succeeded\n"))
        << run.err;
    EXPECT_TRUE(contains(run.err, "EVENT 6 [config] Received and executed configuration\n"))
        << run.err;
}

TEST_F(ProvctlCreatedTest, rejectPatternInDeviceTomlFailsTheExecutionAtItsLine) {
    writeFile(device() + "/device.toml", "[cli]\nreject = [\"no *\", \"ipaddress 10.*\"]\n");
    Outcome run = provctl({"config", "--json", "--device", device(), url()});
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_EQ(parseJson(run)["message"],
              "EXECUTION FAILED AT LINE 6: ipaddress 10.0.0.1 255.255.255.0");
    EXPECT_FALSE(provtest::fileExists(device() + "/running-config"));
    EXPECT_TRUE(contains(run.err,
                         "PROV 3 [config] EXECUTION FAILED: EXECUTION FAILED AT LINE 6: "
                         "ipaddress 10.0.0.1 255.255.255.0"))
        << run.err;
}

TEST_F(ProvctlCreatedTest, rejectPatternsLeaveAStoredConfigurationAlone) {
    // Answered 200, the same text is validated and stored: nothing of it runs, so nothing of it
    // is refused.
    const std::string stored = "/" + unique("stored") + ".cfg";
    server_.route(stored, {provtest::FixtureResponse::ok(NESTED_CONFIG)});
    writeFile(device() + "/device.toml", "[cli]\nreject = [\"*\"]\n");
    Outcome run = provctl({"config", "--device", device(), server_.url(stored)});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(readFile(device() + "/config/startup-config"), NESTED_CONFIG);
    EXPECT_FALSE(provtest::fileExists(device() + "/running-config"));
}

// --- firmware and script ---

// A tar archive in the served directory holding the given members.
void putArchive(const provtest::TftpServer& server, const std::string& name,
                const std::map<std::string, std::string>& members) {
    std::vector<std::string> argv = {"/bin/tar", "cf", server.root() + "/" + name, "-C",
                                     server.root() + "/" + name + ".d"};
    for (const auto& [member, content] : members) {
        writeFile(server.root() + "/" + name + ".d/" + member, content);
        argv.push_back(member);
    }
    provtest::CommandResult made = provtest::runCommand(argv);
    ASSERT_EQ(made.exitStatus, 0) << made.output;
}

TEST_F(ProvctlTftpTest, firmwareIsWrittenAndASecondRunFindsItRunning) {
    const std::string name = unique("fw") + ".tar";
    putArchive(server_, name,
               {{"manifest", "sw_type=X\nsw_version=1.2\nsw_build_num=7\n"},
                {"image", "the image bytes"}});
    const std::vector<std::string> args = {"firmware",  "-v",        "--reload",
                                           "immediate", "--compare", "--json",
                                           "--device",  device(),    url(name)};
    Outcome first = provctl(args);
    EXPECT_EQ(first.status, 0) << first.err;
    nlohmann::json object = parseJson(first);
    EXPECT_EQ(object["imageAction"], "Swap Next Image");
    EXPECT_EQ(object["activation"], true);
    EXPECT_TRUE(contains(first.err, "[firmware] Upgrading firmware")) << first.err;
    EXPECT_EQ(readFile(device() + "/slots/2"), "the image bytes");
    // Slot 2 was written, chosen as next and, with a reload, started.
    EXPECT_EQ(readFile(device() + "/slots/state"),
              "active=2\nnext=2\nversion.1=\nversion.2=X 1.2 7\n");

    Outcome second = provctl(args);
    EXPECT_EQ(second.status, 0) << second.err;
    nlohmann::json again = parseJson(second);
    EXPECT_EQ(again["imageAction"], "Update Image Info");
    EXPECT_EQ(again["activation"], false);
    EXPECT_FALSE(contains(second.err, "Upgrading firmware")) << second.err;
    EXPECT_TRUE(contains(second.err, "upgrade: no")) << second.err;
    EXPECT_EQ(readFile(device() + "/slots/state"),
              "active=2\nnext=2\nversion.1=\nversion.2=X 1.2 7\n");
}

TEST_F(ProvctlTftpTest, firmwareWithoutReloadKeepsTheRunningSlot) {
    const std::string name = unique("fw") + ".tar";
    putArchive(
        server_, name,
        {{"manifest", "sw_type=X\nsw_version=2.0\nsw_build_num=1\n"}, {"image", "image two"}});
    Outcome run = provctl({"firmware", "--device", device(), url(name)});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(readFile(device() + "/slots/state"),
              "active=1\nnext=2\nversion.1=\nversion.2=X 2.0 1\n");
}

TEST_F(ProvctlTftpTest, scriptRunsOnceAndSetsNextToTheInactiveSlot) {
    const std::string name = unique("boot") + ".tar";
    putArchive(server_, name, {{"manifest", "hostname provisioned-unit\n"}});
    const std::vector<std::string> args = {"script", "-v",       "--compare", "--json", "--name",
                                           "boot",   "--device", device(),    url(name)};
    Outcome first = provctl(args);
    EXPECT_EQ(first.status, 0) << first.err;
    nlohmann::json object = parseJson(first);
    EXPECT_EQ(object["imageAction"], "Set Next To Inactive");
    EXPECT_EQ(object["activation"], true);
    EXPECT_EQ(readFile(device() + "/flash/provisioning/boot"), "me provisioned-unit\n");
    EXPECT_EQ(readFile(device() + "/slots/state"), "active=1\nnext=2\nversion.1=\nversion.2=\n");

    Outcome second = provctl(args);
    EXPECT_EQ(second.status, 0) << second.err;
    EXPECT_TRUE(contains(second.err, "[boot] Downloaded and stored scripts are equal"))
        << second.err;
    EXPECT_FALSE(contains(second.err, "Executing script")) << second.err;
}

// --- signals ---

TEST_F(ProvctlTest, terminationSignalStopsTheRunningTransfer) {
    // A bound UDP port that never answers: the tftp client waits on it until it is stopped.
    provtest::LoopbackSocket silent = provtest::LoopbackSocket::udp();
    ASSERT_TRUE(silent.valid()) << silent.error();
    provtest::SpawnSpec spec;
    spec.argv = {
        "/bin/sh",
        "-c",
        "exec \"$0\" \"$@\" 2>&1",
        PROV_PROVCTL,
        "config",
        "-v",
        "--device",
        device(),
        "tftp://127.0.0.1:" + std::to_string(silent.port()) + "/" + unique("silent") + ".cfg"};
    spec.env = {"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL=C",
                "HOME=" + dir_.file("home")};
    spec.captureStdout = true;
    spec.logPath = dir_.file("signal.log");
    provtest::ServerProcess process;
    ASSERT_TRUE(process.spawn(spec));
    std::string line;
    bool started = false;
    while (!started && process.readLine(line)) {
        started = contains(line, "Location resolved to");
    }
    ASSERT_TRUE(started) << "provctl never started the transfer";
    ASSERT_EQ(::kill(process.pid(), SIGTERM), 0);
    std::string rest;
    while (process.readLine(line)) {
        rest += line + "\n";
    }
    ASSERT_TRUE(process.waitExit(provtest::DEFAULT_DEADLINE));
    EXPECT_EQ(process.exitStatus(), 128 + SIGTERM);
    EXPECT_EQ(lastLine(rest), "result: INTERRUPTED BY SIGNAL 15 (0x7FFFFFFF)") << rest;
    // Nothing of the job's process group is left behind: the tftp child was terminated.
    EXPECT_EQ(::kill(-process.pid(), 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

}  // namespace
