#include "host/Table.h"

#include <algorithm>
#include <cstddef>
#include <string>

namespace Provctl {

String FORMAT_TABLE(const std::vector<std::vector<String>>& rows) {
    std::vector<int> widths;
    for (const auto& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            if (widths.size() <= column) {
                widths.push_back(0);
            }
            widths[column] = std::max(widths[column], row[column].length());
        }
    }
    auto formatRow = [&widths](const std::vector<String>& row) {
        String line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column];
            if (column + 1 < row.size()) {
                line += String(std::string(
                    static_cast<std::size_t>(widths[column] - row[column].length() + 2), ' '));
            }
        }
        while (line.endsWith(" ")) {
            line.deleteRegion(line.length() - 1, 1);
        }
        return line + "\n";
    };
    String table;
    for (std::size_t index = 0; index < rows.size(); ++index) {
        table += formatRow(rows[index]);
        if (index == 0) {
            std::vector<String> rule;
            for (int width : widths) {
                rule.push_back(String(std::string(static_cast<std::size_t>(width), '-')));
            }
            table += formatRow(rule);
        }
    }
    return table;
}

}  // namespace Provctl
