#include "platform/WgetUtil.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/simulated/DeviceDirectory.h"
#include "support/TempDir.h"

namespace {

// The arguments name device paths; the files lie at their host paths.
bool fileExists(const std::string& devicePath) {
    return provtest::fileExists(Device::MAP_PATH(devicePath.c_str()).str());
}
std::string readFile(const std::string& devicePath) {
    return provtest::readFile(Device::MAP_PATH(devicePath.c_str()).str());
}

const String URL("http://10.0.0.1/cfg.txt");
const String OUT("/tmp/provisioning/cfg.txt");

std::vector<std::string> plain(const std::vector<String>& args) {
    std::vector<std::string> result;
    for (const String& arg : args) {
        result.push_back(arg.str());
    }
    return result;
}

// The value of the argument that starts with `option`, or "" when there is none.
std::string valueOf(const std::vector<String>& args, const std::string& option) {
    for (const String& arg : args) {
        if (arg.str().compare(0, option.size(), option) == 0) {
            return arg.str().substr(option.size());
        }
    }
    return "";
}

bool hasArg(const std::vector<String>& args, const std::string& wanted) {
    std::vector<std::string> all = plain(args);
    return std::find(all.begin(), all.end(), wanted) != all.end();
}

unsigned int modeOf(const std::string& path) {
    struct stat info {};
    if (::stat(Device::MAP_PATH(path.c_str()).c_str(), &info) != 0) {
        return 0xFFFFFFFF;
    }
    return info.st_mode & 07777;
}

bool isDirectory(const std::string& path) {
    struct stat info {};
    return ::stat(Device::MAP_PATH(path.c_str()).c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string parentOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

// A device of its own; releases what a test's buildArgs made, also when an assertion fails midway.
class WgetUtilTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
    }
    void TearDown() override {
        WgetUtil::RELEASE_SECRETS(args);
        Device::SET_ROOT("");
    }
    provtest::TempDir device{"wget-util-device"};

    XCode build(const String& user, const String& password, const String& https1 = "",
                const String& https2 = "", const String& https3 = "", bool quiet = true,
                bool followRedirects = false, const String& extra = "") {
        WgetUtil::RELEASE_SECRETS(args);
        return WgetUtil::buildArgs(quiet, URL, user, password, OUT, https1, https2, https3,
                                   followRedirects, args, extra);
    }

    std::vector<String> args;
};

TEST_F(WgetUtilTest, plainDownloadGivesTheFixedOptionList) {
    ASSERT_TRUE(build("", "").isSuccess());
    std::vector<std::string> expected{"-q",
                                      "-S",
                                      "--no-config",
                                      "--no-netrc",
                                      "--no-proxy",
                                      "--no-hsts",
                                      "--tries=1",
                                      "--timeout=30",
                                      "--max-redirect=0",
                                      "-O",
                                      "/tmp/provisioning/cfg.txt",
                                      "--",
                                      "http://10.0.0.1/cfg.txt"};
    EXPECT_EQ(plain(args), expected);
}

TEST_F(WgetUtilTest, notQuietIsNonVerboseWithoutProgress) {
    ASSERT_TRUE(build("", "", "", "", "", false).isSuccess());
    EXPECT_EQ(args.front(), "-nv");
    EXPECT_FALSE(hasArg(args, "-q"));
    EXPECT_TRUE(hasArg(args, "-S"));
}

TEST_F(WgetUtilTest, followingRedirectsDropsTheRedirectLimit) {
    ASSERT_TRUE(build("", "", "", "", "", true, true).isSuccess());
    EXPECT_EQ(valueOf(args, "--max-redirect"), "");
    EXPECT_FALSE(hasArg(args, "--max-redirect=0"));
    ASSERT_TRUE(build("", "", "", "", "", true, false).isSuccess());
    EXPECT_TRUE(hasArg(args, "--max-redirect=0"));
}

TEST_F(WgetUtilTest, extraArgumentGoesBeforeTheUrl) {
    ASSERT_TRUE(build("", "", "", "", "", true, false, "--header=X-A: b").isSuccess());
    ASSERT_GE(args.size(), 3U);
    EXPECT_EQ(args[args.size() - 3], "--header=X-A: b");
    EXPECT_EQ(args[args.size() - 2], "--");
    EXPECT_EQ(args.back(), URL);
}

TEST_F(WgetUtilTest, urlAndOutputFileWithBlanksStayOneArgumentEach) {
    ASSERT_TRUE(WgetUtil::buildArgs(true, "http://h/a b", "", "", "/tmp/provisioning/a b", "", "",
                                    "", false, args, "")
                    .isSuccess());
    EXPECT_TRUE(hasArg(args, "/tmp/provisioning/a b"));
    EXPECT_EQ(args.back(), "http://h/a b");
}

TEST_F(WgetUtilTest, caCertificateComesWithAnEmptyPrivateCaDirectory) {
    ASSERT_TRUE(build("", "", "/etc/ca.pem").isSuccess());
    EXPECT_EQ(valueOf(args, "--ca-certificate="), "/etc/ca.pem");
    std::string caDirectory = valueOf(args, "--ca-directory=");
    ASSERT_FALSE(caDirectory.empty());
    EXPECT_EQ(caDirectory.rfind(WgetUtil::SECRETS_DIRECTORY_PREFIX, 0), 0U) << caDirectory;
    EXPECT_TRUE(isDirectory(caDirectory));
    EXPECT_EQ(modeOf(caDirectory), 0700U);
    EXPECT_EQ(modeOf(parentOf(caDirectory)), 0700U);
    EXPECT_TRUE(hasArg(args, "--no-config"));
    EXPECT_EQ(valueOf(args, "--certificate="), "");
    EXPECT_EQ(valueOf(args, "--private-key="), "");
}

TEST_F(WgetUtilTest, clientCertificateAloneNeedsNoPrivateDirectory) {
    ASSERT_TRUE(build("", "", "", "/etc/client.pem").isSuccess());
    EXPECT_EQ(valueOf(args, "--certificate="), "/etc/client.pem");
    EXPECT_EQ(valueOf(args, "--ca-certificate="), "");
    EXPECT_EQ(valueOf(args, "--ca-directory="), "");
}

TEST_F(WgetUtilTest, privateKeyAlone) {
    ASSERT_TRUE(build("", "", "", "", "/etc/client.key").isSuccess());
    EXPECT_EQ(valueOf(args, "--private-key="), "/etc/client.key");
    EXPECT_EQ(valueOf(args, "--certificate="), "");
    EXPECT_EQ(valueOf(args, "--ca-directory="), "");
}

TEST_F(WgetUtilTest, allThreeHttpsSettingsInOrder) {
    ASSERT_TRUE(build("", "", "/c/ca.pem", "/c/client.pem", "/c/client.key").isSuccess());
    std::vector<std::string> all = plain(args);
    auto position = [&all](const std::string& prefix) {
        return std::find_if(all.begin(), all.end(),
                            [&prefix](const std::string& a) { return a.rfind(prefix, 0) == 0; }) -
               all.begin();
    };
    EXPECT_LT(position("--ca-certificate=/c/ca.pem"), position("--ca-directory="));
    EXPECT_LT(position("--ca-directory="), position("--certificate=/c/client.pem"));
    EXPECT_LT(position("--certificate=/c/client.pem"), position("--private-key=/c/client.key"));
    EXPECT_LT(position("--private-key=/c/client.key"),
              std::find(all.begin(), all.end(), "--") - all.begin());
}

TEST_F(WgetUtilTest, credentialsGoToAPrivateConfigurationFile) {
    ASSERT_TRUE(build("user", "secret").isSuccess());
    EXPECT_FALSE(hasArg(args, "--no-config"));
    std::string config = valueOf(args, "--config=");
    ASSERT_FALSE(config.empty());
    EXPECT_EQ(config.rfind(WgetUtil::SECRETS_DIRECTORY_PREFIX, 0), 0U) << config;
    EXPECT_EQ(readFile(config), "http_user = user\nhttp_password = secret\n");
    EXPECT_EQ(modeOf(config), 0600U);
    EXPECT_EQ(modeOf(parentOf(config)), 0700U);
}

TEST_F(WgetUtilTest, credentialsWithBlanksAndQuotesAreWrittenAsTheyStand) {
    ASSERT_TRUE(build("a \"b\" c", "p w\"d'#x = y").isSuccess());
    EXPECT_EQ(readFile(valueOf(args, "--config=")),
              "http_user = a \"b\" c\nhttp_password = p w\"d'#x = y\n");
}

TEST_F(WgetUtilTest, userWithoutPasswordStillWritesBothLines) {
    ASSERT_TRUE(build("user", "").isSuccess());
    EXPECT_EQ(readFile(valueOf(args, "--config=")), "http_user = user\nhttp_password = \n");
    ASSERT_TRUE(build("", "secret").isSuccess());
    EXPECT_EQ(readFile(valueOf(args, "--config=")), "http_user = \nhttp_password = secret\n");
}

TEST_F(WgetUtilTest, credentialsAndCaShareOnePrivateDirectory) {
    ASSERT_TRUE(build("user", "secret", "/c/ca.pem").isSuccess());
    EXPECT_EQ(parentOf(valueOf(args, "--config=")), parentOf(valueOf(args, "--ca-directory=")));
}

TEST_F(WgetUtilTest, passwordNeverAppearsInAnyCombination) {
    const String password("Pa55-w0rd");
    for (int mask = 0; mask < 64; ++mask) {
        String user = (mask & 1) ? "user" : "";
        String https1 = (mask & 2) ? "/c/ca.pem" : "";
        String https2 = (mask & 4) ? "/c/client.pem" : "";
        String https3 = (mask & 8) ? "/c/client.key" : "";
        bool quiet = (mask & 16) != 0;
        bool follow = (mask & 32) != 0;
        ASSERT_TRUE(build(user, password, https1, https2, https3, quiet, follow).isSuccess());
        for (const String& arg : args) {
            EXPECT_EQ(arg.indexOf(password), -1) << arg.str() << " (combination " << mask << ")";
            EXPECT_EQ(arg.indexOf("user"), -1) << arg.str() << " (combination " << mask << ")";
        }
        EXPECT_EQ(args.back(), URL);
        EXPECT_TRUE(hasArg(args, "-S"));
        EXPECT_TRUE(hasArg(args, "--tries=1"));
        EXPECT_TRUE(hasArg(args, "--no-netrc"));
        EXPECT_EQ(hasArg(args, "--max-redirect=0"), !follow);
        EXPECT_EQ(args.front(), quiet ? "-q" : "-nv");
        EXPECT_NE(valueOf(args, "--config=").empty(), true);
    }
}

TEST_F(WgetUtilTest, releaseSecretsRemovesTheFileAndItsDirectories) {
    ASSERT_TRUE(build("user", "secret", "/c/ca.pem").isSuccess());
    std::string config = valueOf(args, "--config=");
    std::string caDirectory = valueOf(args, "--ca-directory=");
    WgetUtil::RELEASE_SECRETS(args);
    EXPECT_FALSE(fileExists(config));
    EXPECT_FALSE(fileExists(caDirectory));
    EXPECT_FALSE(fileExists(parentOf(config)));
    // A second release finds nothing to do.
    WgetUtil::RELEASE_SECRETS(args);
    EXPECT_FALSE(fileExists(parentOf(config)));
}

TEST_F(WgetUtilTest, releaseSecretsLeavesFilesItDidNotMake) {
    provtest::TempDir dir("wget-util-test");
    std::string foreign = dir.file("wgetrc");
    provtest::writeFile(foreign, "x");
    std::string lookalike = std::string(WgetUtil::SECRETS_DIRECTORY_PREFIX) + "abcdef/other";
    WgetUtil::RELEASE_SECRETS({String("--config=") + foreign.c_str(),
                               String("--ca-directory=") + dir.path().c_str(),
                               String("--config=") + lookalike.c_str(), String(foreign.c_str())});
    EXPECT_TRUE(fileExists(foreign));
    EXPECT_TRUE(isDirectory(dir.path()));
}

TEST_F(WgetUtilTest, argumentWithADoubleQuoteIsRefused) {
    XCode result = WgetUtil::buildArgs(true, "http://h/a\"b", "user", "secret", OUT, "", "", "",
                                       false, args, "");
    EXPECT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "INVALID CHARACTER IN WGET ARGUMENT");
    EXPECT_TRUE(args.empty());
}

