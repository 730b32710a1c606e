#include "platform/String.h"

#include <gtest/gtest.h>

#include <string>
#include <unordered_set>
#include <vector>

static void PrintTo(const String& text, std::ostream* out) {
    *out << '"' << text.str() << '"';
}

namespace {

String vformatHelper(const char* format, ...) KT_PRINTF(1, 2);
String vformatHelper(const char* format, ...) {
    va_list args;
    va_start(args, format);
    String result = String::vformat(format, args);
    va_end(args);
    return result;
}

// --- construction ------------------------------------------------------------------------------

TEST(StringTest, defaultIsEmpty) {
    String s;
    EXPECT_TRUE(s.isEmpty());
    EXPECT_EQ(s.length(), 0);
    EXPECT_STREQ(s.c_str(), "");
    EXPECT_TRUE(String::s_empty.isEmpty());
}

TEST(StringTest, nullPointerIsEmptyString) {
    String s(static_cast<const char*>(nullptr));
    EXPECT_TRUE(s.isEmpty());
    EXPECT_STREQ(s.c_str(), "");
}

TEST(StringTest, dataWithLengthKeepsEmbeddedNul) {
    String s("a\0b", 3);
    EXPECT_EQ(s.length(), 3);
    EXPECT_EQ(s.at(1), '\0');
    EXPECT_EQ(s.at(2), 'b');
    EXPECT_NE(s, String("a"));
}

TEST(StringTest, fromStdString) {
    String s(std::string("text"));
    EXPECT_EQ(s.str(), "text");
    s.str() += "!";
    EXPECT_EQ(s, "text!");
}

TEST(StringTest, copiesAreIndependent) {
    String original = "abc";
    String copy = original;
    copy.append("d");
    EXPECT_EQ(original, "abc");
    EXPECT_EQ(copy, "abcd");
}

// --- formatting --------------------------------------------------------------------------------

TEST(StringTest, formatUsesPrintfConversions) {
    EXPECT_EQ(String::format("[%s] %d %05u %x %c %%", "job", -3, 42u, 255u, 'z'),
              "[job] -3 00042 ff z %");
}

TEST(StringTest, formatLongerThanStackBuffer) {
    std::string long1(300, 'x');
    std::string long2(1000, 'y');
    String s = String::format("%s-%s", long1.c_str(), long2.c_str());
    EXPECT_EQ(s.length(), 1301);
    EXPECT_EQ(s.str(), long1 + "-" + long2);
}

TEST(StringTest, formatAtStackBufferBoundary) {
    for (std::size_t size : {254u, 255u, 256u, 257u}) {
        std::string text(size, 'q');
        EXPECT_EQ(String::format("%s", text.c_str()).str(), text) << size;
    }
}

TEST(StringTest, vformatTakesArgumentList) {
    EXPECT_EQ(vformatHelper("%s=%d", "a", 1), "a=1");
    std::string longText(500, 'v');
    EXPECT_EQ(vformatHelper("<%s>", longText.c_str()).str(), "<" + longText + ">");
}

TEST(StringTest, formatOfEmptyFormatIsEmpty) {
    EXPECT_TRUE(String::format("%s", "").isEmpty());
}

TEST(StringTest, concatfAppendsFormattedText) {
    String s = "value";
    EXPECT_EQ(&s.concatf(" (0x%08X)", 0x7FFFFFFFu), &s);
    EXPECT_EQ(s, "value (0x7FFFFFFF)");
}

// --- access ------------------------------------------------------------------------------------

TEST(StringTest, atOutsideTheTextIsNul) {
    String s = "ab";
    EXPECT_EQ(s.at(0), 'a');
    EXPECT_EQ(s.at(1), 'b');
    EXPECT_EQ(s.at(2), '\0');
    EXPECT_EQ(s.at(3), '\0');
    EXPECT_EQ(s.at(-1), '\0');
    EXPECT_EQ(String().at(0), '\0');
}

// --- search ------------------------------------------------------------------------------------

TEST(StringTest, indexOfChar) {
    String s = "a|b|c";
    EXPECT_EQ(s.indexOf('|'), 1);
    EXPECT_EQ(s.indexOf('|', 1), 1);
    EXPECT_EQ(s.indexOf('|', 2), 3);
    EXPECT_EQ(s.indexOf('|', 4), -1);
    EXPECT_EQ(s.indexOf('|', 100), -1);
    EXPECT_EQ(s.indexOf('|', -5), 1);
    EXPECT_EQ(s.indexOf('x'), -1);
    EXPECT_EQ(String().indexOf('x'), -1);
}

TEST(StringTest, indexOfText) {
    String s = "$(a)$(b)";
    EXPECT_EQ(s.indexOf("$("), 0);
    EXPECT_EQ(s.indexOf("$(", 1), 4);
    EXPECT_EQ(s.indexOf("$(", 5), -1);
    EXPECT_EQ(s.indexOf("$(", 100), -1);
    EXPECT_EQ(s.indexOf("$(", -3), 0);
    EXPECT_EQ(s.indexOf("nothing"), -1);
    EXPECT_EQ(s.indexOf("", 3), 3);
    EXPECT_EQ(s.indexOf("", 8), 8);
    EXPECT_EQ(s.indexOf("", 9), -1);
}

TEST(StringTest, lastIndexOfChar) {
    String s = "a/b/c";
    EXPECT_EQ(s.lastIndexOf('/'), 3);
    EXPECT_EQ(s.lastIndexOf('x'), -1);
    EXPECT_EQ(String().lastIndexOf('/'), -1);
}

TEST(StringTest, lastIndexOfTextBeginningAtOrBeforeStart) {
    String s = "ab-ab-ab";
    EXPECT_EQ(s.lastIndexOf("ab"), 6);
    EXPECT_EQ(s.lastIndexOf("ab", 6), 6);
    EXPECT_EQ(s.lastIndexOf("ab", 5), 3);
    EXPECT_EQ(s.lastIndexOf("ab", 0), 0);
    EXPECT_EQ(s.lastIndexOf("ab", 100), 6);
    EXPECT_EQ(s.lastIndexOf("zz"), -1);
}

TEST(StringTest, startsWithAndEndsWith) {
    String s = "http://host/";
    EXPECT_TRUE(s.startsWith("http://"));
    EXPECT_TRUE(s.startsWith(""));
    EXPECT_TRUE(s.startsWith(s));
    EXPECT_FALSE(s.startsWith("https"));
    EXPECT_FALSE(s.startsWith("http://host/x"));
    EXPECT_TRUE(s.endsWith("/"));
    EXPECT_TRUE(s.endsWith(""));
    EXPECT_TRUE(s.endsWith(s));
    EXPECT_FALSE(s.endsWith("host"));
    EXPECT_FALSE(s.endsWith("xhttp://host/"));
    EXPECT_TRUE(String().startsWith(""));
    EXPECT_FALSE(String().endsWith("a"));
}

// --- pieces and edits --------------------------------------------------------------------------

TEST(StringTest, substringClampsPositions) {
    String s = "abcdef";
    EXPECT_EQ(s.substring(2), "cdef");
    EXPECT_EQ(s.substring(0), "abcdef");
    EXPECT_EQ(s.substring(6), "");
    EXPECT_EQ(s.substring(10), "");
    EXPECT_EQ(s.substring(-2), "abcdef");
    EXPECT_EQ(s.substring(1, 3), "bc");
    EXPECT_EQ(s.substring(3, 3), "");
    EXPECT_EQ(s.substring(4, 2), "");
    EXPECT_EQ(s.substring(-1, 2), "ab");
    EXPECT_EQ(s.substring(4, 100), "ef");
}

TEST(StringTest, deleteRegionRemovesCountCharacters) {
    String s = "abcdef";
    EXPECT_EQ(&s.deleteRegion(1, 2), &s);
    EXPECT_EQ(s, "adef");
    s.deleteRegion(2, 100);
    EXPECT_EQ(s, "ad");
    s.deleteRegion(5, 1);
    EXPECT_EQ(s, "ad");
    s.deleteRegion(0, 0);
    EXPECT_EQ(s, "ad");
    s.deleteRegion(0, -3);
    EXPECT_EQ(s, "ad");
    s.deleteRegion(-4, 1);
    EXPECT_EQ(s, "d");
}

TEST(StringTest, insertClampsPosition) {
    String s = "ad";
    EXPECT_EQ(&s.insert(1, "bc"), &s);
    EXPECT_EQ(s, "abcd");
    s.insert(100, "e");
    EXPECT_EQ(s, "abcde");
    s.insert(-1, "<");
    EXPECT_EQ(s, "<abcde");
    s.insert(2, "");
    EXPECT_EQ(s, "<abcde");
}

TEST(StringTest, appendAndOperators) {
    String s = "a";
    s.append("b").append("c\0d", 3);
    EXPECT_EQ(s.length(), 5);
    s += String("e");
    s += 'f';
    EXPECT_EQ(s, String("abc\0def", 7));
    EXPECT_EQ(String("x") + "y" + String("z"), "xyz");
    EXPECT_TRUE(String("a") < String("b"));
    EXPECT_FALSE(String("b") < String("a"));
    EXPECT_TRUE(String("a") != String("b"));
    EXPECT_FALSE(String("a") != String("a"));
}

TEST(StringTest, appendToItself) {
    String s = "ab";
    s.append(s);
    EXPECT_EQ(s, "abab");
    s += s;
    EXPECT_EQ(s, "abababab");
}

TEST(StringTest, trimRemovesWhiteSpaceAtBothEnds) {
    struct Case {
        const char* text;
        const char* trimmed;
    };
    for (const Case& c : {Case{"  a b  ", "a b"}, Case{"\t\r\nx\n", "x"}, Case{"   ", ""},
                          Case{"", ""}, Case{"none", "none"}, Case{"\v\fy \t", "y"}}) {
        String s = c.text;
        EXPECT_EQ(s.trim(), c.trimmed) << c.text;
    }
}

TEST(StringTest, caseConversionTouchesLettersOnly) {
    // Bytes above 127 are not letters of the C locale.
    String s = "Http-1.1 \xE4x";
    s.toUpperCase();
    EXPECT_EQ(s, "HTTP-1.1 \xE4X");
    s.toLowerCase();
    EXPECT_EQ(s, "http-1.1 \xE4x");
}

// --- numbers -----------------------------------------------------------------------------------

TEST(StringTest, isNumericAcceptsDecimalDigitsUpToUnsigned32Bits) {
    struct Case {
        const char* text;
        bool numeric;
    };
    const Case cases[] = {
        {"0", true},
        {"42", true},
        {"007", true},
        {"4294967295", true},
        {"04294967295", true},
        {"4294967296", false},
        {"99999999999", false},
        {"18446744073709551617", false},
        {"", false},
        {"-1", false},
        {"+1", false},
        {" 1", false},
        {"1 ", false},
        {"1.0", false},
        {"0x10", false},
        {"1e3", false},
        {"abc", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(String(c.text).isNumeric(), c.numeric) << c.text;
    }
    EXPECT_FALSE(String("1\0"
                        "2",
                        3)
                     .isNumeric());
}

TEST(StringTest, toIntegerReadsSignedDecimalOrMinusOne) {
    struct Case {
        const char* text;
        int value;
    };
    const Case cases[] = {
        {"0", 0},           {"123", 123},
        {"+7", 7},          {"-7", -7},
        {"-0", 0},          {"2147483647", 2147483647},
        {"2147483648", -1}, {"", -1},
        {"-", -1},          {"+", -1},
        {"12a", -1},        {" 1", -1},
        {"1.5", -1},        {"99999999999999999999", -1},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(String(c.text).toInteger(), c.value) << c.text;
    }
}

TEST(StringTest, toUnsignedReadsNumericTextOrZero) {
    EXPECT_EQ(String("4294967295").toUnsigned(), 4294967295u);
    EXPECT_EQ(String("0042").toUnsigned(), 42u);
    EXPECT_EQ(String("4294967296").toUnsigned(), 0u);
    EXPECT_EQ(String("-1").toUnsigned(), 0u);
    EXPECT_EQ(String("").toUnsigned(), 0u);
    EXPECT_EQ(String("12x").toUnsigned(), 0u);
}

// --- splitting ---------------------------------------------------------------------------------

TEST(StringTest, splitAtFirstSeparator) {
    String left = "L";
    String right = "R";
    EXPECT_TRUE(String("user:pass:word").split(':', left, right));
    EXPECT_EQ(left, "user");
    EXPECT_EQ(right, "pass:word");
    EXPECT_TRUE(String(":").split(':', left, right));
    EXPECT_EQ(left, "");
    EXPECT_EQ(right, "");
}

TEST(StringTest, splitWithoutSeparatorLeavesOutputs) {
    String left = "L";
    String right = "R";
    EXPECT_FALSE(String("nothing").split(':', left, right));
    EXPECT_FALSE(String().split(':', left, right));
    EXPECT_EQ(left, "L");
    EXPECT_EQ(right, "R");
}

TEST(StringTest, splitIntoItself) {
    String hostPort = "host:8080";
    String port;
    EXPECT_TRUE(hostPort.split(':', hostPort, port));
    EXPECT_EQ(hostPort, "host");
    EXPECT_EQ(port, "8080");

    String rest = "a/b/c";
    String first;
    EXPECT_TRUE(rest.split('/', first, rest));
    EXPECT_EQ(first, "a");
    EXPECT_EQ(rest, "b/c");
}

TEST(StringTest, splitAtEverySeparatorKeepsEmptyPieces) {
    auto pieces = String("a,,b,").split(',');
    ASSERT_EQ(pieces.size(), 4u);
    EXPECT_EQ(pieces[0], "a");
    EXPECT_EQ(pieces[1], "");
    EXPECT_EQ(pieces[2], "b");
    EXPECT_EQ(pieces[3], "");
    auto single = String("abc").split(',');
    ASSERT_EQ(single.size(), 1u);
    EXPECT_EQ(single[0], "abc");
    auto empty = String().split(',');
    ASSERT_EQ(empty.size(), 1u);
    EXPECT_EQ(empty[0], "");
}

// --- hashing -----------------------------------------------------------------------------------

TEST(StringTest, usableAsHashKey) {
    std::unordered_set<String> set{"a", "b", String("a\0", 2)};
    EXPECT_EQ(set.size(), 3u);
    EXPECT_EQ(set.count("a"), 1u);
    EXPECT_EQ(set.count("c"), 0u);
    EXPECT_EQ(std::hash<String>()("key"), std::hash<std::string>()("key"));
}

}  // namespace
