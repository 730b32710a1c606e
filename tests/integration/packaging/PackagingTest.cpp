// The installed package as an integrator uses it: `cmake --install` of this build into a fresh
// prefix, then examples/minimal (copied out of the source tree) built against that prefix alone,
// with find_package(Provisioning) or with pkg-config, and run against tftpd-hpa on loopback.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/InstalledPackage.h"
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

// The engine's headers that a host includes; with the contract's headers (platform/*.h) the
// whole include directory of the package.
const std::vector<std::string> PUBLIC_HEADERS = {"engine/Monitors.h",
                                                 "engine/ProvisioningJob.h",
                                                 "expression/ExpressionResolver.h",
                                                 "jobs/content/ConfigProvisioningJob.h",
                                                 "jobs/content/DialplanProvisioningJob.h",
                                                 "jobs/content/KeyProvisioningJob.h",
                                                 "jobs/content/UploadProvisioningJob.h",
                                                 "jobs/content/WizardProvisioningJob.h",
                                                 "jobs/upgrade/FirmwareProvisioningJob.h",
                                                 "jobs/upgrade/ScriptProvisioningJob.h",
                                                 "jobs/upgrade/UpgradeProvisioningJob.h",
                                                 "transfer/ProvisioningCredentials.h",
                                                 "transfer/ProvisioningHttpClient.h"};

std::vector<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> result;
    std::string word;
    while (stream >> word) {
        result.push_back(word);
    }
    return result;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class PackagingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(package_.install(prefix_));
        // The example, outside the source tree.
        std::filesystem::copy(PROV_SOURCE_DIR "/examples/minimal", example_,
                              std::filesystem::copy_options::recursive);
        tftp_.put(configName_, CONFIGURATION);
        ASSERT_TRUE(tftp_.start());
    }

    std::string location() const {
        return "tftp://127.0.0.1:" + std::to_string(tftp_.port()) + "/" + configName_;
    }

    // The example's environment: the simulated device's directory.
    std::vector<std::string> exampleEnvironment() const { return {"PROV_DEVICE_ROOT=" + device_}; }

    std::vector<std::string> exampleCommand(const std::string& program) const {
        std::vector<std::string> command = {"/usr/bin/env"};
        for (const std::string& variable : exampleEnvironment()) {
            command.push_back(variable);
        }
        command.push_back(program);
        command.push_back(location());
        return command;
    }

    // Runs the built example against the TFTP server and checks what it stored.
    void runExample(const std::string& program) {
        CommandResult run = runCommand(exampleCommand(program));
        EXPECT_EQ(run.exitStatus, 0) << run.output;
        EXPECT_TRUE(contains(run.output, "result: OK")) << run.output;
        EXPECT_EQ(provtest::readFile(device_ + "/config/startup-config"), CONFIGURATION);
    }

    // The compiler that builds the example with find_package: clang, whose default is C++14, so
    // that the package's own usage requirement has to raise it to C++17. A sanitizer build keeps
    // its own compiler, whose runtime the library needs.
    std::string exampleCompiler() const {
        return package_.sanitizerFlags().empty() ? "/usr/bin/clang++"
                                                 : package_.cache("CMAKE_CXX_COMPILER");
    }

    // examples/minimal configured with find_package(Provisioning) and built; the program's path.
    std::string buildExampleWithCMake(const std::string& compiler) {
        const std::string build = dir_.file("example-build");
        std::vector<std::string> configure = {
            package_.cache("CMAKE_COMMAND"),
            "-S",
            example_,
            "-B",
            build,
            "-G",
            package_.cache("CMAKE_GENERATOR"),
            "-DCMAKE_MAKE_PROGRAM=" + package_.cache("CMAKE_MAKE_PROGRAM"),
            "-DCMAKE_CXX_COMPILER=" + compiler,
            "-DCMAKE_PREFIX_PATH=" + prefix_};
        std::string flags;
        for (const std::string& flag : package_.sanitizerFlags()) {
            flags += flag + " ";
        }
        if (!flags.empty()) {
            configure.push_back("-DCMAKE_CXX_FLAGS=" + flags);
            configure.push_back("-DCMAKE_EXE_LINKER_FLAGS=" + flags);
        }
        CommandResult configured = runCommand(configure, BUILD_DEADLINE);
        EXPECT_EQ(configured.exitStatus, 0) << configured.output;
        CommandResult built =
            runCommand({package_.cache("CMAKE_COMMAND"), "--build", build}, BUILD_DEADLINE);
        EXPECT_EQ(built.exitStatus, 0) << built.output;
        // Nothing of the build refers to the source tree.
        EXPECT_FALSE(contains(provtest::readFile(build + "/build.ninja"), PROV_SOURCE_DIR));
        return build + "/minimal-provisioning";
    }

    static std::string unique(const std::string& stem) {
        static std::atomic<int> counter{0};
        return stem + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    }

    provtest::TempDir dir_{"prov-packaging"};
    const std::string prefix_ = dir_.file("prefix");
    const std::string example_ = dir_.file("example");
    const std::string device_ = dir_.file("device");
    const std::string configName_ = unique("packaging") + ".cfg";
    provtest::InstalledPackage package_;
    provtest::TftpServer tftp_;
};