TEST_F(WgetUtilTest, lineBreaksOrQuotesInAnyArgumentAreRefused) {
    struct Case {
        String url, outFile, https1, https2, https3, extra;
    };
    const Case cases[] = {
        {"http://h/a\nb", OUT, "", "", "", ""},
        {"http://h/a\rb", OUT, "", "", "", ""},
        {URL, "/tmp/provisioning/a\"b", "", "", "", ""},
        {URL, OUT, "/c/\"ca", "", "", ""},
        {URL, OUT, "", "/c/cl\nient", "", ""},
        {URL, OUT, "", "", "/c/k\rey", ""},
        {URL, OUT, "", "", "", "--header=\"x\""},
        {String("http://h/a\0b", 11), OUT, "", "", "", ""},
    };
    for (const Case& c : cases) {
        XCode result = WgetUtil::buildArgs(true, c.url, "", "", c.outFile, c.https1, c.https2,
                                           c.https3, false, args, c.extra);
        EXPECT_EQ(result.getString(), "INVALID CHARACTER IN WGET ARGUMENT") << c.url.str();
        EXPECT_TRUE(args.empty());
    }
}

TEST_F(WgetUtilTest, lineBreakInCredentialsIsRefused) {
    for (const String& bad : {String("a\nb"), String("a\rb"), String("a\0b", 3)}) {
        XCode result = build(bad, "secret");
        EXPECT_EQ(result.getString(), "INVALID CHARACTER IN WGET CREDENTIALS");
        EXPECT_TRUE(args.empty());
        result = build("user", bad);
        EXPECT_EQ(result.getString(), "INVALID CHARACTER IN WGET CREDENTIALS");
        EXPECT_TRUE(args.empty());
    }
}

