#pragma once

#include <string>

namespace provtest {

// A fresh directory under /tmp, unique per instance, removed with everything in it when the
// object goes away.
class TempDir {
  public:
    // `prefix` goes into the directory's name, to tell leftovers apart.
    explicit TempDir(const std::string& prefix = "prov-test");
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    const std::string& path() const { return path_; }
    // `relative` joined to the directory's path.
    std::string file(const std::string& relative) const;

  private:
    std::string path_;
};

// Whole-file helpers for tests. writeFile creates missing parent directories; both abort the
// test (ADD_FAILURE) on an error.
void writeFile(const std::string& path, const std::string& content);
std::string readFile(const std::string& path);
bool fileExists(const std::string& path);
// Creates the directory and its missing parents.
void makeDirs(const std::string& path);

}  // namespace provtest
