#include "platform/Cli.h"

#include <mutex>
#include <ostream>
#include <vector>

#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedCmdExec.h"
#include "support/RejectedCommands.h"
#include "unit/platform/DeviceTestSupport.h"

namespace {

using devicetest::namesIn;
using devicetest::readFile;
using devicetest::TemporaryDirectory;
using devicetest::writeFile;
namespace fs = std::filesystem;

class CliTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(directory.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
    }
    void TearDown() override { Device::SET_ROOT(""); }

    std::string config(const std::string& name) const {
        return directory.path() + "/config/" + name;
    }
    std::string runningConfig() const { return directory.path() + "/running-config"; }

    TemporaryDirectory directory;
};

// Collects what a monitor writes.
struct CapturedLines {
    struct Line {
        int level;
        std::string text;
    };
    RTD::Monitor monitor{"TEST", 6, [this](const RTD::Monitor&, int level, const String& line) {
                             std::lock_guard<std::mutex> lock(mutex);
                             lines.push_back(Line{level, line.c_str()});
                         }};
    std::mutex mutex;
    std::vector<Line> lines;

    std::vector<std::string> texts() {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::string> result;
        for (const Line& line : lines) {
            result.push_back(line.text);
        }
        return result;
    }
};

TEST_F(CliTest, startupConfigurationName) {
    EXPECT_EQ(CLI::GET_STARTUP_CONFIGURATION_NAME(), String("startup-config"));
}

TEST_F(CliTest, storedConfigurationReadsBackByteForByte) {
    const std::string content("cli version 4.00\r\nhostname gw\n\0tail", 36);
    String error;
    ASSERT_TRUE(CLI::STORE_CONFIGURATION_CONTENT("startup-config",
                                                 String(content.data(), content.size()), error)
                    .isSuccess());
    EXPECT_EQ(readFile(config("startup-config")), content);
    String read;
    ASSERT_TRUE(CLI::GET_CONFIGURATION_CONTENT("startup-config", read, error).isSuccess());
    EXPECT_EQ(read, String(content.data(), content.size()));
}

TEST_F(CliTest, missingConfigurationIsAnErrorWithAReason) {
    String content = "untouched";
    String error;
    XCode result = CLI::GET_CONFIGURATION_CONTENT("startup-config", content, error);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(error, String("No configuration 'startup-config' stored"));
    EXPECT_EQ(result.getString(), error);
    EXPECT_EQ(content, String("untouched"));
}

TEST_F(CliTest, unreadableConfigurationNamesTheReason) {
    fs::create_directory(config("folder"));
    String content;
    String error;
    ASSERT_TRUE(CLI::GET_CONFIGURATION_CONTENT("folder", content, error).isErr());
    EXPECT_EQ(error, String("Cannot read configuration 'folder': Is a directory"));
}

TEST_F(CliTest, storeReplacesTheWholeConfiguration) {
    writeFile(config("startup-config"), "a long old configuration text\n");
    String error;
    ASSERT_TRUE(CLI::STORE_CONFIGURATION_CONTENT("startup-config", "new\n", error).isSuccess());
    EXPECT_EQ(readFile(config("startup-config")), "new\n");
    EXPECT_EQ(namesIn(directory.path() + "/config"), std::set<std::string>{"startup-config"});
}

TEST_F(CliTest, failedStoreKeepsTheOldConfiguration) {
    writeFile(config("startup-config"), "old\n");
    fs::permissions(directory.path() + "/config", fs::perms(0555));
    devicetest::runUnprivileged([] {
        String error;
        XCode result = CLI::STORE_CONFIGURATION_CONTENT("startup-config", "new\n", error);
        ASSERT_TRUE(result.isErr());
        EXPECT_EQ(error, String("Cannot store configuration 'startup-config': Permission denied"));
        EXPECT_EQ(result.getString(), error);
    });
    fs::permissions(directory.path() + "/config", fs::perms(0755));
    EXPECT_EQ(readFile(config("startup-config")), "old\n");
    EXPECT_EQ(namesIn(directory.path() + "/config"), std::set<std::string>{"startup-config"});
}

TEST_F(CliTest, storeWithoutConfigurationDirectoryFails) {
    fs::remove(directory.path() + "/config");
    String error;
    ASSERT_TRUE(CLI::STORE_CONFIGURATION_CONTENT("startup-config", "x", error).isErr());
    EXPECT_EQ(error,
              String("Cannot store configuration 'startup-config': No such file or directory"));
}

