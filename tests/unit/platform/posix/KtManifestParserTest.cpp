#include "platform/KtManifestParser.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace {

using Params = std::vector<std::pair<std::string, std::string>>;

Params paramsOf(const KtManifestEntry& entry) {
    Params result;
    for (const auto& param : entry.params()) {
        result.emplace_back(param.first.str(), param.second.str());
    }
    return result;
}

struct Parsed {
    const char* name;
    std::string text;
    Params params;
};

// Test names show the case.
void PrintTo(const Parsed& c, std::ostream* out) {
    *out << c.name;
}

class KtManifestParserParses : public ::testing::TestWithParam<Parsed> {};

TEST_P(KtManifestParserParses, intoOrderedParameters) {
    const Parsed& c = GetParam();
    KtManifestParser parser;
    ASSERT_TRUE(parser.parse(String(c.text.data(), c.text.size())).isSuccess()) << c.name;
    KtManifestEntry entry;
    ASSERT_TRUE(parser.getManifestEntry(entry).isSuccess()) << c.name;
    EXPECT_EQ(paramsOf(entry), c.params) << c.name;
}

INSTANTIATE_TEST_SUITE_P(
    Table, KtManifestParserParses,
    ::testing::Values(Parsed{"threeKeys",
                             "sw_type=X\nsw_version=1.2\nsw_build_num=7\n",
                             {{"sw_type", "X"}, {"sw_version", "1.2"}, {"sw_build_num", "7"}}},
                      Parsed{"noFinalNewline", "a=1\nb=2", {{"a", "1"}, {"b", "2"}}},
                      Parsed{"carriageReturnsRemoved", "a=1\r\nb=2\r\n", {{"a", "1"}, {"b", "2"}}},
                      Parsed{"onlyTheLastCarriageReturnRemoved", "a=1\r\r\n", {{"a", "1\r"}}},
                      Parsed{"carriageReturnInsideKept", "a=1\r2\n", {{"a", "1\r2"}}},
                      Parsed{"comments", "# header\n  # indented\na=1\n#b=2\n", {{"a", "1"}}},
                      Parsed{"blankLines", "\n   \n\t\na=1\n\r\n", {{"a", "1"}}},
                      Parsed{
                          "equalsInValue", "url=http://h/?a=b&c=d", {{"url", "http://h/?a=b&c=d"}}},
                      Parsed{"emptyValue", "a=\n", {{"a", ""}}},
                      Parsed{"valueKeepsItsBlanks", "a= x \n", {{"a", " x "}}},
                      Parsed{"keyIsTrimmed", "  sw_type\t =X\n", {{"sw_type", "X"}}},
                      Parsed{"laterKeyWinsInPlace", "a=1\nb=2\na=3\n", {{"a", "3"}, {"b", "2"}}},
                      Parsed{"keysAreCaseSensitive", "A=1\na=2\n", {{"A", "1"}, {"a", "2"}}}),
    [](const ::testing::TestParamInfo<Parsed>& test) { return std::string(test.param.name); });

struct Broken {
    const char* name;
    const char* text;
    const char* message;
};

void PrintTo(const Broken& c, std::ostream* out) {
    *out << c.name;
}

class KtManifestParserRefuses : public ::testing::TestWithParam<Broken> {};

TEST_P(KtManifestParserRefuses, namingTheLine) {
    const Broken& c = GetParam();
    KtManifestParser parser;
    XCode result = parser.parse(c.text);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
    EXPECT_EQ(result.getString(), String(c.message));
    KtManifestEntry entry;
    EXPECT_TRUE(parser.getManifestEntry(entry).isErr());
}

INSTANTIATE_TEST_SUITE_P(
    Table, KtManifestParserRefuses,
    ::testing::Values(
        Broken{"firstLine", "not a manifest", "MANIFEST PARSE ERROR AT LINE 1: missing '='"},
        Broken{"countsBlankAndCommentLines", "a=1\n\n# c\nbogus\nb=2\n",
               "MANIFEST PARSE ERROR AT LINE 4: missing '='"},
        Broken{"countsCrLfLines", "a=1\r\nb=2\r\nbogus\r\n",
               "MANIFEST PARSE ERROR AT LINE 3: missing '='"},
        Broken{"firstBadLineWins", "x\ny\n", "MANIFEST PARSE ERROR AT LINE 1: missing '='"},
        Broken{"emptyKey", "a=1\n=value\n", "MANIFEST PARSE ERROR AT LINE 2: missing key"},
        Broken{"blankKey", "  =value\n", "MANIFEST PARSE ERROR AT LINE 1: missing key"}),
    [](const ::testing::TestParamInfo<Broken>& test) { return std::string(test.param.name); });

TEST(KtManifestParserTest, nothingParsedHasNoEntry) {
    KtManifestParser parser;
    KtManifestEntry entry;
    XCode result = parser.getManifestEntry(entry);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), String("NO MANIFEST ENTRY"));
}

TEST(KtManifestParserTest, manifestWithoutParametersHasNoEntry) {
    for (const char* text : {"", "\n\n", "# only a comment\n"}) {
        KtManifestParser parser;
        ASSERT_TRUE(parser.parse(text).isSuccess()) << text;
        KtManifestEntry entry;
        XCode result = parser.getManifestEntry(entry);
        ASSERT_TRUE(result.isErr());
        EXPECT_EQ(result.getString(), String("NO MANIFEST ENTRY"));
    }
}

TEST(KtManifestParserTest, failedParseForgetsTheEarlierManifest) {
    KtManifestParser parser;
    ASSERT_TRUE(parser.parse("a=1\n").isSuccess());
    ASSERT_TRUE(parser.parse("broken\n").isErr());
    KtManifestEntry entry;
    EXPECT_TRUE(parser.getManifestEntry(entry).isErr());
}

TEST(KtManifestParserTest, newParseReplacesTheEarlierManifest) {
    KtManifestParser parser;
    ASSERT_TRUE(parser.parse("a=1\n").isSuccess());
    ASSERT_TRUE(parser.parse("b=2\n").isSuccess());
    KtManifestEntry entry;
    ASSERT_TRUE(parser.getManifestEntry(entry).isSuccess());
    EXPECT_EQ(paramsOf(entry), (Params{{"b", "2"}}));
}

TEST(KtManifestEntryTest, answersForPresentAndAbsentKeys) {
    KtManifestEntry entry;
    entry.setParam("sw_type", "X");
    entry.setParam("empty", "");
    EXPECT_TRUE(entry.hasParam("sw_type"));
    EXPECT_TRUE(entry.hasParam("empty"));
    EXPECT_FALSE(entry.hasParam("sw_version"));
    EXPECT_FALSE(entry.hasParam("SW_TYPE"));
    EXPECT_EQ(entry.getParam("sw_type"), String("X"));
    EXPECT_TRUE(entry.getParam("empty").isEmpty());
    EXPECT_TRUE(entry.getParam("sw_version").isEmpty());
}

TEST(KtManifestEntryTest, setParamReplacesAnExistingValue) {
    KtManifestEntry entry;
    entry.setParam("a", "1");
    entry.setParam("b", "2");
    entry.setParam("a", "3");
    EXPECT_EQ(paramsOf(entry), (Params{{"a", "3"}, {"b", "2"}}));
}

}  // namespace
