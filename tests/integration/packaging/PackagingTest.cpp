// The installed package as an integrator uses it: `cmake --install` of this build into a fresh
// prefix, then examples/minimal (copied out of the source tree) built against that prefix alone,
// with find_package(Provisioning) or with pkg-config, and run against tftpd-hpa on loopback.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TempDir.h"
#include "support/TftpServer.h"

namespace {

using namespace std::chrono_literals;
using provtest::CommandResult;
using provtest::runCommand;

// Configuring and compiling take longer than a transfer.
constexpr std::chrono::milliseconds BUILD_DEADLINE = 150s;

const char* const CONFIGURATION =
    "# packaging test\ncli version 4.0\ncontext ip router\n  interface LAN\n  exit\nexit\n"
    "port ethernet 0 0\nexit\n";

std::string buildDirectory() {
    // provctl lies in <build>/host/.
    return std::filesystem::path(PROV_PROVCTL).parent_path().parent_path().string();
}

// The entries of this build's CMakeCache.txt ("NAME:TYPE=value" -> NAME -> value).
std::map<std::string, std::string> cacheEntries() {
    std::map<std::string, std::string> entries;
    std::ifstream cache(buildDirectory() + "/CMakeCache.txt");
    std::string line;
    while (std::getline(cache, line)) {
        const std::size_t colon = line.find(':');
        const std::size_t equals = line.find('=');
        if (line.empty() || line[0] == '#' || line[0] == '/' || colon == std::string::npos ||
            equals == std::string::npos || colon > equals) {
            continue;
        }
        entries[line.substr(0, colon)] = line.substr(equals + 1);
    }
    return entries;
}

std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    std::string word;
    while (stream >> word) {
        result.push_back(word);
    }
    return result;
}

class PackagingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        cache_ = cacheEntries();
        ASSERT_FALSE(cache_["CMAKE_COMMAND"].empty())
            << "no CMakeCache.txt in " << buildDirectory();
        CommandResult installed = runCommand(
            {cache_["CMAKE_COMMAND"], "--install", buildDirectory(), "--prefix", prefix_},
            BUILD_DEADLINE);
        ASSERT_EQ(installed.exitStatus, 0) << installed.output;
        // The example, outside the source tree.
        std::filesystem::copy(PROV_SOURCE_DIR "/examples/minimal", example_,
                              std::filesystem::copy_options::recursive);
        tftp_.put(configName_, CONFIGURATION);
        ASSERT_TRUE(tftp_.start());
    }

    // Compiler and link flags of a sanitizer build: the example must be built the same way.
    std::string sanitizerFlags() {
        const std::string sanitize = cache_["PROV_SANITIZE"];
        if (sanitize == "address") {
            return "-fsanitize=address,undefined -fno-omit-frame-pointer";
        }
        if (sanitize == "thread") {
            return "-fsanitize=thread";
        }
        return "";
    }

    // Runs the built example against the TFTP server and checks what it stored.
    void runExample(const std::string& program) {
        const std::string device = dir_.file("device");
        CommandResult run =
            runCommand({program, device,
                        "tftp://127.0.0.1:" + std::to_string(tftp_.port()) + "/" + configName_});
        EXPECT_EQ(run.exitStatus, 0) << run.output;
        EXPECT_NE(run.output.find("result: OK"), std::string::npos) << run.output;
        EXPECT_EQ(provtest::readFile(device + "/config/startup-config"), CONFIGURATION);
    }

    static std::string unique(const std::string& stem) {
        static std::atomic<int> counter{0};
        return stem + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    }

    provtest::TempDir dir_{"prov-packaging"};
    const std::string prefix_ = dir_.file("prefix");
    const std::string example_ = dir_.file("example");
    const std::string configName_ = unique("packaging") + ".cfg";
    std::map<std::string, std::string> cache_;
    provtest::TftpServer tftp_;
};

