#pragma once

// The interoperability matrix: one cell per server and scenario, filled as the tests run, and the
// page docs/INTEROPERABILITY.md written from it when every test of the run has run.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace interop {

// What a scenario checks, for the page's introduction.
struct ScenarioText {
    const char* title;
    const char* checks;
};

class Matrix {
  public:
    struct Cell {
        std::string server;
        std::string scenario;
        // "passes", the reason the scenario does not apply, or "FAILS: ...".
        std::string result;
    };

    static Matrix& get() {
        static Matrix matrix;
        return matrix;
    }

    // Keeps the version number of what the server binary printed ("lighttpd/1.4.69 (ssl) - a
    // light and fast webserver" gives 1.4.69), all of it when it holds no number.
    void setVersion(const std::string& server, const std::string& printed) {
        const std::string version = versionNumberIn(printed);
        for (auto& [name, text] : versions_) {
            if (name == server) {
                text = version;
                return;
            }
        }
        versions_.emplace_back(server, version);
    }
    void record(const std::string& server, const std::string& scenario, const std::string& result) {
        cells_.push_back({server, scenario, result});
    }
    bool anyFailing() const {
        for (const Cell& cell : cells_) {
            if (cell.result.rfind("FAILS", 0) == 0) {
                return true;
            }
        }
        return false;
    }
    const std::vector<Cell>& cells() const { return cells_; }
    std::string versionOf(const std::string& server) const {
        for (const auto& [name, text] : versions_) {
            if (name == server) {
                return text;
            }
        }
        return "(not asked)";
    }

  private:
    // The first run of digits and dots that holds a dot between digits, such as "2.4.71".
    static std::string versionNumberIn(const std::string& text) {
        auto digit = [](char c) { return c >= '0' && c <= '9'; };
        for (std::size_t start = 0; start < text.size(); ++start) {
            if (!digit(text[start]) || (start > 0 && digit(text[start - 1]))) {
                continue;
            }
            std::size_t end = start;
            while (end < text.size() && (digit(text[end]) || text[end] == '.')) {
                ++end;
            }
            while (end > start && text[end - 1] == '.') {
                --end;
            }
            std::string number = text.substr(start, end - start);
            if (number.find('.') != std::string::npos) {
                return number;
            }
        }
        return text;
    }

    std::vector<std::pair<std::string, std::string>> versions_;
    std::vector<Cell> cells_;
};

// A table cell's text on one line, without anything that would end the cell.
inline std::string tableText(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '|') {
            out += "\\|";
        } else if (c == '\n' || c == '\r' || c == '\t') {
            out += ' ';
        } else {
            out += c;
        }
    }
    return out;
}

// The first line of `text`, at most `limit` characters.
inline std::string firstLine(const std::string& text, std::size_t limit = 160) {
    std::string line = text.substr(0, text.find('\n'));
    return line.size() > limit ? line.substr(0, limit) + "..." : line;
}

inline std::string pageText(const std::vector<ScenarioText>& http,
                            const std::vector<ScenarioText>& tftp) {
    std::ostringstream page;
    page << "# Interoperability with servers written elsewhere\n\n"
         << "The engine's own tests use lighttpd, tftpd-hpa and a scripted fixture server. This "
            "page\nrecords the same scenarios against every HTTP and TFTP server packaged for the "
            "development host,\neach started on 127.0.0.1 from a configuration the test writes "
            "into a temporary directory. Every\nscenario is a real job of the engine (the job "
            "classes, GNU wget and BusyBox tftp as the device runs\nthem); a cell passes when the "
            "job's result code and message, the content it stored or sent and\nits transfer-log "
            "line are as expected. Where a server cannot do what a scenario needs, the cell\nsays "
            "why instead of a result. A cell reading \"FAILS: ...\" is a failing test.\n\n"
         << "This page is written by the test `integration_interop_InteropMatrixTest` (in\n"
            "`tests/integration/interop/`) whenever all of its tests have run; do not edit it by "
            "hand.\nRe-run it with:\n\n"
         << "```\n"
            "cmake --build build -j2 --target integration_interop_InteropMatrixTest\n"
            "build/tests/integration_interop_InteropMatrixTest    # or: ctest --test-dir build -R "
            "interop\n"
            "```\n\n"
            "It needs root (tftpd-hpa chroots; dnsmasq serves TFTP on port 69 only, so the test "
            "process\nmoves into a network namespace of its own, where only its loopback "
            "interface exists).\n\n"
         << "## HTTP scenarios\n\n";
    for (const ScenarioText& scenario : http) {
        page << "- **" << scenario.title << "**: " << scenario.checks << "\n";
    }
    page << "\n## TFTP scenarios\n\n";
    for (const ScenarioText& scenario : tftp) {
        page << "- **" << scenario.title << "**: " << scenario.checks << "\n";
    }
    page << "\n## Results\n\n| Server | Version | Scenario | Result |\n|---|---|---|---|\n";
    const Matrix& matrix = Matrix::get();
    for (const Matrix::Cell& cell : matrix.cells()) {
        page << "| " << tableText(cell.server) << " | " << tableText(matrix.versionOf(cell.server))
             << " | " << tableText(cell.scenario) << " | " << tableText(cell.result) << " |\n";
    }
    return page.str();
}

// Writes the page after the last test, when the run was complete: a filtered run leaves the page
// as it is.
class PageWriter : public ::testing::Environment {
  public:
    PageWriter(std::string path, std::vector<ScenarioText> http, std::vector<ScenarioText> tftp)
        : path_(std::move(path)), http_(std::move(http)), tftp_(std::move(tftp)) {}

    void TearDown() override {
        const ::testing::UnitTest& run = *::testing::UnitTest::GetInstance();
        if (run.test_to_run_count() != run.total_test_count()) {
            std::printf("%s left as it is: only %d of %d tests ran\n", path_.c_str(),
                        run.test_to_run_count(), run.total_test_count());
            return;
        }
        std::string page = pageText(http_, tftp_);
        if (provtest::fileExists(path_) && provtest::readFile(path_) == page) {
            return;
        }
        std::ofstream out(path_, std::ios::binary | std::ios::trunc);
        out << page;
        out.close();
        if (!out) {
            ADD_FAILURE() << "cannot write " << path_;
        }
    }

  private:
    std::string path_;
    std::vector<ScenarioText> http_;
    std::vector<ScenarioText> tftp_;
};

}  // namespace interop
