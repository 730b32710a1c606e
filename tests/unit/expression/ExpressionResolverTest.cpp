#include "expression/ExpressionResolver.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "support/TypicalDevice.h"

// Readable failure output for the platform's string.
static void PrintTo(const String& text, std::ostream* out) {
    *out << '"' << text.str() << '"';
}

namespace {

using provtest::fillTypicalDevice;

void expectGenericFailure(const XCode& result) {
    EXPECT_TRUE(result.isErr());
    EXPECT_EQ(result.getValue(), 0x7FFFFFFFu);
    EXPECT_FALSE(result.hasMessage());
}

// Parameterised cases are named after their `name` field.
template <typename Case>
std::string caseName(const ::testing::TestParamInfo<Case>& param) {
    return param.param.name;
}

class ExpressionResolverTest : public ::testing::Test {
  protected:
    ExpressionResolverTest() { fillTypicalDevice(resolver); }

    ExpressionResolver resolver;
};

// --- replaceAllExpressions, table-driven -------------------------------------------------------

struct ReplaceCase {
    const char* name;
    const char* input;
    bool succeeds;
    const char* expected;  // the text afterwards, also on failure
};

std::ostream& operator<<(std::ostream& out, const ReplaceCase& c) {
    return out << c.name;
}

class ReplaceAllExpressionsTest : public ::testing::TestWithParam<ReplaceCase> {};

TEST_P(ReplaceAllExpressionsTest, rewritesTextInPlace) {
    const ReplaceCase& c = GetParam();
    ExpressionResolver resolver;
    fillTypicalDevice(resolver);
    String text = c.input;
    XCode result = resolver.replaceAllExpressions(text);
    if (c.succeeds) {
        EXPECT_TRUE(result.isSuccess()) << result.toString().c_str();
    } else {
        expectGenericFailure(result);
    }
    EXPECT_EQ(text.str(), c.expected);
}

// hw.major is 2, sw.major 5, cli.major 5, cli.minor 7, sw.date is not numeric.
const ReplaceCase REPLACE_CASES[] = {
    // Texts without expressions.
    {"noExpressionUnchanged", "tftp://192.168.1.1/cfg.txt", true, "tftp://192.168.1.1/cfg.txt"},
    {"emptyText", "", true, ""},
    {"dollarWithoutParenthesis", "a$b$ (system.mac)", true, "a$b$ (system.mac)"},
    {"parenthesesWithoutDollar", "(system.mac)", true, "(system.mac)"},
    {"trailingDollar", "file$", true, "file$"},
    // Every expression name.
    {"mac", "$(system.mac)", true, "00A0BA0B0C0D"},
    {"serial", "$(system.serial)", true, "SN4711"},
    {"dhcp66", "$(dhcp.66)", true, "192.168.1.10"},
    {"dhcp67", "$(dhcp.67)", true, "boot.cfg"},
    {"hwMajor", "$(system.hw.major)", true, "2"},
    {"hwMinor", "$(system.hw.minor)", true, "1"},
    {"swMajor", "$(system.sw.major)", true, "5"},
    {"swMinor", "$(system.sw.minor)", true, "3"},
    {"swBuild", "$(system.sw.build)", true, "1042"},
    {"swDate", "$(system.sw.date)", true, "2023-06-01"},
    {"productName", "$(system.product.name)", true, "GW4000-S"},
    {"productBaseName", "$(system.product.basename)", true, "GW4000"},
    {"cliMajor", "$(cli.major)", true, "5"},
    {"cliMinor", "$(cli.minor)", true, "7"},
    // Names are exact: no trimming, no case folding, the five values without name are unknown.
    {"unknownName", "$(nosuch)", false, "$(nosuch)"},
    {"emptyName", "$()", false, "$()"},
    {"nameInCapitals", "$(SYSTEM.MAC)", false, "$(SYSTEM.MAC)"},
    {"blankBeforeName", "$( system.mac)", false, "$( system.mac)"},
    {"blankAfterName", "$(system.mac )", false, "$(system.mac )"},
    {"nameOfValueWithoutExpressionName", "$(model)", false, "$(model)"},
    {"macEncryptedIsReserved", "$(system.mac-encrypted)", false, "$(system.mac-encrypted)"},
    {"serialEncryptedIsReserved", "$(system.serial-encrypted)", false,
     "$(system.serial-encrypted)"},
    // Unclosed expressions.
    {"missingClosingParenthesis", "$(system.serial", false, "$(system.serial"},
    {"lonelyStart", "abc$(", false, "abc$("},
    {"unclosedAfterResolvedOne", "$(system.mac)/$(system.serial", false,
     "00A0BA0B0C0D/$(system.serial"},
    // Several expressions, left to right, with text around them.
    {"twoExpressions", "$(system.mac)-$(system.serial)", true, "00A0BA0B0C0D-SN4711"},
    {"expressionsInLocation", "tftp://$(dhcp.66)/$(system.product.basename)/$(dhcp.67)", true,
     "tftp://192.168.1.10/GW4000/boot.cfg"},
    {"adjacentExpressions", "$(cli.major)$(cli.minor)", true, "57"},
    {"dollarBeforeExpression", "$$(system.serial)", true, "$SN4711"},
    // The rescan starts at the very beginning: a '$' in front of a replacement that begins with
    // '(' forms a new expression.
    {"rescanFindsExpressionFormedWithTextBefore", "$$(system.hw.major=2|(system.serial|x))", true,
     "SN4711"},
    {"parenthesisBeforeExpression", ")$(system.serial)", true, ")SN4711"},
    {"closingParenthesisAfterExpression", "$(system.serial))", true, "SN4711)"},
    // Each operator, on both sides of its boundary (hw.major is 2).
    {"greaterHolds", "$(system.hw.major>1|a|b)", true, "a"},
    {"greaterFails", "$(system.hw.major>2|a|b)", true, "b"},
    {"greaterOrEqualHolds", "$(system.hw.major>=2|a|b)", true, "a"},
    {"greaterOrEqualFails", "$(system.hw.major>=3|a|b)", true, "b"},
    {"lessHolds", "$(system.hw.major<3|a|b)", true, "a"},
    {"lessFails", "$(system.hw.major<2|a|b)", true, "b"},
    {"lessOrEqualHolds", "$(system.hw.major<=2|a|b)", true, "a"},
    {"lessOrEqualFails", "$(system.hw.major<=1|a|b)", true, "b"},
    {"equalHolds", "$(system.hw.major=2|a|b)", true, "a"},
    {"equalFails", "$(system.hw.major=3|a|b)", true, "b"},
    {"newOrOldHardware", "$(system.hw.major>=2|new|old)", true, "new"},
    // Placeholders.
    {"secondLeftOutAndConditionFails", "$(system.hw.major>2|new)", true, ""},
    {"secondLeftOutAndConditionHolds", "$(system.hw.major=2|new)", true, "new"},
    {"emptyFirst", "$(system.hw.major=2||b)", true, ""},
    {"emptySecond", "$(system.hw.major=3|a|)", true, ""},
    {"furtherBarsBelongToSecond", "$(system.hw.major=3|a|b|c)", true, "b|c"},
    {"placeholdersKeepBlanks", "$(system.hw.major=2| a b |c)", true, " a b "},
    {"placeholderWithDollar", "$(system.hw.major=2|a$b|c)", true, "a$b"},
    {"closingParenthesisInFirstEndsExpression", "$(system.hw.major>=2|new)er|old)", true,
     "newer|old)"},
    // Malformed conditions.
    {"blanksAroundOperator", "$(system.hw.major > 2|a|b)", false, "$(system.hw.major > 2|a|b)"},
    {"blankAfterNumber", "$(system.hw.major>2 |a|b)", false, "$(system.hw.major>2 |a|b)"},
    {"doubleEqual", "$(system.hw.major==2|a|b)", false, "$(system.hw.major==2|a|b)"},
    {"notEqualIsNoOperator", "$(system.hw.major!=2|a|b)", false, "$(system.hw.major!=2|a|b)"},
    {"equalGreaterIsEqualWithBadNumber", "$(system.hw.major=>2|a|b)", false,
     "$(system.hw.major=>2|a|b)"},
    {"noOperator", "$(system.hw.major|a|b)", false, "$(system.hw.major|a|b)"},
    {"emptyNumber", "$(system.hw.major=|a|b)", false, "$(system.hw.major=|a|b)"},
    {"negativeNumber", "$(system.hw.major>-1|a|b)", false, "$(system.hw.major>-1|a|b)"},
    {"hexNumber", "$(system.hw.major<0x10|a|b)", false, "$(system.hw.major<0x10|a|b)"},
    {"nonNumericSystemValue", "$(system.sw.date>1|a|b)", false, "$(system.sw.date>1|a|b)"},
    {"unknownNameInCondition", "$(nosuch>1|a|b)", false, "$(nosuch>1|a|b)"},
    {"reservedNameInCondition", "$(system.serial-encrypted>1|a|b)", false,
     "$(system.serial-encrypted>1|a|b)"},
    // Numbers: decimal, leading zeros allowed, at most 4294967295.
    {"leadingZeros", "$(system.hw.major=0002|a|b)", true, "a"},
    {"largestNumber", "$(system.hw.major<4294967295|a|b)", true, "a"},
    {"numberAboveRange", "$(system.hw.major<4294967296|a|b)", false,
     "$(system.hw.major<4294967296|a|b)"},
    {"hugeNumber", "$(system.hw.major<99999999999999999999999|a|b)", false,
     "$(system.hw.major<99999999999999999999999|a|b)"},
    // Nesting: inner expressions first, at any place of the body.
    {"nestedNumber", "$(system.sw.major=$(cli.major)|x|y)", true, "x"},
    {"nestedNumberNotEqual", "$(system.sw.major=$(cli.minor)|x|y)", true, "y"},
    {"nestedInFirst", "$(system.hw.major=2|$(system.mac)|b)", true, "00A0BA0B0C0D"},
    {"nestedInSecond", "$(system.hw.major=3|a|$(system.serial))", true, "SN4711"},
    {"nestedConditionals",
     "$(system.hw.major>=$(system.hw.minor)|$(system.sw.major>4|x|y)|$(system.sw.major<4|p|q))",
     true, "x"},
    {"deeplyNested", "$(system.sw.major=$(cli.major=$(system.sw.major)|5|0)|deep|flat)", true,
     "deep"},
    {"nestedInsideText", "a$(system.hw.major=2|b$(cli.minor)c|d)e", true, "ab7ce"},
    // Failures keep the replacements made before them.
    {"failureKeepsEarlierReplacements", "$(system.mac)/$(nosuch)/$(system.serial)", false,
     "00A0BA0B0C0D/$(nosuch)/$(system.serial)"},
    {"failedNestedLeavesOuter", "$(system.sw.major=$(nosuch)|a|b)", false,
     "$(system.sw.major=$(nosuch)|a|b)"},
    {"failedOuterKeepsNestedValue", "$(system.sw.major>$(system.sw.date)|a|b)", false,
     "$(system.sw.major>2023-06-01|a|b)"},
    {"nestedResolvedThenOuterUnclosed", "$(a$(system.serial)", false, "$(aSN4711"},
    // The realistic location of the benchmark.
    {"realisticLocation",
     "http://$(dhcp.66)/cfg/$(system.hw.major>=2|new|old)/"
     "$(system.mac)-$(system.sw.major=$(cli.major)|a|b).cfg",
     true, "http://192.168.1.10/cfg/new/00A0BA0B0C0D-a.cfg"},
};

INSTANTIATE_TEST_SUITE_P(Cases, ReplaceAllExpressionsTest, ::testing::ValuesIn(REPLACE_CASES),
                         caseName<ReplaceCase>);

// --- replaceAllExpressions, the listed edge cases with their own device values ------------------

TEST_F(ExpressionResolverTest, newResolverHoldsOnlyEmptyValues) {
    ExpressionResolver fresh;
    for (const char* name :
         {"system.mac", "system.serial", "dhcp.66", "dhcp.67", "system.hw.major", "system.hw.minor",
          "system.sw.major", "system.sw.minor", "system.sw.build", "system.sw.date",
          "system.product.name", "system.product.basename", "cli.major", "cli.minor", "model",
          "oem", "hw.version", "hw.revision", "sw.version"}) {
        String* value = ExpressionResolver::VALUE_BY_NAME(fresh, name);
        ASSERT_NE(value, nullptr) << name;
        EXPECT_TRUE(value->isEmpty()) << name;
    }
}

TEST_F(ExpressionResolverTest, emptyMacYieldsEmptyString) {
    resolver.macAddress = "";
    String text = "cfg-$(system.mac).txt";
    EXPECT_TRUE(resolver.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "cfg-.txt");
}

TEST_F(ExpressionResolverTest, hardwareMajorOneChoosesOld) {
    resolver.hwMajor = "1";
    String text = "$(system.hw.major>=2|new|old)";
    EXPECT_TRUE(resolver.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "old");
}

TEST_F(ExpressionResolverTest, systemValueAboveRangeIsNotNumeric) {
    resolver.hwMajor = "4294967296";
    String text = "$(system.hw.major>1|a|b)";
    expectGenericFailure(resolver.replaceAllExpressions(text));
    EXPECT_EQ(text, "$(system.hw.major>1|a|b)");
}

TEST_F(ExpressionResolverTest, largestSystemValueCompares) {
    resolver.hwMajor = "4294967295";
    String text = "$(system.hw.major=4294967295|a|b)$(system.hw.major>4294967294|c|d)";
    EXPECT_TRUE(resolver.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "ac");
}

TEST_F(ExpressionResolverTest, emptySystemValueInConditionFails) {
    resolver.hwMajor = "";
    String text = "$(system.hw.major>1|a|b)";
    expectGenericFailure(resolver.replaceAllExpressions(text));
}

TEST_F(ExpressionResolverTest, systemValueWithBlankInConditionFails) {
    resolver.hwMajor = " 2";
    String text = "$(system.hw.major=2|a|b)";
    expectGenericFailure(resolver.replaceAllExpressions(text));
}

TEST_F(ExpressionResolverTest, valueWithExpressionIsResolvedAgainByRescan) {
    resolver.tftpServer = "$(system.serial).example";
    String text = "tftp://$(dhcp.66)/x";
    EXPECT_TRUE(resolver.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "tftp://SN4711.example/x");
}

TEST_F(ExpressionResolverTest, rescanFindsExpressionFormedByValueWithTextBefore) {
    resolver.tftpServer = "(system.serial)";
    String text = "x$$(dhcp.66)";
    EXPECT_TRUE(resolver.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "xSN4711");
}

TEST_F(ExpressionResolverTest, nestedValueWithExpressionIsResolvedBeforeOuter) {
    resolver.tftpFileName = "$(cli.major)";
    String text = "$(system.sw.major=$(dhcp.67)|x|y)";
    EXPECT_TRUE(resolver.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "x");
}

TEST_F(ExpressionResolverTest, valueWithUnclosedExpressionFailsAfterReplacement) {
    resolver.tftpServer = "$(oops";
    String text = "$(dhcp.66)/$(system.mac)";
    expectGenericFailure(resolver.replaceAllExpressions(text));
    // The second pass resolves system.mac as nested in "$(oops" and then finds no ')' left.
    EXPECT_EQ(text, "$(oops/00A0BA0B0C0D");
}

TEST_F(ExpressionResolverTest, nestedValueNamesTheOuterExpression) {
    resolver.tftpFileName = "mac";
    String text = "$(system.$(dhcp.67))";
    EXPECT_TRUE(resolver.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "00A0BA0B0C0D");
}

TEST_F(ExpressionResolverTest, chosenPlaceholderIsCopiedAsItStands) {
    // The chosen text is not searched again inside the expression, but the rescan from the start
    // resolves a "$(" that the replacement forms with the text before it.
    String text = "$$(system.hw.major=2|(system.serial|x))";
    int count = 0;
    EXPECT_TRUE(resolver.replaceSubExpression(text, count, 1).isSuccess());
    EXPECT_EQ(text, "$(system.serial)");
    EXPECT_TRUE(resolver.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "SN4711");
}

// --- resolutions that would not end by themselves ---------------------------------------------

TEST_F(ExpressionResolverTest, valueNamingItselfEndsWithGenericFailure) {
    resolver.tftpFileName = "$(dhcp.67)";
    String text = "tftp://server/$(dhcp.67)";
    expectGenericFailure(resolver.replaceAllExpressions(text));
    EXPECT_EQ(text, "tftp://server/$(dhcp.67)");
}

TEST_F(ExpressionResolverTest, twoValuesNamingEachOtherEndWithGenericFailure) {
    resolver.tftpServer = "$(dhcp.67)";
    resolver.tftpFileName = "$(dhcp.66)";
    String text = "tftp://$(dhcp.66)/cfg";
    expectGenericFailure(resolver.replaceAllExpressions(text));
    EXPECT_GE(text.indexOf("$(dhcp."), 0);
}

TEST_F(ExpressionResolverTest, valueDoublingItselfEndsWithGenericFailure) {
    resolver.tftpFileName = "$(dhcp.67)$(dhcp.67)";
    String text = "$(dhcp.67)";
    expectGenericFailure(resolver.replaceAllExpressions(text));
    // Every replacement adds one expression of the value's length, and they are limited.
    EXPECT_LE(text.length(),
              (1 + ExpressionResolver::MAX_EXTRA_REPLACEMENTS) * resolver.tftpFileName.length());
}

TEST_F(ExpressionResolverTest, valueNamingItselfInsideNestedExpressionEnds) {
    // Resolved again inside the outer expression, before the outer body is taken.
    resolver.tftpFileName = "$(dhcp.67)";
    String text = "$(system.sw.major=$(dhcp.67)|x|y)";
    expectGenericFailure(resolver.replaceAllExpressions(text));
}

TEST_F(ExpressionResolverTest, replaceSubExpressionWithValueNamingItselfEnds) {
    resolver.macAddress = "$(system.mac)";
    String text = "a/$(system.sw.major=$(system.mac)|x|y)";
    int count = 0;
    expectGenericFailure(resolver.replaceSubExpression(text, count, 2));
    EXPECT_LE(count, 2 + ExpressionResolver::MAX_EXTRA_REPLACEMENTS);
}

TEST_F(ExpressionResolverTest, textWithManyExpressionsIsNotLimited) {
    std::string text;
    std::string expected;
    for (int i = 0; i < 3 * ExpressionResolver::MAX_EXTRA_REPLACEMENTS; ++i) {
        text += "/$(system.serial)$(system.sw.major=$(cli.major)|x|y)";
        expected += "/SN4711x";
    }
    String resolved = text.c_str();
    EXPECT_TRUE(resolver.replaceAllExpressions(resolved).isSuccess());
    EXPECT_EQ(resolved, expected.c_str());
}

TEST_F(ExpressionResolverTest, nestingDeeperThanTheLimitFails) {
    // As a redirect's Location could bring it: a stack's worth of nested expressions.
    std::string open;
    std::string close;
    for (int i = 0; i < 200000; ++i) {
        open += "$(";
        close += ")";
    }
    String deep = (open + "system.serial" + close).c_str();
    expectGenericFailure(resolver.replaceAllExpressions(deep));
}

TEST_F(ExpressionResolverTest, nestingUpToTheLimitResolves) {
    // cli.major is 5; each level compares it with 5 and yields "cli.major" again.
    std::string text = "cli.major";
    for (int i = 1; i < ExpressionResolver::MAX_NESTING; ++i) {
        text = "$(" + text + "=5|cli.major)";
    }
    text = "$(" + text + ")";
    String nested = text.c_str();
    EXPECT_TRUE(resolver.replaceAllExpressions(nested).isSuccess()) << text;
    EXPECT_EQ(nested, "5");
}

TEST(ExpressionResolverValuesTest, holdsExpressionFindsTheExpressionStart) {
    EXPECT_TRUE(ExpressionResolver::HOLDS_EXPRESSION("$("));
    EXPECT_TRUE(ExpressionResolver::HOLDS_EXPRESSION("a$(b"));
    EXPECT_FALSE(ExpressionResolver::HOLDS_EXPRESSION(""));
    EXPECT_FALSE(ExpressionResolver::HOLDS_EXPRESSION("a$b(c)"));
    EXPECT_FALSE(ExpressionResolver::HOLDS_EXPRESSION("$"));
}

// --- replaceSubExpression ----------------------------------------------------------------------

TEST_F(ExpressionResolverTest, replaceSubExpressionCountsEveryReplacedExpression) {
    String text = "x/$(system.sw.major=$(cli.major)|$(system.mac)|b)/$(system.serial)";
    int count = 0;
    EXPECT_TRUE(resolver.replaceSubExpression(text, count, 2).isSuccess());
    EXPECT_EQ(count, 3);
    EXPECT_EQ(text, "x/00A0BA0B0C0D/$(system.serial)");
}

TEST_F(ExpressionResolverTest, replaceSubExpressionAddsToGivenCount) {
    String text = "$(cli.minor)";
    int count = 10;
    EXPECT_TRUE(resolver.replaceSubExpression(text, count, 0).isSuccess());
    EXPECT_EQ(count, 11);
    EXPECT_EQ(text, "7");
}

TEST_F(ExpressionResolverTest, replaceSubExpressionStartsAtGivenPosition) {
    String text = "$(system.mac)$(system.serial)";
    int count = 0;
    EXPECT_TRUE(resolver.replaceSubExpression(text, count, 13).isSuccess());
    EXPECT_EQ(text, "$(system.mac)SN4711");
}

TEST_F(ExpressionResolverTest, replaceSubExpressionCountsNestedBeforeFailure) {
    String text = "$(system.sw.major>$(system.sw.date)|a|b)";
    int count = 0;
    expectGenericFailure(resolver.replaceSubExpression(text, count, 0));
    EXPECT_EQ(count, 1);
    EXPECT_EQ(text, "$(system.sw.major>2023-06-01|a|b)");
}

TEST_F(ExpressionResolverTest, replaceSubExpressionWithoutCloseFails) {
    String text = "$(system.mac";
    int count = 0;
    expectGenericFailure(resolver.replaceSubExpression(text, count, 0));
    EXPECT_EQ(count, 0);
    EXPECT_EQ(text, "$(system.mac");
}

// --- replaceExpression -------------------------------------------------------------------------

TEST_F(ExpressionResolverTest, replaceExpressionResolvesPlainName) {
    String value;
    EXPECT_TRUE(resolver.replaceExpression("system.serial", value).isSuccess());
    EXPECT_EQ(value, "SN4711");
}

TEST_F(ExpressionResolverTest, replaceExpressionResolvesCondition) {
    String value;
    EXPECT_TRUE(resolver.replaceExpression("cli.minor<10|one digit|two", value).isSuccess());
    EXPECT_EQ(value, "one digit");
}

TEST_F(ExpressionResolverTest, replaceExpressionFailureLeavesValue) {
    String value = "before";
    expectGenericFailure(resolver.replaceExpression("cli.minor|a|b", value));
    expectGenericFailure(resolver.replaceExpression("nosuch", value));
    expectGenericFailure(resolver.replaceExpression("cli.minor>x|a|b", value));
    EXPECT_EQ(value, "before");
}

TEST_F(ExpressionResolverTest, replaceExpressionOperatorAfterBarIsNoCondition) {
    // The condition is the text before the first '|'; an operator behind it does not count.
    String value = "before";
    expectGenericFailure(resolver.replaceExpression("cli.minor|a>1|b", value));
    EXPECT_EQ(value, "before");
}

// --- resolveExpression -------------------------------------------------------------------------

TEST_F(ExpressionResolverTest, resolveExpressionFailsForReservedAndUnknownNames) {
    for (const char* name : {"system.mac-encrypted", "system.serial-encrypted", "nosuch", "",
                             "system.mac ", "System.mac", "system", "model", "oem", "hw.version",
                             "hw.revision", "sw.version", "system.mac\n"}) {
        SCOPED_TRACE(name);
        String value = "untouched";
        expectGenericFailure(resolver.resolveExpression(name, value));
        EXPECT_EQ(value, "untouched");
    }
}

TEST_F(ExpressionResolverTest, resolveExpressionMatchesNameWithEmbeddedNulExactly) {
    String value = "untouched";
    expectGenericFailure(resolver.resolveExpression(String("system.mac\0x", 12), value));
    EXPECT_EQ(value, "untouched");
}

// --- extractCondition --------------------------------------------------------------------------

struct ConditionCase {
    const char* name;
    const char* cond;
    bool succeeds;
    const char* left;
    const char* right;
    ExpressionResolver::eExpressionCondition op;
};

std::ostream& operator<<(std::ostream& out, const ConditionCase& c) {
    return out << c.name;
}

class ExtractConditionTest : public ::testing::TestWithParam<ConditionCase> {};

TEST_P(ExtractConditionTest, splitsAtFirstOperator) {
    const ConditionCase& c = GetParam();
    ExpressionResolver resolver;
    String left = "L";
    String right = "R";
    auto op = static_cast<ExpressionResolver::eExpressionCondition>(99);
    XCode result = resolver.extractCondition(c.cond, left, right, op);
    if (c.succeeds) {
        EXPECT_TRUE(result.isSuccess());
        EXPECT_EQ(left.str(), c.left);
        EXPECT_EQ(right.str(), c.right);
        EXPECT_EQ(op, c.op);
    } else {
        expectGenericFailure(result);
        EXPECT_EQ(left, "L");
        EXPECT_EQ(right, "R");
        EXPECT_EQ(static_cast<int>(op), 99);
    }
}

using Op = ExpressionResolver::eExpressionCondition;

const ConditionCase CONDITION_CASES[] = {
    {"greater", "a>1", true, "a", "1", ExpressionResolver::GREATER},
    {"greaterOrEqual", "a>=1", true, "a", "1", ExpressionResolver::GREATER_OR_EQUAL},
    {"less", "a<1", true, "a", "1", ExpressionResolver::LESS},
    {"lessOrEqual", "a<=1", true, "a", "1", ExpressionResolver::LESS_OR_EQUAL},
    {"equal", "a=1", true, "a", "1", ExpressionResolver::EQUAL},
    {"doubleEqualKeepsSecondEqual", "a==1", true, "a", "=1", ExpressionResolver::EQUAL},
    {"notEqualKeepsBangInName", "a!=1", true, "a!", "1", ExpressionResolver::EQUAL},
    {"equalBeforeGreater", "a=>1", true, "a", ">1", ExpressionResolver::EQUAL},
    {"lessBeforeGreater", "a<>1", true, "a", ">1", ExpressionResolver::LESS},
    {"greaterBeforeLess", "a>b<c", true, "a", "b<c", ExpressionResolver::GREATER},
    {"lessBeforeEqualLater", "a<b=c", true, "a", "b=c", ExpressionResolver::LESS},
    {"greaterOrEqualTwice", "a>=>=1", true, "a", ">=1", ExpressionResolver::GREATER_OR_EQUAL},
    {"greaterAtEnd", "a>", true, "a", "", ExpressionResolver::GREATER},
    {"lessAtEnd", "a<", true, "a", "", ExpressionResolver::LESS},
    {"equalAtEnd", "a=", true, "a", "", ExpressionResolver::EQUAL},
    {"operatorOnly", ">=", true, "", "", ExpressionResolver::GREATER_OR_EQUAL},
    {"blanksStay", " a <= 1 ", true, " a ", " 1 ", ExpressionResolver::LESS_OR_EQUAL},
    {"noOperator", "a1", false, "", "", ExpressionResolver::EQUAL},
    {"emptyCondition", "", false, "", "", ExpressionResolver::EQUAL},
    {"bangOnly", "a!1", false, "", "", ExpressionResolver::EQUAL},
};

INSTANTIATE_TEST_SUITE_P(Cases, ExtractConditionTest, ::testing::ValuesIn(CONDITION_CASES),
                         caseName<ConditionCase>);

TEST(ExpressionConditionTest, operatorsHaveTheirFixedNumbers) {
    EXPECT_EQ(static_cast<unsigned short>(ExpressionResolver::GREATER), 0);
    EXPECT_EQ(static_cast<unsigned short>(ExpressionResolver::GREATER_OR_EQUAL), 1);
    EXPECT_EQ(static_cast<unsigned short>(ExpressionResolver::LESS), 2);
    EXPECT_EQ(static_cast<unsigned short>(ExpressionResolver::LESS_OR_EQUAL), 3);
    EXPECT_EQ(static_cast<unsigned short>(ExpressionResolver::EQUAL), 4);
    EXPECT_EQ(sizeof(Op), sizeof(unsigned short));
}

// --- extractPlaceholders -----------------------------------------------------------------------

TEST(ExtractPlaceholdersTest, cutsFirstAndSecond) {
    struct Case {
        const char* expr;
        const char* first;
        const char* second;
    };
    const Case cases[] = {
        {"c|a|b", "a", "b"},
        {"c|a", "a", ""},
        {"c||", "", ""},
        {"c|", "", ""},
        {"c|a|b|d", "a", "b|d"},
        {"|a|b", "a", "b"},
        {"c| a | b ", " a ", " b "},
        {"c||b", "", "b"},
    };
    ExpressionResolver resolver;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expr);
        String first = "stale";
        String second = "stale";
        EXPECT_TRUE(resolver.extractPlaceholders(c.expr, first, second).isSuccess());
        EXPECT_EQ(first.str(), c.first);
        EXPECT_EQ(second.str(), c.second);
    }
}