TEST_F(PackagingTest, installHasLibrariesHeadersProgramAndPackageFiles) {
    for (const char* file : {"lib/libprovisioning.so", "lib/libprovisioning-platform.so",
                             "include/provisioning/engine/ProvisioningJob.h",
                             "include/provisioning/transfer/ProvisioningCredentials.h",
                             "include/provisioning/expression/ExpressionResolver.h",
                             "include/provisioning/jobs/content/ConfigProvisioningJob.h",
                             "include/provisioning/jobs/upgrade/FirmwareProvisioningJob.h",
                             "include/provisioning/platform/KtEventLoop.h", "bin/provctl",
                             "lib/cmake/Provisioning/ProvisioningConfig.cmake",
                             "lib/cmake/Provisioning/ProvisioningConfigVersion.cmake",
                             "lib/pkgconfig/provisioning.pc", "share/provisioning/demo/unit.cfg"}) {
        EXPECT_TRUE(std::filesystem::exists(prefix_ + "/" + file)) << file;
    }
    // The shell's process internals are not part of the interface.
    EXPECT_FALSE(
        std::filesystem::exists(prefix_ + "/include/provisioning/platform/ProcessSpawn.h"));
    // The installed provctl runs from its prefix.
    CommandResult version = runCommand({prefix_ + "/bin/provctl", "--version"});
    EXPECT_EQ(version.exitStatus, 0) << version.output;
}

TEST_F(PackagingTest, exampleBuiltWithFindPackageProvisions) {
    const std::string build = dir_.file("example-build");
    std::vector<std::string> configure = {cache_["CMAKE_COMMAND"],
                                          "-S",
                                          example_,
                                          "-B",
                                          build,
                                          "-G",
                                          cache_["CMAKE_GENERATOR"],
                                          "-DCMAKE_MAKE_PROGRAM=" + cache_["CMAKE_MAKE_PROGRAM"],
                                          "-DCMAKE_CXX_COMPILER=" + cache_["CMAKE_CXX_COMPILER"],
                                          "-DCMAKE_PREFIX_PATH=" + prefix_};
    if (!sanitizerFlags().empty()) {
        configure.push_back("-DCMAKE_CXX_FLAGS=" + sanitizerFlags());
        configure.push_back("-DCMAKE_EXE_LINKER_FLAGS=" + sanitizerFlags());
    }
    CommandResult configured = runCommand(configure, BUILD_DEADLINE);
    ASSERT_EQ(configured.exitStatus, 0) << configured.output;
    CommandResult built = runCommand({cache_["CMAKE_COMMAND"], "--build", build}, BUILD_DEADLINE);
    ASSERT_EQ(built.exitStatus, 0) << built.output;
    // Nothing of the build refers to the source tree.
    std::ifstream commands(build + "/build.ninja");
    std::stringstream text;
    text << commands.rdbuf();
    EXPECT_EQ(text.str().find(PROV_SOURCE_DIR), std::string::npos);
    runExample(build + "/minimal-provisioning");
}

TEST_F(PackagingTest, exampleBuiltWithPkgConfigProvisions) {
    CommandResult flags =
        runCommand({"/usr/bin/pkg-config", "--with-path=" + prefix_ + "/lib/pkgconfig", "--cflags",
                    "--libs", "provisioning"});
    ASSERT_EQ(flags.exitStatus, 0) << flags.output;
    const std::string program = dir_.file("minimal-pkg-config");
    std::vector<std::string> compile = {cache_["CMAKE_CXX_COMPILER"], "-std=c++17",
                                        example_ + "/main.cpp", "-o", program};
    for (const std::string& word : words(flags.output + " " + sanitizerFlags())) {
        compile.push_back(word);
    }
    compile.push_back("-Wl,-rpath," + prefix_ + "/lib");
    CommandResult built = runCommand(compile, BUILD_DEADLINE);
    ASSERT_EQ(built.exitStatus, 0) << built.output;
    runExample(program);
}

}  // namespace
