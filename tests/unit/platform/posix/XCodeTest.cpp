#include "platform/XCode.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

static void PrintTo(const String& text, std::ostream* out) {
    *out << '"' << text.str() << '"';
}
static void PrintTo(const XCode& code, std::ostream* out) {
    *out << code.toString().str();
}

namespace {

// --- testExpression ----------------------------------------------------------------------------

TEST(XCodeTest, testExpressionFalseIsGenericFailureWithoutMessage) {
    XCode code = testExpression(false);
    EXPECT_EQ(code.getValue(), 0x7FFFFFFFu);
    EXPECT_TRUE(code.isErr());
    EXPECT_FALSE(code.isSuccess());
    EXPECT_FALSE(code.hasMessage());
    EXPECT_TRUE(code.getString().isEmpty());
}

TEST(XCodeTest, testExpressionTrueIsSuccess) {
    XCode code = testExpression(true);
    EXPECT_EQ(code.getValue(), 0u);
    EXPECT_TRUE(code.isSuccess());
    EXPECT_FALSE(code.isErr());
    EXPECT_FALSE(code.hasMessage());
}

TEST(XCodeTest, defaultIsSuccess) {
    XCode code;
    EXPECT_TRUE(code.isSuccess());
    EXPECT_EQ(code.getValue(), XCode::SUCCESS);
}

// --- value in 31 bits --------------------------------------------------------------------------

TEST(XCodeTest, minusOneReadsAsGenericFailure) {
    XCode constructed(-1);
    EXPECT_EQ(constructed.getValue(), 0x7FFFFFFFu);
    XCode assigned;
    assigned = -1;
    EXPECT_EQ(assigned.getValue(), 0x7FFFFFFFu);
    EXPECT_EQ(assigned, testExpression(false));
}

TEST(XCodeTest, valueKeepsLow31Bits) {
    EXPECT_EQ(XCode(0xFFFFFFFFu).getValue(), 0x7FFFFFFFu);
    EXPECT_EQ(XCode(0x80000001u).getValue(), 1u);
    EXPECT_EQ(XCode(0x7FFFFFFEu).getValue(), 0x7FFFFFFEu);
    XCode code;
    code = 0x80000000u;
    EXPECT_TRUE(code.isSuccess());
}

TEST(XCodeTest, valueKeptInRecordToo) {
    XCode code(-1);
    code.setString("BROKEN");
    EXPECT_EQ(code.getValue(), 0x7FFFFFFFu);
    code = 0xFFFFFFFEu;
    EXPECT_EQ(code.getValue(), 0x7FFFFFFEu);
}

// --- families ----------------------------------------------------------------------------------

TEST(XCodeTest, familyAndDetail) {
    XCode code = XCode::family(XCode::EXIT_STATUS_FAMILY, 3);
    EXPECT_EQ(code.getValue(), 0x12000003u);
    EXPECT_EQ(code.getFamily(), XCode::EXIT_STATUS_FAMILY);
    EXPECT_EQ(code.getDetail(), 3u);
    EXPECT_EQ(XCode::family(XCode::SIGNAL_FAMILY, 0x1FFFFFF).getValue(), 0x13FFFFFFu);
}

TEST(XCodeTest, httpStatusIsHttpFamily) {
    EXPECT_EQ(XCode::httpStatus(302).getValue(), 0x14000000u + 302);
    EXPECT_EQ(XCode::httpStatus(401).getFamily(), XCode::HTTP_FAMILY);
}

TEST(XCodeTest, isHttpErrNeedsTheHttpFamily) {
    EXPECT_FALSE(XCode(302).isHttpErr(302));
    EXPECT_TRUE(XCode(0x14000000 + 302).isHttpErr(302));
    EXPECT_FALSE(XCode(0x14000000 + 302).isHttpErr(401));
    EXPECT_TRUE(XCode::httpStatus(401).isHttpErr(401));
    EXPECT_FALSE(XCode(0x12000000 + 302).isHttpErr(302));
    EXPECT_FALSE(XCode(0x15000000 + 302).isHttpErr(302));
    EXPECT_FALSE(XCode(0x14000000 + 302).isHttpErr(-1));
    EXPECT_FALSE(XCode().isHttpErr(0));
    XCode withMessage = XCode::httpStatus(302);
    withMessage.setString("FOUND");
    EXPECT_TRUE(withMessage.isHttpErr(302));
}

TEST(XCodeTest, fromErrnoCarriesErrnoAndItsText) {
    XCode code = XCode::fromErrno(ENOENT);
    EXPECT_EQ(code.getValue(), (0x10u << 24) | ENOENT);
    EXPECT_EQ(code.getString(), std::strerror(ENOENT));
}

// --- equality ----------------------------------------------------------------------------------

TEST(XCodeTest, equalityComparesValuesOnly) {
    XCode a(-1);
    XCode b(-1);
    a.setString("FIRST");
    b.setString("SECOND");
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
    EXPECT_EQ(a, XCode(0x7FFFFFFF));
    EXPECT_NE(a, XCode(0x7FFFFFFE));
    XCode c(5);
    c.setString("FIRST");
    EXPECT_NE(a, c);
}

// --- messages ----------------------------------------------------------------------------------

TEST(XCodeTest, setStringReplacesMessageAndKeepsValue) {
    XCode code(0x12000001);
    EXPECT_EQ(&code.setString("ONE"), &code);
    EXPECT_TRUE(code.hasMessage());
    EXPECT_EQ(code.getString(), "ONE");
    EXPECT_EQ(code.getValue(), 0x12000001u);
    code.setString("TWO");
    EXPECT_EQ(code.getString(), "TWO");
    EXPECT_EQ(code.getValue(), 0x12000001u);
}

TEST(XCodeTest, setStringOnSuccessKeepsSuccess) {
    XCode code;
    code.setString("NOTE");
    EXPECT_TRUE(code.isSuccess());
    EXPECT_EQ(code.getString(), "NOTE");
}

TEST(XCodeTest, setStringFFormats) {
    XCode code(-1);
    code.setStringF("PROTOCOL %s NOT SUPPORTED", "ftp");
    EXPECT_EQ(code.getString(), "PROTOCOL ftp NOT SUPPORTED");
    EXPECT_EQ(code.getValue(), 0x7FFFFFFFu);
    std::string longText(400, 'x');
    code.setStringF("%s/%d", longText.c_str(), 7);
    EXPECT_EQ(code.getString().str(), longText + "/7");
}

TEST(XCodeTest, assigningValueDropsMessage) {
    XCode code(-1);
    code.setString("FAILED");
    code = 0;
    EXPECT_TRUE(code.isSuccess());
    EXPECT_FALSE(code.hasMessage());
    EXPECT_TRUE(code.getString().isEmpty());
    code.setString("AGAIN");
    code = XCode::GENERIC_FAILURE;
    EXPECT_FALSE(code.hasMessage());
    EXPECT_EQ(code.getValue(), 0x7FFFFFFFu);
}

TEST(XCodeTest, setCopiesValueAndMessage) {
    XCode source(0x14000191);
    source.setString("UNAUTHORIZED");
    XCode target(-1);
    target.setString("OLD");
    EXPECT_EQ(&target.set(source), &target);
    EXPECT_EQ(target.getValue(), 0x14000191u);
    EXPECT_EQ(target.getString(), "UNAUTHORIZED");
    XCode plain(3);
    target.set(plain);
    EXPECT_EQ(target.getValue(), 3u);
    EXPECT_FALSE(target.hasMessage());
}

// --- extendString ------------------------------------------------------------------------------

TEST(XCodeTest, extendStringWithEmptyPrefixChangesNothing) {
    XCode withMessage(-1);
    withMessage.setString("M");
    withMessage.extendString("", ": ");
    EXPECT_EQ(withMessage.getString(), "M");
    XCode bare(-1);
    bare.extendString("", ": ");
    EXPECT_FALSE(bare.hasMessage());
}

TEST(XCodeTest, extendStringWithoutMessageTakesPrefix) {
    XCode code = testExpression(false);
    EXPECT_EQ(&code.extendString("P", ": "), &code);
    EXPECT_EQ(code.getString(), "P");
    EXPECT_EQ(code.getValue(), 0x7FFFFFFFu);
}

TEST(XCodeTest, extendStringOfEmptyMessageTakesPrefix) {
    XCode code(-1);
    code.setString("");
    code.extendString("P", ": ");
    EXPECT_EQ(code.getString(), "P");
}

TEST(XCodeTest, extendStringJoinsWithSeparator) {
    XCode code(-1);
    code.setString("M");
    code.extendString("CANNOT RESOLVE ALL EXPRESSIONS", ": ");
    EXPECT_EQ(code.getString(), "CANNOT RESOLVE ALL EXPRESSIONS: M");
    code.extendString("OUTER", " - ");
    EXPECT_EQ(code.getString(), "OUTER - CANNOT RESOLVE ALL EXPRESSIONS: M");
    EXPECT_EQ(code.getValue(), 0x7FFFFFFFu);
}

TEST(XCodeTest, extendStringPrefixEndingInBlankJoinsDirectly) {
    XCode code(-1);
    code.setString("M");
    code.extendString("PREFIX ", ": ");
    EXPECT_EQ(code.getString(), "PREFIX M");
}

TEST(XCodeTest, extendStringPrefixEndingInOtherWhiteSpaceUsesSeparator) {
    XCode code(-1);
    code.setString("M");
    code.extendString("PREFIX\t", ": ");
    EXPECT_EQ(code.getString(), "PREFIX\t: M");
}

TEST(XCodeTest, extendStringWithOwnMessageAsPrefix) {
    XCode code(-1);
    code.setString("M");
    code.extendString(code.getString(), "+");
    EXPECT_EQ(code.getString(), "M+M");
}

// --- copies ------------------------------------------------------------------------------------

TEST(XCodeTest, copyConstructionIsDeep) {
    XCode original(-1);
    original.setString("ORIGINAL");
    XCode copy(original);
    copy.setString("COPY");
    copy.extendString("MORE", ": ");
    EXPECT_EQ(original.getString(), "ORIGINAL");
    EXPECT_EQ(copy.getString(), "MORE: COPY");
    EXPECT_EQ(copy.getValue(), original.getValue());
}

TEST(XCodeTest, copyAssignmentIsDeep) {
    XCode original(7);
    original.setString("ORIGINAL");
    XCode copy(9);
    copy = original;
    EXPECT_EQ(copy.getValue(), 7u);
    EXPECT_EQ(copy.getString(), "ORIGINAL");
    copy.setString("CHANGED");
    EXPECT_EQ(original.getString(), "ORIGINAL");
    original.setString("ALSO CHANGED");
    EXPECT_EQ(copy.getString(), "CHANGED");
}

TEST(XCodeTest, copyOfBareCodeHasNoMessage) {
    XCode original(4);
    XCode copy(-1);
    copy.setString("OLD");
    copy = original;
    EXPECT_FALSE(copy.hasMessage());
    EXPECT_EQ(copy.getValue(), 4u);
}

TEST(XCodeTest, selfAssignmentKeepsCode) {
    XCode code(-1);
    code.setString("SELF");
    XCode& alias = code;
    code = alias;
    EXPECT_EQ(code.getString(), "SELF");
    EXPECT_EQ(code.getValue(), 0x7FFFFFFFu);
}

TEST(XCodeTest, moveTakesValueAndMessage) {
    XCode original(-1);
    original.setString("MOVED");
    XCode moved(std::move(original));
    EXPECT_EQ(moved.getString(), "MOVED");
    EXPECT_EQ(moved.getValue(), 0x7FFFFFFFu);
    XCode assigned;
    assigned = std::move(moved);
    EXPECT_EQ(assigned.getString(), "MOVED");
    EXPECT_EQ(assigned.getValue(), 0x7FFFFFFFu);
}

// --- toString ----------------------------------------------------------------------------------

TEST(XCodeTest, toStringHoldsMessageVerbatimAndValueInHex) {
    XCode code(-1);
    code.setString("no such file: /tmp/x (really)");
    EXPECT_EQ(code.toString(), "no such file: /tmp/x (really) (0x7FFFFFFF)");
    code = 0x14000000 + 404;
    code.setString("%s %d");
    EXPECT_EQ(code.toString(), "%s %d (0x14000194)");
}

TEST(XCodeTest, toStringWithoutMessageDescribesValue) {
    EXPECT_EQ(XCode().toString(), "SUCCESS (0x00000000)");
    EXPECT_EQ(XCode(-1).toString(), "GENERIC FAILURE (0x7FFFFFFF)");
    EXPECT_EQ(XCode::family(XCode::EXIT_STATUS_FAMILY, 1).toString(), "EXIT STATUS 1 (0x12000001)");
    EXPECT_EQ(XCode::family(XCode::SIGNAL_FAMILY, 9).toString(), "KILLED BY SIGNAL 9 (0x13000009)");
    EXPECT_EQ(XCode::httpStatus(401).toString(), "HTTP STATUS 401 (0x14000191)");
    EXPECT_EQ(XCode(5).toString(), "ERROR (0x00000005)");
    XCode errnoCode = XCode::family(XCode::ERRNO_FAMILY, ENOENT);
    EXPECT_EQ(errnoCode.toString(), String::format("SYSTEM ERROR %d: %s (0x%08X)", ENOENT,
                                                   std::strerror(ENOENT), errnoCode.getValue()));
}

TEST(XCodeTest, toStringWithEmptyMessageDescribesValue) {
    XCode code(-1);
    code.setString("");
    EXPECT_EQ(code.toString(), "GENERIC FAILURE (0x7FFFFFFF)");
}

TEST(XCodeTest, theGenericFailureHasOneSpellingWithOrWithoutMessage) {
    EXPECT_EQ(XCode::FAILURE().getValue(), XCode::GENERIC_FAILURE);
    EXPECT_FALSE(XCode::FAILURE().hasMessage());
    EXPECT_EQ(XCode::FAILURE("NOT IMPLEMENTED").toString(), "NOT IMPLEMENTED (0x7FFFFFFF)");
    EXPECT_EQ(XCode::FAILURE_F("PROTOCOL %s NOT SUPPORTED", "FTP").getString(),
              "PROTOCOL FTP NOT SUPPORTED");
}

TEST(XCodeTest, aSystemFailureCarriesErrnoAndNamesWhatAndWhere) {
    XCode failed = XCode::SYSTEM_FAILURE(ENOENT, "CANNOT OPEN", "/flash/x");
    EXPECT_EQ(failed.getFamily(), XCode::ERRNO_FAMILY);
    EXPECT_EQ(failed.getDetail(), static_cast<XCodeValue>(ENOENT));
    EXPECT_EQ(failed.getString(), "CANNOT OPEN /flash/x: No such file or directory");
    EXPECT_EQ(XCode::SYSTEM_FAILURE(EACCES, "", "/x").getString(), "/x: Permission denied");
}

}  // namespace