TEST_F(WgetUtilTest, whiteSpaceAroundCredentialsIsRefused) {
    for (const String& bad : {String(" lead"), String("trail "), String("\ttab"), String("x\t")}) {
        XCode result = build(bad, "secret");
        EXPECT_EQ(result.getString(), "WHITE SPACE AROUND WGET CREDENTIALS") << bad.str();
        result = build("user", bad);
        EXPECT_EQ(result.getString(), "WHITE SPACE AROUND WGET CREDENTIALS") << bad.str();
        EXPECT_TRUE(args.empty());
    }
}

// The check that buildArgs makes, on its own, for credentials taken long before wget runs.
TEST_F(WgetUtilTest, credentialCheckAloneGivesTheSameAnswers) {
    EXPECT_TRUE(WgetUtil::checkCredentials("user", "p w\"d'#x = y").isSuccess());
    EXPECT_TRUE(WgetUtil::checkCredentials("", "").isSuccess());
    EXPECT_EQ(WgetUtil::checkCredentials("a\nb", "secret").getString(),
              "INVALID CHARACTER IN WGET CREDENTIALS");
    EXPECT_EQ(WgetUtil::checkCredentials("user", String("a\0b", 3)).getString(),
              "INVALID CHARACTER IN WGET CREDENTIALS");
    EXPECT_EQ(WgetUtil::checkCredentials("user", "trail ").getString(),
              "WHITE SPACE AROUND WGET CREDENTIALS");
    EXPECT_EQ(WgetUtil::checkCredentials("\tuser", "secret").getString(),
              "WHITE SPACE AROUND WGET CREDENTIALS");
}

