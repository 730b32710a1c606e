#include "host/DeviceSettings.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace {

using Provctl::DeviceSettings;

class DeviceSettingsTest : public ::testing::Test {
  protected:
    XCode load(const std::string& text) {
        provtest::writeFile(path(), text);
        // A device file with passwords must be its owner's alone.
        EXPECT_EQ(::chmod(path().c_str(), 0600), 0);
        return Provctl::LOAD_DEVICE_FILE(path().c_str(), settings);
    }
    std::string path() const { return dir_.file("device.toml"); }

    provtest::TempDir dir_{"prov-settings"};
    DeviceSettings settings;
};

TEST_F(DeviceSettingsTest, missingFileIsEmptySettings) {
    EXPECT_TRUE(Provctl::LOAD_DEVICE_FILE(path().c_str(), settings).isSuccess());
    EXPECT_TRUE(settings.values.empty());
    EXPECT_TRUE(settings.credentials.empty());
    EXPECT_FALSE(settings.httpsGiven);
}

TEST_F(DeviceSettingsTest, danglingLinkDirectoryAndFifoAreErrorsSayingWhat) {
    ASSERT_EQ(::symlink("nowhere", path().c_str()), 0);
    EXPECT_EQ(Provctl::LOAD_DEVICE_FILE(path().c_str(), settings).getString().str(),
              path() + ": dangling symbolic link (to nowhere)");
    ASSERT_EQ(::unlink(path().c_str()), 0);
    provtest::makeDirs(path());
    EXPECT_EQ(Provctl::LOAD_DEVICE_FILE(path().c_str(), settings).getString().str(),
              path() + ": not a regular file (a directory)");
    ASSERT_EQ(::rmdir(path().c_str()), 0);
    // Without a writer, reading would wait for ever: refused at once.
    ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    EXPECT_EQ(Provctl::LOAD_DEVICE_FILE(path().c_str(), settings).getString().str(),
              path() + ": not a regular file (a FIFO)");
}

TEST_F(DeviceSettingsTest, quotedAndDottedValueKeysNameTheSameValues) {
    ASSERT_TRUE(load("[values]\n\"system.mac\" = \"00a0\"\ndhcp.66 = \"10.0.0.1\"\nmodel = \"M\"\n")
                    .isSuccess());
    ExpressionResolver resolver;
    ASSERT_TRUE(Provctl::FILL_RESOLVER(settings, resolver).isSuccess());
    EXPECT_EQ(resolver.macAddress, "00a0");
    EXPECT_EQ(resolver.tftpServer, "10.0.0.1");
    EXPECT_EQ(resolver.modelName, "M");
}

TEST_F(DeviceSettingsTest, integerIsTakenForANumericValue) {
    ASSERT_TRUE(load("[values]\n\"system.hw.major\" = 2\n").isSuccess());
    ExpressionResolver resolver;
    ASSERT_TRUE(Provctl::FILL_RESOLVER(settings, resolver).isSuccess());
    EXPECT_EQ(resolver.hwMajor, "2");
}

TEST_F(DeviceSettingsTest, wrongTypeIsAnErrorAndLeavesTheSettingsAlone) {
    settings.rejectedCommands = {"kept"};
    XCode result = load("[cli]\nreject = [\"no *\"]\n[values]\n\"system.hw.major\" = 2.0\n");
    EXPECT_EQ(result.getString().str(),
              path() +
                  ":4:1: device value 'system.hw.major' must be a string or a non-negative "
                  "integer, not a float");
    EXPECT_EQ(settings.rejectedCommands, std::vector<String>{"kept"});
}

TEST_F(DeviceSettingsTest, syntaxErrorNamesFileAndLine) {
    XCode result = load("[values]\n\"system.mac\" = \n");
    EXPECT_TRUE(result.isErr());
    EXPECT_TRUE(result.getString().startsWith(String(path().c_str()) + ":2:"))
        << result.getString().c_str();
}

TEST_F(DeviceSettingsTest, starAndEmptyRealmAreTheWildCard) {
    ASSERT_TRUE(load("[credentials]\n\"*\" = { user = \"any\", password = \"p1\" }\n"
                     "office = { user = \"u\", password = \"p:2\" }\n")
                    .isSuccess());
    ASSERT_EQ(settings.credentials.size(), 2U);
    EXPECT_EQ(settings.credentials[""].user, "any");
    EXPECT_EQ(settings.credentials["office"].password, "p:2");
    ProvisioningCredentials credentials;
    ASSERT_TRUE(Provctl::FILL_CREDENTIALS(settings, credentials).isSuccess());
    String user;
    String password;
    ASSERT_TRUE(credentials.get("elsewhere", user, password).isSuccess());
    EXPECT_EQ(user, "any");
    ASSERT_TRUE(credentials.get("office", user, password).isSuccess());
    EXPECT_EQ(password, "p:2");
}