TEST(ExtractPlaceholdersTest, bodyWithoutBarFailsAndLeavesOutputs) {
    ExpressionResolver resolver;
    String first = "F";
    String second = "S";
    expectGenericFailure(resolver.extractPlaceholders("system.mac", first, second));
    EXPECT_EQ(first, "F");
    EXPECT_EQ(second, "S");
}

// --- resolveConditionalExpr --------------------------------------------------------------------

TEST_F(ExpressionResolverTest, resolveConditionalExprTestsEveryOperator) {
    struct Case {
        unsigned short op;
        const char* number;
        bool holds;
    };
    // sw.major is 5.
    const Case cases[] = {
        {0, "4", true},  {0, "5", false}, {1, "5", true},          {1, "6", false}, {2, "6", true},
        {2, "5", false}, {3, "5", true},  {3, "4", false},         {4, "5", true},  {4, "4", false},
        {4, "05", true}, {0, "0", true},  {2, "4294967295", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "op " << c.op << " number " << c.number);
        String value;
        EXPECT_TRUE(
            resolver.resolveConditionalExpr(c.op, "system.sw.major", c.number, "yes", "no", value)
                .isSuccess());
        EXPECT_EQ(value, c.holds ? "yes" : "no");
    }
}

TEST_F(ExpressionResolverTest, resolveConditionalExprRejectsOperatorAboveFour) {
    for (unsigned short op : {5, 6, 100, 65535}) {
        String value = "untouched";
        expectGenericFailure(
            resolver.resolveConditionalExpr(op, "system.sw.major", "5", "a", "b", value));
        EXPECT_EQ(value, "untouched");
    }
}

