#include "platform/KtList.h"

#include <gtest/gtest.h>

#include <vector>

static void PrintTo(const String& text, std::ostream* out) {
    *out << '"' << text.str() << '"';
}

namespace {

std::vector<String> contents(const KtList<String>& list) {
    return std::vector<String>(list.begin(), list.end());
}

TEST(KtListTest, newListIsEmpty) {
    KtList<String> list;
    EXPECT_TRUE(list.isEmpty());
    EXPECT_EQ(list.size(), 0u);
    EXPECT_EQ(list.begin(), list.end());
}

TEST(KtListTest, initializerListKeepsOrder) {
    KtList<String> list{"tftp://a/x", "http://b/y", "https://c/z"};
    EXPECT_EQ(list.size(), 3u);
    EXPECT_EQ(list.front(), "tftp://a/x");
    EXPECT_EQ(list[1], "http://b/y");
    EXPECT_EQ(list[2], "https://c/z");
}

TEST(KtListTest, pushBackAppendsAndPushFrontPrepends) {
    KtList<String> list;
    list.pushBack("b");
    list.pushBack("c");
    list.pushFront("a");
    EXPECT_EQ(contents(list), (std::vector<String>{"a", "b", "c"}));
    EXPECT_FALSE(list.isEmpty());
}

TEST(KtListTest, popFrontTakesFirstInOrder) {
    KtList<String> list{"first", "second"};
    String item;
    EXPECT_TRUE(list.popFront(item).isSuccess());
    EXPECT_EQ(item, "first");
    EXPECT_EQ(list.size(), 1u);
    EXPECT_TRUE(list.popFront(item).isSuccess());
    EXPECT_EQ(item, "second");
    EXPECT_TRUE(list.isEmpty());
}

TEST(KtListTest, popFrontOfEmptyListFailsAndLeavesItem) {
    KtList<String> list;
    String item = "untouched";
    XCode result = list.popFront(item);
    EXPECT_TRUE(result.isErr());
    EXPECT_EQ(result.getValue(), 0x7FFFFFFFu);
    EXPECT_FALSE(result.hasMessage());
    EXPECT_EQ(item, "untouched");
}

TEST(KtListTest, redirectTargetPushedToFrontComesNext) {
    KtList<String> locations{"http://a/1", "http://b/2"};
    String current;
    ASSERT_TRUE(locations.popFront(current).isSuccess());
    locations.pushFront("http://redirected/1");
    ASSERT_TRUE(locations.popFront(current).isSuccess());
    EXPECT_EQ(current, "http://redirected/1");
    ASSERT_TRUE(locations.popFront(current).isSuccess());
    EXPECT_EQ(current, "http://b/2");
}

TEST(KtListTest, clearEmptiesTheList) {
    KtList<String> list{"a", "b"};
    list.clear();
    EXPECT_TRUE(list.isEmpty());
    String item = "x";
    EXPECT_TRUE(list.popFront(item).isErr());
    list.pushBack("c");
    EXPECT_EQ(contents(list), std::vector<String>{"c"});
}

TEST(KtListTest, copiesAreIndependent) {
    KtList<String> original{"a", "b"};
    KtList<String> copy = original;
    String item;
    ASSERT_TRUE(copy.popFront(item).isSuccess());
    copy.pushBack("c");
    EXPECT_EQ(contents(original), (std::vector<String>{"a", "b"}));
    EXPECT_EQ(contents(copy), (std::vector<String>{"b", "c"}));
}

TEST(KtListTest, worksWithOtherElementTypes) {
    KtList<int> numbers{3, 1, 2};
    int value = 0;
    ASSERT_TRUE(numbers.popFront(value).isSuccess());
    EXPECT_EQ(value, 3);
    EXPECT_EQ(numbers.front(), 1);
    int sum = 0;
    for (int n : numbers) {
        sum += n;
    }
    EXPECT_EQ(sum, 3);
}

}  // namespace
