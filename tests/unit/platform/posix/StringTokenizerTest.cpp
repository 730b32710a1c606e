#include "platform/StringTokenizer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> tokens(const char* text, const char* delimiters, bool skipEmpty = false) {
    std::vector<std::string> result;
    StringTokenizer tokenizer(text, delimiters, skipEmpty);
    for (const String& token : tokenizer.getTokens()) {
        result.push_back(token.str());
    }
    return result;
}

using Tokens = std::vector<std::string>;

TEST(StringTokenizerTest, splitsOnEachCharacterOfTheSet) {
    EXPECT_EQ(tokens("a\rb\nc", "\r\n"), (Tokens{"a", "b", "c"}));
}

TEST(StringTokenizerTest, crlfGivesAnEmptyTokenBetween) {
    EXPECT_EQ(tokens("a\r\nb", "\r\n"), (Tokens{"a", "", "b"}));
}

TEST(StringTokenizerTest, skipEmptyDropsEmptyTokens) {
    EXPECT_EQ(tokens("a\r\nb\r\n", "\r\n", true), (Tokens{"a", "b"}));
    EXPECT_EQ(tokens("\r\n\r\n", "\r\n", true), Tokens{});
}

TEST(StringTokenizerTest, delimiterAtTheEndsGivesEmptyTokens) {
    EXPECT_EQ(tokens(",a,", ","), (Tokens{"", "a", ""}));
    EXPECT_EQ(tokens(",", ","), (Tokens{"", ""}));
}

TEST(StringTokenizerTest, incompleteLastLineIsTheLastToken) {
    EXPECT_EQ(tokens("HTTP/1.1 200 OK\r\nServer: x\r\nConn", "\r\n", true),
              (Tokens{"HTTP/1.1 200 OK", "Server: x", "Conn"}));
}

TEST(StringTokenizerTest, textWithoutDelimiterIsOneToken) {
    EXPECT_EQ(tokens("abc", "\r\n"), (Tokens{"abc"}));
    EXPECT_EQ(tokens("abc", ""), (Tokens{"abc"}));
}

TEST(StringTokenizerTest, emptyTextHasNoTokens) {
    EXPECT_EQ(tokens("", "\r\n"), Tokens{});
    StringTokenizer tokenizer("", ",");
    EXPECT_FALSE(tokenizer.hasMoreTokens());
    EXPECT_EQ(tokenizer.countTokens(), 0);
}

TEST(StringTokenizerTest, nextTokenWalksTheTokens) {
    StringTokenizer tokenizer("x;y", ";");
    EXPECT_EQ(tokenizer.countTokens(), 2);
    EXPECT_TRUE(tokenizer.hasMoreTokens());
    EXPECT_EQ(tokenizer.nextToken(), "x");
    EXPECT_EQ(tokenizer.countTokens(), 1);
    EXPECT_EQ(tokenizer.nextToken(), "y");
    EXPECT_FALSE(tokenizer.hasMoreTokens());
    EXPECT_EQ(tokenizer.nextToken(), "");
    EXPECT_EQ(tokenizer.countTokens(), 0);
}

TEST(StringTokenizerTest, embeddedNulIsAnOrdinaryCharacter) {
    StringTokenizer tokenizer(String("a\0b,c", 5), ",");
    ASSERT_EQ(tokenizer.countTokens(), 2);
    EXPECT_EQ(tokenizer.nextToken(), String("a\0b", 3));
}

}  // namespace