TEST_F(CliTest, namesThatCouldLeaveTheStoreAreRefused) {
    for (const char* name : {"../escape", "a/b", "..", "x..y", ""}) {
        String error;
        String content = "untouched";
        XCode stored = CLI::STORE_CONFIGURATION_CONTENT(name, "x", error);
        ASSERT_TRUE(stored.isErr()) << name;
        EXPECT_EQ(error, String::format("Invalid configuration name '%s'", name));
        error = String();
        ASSERT_TRUE(CLI::GET_CONFIGURATION_CONTENT(name, content, error).isErr()) << name;
        EXPECT_EQ(error, String::format("Invalid configuration name '%s'", name));
        EXPECT_EQ(content, String("untouched"));
    }
    EXPECT_FALSE(fs::exists(directory.path() + "/escape"));
    EXPECT_TRUE(namesIn(directory.path() + "/config").empty());
}

TEST_F(CliTest, withoutDeviceDirectoryNothingIsStored) {
    Device::SET_ROOT("");
    String error;
    ASSERT_TRUE(CLI::STORE_CONFIGURATION_CONTENT("startup-config", "x", error).isErr());
    EXPECT_EQ(error, String("No device directory for configuration 'startup-config'"));
}

TEST_F(CliTest, executeRunsEveryCommandAndAppendsItToRunningConfig) {
    CapturedLines captured;
    const String commands =
        "! a comment\n"
        "# another comment\n"
        "\n"
        "cli version 4.00\r\n"
        "context ip router\n"
        "  interface eth0\n"
        "    ipaddress 10.0.0.1 255.0.0.0\n"
        "port ethernet 0 0\n";
    ASSERT_TRUE(CmdExec::EXECUTE(commands, true, &captured.monitor, 0).isSuccess());
    EXPECT_EQ(readFile(runningConfig()),
              "cli version 4.00\ncontext ip router\n  interface eth0\n"
              "    ipaddress 10.0.0.1 255.0.0.0\nport ethernet 0 0\n");
    EXPECT_EQ(
        captured.texts(),
        (std::vector<std::string>{
            "[CmdExec] cli version 4.00", "[CmdExec] context ip router", "[CmdExec] interface eth0",
            "[CmdExec] ipaddress 10.0.0.1 255.0.0.0", "[CmdExec] port ethernet 0 0"}));
    for (const auto& line : captured.lines) {
        EXPECT_EQ(line.level, 6);
    }
}

TEST_F(CliTest, executeAppendsToWhatRanBefore) {
    ASSERT_TRUE(CmdExec::EXECUTE("hostname one\n", true, nullptr, 0).isSuccess());
    ASSERT_TRUE(CmdExec::EXECUTE("hostname two", true, nullptr, 0).isSuccess());
    EXPECT_EQ(readFile(runningConfig()), "hostname one\nhostname two\n");
    EXPECT_EQ(namesIn(directory.path()).count("running-config"), 1U);
    for (const std::string& name : namesIn(directory.path())) {
        EXPECT_EQ(name.find(".tmp"), std::string::npos) << name;
    }
}

// One configuration text, the rejected patterns in effect, and what the execution gives: the
// failure message (empty: success) and, on success, what running-config holds afterwards.
struct ExecutionCase {
    const char* name;
    std::string text;
    std::vector<String> rejected;
    std::string failure;
    std::string running;
};

// Rows are named by their name in failure messages, not dumped as bytes.
void PrintTo(const ExecutionCase& row, std::ostream* out) {
    *out << row.name;
}

std::string withNul(const std::string& before, const std::string& after) {
    return before + std::string(1, '\0') + after;
}

