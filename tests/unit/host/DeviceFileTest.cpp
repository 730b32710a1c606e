#include "host/DeviceFile.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Provctl::DeviceSettings;

const char* const PATH = "/dev1/device.toml";

XCode parse(const std::string& text, DeviceSettings& settings) {
    return Provctl::PARSE_DEVICE_FILE(PATH, text.c_str(), settings);
}

struct BadFileCase {
    const char* text;
    const char* message;  // after "<path>:"
};

void PrintTo(const BadFileCase& row, std::ostream* out) {
    *out << row.text;
}

class BadDeviceFileTest : public ::testing::TestWithParam<BadFileCase> {};

TEST_P(BadDeviceFileTest, isRefusedNamingFileLineColumnAndKey) {
    DeviceSettings settings;
    XCode result = parse(GetParam().text, settings);
    ASSERT_TRUE(result.isErr()) << GetParam().text;
    EXPECT_EQ(result.getString().str(), std::string(PATH) + ":" + GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    UnknownTablesAndKeys, BadDeviceFileTest,
    ::testing::Values(
        BadFileCase{"[values]\nmodel = \"M\"\n\n[value]\nx = 1\n",
                    "4:2: unknown table 'value' (known: values, credentials, https, cli); "
                    "did you mean 'values'?"},
        BadFileCase{"[image]\nactive = 2\n",
                    "1:2: unknown table 'image' (known: values, credentials, https, cli)"},
        BadFileCase{"[credential]\n",
                    "1:2: unknown table 'credential' (known: values, "
                    "credentials, https, cli); did you mean 'credentials'?"},
        BadFileCase{"model = \"M\"\n",
                    "1:1: unknown key 'model' (known: values, credentials, https, cli)"},
        BadFileCase{"[https]\ncafile = \"ca.pem\"\n",
                    "2:1: unknown key 'https.cafile' (known: ca, cert, key)"},
        BadFileCase{"[credentials.x]\nuser = \"u\"\npasword = \"p\"\n",
                    "3:1: unknown key 'credentials.x.pasword' (known: user, password, host); "
                    "did you mean 'password'?"},
        BadFileCase{"[credentials]\n\"my realm\" = { user = \"u\", pass = \"p\" }\n",
                    "2:28: unknown key 'credentials.\"my realm\".pass' (known: user, password, "
                    "host)"},
        BadFileCase{"[cli]\nrejects = [\"no *\"]\n",
                    "2:1: unknown key 'cli.rejects' (known: reject); did you mean 'reject'?"},
        BadFileCase{"[values]\nsytem.mac = \"00a0\"\n",
                    "2:7: unknown device value 'sytem.mac'; did you mean 'system.mac'?"},
        BadFileCase{"[values]\n\"system.mac-encrypted\" = \"x\"\n",
                    "2:1: unknown device value 'system.mac-encrypted'"}));

INSTANTIATE_TEST_SUITE_P(MissingParts, BadDeviceFileTest,
                         ::testing::Values(BadFileCase{"[credentials.x]\nuser = \"u\"\n",
                                                       "1:14: 'credentials.x' has no 'password'"},
                                           BadFileCase{
                                               "[credentials]\n\"*\" = { password = \"p\" }\n",
                                               "2:1: 'credentials.\"*\"' has no 'user'"}));

INSTANTIATE_TEST_SUITE_P(
    WrongTypes, BadDeviceFileTest,
    ::testing::Values(
        BadFileCase{"values = 3\n", "1:1: 'values' must be a table, not an integer"},
        BadFileCase{"cli = \"no *\"\n", "1:1: 'cli' must be a table, not a string"},
        BadFileCase{"[https]\nca = 3\n", "2:1: 'https.ca' must be a string, not an integer"},
        BadFileCase{"[credentials]\nx = { user = { a = 1 }, password = \"p\" }\n",
                    "2:7: 'credentials.x.user' must be a string, not a table"},
        BadFileCase{"[credentials]\noffice = \"u:p\"\n",
                    "2:1: 'credentials.office' must be a table, not a string"},
        BadFileCase{"[values]\n\"system.mac\" = 2\n",
                    "2:1: device value 'system.mac' must be a string, not an integer"},
        BadFileCase{"[values]\nsystem.hw.major = 2.5\n",
                    "2:11: device value 'system.hw.major' must be a string or a non-negative "
                    "integer, not a float"},
        BadFileCase{"[values]\n\"system.hw.minor\" = -1\n",
                    "2:1: device value 'system.hw.minor' must be a string or a non-negative "
                    "integer, not -1"},
        BadFileCase{"[values]\ncli.major = true\n",
                    "2:5: device value 'cli.major' must be a string or a non-negative integer, "
                    "not a boolean"},
        BadFileCase{"[values]\n\"system.sw.build\" = 1979-05-27\n",
                    "2:1: device value 'system.sw.build' must be a string or a non-negative "
                    "integer, not a date"},
        BadFileCase{"[values]\n\"cli.minor\" = [1]\n",
                    "2:1: device value 'cli.minor' must be a string or a non-negative integer, "
                    "not an array"},
        BadFileCase{"[values]\nsystem.sw.major = {}\n",
                    "2:11: device value 'system.sw.major' must be a string or a non-negative "
                    "integer, not a table"},
        BadFileCase{"[cli]\nreject = \"no *\"\n",
                    "2:1: 'cli.reject' must be an array of strings, not a string"},
        BadFileCase{"[cli]\nreject = [\"no *\", 3]\n",
                    "2:19: 'cli.reject' must be an array of strings; item 2 is an integer"},
        BadFileCase{"[cli]\nreject = [[\"no *\"]]\n",
                    "2:11: 'cli.reject' must be an array of strings; item 1 is an array"},
        BadFileCase{"[cli.reject]\nx = \"no *\"\n",
                    "1:6: 'cli.reject' must be an array of strings, not a table"}));

INSTANTIATE_TEST_SUITE_P(
    GivenTwice, BadDeviceFileTest,
    ::testing::Values(
        BadFileCase{"[values]\n\"system.mac\" = \"a\"\nsystem.mac = \"b\"\n",
                    "3:8: device value 'system.mac' given twice (lines 2 and 3)"},
        BadFileCase{"[values]\nsystem = { hw = { major = \"1\" } }\n\"system.hw.major\" = 2\n",
                    "3:1: device value 'system.hw.major' given twice (lines 2 and 3)"},
        BadFileCase{"[credentials]\n\"*\" = { user = \"a\", password = \"p\" }\n"
                    "\"\" = { user = \"b\", password = \"q\" }\n",
                    "3:1: the wild-card realm given twice, as \"*\" and \"\" (lines 2 and 3)"}));

TEST(DeviceFileTest, theFirstProblemInTheFileIsReported) {
    DeviceSettings settings;
    // toml++ keeps a table's keys sorted: "aaa" comes first there, "zzz" first in the file.
    XCode result = parse("[values]\nzzz = \"1\"\naaa = \"2\"\n[https]\nca = 1\n", settings);
    EXPECT_EQ(result.getString().str(), std::string(PATH) + ":2:1: unknown device value 'zzz'");
}

TEST(DeviceFileTest, aKeyGivenTwiceInOneTableIsASyntaxErrorNamingTheKey) {
    DeviceSettings settings;
    XCode result = parse("[values]\nmodel = \"a\"\nmodel = \"b\"\n", settings);
    ASSERT_TRUE(result.isErr());
    EXPECT_TRUE(result.getString().startsWith(String(PATH) + ":3:")) << result.getString().c_str();
    EXPECT_NE(result.getString().indexOf("'model'"), -1) << result.getString().c_str();
}

TEST(DeviceFileTest, integersAreTakenForTheNumericValuesOnly) {
    DeviceSettings settings;
    ASSERT_TRUE(parse("[values]\nsystem.hw.major = 2\n\"system.sw.build\" = 0x10\n"
                      "cli = { minor = 0 }\nmodel = \"7\"\n",
                      settings)
                    .isSuccess());
    EXPECT_EQ(settings.values, (std::vector<std::pair<String, String>>{{"system.hw.major", "2"},
                                                                       {"system.sw.build", "16"},
                                                                       {"cli.minor", "0"},
                                                                       {"model", "7"}}));
    for (const char* name :
         {"system.hw.minor", "system.sw.major", "system.sw.minor", "cli.major"}) {
        DeviceSettings numbers;
        EXPECT_TRUE(parse(std::string("[values]\n\"") + name + "\" = 3\n", numbers).isSuccess())
            << name;
    }
    for (const char* name : {"dhcp.66", "system.serial", "hw.revision", "sw.version"}) {
        DeviceSettings text;
        EXPECT_TRUE(parse(std::string("[values]\n\"") + name + "\" = 3\n", text).isErr()) << name;
    }
}

TEST(DeviceFileTest, valuesKeepTheOrderOfTheFile) {
    DeviceSettings settings;
    ASSERT_TRUE(
        parse("[values]\noem = \"o\"\n\"dhcp.67\" = \"f\"\nmodel = \"m\"\n", settings).isSuccess());
    EXPECT_EQ(settings.values, (std::vector<std::pair<String, String>>{
                                   {"oem", "o"}, {"dhcp.67", "f"}, {"model", "m"}}));
}

TEST(DeviceFileTest, credentialWithHostAndEmptyTablesAreAccepted) {
    DeviceSettings settings;
    ASSERT_TRUE(parse("[values]\n[credentials]\nlab = { user = \"u\", password = \"\", host = "
                      "\"10.0.0.5\" }\n[https]\n[cli]\n",
                      settings)
                    .isSuccess());
    EXPECT_EQ(settings.credentials["lab"].host, "10.0.0.5");
    EXPECT_EQ(settings.credentials["lab"].password, "");
    EXPECT_TRUE(settings.httpsGiven);
}

}  // namespace
