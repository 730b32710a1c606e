#include "host/Suggestion.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

struct SuggestionCase {
    const char* word;
    std::vector<String> known;
    const char* suggestion;
};

TEST(SuggestionTest, didYouMeanNamesTheOneCloseWord) {
    const std::vector<SuggestionCase> rows = {
        {"value", {"values", "cli"}, "; did you mean 'values'?"},
        {"rejcet", {"reject"}, "; did you mean 'reject'?"},  // two letters swapped: one edit
        {"pasword", {"user", "password", "host"}, "; did you mean 'password'?"},
        {"cafile", {"ca", "cert", "key"}, ""},
        {"kez", {"key"}, "; did you mean 'key'?"},
        {"kzz", {"key"}, ""},      // two edits in a short word
        {"ab", {"ac", "ad"}, ""},  // no single closest word
        {"reject", {"reject"}, ""},
    };
    for (const SuggestionCase& row : rows) {
        EXPECT_EQ(Provctl::DID_YOU_MEAN(row.word, row.known), String(row.suggestion)) << row.word;
    }
}

}  // namespace