TEST_F(PackagingTest, installHasLibrariesProgramAndPackageFiles) {
    for (const char* file : {"lib/libprovisioning.so", "lib/libprovisioning-platform.so",
                             "lib/libprovisioning-simulated-device.so", "bin/provctl",
                             "lib/cmake/Provisioning/ProvisioningConfig.cmake",
                             "lib/cmake/Provisioning/ProvisioningConfigVersion.cmake",
                             "lib/pkgconfig/provisioning.pc", "share/provisioning/demo/unit.cfg"}) {
        EXPECT_TRUE(std::filesystem::exists(prefix_ + "/" + file)) << file;
    }
    // The installed provctl runs from its prefix.
    CommandResult version = runCommand({prefix_ + "/bin/provctl", "--version"});
    EXPECT_EQ(version.exitStatus, 0) << version.output;
}

TEST_F(PackagingTest, includeHoldsTheContractAndTheEnginesPublicHeadersOnly) {
    std::vector<std::string> expected = PUBLIC_HEADERS;
    for (const auto& entry : std::filesystem::directory_iterator(PROV_SOURCE_DIR "/platform")) {
        const std::string extension = entry.path().extension();
        if (entry.is_regular_file() && (extension == ".h" || extension == ".inl")) {
            expected.push_back("platform/" + entry.path().filename().string());
        }
    }
    std::sort(expected.begin(), expected.end());
    // Nothing of the POSIX backend, the simulation or the test hooks, and nothing beside
    // include/provisioning/.
    EXPECT_EQ(provtest::InstalledPackage::filesBelow(prefix_ + "/include/provisioning"), expected);
    EXPECT_EQ(provtest::InstalledPackage::filesBelow(prefix_ + "/include").size(), expected.size());
}

TEST_F(PackagingTest, everyInstalledHeaderCompilesOnItsOwn) {
    const std::string include = prefix_ + "/include/provisioning";
    for (const std::string& header : provtest::InstalledPackage::filesBelow(include)) {
        if (header.size() < 2 || header.substr(header.size() - 2) != ".h") {
            continue;
        }
        const std::string source = dir_.file("alone.cpp");
        std::ofstream(source) << "#include \"" << header << "\"\n";
        CommandResult compiled =
            runCommand({package_.cache("CMAKE_CXX_COMPILER"), "-std=c++17", "-fsyntax-only",
                        "-Wall", "-Wextra", "-Werror", "-I" + include, source},
                       BUILD_DEADLINE);
        EXPECT_EQ(compiled.exitStatus, 0) << header << "\n" << compiled.output;
    }
}

TEST_F(PackagingTest, exampleBuiltWithFindPackageByACxx14CompilerProvisions) {
    const std::string compiler = exampleCompiler();
    if (package_.sanitizerFlags().empty()) {
        // The compiler does default to C++14: the package raises it.
        CommandResult defaults =
            runCommand({compiler, "-dM", "-E", "-x", "c++", "/dev/null"}, BUILD_DEADLINE);
        EXPECT_TRUE(contains(defaults.output, "#define __cplusplus 201402L")) << defaults.output;
    }
    runExample(buildExampleWithCMake(compiler));
}

TEST_F(PackagingTest, exampleBuiltWithPkgConfigProvisions) {
    CommandResult flags =
        runCommand({"/usr/bin/pkg-config", "--with-path=" + prefix_ + "/lib/pkgconfig", "--cflags",
                    "--libs", "provisioning"});
    ASSERT_EQ(flags.exitStatus, 0) << flags.output;
    const std::string program = dir_.file("minimal-pkg-config");
    std::vector<std::string> compile = {package_.cache("CMAKE_CXX_COMPILER"),
                                        example_ + "/main.cpp", "-o", program};
    for (const std::string& word : words(flags.output)) {
        compile.push_back(word);
    }
    for (const std::string& flag : package_.sanitizerFlags()) {
        compile.push_back(flag);
    }
    compile.push_back("-Wl,-rpath," + prefix_ + "/lib");
    CommandResult built = runCommand(compile, BUILD_DEADLINE);
    ASSERT_EQ(built.exitStatus, 0) << built.output;
    runExample(program);
}

// 0.x: find_package accepts the minor series that was asked for, no other.
TEST_F(PackagingTest, packageVersionAcceptsTheSameMinorSeriesOnly) {
    const std::string versionFile =
        prefix_ + "/lib/cmake/Provisioning/ProvisioningConfigVersion.cmake";
    struct Request {
        const char* version;
        bool accepted;
    };
    for (const Request& request :
         {Request{"0.1", true}, Request{"0.1.0", true}, Request{"0.2", false},
          Request{"0.0", false}, Request{"1.0", false}}) {
        const std::string script = dir_.file("version.cmake");
        std::ofstream(script) << "set(PACKAGE_FIND_VERSION " << request.version << ")\n"
                              << "string(REPLACE \".\" \";\" parts ${PACKAGE_FIND_VERSION})\n"
                              << "list(GET parts 0 PACKAGE_FIND_VERSION_MAJOR)\n"
                              << "list(GET parts 1 PACKAGE_FIND_VERSION_MINOR)\n"
                              << "include(\"" << versionFile << "\")\n"
                              << "message(\"compatible=${PACKAGE_VERSION_COMPATIBLE}\")\n";
        CommandResult run = runCommand({package_.cache("CMAKE_COMMAND"), "-P", script});
        EXPECT_EQ(run.exitStatus, 0) << run.output;
        EXPECT_TRUE(contains(run.output, request.accepted ? "compatible=TRUE" : "compatible=FALSE"))
            << request.version << ": " << run.output;
    }
}

