// Kt::Shell::JOIN_WORDS, the one builder of command lines: exactly the inverse of SPLIT_WORDS.
#include <gtest/gtest.h>

#include <vector>

#include "platform/Shell.h"

namespace {

TEST(ShellJoinTest, quotesOnlyWhatTheSplitterWouldCut) {
    String line;
    ASSERT_TRUE(
        Kt::Shell::JOIN_WORDS({"wget", "-q", "-O", "/tmp/a b", "", "x\ty", "--", "http://h/"}, line)
            .isSuccess());
    EXPECT_EQ(line, "wget -q -O \"/tmp/a b\" \"\" \"x\ty\" -- http://h/");
    std::vector<String> back = Kt::Shell::SPLIT_WORDS(line);
    std::vector<String> expected = {"wget", "-q", "-O", "/tmp/a b", "", "x\ty", "--", "http://h/"};
    EXPECT_EQ(back, expected);
}

TEST(ShellJoinTest, aWordWithAQuoteOrANulIsRefusedAndTheLineKept) {
    String line("before");
    XCode refused = Kt::Shell::JOIN_WORDS({"tar", "xf", "a\"b"}, line);
    EXPECT_TRUE(refused.isErr());
    EXPECT_EQ(refused.getString(), "ARGUMENT CANNOT BE PASSED TO tar: a\"b");
    EXPECT_EQ(line, "before");
    refused = Kt::Shell::JOIN_WORDS({"tftp", String("a\0b", 3)}, line);
    EXPECT_EQ(refused.getString(), "ARGUMENT CANNOT BE PASSED TO tftp: a\\x00b");
    EXPECT_EQ(line, "before");
}

}  // namespace
