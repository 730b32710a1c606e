#pragma once

// Implementation of KtHashTable; included by KtHashTable.h only.

template <typename K, typename V, typename Hash, typename Compare>
KtHashTable<K, V, Hash, Compare>::KtHashTable(unsigned int buckets)
    : buckets_(buckets == 0 ? 1U : buckets, nullptr) {}

template <typename K, typename V, typename Hash, typename Compare>
KtHashTable<K, V, Hash, Compare>::KtHashTable(const KtHashTable& other)
    : buckets_(other.buckets_.size(), nullptr) {
    copyFrom(other);
}

template <typename K, typename V, typename Hash, typename Compare>
KtHashTable<K, V, Hash, Compare>& KtHashTable<K, V, Hash, Compare>::operator=(
    const KtHashTable& other) {
    if (this != &other) {
        clear();
        copyFrom(other);
    }
    return *this;
}

template <typename K, typename V, typename Hash, typename Compare>
KtHashTable<K, V, Hash, Compare>::~KtHashTable() {
    clear();
}

template <typename K, typename V, typename Hash, typename Compare>
bool KtHashTable<K, V, Hash, Compare>::insert(const K& key, const V& value) {
    if (lookup(key) != nullptr) {
        return false;
    }
    // The table owns its entries through the two intrusive lists; clear() and remove() free them.
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
    Entry* entry = new Entry{key, value, nullptr, nullptr, nullptr, nullptr};

    Entry*& head = buckets_[bucketOf(key)];
    if (head == nullptr) {
        entry->bucketPrev = entry;
        entry->bucketNext = entry;
        head = entry;
    } else {
        Entry* tail = head->bucketPrev;
        entry->bucketPrev = tail;
        entry->bucketNext = head;
        tail->bucketNext = entry;
        head->bucketPrev = entry;
    }

    entry->orderNext = newest_;
    if (newest_ != nullptr) {
        newest_->orderPrev = entry;
    }
    newest_ = entry;
    if (oldest_ == nullptr) {
        oldest_ = entry;
    }
    ++count_;
    return true;
}

template <typename K, typename V, typename Hash, typename Compare>
const V* KtHashTable<K, V, Hash, Compare>::find(const K& key) const {
    const Entry* entry = lookup(key);
    return entry != nullptr ? &entry->value : nullptr;
}

template <typename K, typename V, typename Hash, typename Compare>
bool KtHashTable<K, V, Hash, Compare>::remove(const K& key) {
    Entry* entry = lookup(key);
    if (entry == nullptr) {
        return false;
    }
    unlink(entry);
    delete entry;  // NOLINT(cppcoreguidelines-owning-memory): owned by the table, unlinked
    --count_;
    return true;
}

template <typename K, typename V, typename Hash, typename Compare>
void KtHashTable<K, V, Hash, Compare>::clear() {
    Entry* entry = newest_;
    while (entry != nullptr) {
        Entry* older = entry->orderNext;
        delete entry;  // NOLINT(cppcoreguidelines-owning-memory): owned by the table
        entry = older;
    }
    for (Entry*& head : buckets_) {
        head = nullptr;
    }
    newest_ = nullptr;
    oldest_ = nullptr;
    count_ = 0;
}

template <typename K, typename V, typename Hash, typename Compare>
std::vector<K> KtHashTable<K, V, Hash, Compare>::keys() const {
    std::vector<K> result;
    result.reserve(count_);
    for (const Entry* entry = newest_; entry != nullptr; entry = entry->orderNext) {
        result.push_back(entry->key);
    }
    return result;
}

template <typename K, typename V, typename Hash, typename Compare>
unsigned int KtHashTable<K, V, Hash, Compare>::bucketLength(unsigned int bucket) const {
    if (bucket >= buckets_.size() || buckets_[bucket] == nullptr) {
        return 0;
    }
    unsigned int length = 0;
    const Entry* head = buckets_[bucket];
    const Entry* entry = head;
    do {
        ++length;
        entry = entry->bucketNext;
    } while (entry != head);
    return length;
}

template <typename K, typename V, typename Hash, typename Compare>
void KtHashTable<K, V, Hash, Compare>::copyFrom(const KtHashTable& other) {
    for (const Entry* entry = other.oldest_; entry != nullptr; entry = entry->orderPrev) {
        insert(entry->key, entry->value);
    }
}

template <typename K, typename V, typename Hash, typename Compare>
typename KtHashTable<K, V, Hash, Compare>::Entry* KtHashTable<K, V, Hash, Compare>::lookup(
    const K& key) const {
    Entry* head = buckets_[bucketOf(key)];
    if (head == nullptr) {
        return nullptr;
    }
    Entry* entry = head;
    do {
        if (Compare()(entry->key, key)) {
            return entry;
        }
        entry = entry->bucketNext;
    } while (entry != head);
    return nullptr;
}

template <typename K, typename V, typename Hash, typename Compare>
void KtHashTable<K, V, Hash, Compare>::unlink(Entry* entry) {
    Entry*& head = buckets_[bucketOf(entry->key)];
    if (entry->bucketNext == entry) {
        head = nullptr;
    } else {
        entry->bucketPrev->bucketNext = entry->bucketNext;
        entry->bucketNext->bucketPrev = entry->bucketPrev;
        if (head == entry) {
            head = entry->bucketNext;
        }
    }

    if (entry->orderPrev != nullptr) {
        entry->orderPrev->orderNext = entry->orderNext;
    } else {
        newest_ = entry->orderNext;
    }
    if (entry->orderNext != nullptr) {
        entry->orderNext->orderPrev = entry->orderPrev;
    } else {
        oldest_ = entry->orderPrev;
    }
}