// Which malloc serves the engine's allocations (libstdc++'s operator new and the library's own
// calls): jemalloc in provctl and in the example that links Provisioning::allocator; without
// that target the program's C library comes first in the search, whatever the library needs.
TEST_F(PackagingTest, jemallocServesTheLibraryInProvctlAndInTheExample) {
    if (!package_.sanitizerFlags().empty()) {
        GTEST_SKIP() << "a sanitizer's runtime serves malloc in this build";
    }
    const std::vector<std::string> served = {package_.hasJemalloc() ? "libjemalloc.so.2"
                                                                    : "libc.so.6"};
    EXPECT_EQ(provtest::InstalledPackage::bindingsOf(
                  "malloc", {prefix_ + "/bin/provctl", "resolve", "--device", device_, "x"}),
              served);
    const std::string example = buildExampleWithCMake(exampleCompiler());
    EXPECT_EQ(provtest::InstalledPackage::bindingsOf("malloc", {example, location()},
                                                     exampleEnvironment()),
              served);
    if (!package_.hasJemalloc()) {
        return;
    }
    // The same program linked without the allocator target.
    const std::string plain = dir_.file("minimal-plain");
    CommandResult built =
        runCommand({package_.cache("CMAKE_CXX_COMPILER"), "-std=c++17", "-D_FILE_OFFSET_BITS=64",
                    "-I" + prefix_ + "/include/provisioning", example_ + "/main.cpp", "-o", plain,
                    "-L" + prefix_ + "/lib", "-lprovisioning", "-lprovisioning-platform",
                    "-lprovisioning-simulated-device", "-Wl,-rpath," + prefix_ + "/lib"},
                   BUILD_DEADLINE);
    ASSERT_EQ(built.exitStatus, 0) << built.output;
    EXPECT_EQ(
        provtest::InstalledPackage::bindingsOf("malloc", {plain, location()}, exampleEnvironment()),
        std::vector<std::string>{"libc.so.6"});
}

TEST_F(PackagingTest, theManualPageIsInstalledAndManShowsIt) {
    const std::string page = prefix_ + "/share/man/man1/provctl.1";
    ASSERT_TRUE(std::filesystem::exists(page));
    // groff finds nothing to warn about in it.
    CommandResult checked = runCommand({"/usr/bin/groff", "-man", "-Tutf8", "-ww", "-z", page});
    EXPECT_EQ(checked.exitStatus, 0);
    EXPECT_EQ(checked.output, "");
    CommandResult shown = runCommand({"/usr/bin/env", "MANPATH=" + prefix_ + "/share/man",
                                      "MANPAGER=cat", "MANWIDTH=100", "/usr/bin/man", "provctl"});
    EXPECT_EQ(shown.exitStatus, 0) << shown.output;
    for (const char* part : {"provctl - run provisioning jobs against a simulated device",
                             "provctl help [COMMAND]", "provctl config - download a configuration",
                             "--ca-certificate FILE", "provctl demo - provision a new simulated"}) {
        EXPECT_TRUE(contains(shown.output, part)) << part << "\n" << shown.output;
    }
}

// The recipe of docs/INTEGRATION.md, as a packager runs it: no option, so no tests, no
// benchmarks, and warnings that stay warnings.
TEST_F(PackagingTest, aPlainConfigureBuildsTheLibrariesAndProvctlOnly) {
    const std::string build = dir_.file("plain-build");
    CommandResult configured =
        runCommand({package_.cache("CMAKE_COMMAND"), "-S", PROV_SOURCE_DIR, "-B", build, "-G",
                    package_.cache("CMAKE_GENERATOR"),
                    "-DCMAKE_MAKE_PROGRAM=" + package_.cache("CMAKE_MAKE_PROGRAM")},
                   BUILD_DEADLINE);
    ASSERT_EQ(configured.exitStatus, 0) << configured.output;
    CommandResult targets =
        runCommand({package_.cache("CMAKE_MAKE_PROGRAM"), "-C", build, "-t", "targets", "all"});
    ASSERT_EQ(targets.exitStatus, 0) << targets.output;
    EXPECT_TRUE(contains(targets.output, "host/provctl:")) << targets.output;
    EXPECT_TRUE(contains(targets.output, "libprovisioning.so")) << targets.output;
    EXPECT_FALSE(contains(targets.output, "unit_")) << targets.output;
    EXPECT_FALSE(contains(targets.output, "JobSuite")) << targets.output;
    EXPECT_FALSE(contains(provtest::readFile(build + "/build.ninja"), "-Werror"));
}

}  // namespace
