#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

// This build installed into a fresh prefix as an integrator installs it (`cmake --install`), and
// what it takes to build a host against that prefix the way this build was made: its compiler,
// generator and sanitizer, read from the build's CMakeCache.txt.
namespace provtest {

class InstalledPackage {
  public:
    // Reads the cache of the build that made provctl and installs that build into `prefix`.
    ::testing::AssertionResult install(const std::string& prefix);

    // A cache entry ("" when there is none).
    std::string cache(const std::string& name) const;
    // Compiler and link flags of a sanitizer build: a host must be built the same way.
    std::vector<std::string> sanitizerFlags() const;
    bool hasJemalloc() const { return cache("PROV_JEMALLOC") == "ON"; }

    // The files under `directory`, relative to it, sorted.
    static std::vector<std::string> filesBelow(const std::string& directory);
    // The objects that the dynamic linker bound `symbol` to when `argv` ran (LD_DEBUG=bindings),
    // by file name ("libjemalloc.so.2"), with `environment` (NAME=value) added.
    static std::vector<std::string> bindingsOf(const std::string& symbol,
                                               const std::vector<std::string>& argv,
                                               const std::vector<std::string>& environment = {});

  private:
    std::map<std::string, std::string> cache_;
};

}  // namespace provtest
