#pragma once

#include <cstdint>
#include <vector>

#include "platform/String.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

struct StringHash {
    // h = h XOR (byte XOR (h << 5)) over the unsigned bytes, starting from 0.
    std::uint32_t operator()(const String& key) const {
        std::uint32_t h = 0;
        for (int i = 0; i < key.length(); ++i) {
            h ^= static_cast<std::uint32_t>(static_cast<unsigned char>(key.at(i))) ^ (h << 5);
        }
        return h;
    }
};

struct StringCompare {
    bool operator()(const String& a, const String& b) const { return a == b; }
};

// Fixed-size chained hash table: a bucket count set at construction and never changed; each
// bucket is a circular doubly linked list created on first use; all entries are also on one list
// in insertion order (newest first). Copies keep the order by inserting oldest first. Not
// thread-safe: the owner serialises access.
template <typename K, typename V, typename Hash, typename Compare>
class KtHashTable {
  public:
    // A bucket count of 0 is taken as 1.
    explicit KtHashTable(unsigned int buckets = 16);
    // Takes the other's bucket count.
    KtHashTable(const KtHashTable& other);
    // Removes this table's entries first and keeps its bucket count; self-assignment does
    // nothing.
    KtHashTable& operator=(const KtHashTable& other);
    ~KtHashTable();

    // False (nothing changed) when the key is present.
    bool insert(const K& key, const V& value);
    const V* find(const K& key) const;
    bool remove(const K& key);
    void clear();
    unsigned int size() const { return count_; }
    unsigned int bucketCount() const { return static_cast<unsigned int>(buckets_.size()); }
    // Keys from newest to oldest.
    std::vector<K> keys() const;
    // Entries in one bucket, counted round its circular list (0 for a bucket never used).
    unsigned int bucketLength(unsigned int bucket) const;
    // The bucket a key belongs in: Hash modulo the bucket count.
    unsigned int bucketOfKey(const K& key) const { return bucketOf(key); }

  private:
    struct Entry {
        K key;
        V value;
        Entry* bucketPrev;
        Entry* bucketNext;
        Entry* orderPrev;  // newer
        Entry* orderNext;  // older
    };
    unsigned int bucketOf(const K& key) const {
        return Hash()(key) % static_cast<unsigned int>(buckets_.size());
    }
    void copyFrom(const KtHashTable& other);
    Entry* lookup(const K& key) const;
    void unlink(Entry* entry);

    std::vector<Entry*> buckets_;  // head of each circular list, null until first use
    Entry* newest_ = nullptr;
    Entry* oldest_ = nullptr;
    unsigned int count_ = 0;
};

template <typename V>
using KtStringHashTable = KtHashTable<String, V, StringHash, StringCompare>;

#include "platform/KtHashTable.inl"

#pragma GCC visibility pop