TEST_F(WgetUtilTest, missingOrStandardOutputFileIsRefused) {
    for (const String& out : {String(""), String("-")}) {
        XCode result =
            WgetUtil::buildArgs(true, URL, "", "", out, "", "", "", false, args, String::s_empty);
        EXPECT_EQ(result.getString(), "NO OUTPUT FILE FOR WGET");
        EXPECT_TRUE(args.empty());
    }
}

TEST_F(WgetUtilTest, devicePathsStayInTheArgumentsForTheShellToMap) {
    XCode result = WgetUtil::buildArgs(true, URL, "", "", "/flash/out", "/flash/ca.pem",
                                       "/flash/client.pem", "/flash/client.key", false, args, "");
    ASSERT_TRUE(result.isSuccess());
    EXPECT_TRUE(hasArg(args, "/flash/out"));
    EXPECT_EQ(valueOf(args, "--ca-certificate="), "/flash/ca.pem");
    EXPECT_EQ(valueOf(args, "--certificate="), "/flash/client.pem");
    EXPECT_EQ(valueOf(args, "--private-key="), "/flash/client.key");
    // The private directory is made at its host path, in the device's work directory.
    std::string caDirectory = valueOf(args, "--ca-directory=");
    EXPECT_EQ(caDirectory.rfind("/tmp/provisioning/.wget-", 0), 0U) << caDirectory;
    EXPECT_TRUE(provtest::fileExists(device.path() + caDirectory));
    WgetUtil::RELEASE_SECRETS(args);
    EXPECT_FALSE(provtest::fileExists(device.path() + parentOf(caDirectory)));
    XCode leaving =
        WgetUtil::buildArgs(true, URL, "", "", "/flash/../../etc/x", "", "", "", false, args, "");
    EXPECT_TRUE(leaving.isErr());
    EXPECT_TRUE(args.empty());
}

}  // namespace