TEST_F(ExpressionResolverTest, resolveConditionalExprFailuresLeaveValue) {
    struct Case {
        const char* name;
        const char* number;
    };
    const Case cases[] = {
        {"nosuch", "1"},           {"system.mac-encrypted", "1"},     {"system.sw.date", "1"},
        {"system.sw.major", ""},   {"system.sw.major", "x"},          {"system.sw.major", "+1"},
        {"system.sw.major", " 1"}, {"system.sw.major", "4294967296"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.name << " / " << c.number);
        String value = "untouched";
        expectGenericFailure(resolver.resolveConditionalExpr(4, c.name, c.number, "a", "b", value));
        EXPECT_EQ(value, "untouched");
    }
}

TEST_F(ExpressionResolverTest, resolveConditionalExprCopiesChosenTextVerbatim) {
    String value;
    String first("a\0$(x)|b", 8);
    EXPECT_TRUE(
        resolver.resolveConditionalExpr(4, "system.sw.major", "5", first, "", value).isSuccess());
    EXPECT_EQ(value, first);
    EXPECT_EQ(value.length(), 8);
}

// --- getters and VALUE_BY_NAME -----------------------------------------------------------------

struct ValueCase {
    const char* name;
    String ExpressionResolver::*member;
    XCode (ExpressionResolver::*getter)(String&) const;
};

