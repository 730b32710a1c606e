// Device values that bring an expression along, as a rogue DHCP server could hand them out
// (options 66 and 67) or a device file could hold them: provctl refuses them where they are set,
// and nothing resolves forever.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/ProvctlRun.h"
#include "support/TempDir.h"

namespace provtest::hardening {
namespace {

using namespace std::chrono_literals;

// provctl resolves in milliseconds; a run still going after this is resolving forever.
constexpr auto DEADLINE = 10s;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class ExpressionLoopTest : public ::testing::Test {
  protected:
    std::string device() const { return dir.file("device"); }

    void writeDeviceFile(const std::string& values) {
        writeFile(dir.file("device/device.toml"), "[values]\n" + values);
    }

    static void expectRefused(const ProvctlOutcome& run, const std::string& name) {
        EXPECT_TRUE(run.ended) << "provctl did not end; stderr: " << run.err;
        EXPECT_EQ(run.status, 2) << run.err;
        EXPECT_TRUE(contains(run.err, "device value '" + name + "' may not hold \"$(\""))
            << run.err;
        EXPECT_EQ(run.out, "");
    }

    TempDir dir{"prov-exprloop"};
};

TEST_F(ExpressionLoopTest, resolveRefusesSetValueNamingItself) {
    ProvctlOutcome run = runProvctl(
        dir, {"resolve", "--device", device(), "--set", "dhcp.67=$(dhcp.67)", "/$(dhcp.67)"}, {},
        DEADLINE);
    expectRefused(run, "dhcp.67");
}

TEST_F(ExpressionLoopTest, resolveRefusesSetValuesNamingEachOther) {
    ProvctlOutcome run = runProvctl(dir,
                                    {"resolve", "--device", device(), "--set", "dhcp.66=$(dhcp.67)",
                                     "--set", "dhcp.67=a$(dhcp.66)", "tftp://$(dhcp.66)/x"},
                                    {}, DEADLINE);
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.status, 2) << run.err;
    EXPECT_TRUE(contains(run.err, "may not hold \"$(\"")) << run.err;
}

TEST_F(ExpressionLoopTest, configJobRefusesSetValueDoublingItselfBeforeAnythingRuns) {
    ProvctlOutcome run =
        runProvctl(dir,
                   {"config", "--device", device(), "--set",
                    "system.mac=$(system.mac)$(system.mac)", "tftp://127.0.0.1/$(system.mac).cfg"},
                   {}, DEADLINE);
    expectRefused(run, "system.mac");
    // A refused command line creates nothing, not even the device directory.
    EXPECT_FALSE(fileExists(device()));
}

TEST_F(ExpressionLoopTest, resolveRefusesDeviceFileValueNamingItself) {
    writeDeviceFile("\"dhcp.66\" = \"$(dhcp.66)\"\n");
    ProvctlOutcome run =
        runProvctl(dir, {"resolve", "--device", device(), "tftp://$(dhcp.66)/x"}, {}, DEADLINE);
    expectRefused(run, "dhcp.66");
}

TEST_F(ExpressionLoopTest, configJobRefusesDeviceFileValueNamingItself) {
    writeDeviceFile("system.serial = \"s/$(system.serial)\"\n");
    ProvctlOutcome run = runProvctl(
        dir, {"config", "--device", device(), "tftp://127.0.0.1/$(system.serial)"}, {}, DEADLINE);
    expectRefused(run, "system.serial");
}

TEST_F(ExpressionLoopTest, valuesThatOnlyJoinIntoAnExpressionAreTakenAndEnd) {
    // Neither value holds "$(", so both are taken; the text joins them into one more expression,
    // which is resolved once.
    ProvctlOutcome run = runProvctl(dir,
                                    {"resolve", "--device", device(), "--set", "system.mac=a$",
                                     "--set", "system.serial=S1", "/$(system.mac)(system.serial)"},
                                    {}, DEADLINE);
    EXPECT_TRUE(run.ended);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "/aS1\n");
}

}  // namespace
}  // namespace provtest::hardening
