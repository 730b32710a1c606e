#include "platform/KtHashTable.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Table = KtStringHashTable<String>;

std::vector<std::string> keysOf(const Table& table) {
    std::vector<std::string> keys;
    for (const String& key : table.keys()) {
        keys.push_back(key.str());
    }
    return keys;
}

// Hashes worked out by hand from h = h ^ (byte ^ (h << 5)), h starting at 0:
//   ""   -> 0
//   "a"  -> 0 ^ (0x61 ^ 0) = 0x61 = 97                               (bucket 1 of 16)
//   "ab" -> 0x61 ^ (0x62 ^ (0x61 << 5)) = 0x61 ^ (0x62 ^ 0xC20) = 0xC23 = 3107   (bucket 3)
//   "abc"-> 0xC23 ^ (0x63 ^ (0xC23 << 5)) = 0xC23 ^ (0x63 ^ 0x18460) = 0x18820 = 100384 (bucket 0)
//   "\xff" -> 0xFF = 255: the byte counts as unsigned                 (bucket 15)
TEST(StringHashTest, valuesComputedByHand) {
    StringHash hash;
    EXPECT_EQ(hash(""), 0U);
    EXPECT_EQ(hash("a"), 97U);
    EXPECT_EQ(hash("ab"), 3107U);
    EXPECT_EQ(hash("abc"), 100384U);
    EXPECT_EQ(hash("\xff"), 255U);
    EXPECT_EQ(hash("realm"), 118657367U);
    // Long keys wrap in 32 bits.
    EXPECT_EQ(hash("Provisioning Realm"), 2542193310U);
}

TEST(StringCompareTest, exactBytesOnly) {
    StringCompare equal;
    EXPECT_TRUE(equal("Realm", "Realm"));
    EXPECT_FALSE(equal("Realm", "realm"));
    EXPECT_FALSE(equal("Realm", "Realm "));
    EXPECT_TRUE(equal(String("a\0b", 3), String("a\0b", 3)));
    EXPECT_FALSE(equal(String("a\0b", 3), String("a\0c", 3)));
}

TEST(KtHashTableTest, hasSixteenBucketsByDefault) {
    Table table;
    EXPECT_EQ(table.bucketCount(), 16U);
    EXPECT_EQ(table.size(), 0U);
    for (unsigned int bucket = 0; bucket < 16; ++bucket) {
        EXPECT_EQ(table.bucketLength(bucket), 0U);
    }
}

TEST(KtHashTableTest, bucketCountIsFixedAtConstruction) {
    Table table(5);
    EXPECT_EQ(table.bucketCount(), 5U);
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(table.insert(String::format("key%d", i), "v"));
    }
    EXPECT_EQ(table.bucketCount(), 5U);
    EXPECT_EQ(Table(0).bucketCount(), 1U);
}

TEST(KtHashTableTest, keysGoToHashModuloBucketCount) {
    Table table;
    EXPECT_EQ(table.bucketOfKey("a"), 1U);
    EXPECT_EQ(table.bucketOfKey("ab"), 3U);
    EXPECT_EQ(table.bucketOfKey("abc"), 0U);
    EXPECT_EQ(table.bucketOfKey("\xff"), 15U);
    ASSERT_TRUE(table.insert("ab", "x"));
    EXPECT_EQ(table.bucketLength(3), 1U);
    EXPECT_EQ(table.bucketLength(1), 0U);
}

TEST(KtHashTableTest, insertedValuesAreFound) {
    Table table;
    ASSERT_TRUE(table.insert("realm", "alice"));
    ASSERT_TRUE(table.insert("", "wild"));
    ASSERT_NE(table.find("realm"), nullptr);
    EXPECT_EQ(*table.find("realm"), String("alice"));
    EXPECT_EQ(*table.find(""), String("wild"));
    EXPECT_EQ(table.find("Realm"), nullptr);
    EXPECT_EQ(table.size(), 2U);
}

TEST(KtHashTableTest, duplicateKeyIsRefusedAndTheFirstValueKept) {
    Table table;
    ASSERT_TRUE(table.insert("realm", "first"));
    EXPECT_FALSE(table.insert("realm", "second"));
    EXPECT_EQ(*table.find("realm"), String("first"));
    EXPECT_EQ(table.size(), 1U);
}

TEST(KtHashTableTest, collidingKeysShareOneCircularBucket) {
    // One bucket: every key collides.
    Table table(1);
    for (const char* key : {"a", "b", "c", "d"}) {
        ASSERT_TRUE(table.insert(key, String(key) + "-value"));
    }
    EXPECT_EQ(table.bucketLength(0), 4U);
    for (const char* key : {"a", "b", "c", "d"}) {
        ASSERT_NE(table.find(key), nullptr) << key;
        EXPECT_EQ(*table.find(key), String(key) + "-value");
    }
    EXPECT_EQ(table.find("e"), nullptr);
}