const ValueCase VALUE_CASES[] = {
    {"system.mac", &ExpressionResolver::macAddress, &ExpressionResolver::getMacAddress},
    {"system.serial", &ExpressionResolver::serialNumber, &ExpressionResolver::getSerialNumber},
    {"dhcp.66", &ExpressionResolver::tftpServer, &ExpressionResolver::getTftpServer},
    {"dhcp.67", &ExpressionResolver::tftpFileName, &ExpressionResolver::getTftpFileName},
    {"system.hw.major", &ExpressionResolver::hwMajor, &ExpressionResolver::getHwMajor},
    {"system.hw.minor", &ExpressionResolver::hwMinor, &ExpressionResolver::getHwMinor},
    {"system.sw.major", &ExpressionResolver::swMajor, &ExpressionResolver::getSwMajor},
    {"system.sw.minor", &ExpressionResolver::swMinor, &ExpressionResolver::getSwMinor},
    {"system.sw.build", &ExpressionResolver::swBuild, &ExpressionResolver::getSwBuild},
    {"system.sw.date", &ExpressionResolver::swDate, &ExpressionResolver::getSwDate},
    {"system.product.name", &ExpressionResolver::productName, &ExpressionResolver::getProductName},
    {"system.product.basename", &ExpressionResolver::productBaseName,
     &ExpressionResolver::getProductBaseName},
    {"cli.major", &ExpressionResolver::cliMajorVersion, &ExpressionResolver::getCliMajorVersion},
    {"cli.minor", &ExpressionResolver::cliMinorVersion, &ExpressionResolver::getCliMinorVersion},
    {"model", &ExpressionResolver::modelName, &ExpressionResolver::getModelName},
    {"oem", &ExpressionResolver::oemName, &ExpressionResolver::getOemName},
    {"hw.version", &ExpressionResolver::hwVersion, &ExpressionResolver::getHwVersion},
    {"hw.revision", &ExpressionResolver::hwRevision, &ExpressionResolver::getHwRevision},
    {"sw.version", &ExpressionResolver::swVersion, &ExpressionResolver::getSwVersion},
};

