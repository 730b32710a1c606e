#include "support/InstalledPackage.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "support/Process.h"

namespace provtest {

namespace {

// Installing copies files; a little longer than a transfer.
constexpr std::chrono::milliseconds INSTALL_DEADLINE = std::chrono::seconds(60);

std::string buildDirectory() {
    // provctl lies in <build>/host/.
    return std::filesystem::path(PROV_PROVCTL).parent_path().parent_path().string();
}

// The entries of a CMakeCache.txt ("NAME:TYPE=value" -> NAME -> value).
std::map<std::string, std::string> readCache(const std::string& path) {
    std::map<std::string, std::string> entries;
    std::ifstream cache(path);
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

}  // namespace

::testing::AssertionResult InstalledPackage::install(const std::string& prefix) {
    cache_ = readCache(buildDirectory() + "/CMakeCache.txt");
    if (cache("CMAKE_COMMAND").empty()) {
        return ::testing::AssertionFailure() << "no CMakeCache.txt in " << buildDirectory();
    }
    CommandResult installed =
        runCommand({cache("CMAKE_COMMAND"), "--install", buildDirectory(), "--prefix", prefix},
                   INSTALL_DEADLINE);
    if (installed.exitStatus != 0) {
        return ::testing::AssertionFailure() << installed.output;
    }
    return ::testing::AssertionSuccess();
}

std::string InstalledPackage::cache(const std::string& name) const {
    auto entry = cache_.find(name);
    return entry == cache_.end() ? std::string() : entry->second;
}

std::vector<std::string> InstalledPackage::sanitizerFlags() const {
    const std::string sanitize = cache("PROV_SANITIZE");
    if (sanitize == "address") {
        return {"-fsanitize=address,undefined", "-fno-omit-frame-pointer"};
    }
    if (sanitize == "thread") {
        return {"-fsanitize=thread"};
    }
    return {};
}

std::vector<std::string> InstalledPackage::filesBelow(const std::string& directory) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
        if (!entry.is_directory()) {
            files.push_back(std::filesystem::relative(entry.path(), directory).string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::string> InstalledPackage::bindingsOf(const std::string& symbol,
                                                      const std::vector<std::string>& argv,
                                                      const std::vector<std::string>& environment) {
    std::vector<std::string> command = {"/usr/bin/env", "LD_DEBUG=bindings"};
    command.insert(command.end(), environment.begin(), environment.end());
    command.insert(command.end(), argv.begin(), argv.end());
    CommandResult run = runCommand(command);
    // "binding file /lib/libstdc++.so.6 [0] to /lib/libjemalloc.so.2 [0]: normal symbol `malloc'"
    // Lines start with the process id: the program's own come first, its children's (the tools
    // it runs, which inherit LD_DEBUG) are left out.
    std::set<std::string> targets;
    std::istringstream lines(run.output);
    std::string line;
    std::string program;
    while (std::getline(lines, line)) {
        const std::size_t to = line.find(" to ");
        if (line.find("binding file ") == std::string::npos || to == std::string::npos) {
            continue;
        }
        const std::string pid = line.substr(0, line.find(':'));
        if (program.empty()) {
            program = pid;
        }
        if (pid != program || line.find("symbol `" + symbol + "'") == std::string::npos) {
            continue;
        }
        const std::size_t end = line.find(" [", to);
        targets.insert(std::filesystem::path(line.substr(to + 4, end - to - 4)).filename());
    }
    return {targets.begin(), targets.end()};
}

}  // namespace provtest