TEST(KtHashTableTest, removingFromABucketKeepsTheOthers) {
    Table table(1);
    for (const char* key : {"a", "b", "c"}) {
        ASSERT_TRUE(table.insert(key, key));
    }
    EXPECT_TRUE(table.remove("a"));  // the head of the bucket
    EXPECT_EQ(table.bucketLength(0), 2U);
    EXPECT_NE(table.find("b"), nullptr);
    EXPECT_NE(table.find("c"), nullptr);
    EXPECT_TRUE(table.remove("c"));
    EXPECT_TRUE(table.remove("b"));
    EXPECT_FALSE(table.remove("b"));
    EXPECT_EQ(table.bucketLength(0), 0U);
    EXPECT_EQ(table.size(), 0U);
    EXPECT_TRUE(table.keys().empty());
    ASSERT_TRUE(table.insert("d", "d"));
    EXPECT_EQ(keysOf(table), std::vector<std::string>{"d"});
}

TEST(KtHashTableTest, keysComeNewestFirst) {
    Table table;
    for (const char* key : {"one", "two", "three", "four"}) {
        ASSERT_TRUE(table.insert(key, "v"));
    }
    EXPECT_EQ(keysOf(table), (std::vector<std::string>{"four", "three", "two", "one"}));
    ASSERT_TRUE(table.remove("four"));
    ASSERT_TRUE(table.remove("one"));
    EXPECT_EQ(keysOf(table), (std::vector<std::string>{"three", "two"}));
}

TEST(KtHashTableTest, copyKeepsOrderValuesAndBucketCount) {
    Table source(7);
    for (const char* key : {"one", "two", "three"}) {
        ASSERT_TRUE(source.insert(key, String(key) + "!"));
    }
    Table copy(source);
    EXPECT_EQ(copy.bucketCount(), 7U);
    EXPECT_EQ(keysOf(copy), keysOf(source));
    EXPECT_EQ(*copy.find("two"), String("two!"));
}

TEST(KtHashTableTest, copyIsIndependentOfItsSource) {
    Table source;
    ASSERT_TRUE(source.insert("a", "1"));
    Table copy(source);
    ASSERT_TRUE(source.insert("later", "2"));
    ASSERT_TRUE(copy.remove("a"));
    EXPECT_EQ(copy.find("later"), nullptr);
    EXPECT_NE(source.find("a"), nullptr);
}

TEST(KtHashTableTest, assignmentReplacesAllEntriesAndKeepsOrder) {
    Table source(4);
    for (const char* key : {"x", "y", "z"}) {
        ASSERT_TRUE(source.insert(key, "new"));
    }
    Table target;
    ASSERT_TRUE(target.insert("old", "gone"));
    ASSERT_TRUE(target.insert("y", "old value"));
    target = source;
    EXPECT_EQ(keysOf(target), (std::vector<std::string>{"z", "y", "x"}));
    EXPECT_EQ(target.find("old"), nullptr);
    EXPECT_EQ(*target.find("y"), String("new"));
    EXPECT_EQ(target.size(), 3U);
    EXPECT_EQ(target.bucketCount(), 16U);
}

TEST(KtHashTableTest, selfAssignmentChangesNothing) {
    Table table;
    for (const char* key : {"a", "b", "c"}) {
        ASSERT_TRUE(table.insert(key, key));
    }
    const Table& alias = table;
    table = alias;
    EXPECT_EQ(keysOf(table), (std::vector<std::string>{"c", "b", "a"}));
    EXPECT_EQ(*table.find("b"), String("b"));
    EXPECT_EQ(table.size(), 3U);
}

TEST(KtHashTableTest, clearEmptiesEverything) {
    Table table;
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(table.insert(String::format("k%d", i), "v"));
    }
    table.clear();
    EXPECT_EQ(table.size(), 0U);
    EXPECT_TRUE(table.keys().empty());
    for (unsigned int bucket = 0; bucket < table.bucketCount(); ++bucket) {
        EXPECT_EQ(table.bucketLength(bucket), 0U);
    }
    EXPECT_EQ(table.find("k3"), nullptr);
    ASSERT_TRUE(table.insert("k3", "again"));
    EXPECT_EQ(*table.find("k3"), String("again"));
}

TEST(KtHashTableTest, bucketsTogetherHoldEveryEntry) {
    Table table;
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(table.insert(String::format("realm-%d", i), "v"));
    }
    unsigned int total = 0;
    for (unsigned int bucket = 0; bucket < table.bucketCount(); ++bucket) {
        total += table.bucketLength(bucket);
    }
    EXPECT_EQ(total, 100U);
    EXPECT_EQ(table.size(), 100U);
}

struct IntHash {
    std::uint32_t operator()(int key) const { return static_cast<std::uint32_t>(key); }
};
struct IntCompare {
    bool operator()(int a, int b) const { return a == b; }
};

TEST(KtHashTableTest, worksForOtherKeyTypes) {
    KtHashTable<int, std::string, IntHash, IntCompare> table(4);
    ASSERT_TRUE(table.insert(1, "one"));
    ASSERT_TRUE(table.insert(5, "five"));  // same bucket as 1
    EXPECT_EQ(table.bucketLength(1), 2U);
    EXPECT_EQ(*table.find(5), "five");
    EXPECT_EQ(table.keys(), (std::vector<int>{5, 1}));
}

}  // namespace