TEST(ExpressionResolverValuesTest, resolveExpressionAnswersEachNameWithItsOwnValue) {
    ExpressionResolver resolver;
    for (const ValueCase& c : VALUE_CASES) {
        resolver.*c.member = String("value of ") + c.name;
    }
    // The first fourteen entries are the expression names.
    for (const ValueCase& c : VALUE_CASES) {
        if (String(c.name) == "model") {
            break;
        }
        SCOPED_TRACE(c.name);
        String value = "stale";
        EXPECT_TRUE(resolver.resolveExpression(c.name, value).isSuccess());
        EXPECT_EQ(value, String("value of ") + c.name);
    }
}

TEST(ExpressionResolverValuesTest, everyGetterCopiesItsOwnValue) {
    ExpressionResolver resolver;
    for (const ValueCase& c : VALUE_CASES) {
        resolver.*c.member = String("value of ") + c.name;
    }
    for (const ValueCase& c : VALUE_CASES) {
        SCOPED_TRACE(c.name);
        String value = "stale";
        EXPECT_TRUE((resolver.*c.getter)(value).isSuccess());
        EXPECT_EQ(value, String("value of ") + c.name);
    }
}

TEST(ExpressionResolverValuesTest, gettersOfEmptyValuesSucceedWithEmptyString) {
    const ExpressionResolver resolver;
    for (const ValueCase& c : VALUE_CASES) {
        SCOPED_TRACE(c.name);
        String value = "stale";
        XCode result = (resolver.*c.getter)(value);
        EXPECT_TRUE(result.isSuccess());
        EXPECT_FALSE(result.hasMessage());
        EXPECT_TRUE(value.isEmpty());
    }
}