TEST_F(DeviceSettingsTest, credentialThatIsNotATableIsAnError) {
    EXPECT_TRUE(load("[credentials]\noffice = \"u:p\"\n").isErr());
}

TEST_F(DeviceSettingsTest, httpsTableGivesTheThreeStrings) {
    ASSERT_TRUE(load("[https]\nca = \"ca.pem\"\ncert = \"c.pem\"\nkey = \"k.pem\"\n").isSuccess());
    EXPECT_TRUE(settings.httpsGiven);
    EXPECT_EQ(settings.httpsCa, "ca.pem");
    EXPECT_EQ(settings.httpsCert, "c.pem");
    EXPECT_EQ(settings.httpsKey, "k.pem");
}

// The slot state never came from device.toml: an [image] table of older device files is refused
// like any other unknown table rather than ignored.
TEST_F(DeviceSettingsTest, imageTableOfOlderDeviceFilesIsAnUnknownTable) {
    XCode result = load("[image]\nactive = 2\n");
    EXPECT_EQ(result.getString().str(),
              path() + ":1:2: unknown table 'image' (known: values, credentials, https, cli)");
}

TEST_F(DeviceSettingsTest, cliRejectGivesThePatternsInOrder) {
    ASSERT_TRUE(load("[cli]\nreject = [\"ipaddress 999.*\", \"no *\", \"\"]\n").isSuccess());
    EXPECT_EQ(settings.rejectedCommands, (std::vector<String>{"ipaddress 999.*", "no *", ""}));
}

TEST_F(DeviceSettingsTest, withoutCliTableNothingIsRejected) {
    ASSERT_TRUE(load("[cli]\n").isSuccess());
    EXPECT_TRUE(settings.rejectedCommands.empty());
    ASSERT_TRUE(load("[cli]\nreject = []\n").isSuccess());
    EXPECT_TRUE(settings.rejectedCommands.empty());
}

TEST_F(DeviceSettingsTest, commandLineComesAfterTheFile) {
    ASSERT_TRUE(load("[values]\n\"system.serial\" = \"file\"\n[https]\nca = \"a\"\n").isSuccess());
    Provctl::Options options;
    options.sets = {"system.serial=line", "system.mac=a=b"};
    options.credentials = {":wild:pw", "office:u:p:q"};
    options.httpsAuthGiven = true;
    options.caCertificate = "x";
    options.certificate = "y";
    ASSERT_TRUE(Provctl::APPLY_COMMAND_LINE(options, settings).isSuccess());
    ExpressionResolver resolver;
    ASSERT_TRUE(Provctl::FILL_RESOLVER(settings, resolver).isSuccess());
    EXPECT_EQ(resolver.serialNumber, "line");
    EXPECT_EQ(resolver.macAddress, "a=b");
    EXPECT_EQ(settings.credentials[""].user, "wild");
    EXPECT_EQ(settings.credentials["office"].password, "p:q");
    EXPECT_EQ(settings.httpsCa, "x");
    EXPECT_EQ(settings.httpsCert, "y");
    EXPECT_EQ(settings.httpsKey, "");
}

TEST_F(DeviceSettingsTest, malformedCommandLineValuesAreErrors) {
    for (const char* set : {"system.mac", "=1"}) {
        Provctl::Options options;
        options.sets = {set};
        EXPECT_TRUE(Provctl::APPLY_COMMAND_LINE(options, settings).isErr()) << set;
    }
    Provctl::Options credential;
    credential.credentials = {"realm:user"};
    EXPECT_TRUE(Provctl::APPLY_COMMAND_LINE(credential, settings).isErr());
}

TEST_F(DeviceSettingsTest, unknownValueNameIsAnError) {
    settings.values.emplace_back("system.mac-encrypted", "x");
    ExpressionResolver resolver;
    XCode result = Provctl::FILL_RESOLVER(settings, resolver);
    EXPECT_TRUE(result.isErr());
    EXPECT_NE(result.getString().indexOf("system.mac-encrypted"), -1);
}

}  // namespace
