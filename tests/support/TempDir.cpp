#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace provtest {

TempDir::TempDir(const std::string& prefix) {
    std::string pattern = "/tmp/" + prefix + "-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (::mkdtemp(buffer.data()) == nullptr) {
        ADD_FAILURE() << "mkdtemp " << pattern << ": " << std::strerror(errno);
        return;
    }
    path_ = buffer.data();
}

TempDir::~TempDir() {
    if (!path_.empty()) {
        std::error_code ignored;  // a leftover directory under /tmp is no test failure
        std::filesystem::remove_all(path_, ignored);
    }
}

std::string TempDir::file(const std::string& relative) const {
    if (!relative.empty() && relative.front() == '/') {
        return path_ + relative;
    }
    return path_ + "/" + relative;
}

void makeDirs(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) {
        ADD_FAILURE() << "cannot create " << path << ": " << error.message();
    }
}

void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (!parent.empty()) {
        makeDirs(parent.string());
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    if (!out) {
        ADD_FAILURE() << "cannot write " << path;
    }
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        ADD_FAILURE() << "cannot read " << path;
        return "";
    }
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

bool fileExists(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::exists(path, ignored);
}

}  // namespace provtest
