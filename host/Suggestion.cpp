#include "host/Suggestion.h"

#include <algorithm>
#include <string>

namespace Provctl {

namespace {

// Edits (insert, delete, replace, swap of neighbours) that turn `a` into `b`.
std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                d[i][j] = i + j;
                continue;
            }
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
            }
        }
    }
    return d[a.size()][b.size()];
}

}  // namespace

String DID_YOU_MEAN(const String& word, const std::vector<String>& known) {
    const std::size_t limit = word.str().size() <= 4 ? 1 : 2;
    std::size_t best = limit + 1;
    const String* closest = nullptr;
    bool tie = false;
    for (const String& candidate : known) {
        const std::size_t distance = editDistance(word.str(), candidate.str());
        if (distance < best) {
            best = distance;
            closest = &candidate;
            tie = false;
        } else if (distance == best) {
            tie = true;
        }
    }
    if (closest == nullptr || tie || best == 0) {
        return String();
    }
    return "; did you mean '" + *closest + "'?";
}

}  // namespace Provctl