TEST(ExpressionResolverValuesTest, valueByNameFindsTheMemberOfEachName) {
    ExpressionResolver resolver;
    for (const ValueCase& c : VALUE_CASES) {
        SCOPED_TRACE(c.name);
        String* value = ExpressionResolver::VALUE_BY_NAME(resolver, c.name);
        ASSERT_EQ(value, &(resolver.*c.member));
    }
}

TEST(ExpressionResolverValuesTest, valueNameAtListsTheNamesOfValueByNameInOrder) {
    const std::size_t count = sizeof VALUE_CASES / sizeof VALUE_CASES[0];
    for (std::size_t index = 0; index < count; ++index) {
        ASSERT_NE(ExpressionResolver::VALUE_NAME_AT(index), nullptr) << index;
        EXPECT_STREQ(ExpressionResolver::VALUE_NAME_AT(index), VALUE_CASES[index].name);
    }
    EXPECT_EQ(ExpressionResolver::VALUE_NAME_AT(count), nullptr);
    EXPECT_EQ(ExpressionResolver::VALUE_NAME_AT(static_cast<std::size_t>(-1)), nullptr);
}

TEST(ExpressionResolverValuesTest, valueByNameSetsWhatExpressionsRead) {
    ExpressionResolver resolver;
    *ExpressionResolver::VALUE_BY_NAME(resolver, "system.mac") = "AABBCCDDEEFF";
    *ExpressionResolver::VALUE_BY_NAME(resolver, "system.hw.major") = "3";
    String text = "$(system.mac)/$(system.hw.major>2|new|old)";
    EXPECT_TRUE(resolver.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "AABBCCDDEEFF/new");
}

TEST(ExpressionResolverValuesTest, valueByNameRejectsOtherNames) {
    ExpressionResolver resolver;
    for (const char* name : {"system.mac-encrypted", "system.serial-encrypted", "", "nosuch",
                             "System.mac", "system.mac ", "modelName", "dhcp.68"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(ExpressionResolver::VALUE_BY_NAME(resolver, name), nullptr);
    }
}

TEST(ExpressionResolverValuesTest, resolverIsUsableThroughConstReference) {
    ExpressionResolver owner;
    owner.serialNumber = "S1";
    const ExpressionResolver& resolver = owner;
    String text = "$(system.serial)";
    EXPECT_TRUE(resolver.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "S1");
}

TEST(ExpressionResolverValuesTest, copiesAreIndependent) {
    ExpressionResolver original;
    original.macAddress = "01";
    ExpressionResolver copy = original;
    copy.macAddress = "02";
    String text = "$(system.mac)";
    EXPECT_TRUE(original.replaceAllExpressions(text).isSuccess());
    EXPECT_EQ(text, "01");
}

}  // namespace