const ExecutionCase EXECUTION_CASES[] = {
    // Structure.
    {"anyFirstWordIsACommand",
     "frobnicate the gateway\nHostname GW\n",
     {},
     "",
     "frobnicate the gateway\nHostname GW\n"},
    {"subCommandKeepsItsIndentation",
     "interface eth0\n  ipaddress 10.0.0.1 255.255.255.0\n",
     {},
     "",
     "interface eth0\n  ipaddress 10.0.0.1 255.255.255.0\n"},
    {"tabIndentationIsKept",
     "context ip router\n\tinterface lan\n\t\tipaddress 10.0.0.1\n",
     {},
     "",
     "context ip router\n\tinterface lan\n\t\tipaddress 10.0.0.1\n"},
    {"commentsAndBlanksMayStandBetweenCommandAndSubCommand",
     "interface eth0\n! note\n   \n  # note\n  ipaddress 10.0.0.1\n",
     {},
     "",
     "interface eth0\n  ipaddress 10.0.0.1\n"},
    {"indentedCommentBeforeAnyCommandIsOnlyAComment",
     "  ! header\nhostname gw\n",
     {},
     "",
     "hostname gw\n"},
    {"lineEndsAndTrailingBlanksAreDropped",
     "interface eth0 \t\r\n  ipaddress 10.0.0.1\r\n",
     {},
     "",
     "interface eth0\n  ipaddress 10.0.0.1\n"},
    {"lastLineNeedsNoLineFeed", "hostname gw\n  sub", {}, "", "hostname gw\n  sub\n"},
    {"subCommandBeforeAnyCommandIsRefused",
     "! header\n\n  ipaddress 10.0.0.1\nhostname gw\n",
     {},
     "EXECUTION FAILED AT LINE 3: ipaddress 10.0.0.1",
     ""},
    {"carriageReturnInsideALineIsRefused",
     "hostname gw\rforged\n",
     {},
     "EXECUTION FAILED AT LINE 1: hostname gw\\x0Dforged",
     ""},
    {"nulIsRefused",
     withNul("hostname gw\n  host", "name\n"),
     {},
     "EXECUTION FAILED AT LINE 2: host\\x00name",
     ""},
    {"escapeSequenceIsRefused",
     "hostname \x1b[2Jgw\n",
     {},
     "EXECUTION FAILED AT LINE 1: hostname \\x1B[2Jgw",
     ""},
    {"deleteIsRefused",
     "hostname g\x7fw\n",
     {},
     "EXECUTION FAILED AT LINE 1: hostname g\\x7Fw",
     ""},
    {"verticalTabIsNoIndentation",
     "hostname gw\n\v sub\n",
     {},
     "EXECUTION FAILED AT LINE 2: \\x0B sub",
     ""},
    {"controlCharacterInACommentIsRefused",
     "hostname gw\n! \x07"
     "bell\n",
     {},
     "EXECUTION FAILED AT LINE 2: ! \\x07bell",
     ""},
    // Rejected patterns.
    {"rejectedSubCommandFailsWithItsLineInTheFile",
     "! addresses\n\ninterface eth0\n  ipaddress 999.0.0.1 255.0.0.0\n",
     {"ipaddress 999.*"},
     "EXECUTION FAILED AT LINE 4: ipaddress 999.0.0.1 255.0.0.0",
     ""},
    {"rejectedCommand",
     "hostname gw\nno ip route\n",
     {"no *"},
     "EXECUTION FAILED AT LINE 2: no ip route",
     ""},
    {"patternMatchesTheWholeLine",
     "no shutdown\nshutdown now\n",
     {"no", "shutdown"},
     "",
     "no shutdown\nshutdown now\n"},
    {"patternsAreCaseSensitive", "Hostname gw\n", {"hostname *"}, "", "Hostname gw\n"},
    {"anyOfThePatternsRejects",
     "hostname gw\nntp server 10.0.0.7\n",
     {"dns *", "ntp server 10.0.0.[0-9]"},
     "EXECUTION FAILED AT LINE 2: ntp server 10.0.0.7",
     ""},
    {"bracketPatternRejectsNoMore",
     "ntp server 10.0.0.77\n",
     {"ntp server 10.0.0.[0-9]"},
     "",
     "ntp server 10.0.0.77\n"},
    {"patternSeesNoIndentationNorTrailingBlanks",
     "interface eth0\n\t shutdown \r\n",
     {"shutdown"},
     "EXECUTION FAILED AT LINE 2: shutdown",
     ""},
    {"questionMarkIsOneCharacter",
     "port ethernet 0 0\nport ethernet 0 10\n",
     {"port ethernet 0 ??"},
     "EXECUTION FAILED AT LINE 2: port ethernet 0 10",
     ""},
    {"commentsAreNeverMatched", "! no comment\nhostname gw\n", {"*no*"}, "", "hostname gw\n"},
    {"firstRefusedLineIsReported",
     "  orphan\nno ip route\n",
     {"no *"},
     "EXECUTION FAILED AT LINE 1: orphan",
     ""},
};

class ExecutionTableTest : public ::testing::TestWithParam<ExecutionCase> {
  protected:
    void SetUp() override {
        Device::SET_ROOT(directory.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
    }
    void TearDown() override { Device::SET_ROOT(""); }

    TemporaryDirectory directory;
};

TEST_P(ExecutionTableTest, executesOrFailsAsTheTableSays) {
    const ExecutionCase& row = GetParam();
    provtest::RejectedCommands rejected(row.rejected);
    XCode result = CmdExec::EXECUTE(String(row.text.data(), row.text.size()), true, nullptr, 0);
    const std::string running = directory.path() + "/running-config";
    if (row.failure.empty()) {
        ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
        EXPECT_EQ(readFile(running), row.running);
    } else {
        ASSERT_TRUE(result.isErr());
        EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
        EXPECT_EQ(result.getString().str(), row.failure);
        EXPECT_FALSE(fs::exists(running));
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, ExecutionTableTest, ::testing::ValuesIn(EXECUTION_CASES),
                         [](const ::testing::TestParamInfo<ExecutionCase>& row) {
                             return std::string(row.param.name);
                         });

TEST_F(CliTest, refusedLineStopsTheRunAndLeavesRunningConfigAsItWas) {
    writeFile(runningConfig(), "hostname before\n");
    provtest::RejectedCommands rejected({"frobnicate *"});
    CapturedLines captured;
    XCode result = CmdExec::EXECUTE("! comment\n\nhostname gw\nfrobnicate now\nntp server x\n",
                                    true, &captured.monitor, 0);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), String("EXECUTION FAILED AT LINE 4: frobnicate now"));
    EXPECT_EQ(captured.texts(), std::vector<std::string>{"[CmdExec] hostname gw"});
    EXPECT_EQ(readFile(runningConfig()), "hostname before\n");
}

TEST_F(CliTest, withoutStopOnErrorTheRestRunsButTheFirstFailureIsReported) {
    provtest::RejectedCommands rejected({"bogus *"});
    CapturedLines captured;
    XCode result =
        CmdExec::EXECUTE("bogus one\nhostname gw\n  description gw\nbogus two\nntp server x\n",
                         false, &captured.monitor, 0);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), String("EXECUTION FAILED AT LINE 1: bogus one"));
    EXPECT_EQ(captured.texts(),
              (std::vector<std::string>{"[CmdExec] hostname gw", "[CmdExec] description gw",
                                        "[CmdExec] ntp server x"}));
    EXPECT_FALSE(fs::exists(runningConfig()));
}

TEST_F(CliTest, anEmptyPatternListRejectsNothingAgain) {
    provtest::RejectedCommands rejected({"hostname *"});
    EXPECT_TRUE(CmdExec::EXECUTE("hostname gw\n", true, nullptr, 0).isErr());
    CmdExec::SET_REJECTED_COMMANDS({});
    EXPECT_TRUE(CmdExec::EXECUTE("hostname gw\n", true, nullptr, 0).isSuccess());
    EXPECT_EQ(readFile(runningConfig()), "hostname gw\n");
}

TEST_F(CliTest, emptyTextRunsNothing) {
    ASSERT_TRUE(CmdExec::EXECUTE("", true, nullptr, 0).isSuccess());
    ASSERT_TRUE(CmdExec::EXECUTE("\n! only comments\n", true, nullptr, 0).isSuccess());
    EXPECT_FALSE(fs::exists(runningConfig()));
}

TEST_F(CliTest, unwritableRunningConfigFailsTheExecution) {
    fs::create_directory(runningConfig());
    XCode result = CmdExec::EXECUTE("hostname gw\n", true, nullptr, 0);
    ASSERT_TRUE(result.isErr());
    EXPECT_TRUE(result.getString().startsWith("CANNOT UPDATE RUNNING CONFIGURATION: "));
}

TEST_F(CliTest, disabledMonitorGetsNoLines) {
    CapturedLines captured;
    captured.monitor.setLevel(3);
    ASSERT_TRUE(CmdExec::EXECUTE("hostname gw\n", true, &captured.monitor, 0).isSuccess());
    EXPECT_TRUE(captured.texts().empty());
}

}  // namespace
