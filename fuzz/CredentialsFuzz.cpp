// libFuzzer target for ProvisioningCredentials and the table under it, KtStringHashTable.
//
// Input: a program of operations on three credential stores and three tables, each mirrored by a
// model (a list of entries, newest first): add, get for a realm, get of the wild-card, copy
// construction, assignment (self-assignment included), destruction; on the tables also insert,
// remove and clear. Strings come from a small pool (the wild-card realm, names that differ in
// case, names sharing a bucket, a name holding a NUL) or from the input.
//
// Checked after every operation: each result and message, the realm's or else the wild-card's
// user and password, untouched outputs on failure, and for the tables the insertion order
// (keys()), the size, and every bucket's length under the documented hash.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform/KtHashTable.h"
#include "transfer/ProvisioningCredentials.h"

namespace {

using Credentials = ProvisioningCredentials::Credentials;
using Table = KtStringHashTable<Credentials>;

constexpr std::size_t SLOTS = 3;
constexpr int MAX_OPERATIONS = 256;
const unsigned int TABLE_BUCKETS[SLOTS] = {16, 1, 5};

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

const std::string& poolString(std::size_t index) {
    // "a" and "q" share bucket 1 of 16; "x\0y" prints as "x".
    static const std::string POOL[] = {
        "", "dev", "Dev", "a", "q", "realm", "a b", std::string("x\0y", 3), "u", "p w",
    };
    return POOL[index % (sizeof POOL / sizeof POOL[0])];
}

class Reader {
  public:
    Reader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool atEnd() const { return position_ >= size_; }
    std::uint8_t byte() { return atEnd() ? 0 : data_[position_++]; }
    std::size_t slot() { return byte() % SLOTS; }
    // A pool entry, or (top bit set) up to 15 bytes of the input.
    std::string text() {
        std::uint8_t choice = byte();
        if ((choice & 0x80) == 0) {
            return poolString(choice);
        }
        std::string result;
        for (int length = choice & 0x0F; length > 0 && !atEnd(); --length) {
            result += static_cast<char>(byte());
        }
        return result;
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t position_ = 0;
};

struct Entry {
    std::string key;
    std::string user;
    std::string password;
};

// Entries newest first, as the table keeps them.
struct Model {
    std::vector<Entry> entries;
    unsigned int buckets = 16;

    const Entry* find(const std::string& key) const {
        for (const Entry& entry : entries) {
            if (entry.key == key) {
                return &entry;
            }
        }
        return nullptr;
    }
    bool insert(const std::string& key, const std::string& user, const std::string& password) {
        if (find(key) != nullptr) {
            return false;
        }
        entries.insert(entries.begin(), Entry{key, user, password});
        return true;
    }
    bool remove(const std::string& key) {
        for (auto it = entries.begin(); it != entries.end(); ++it) {
            if (it->key == key) {
                entries.erase(it);
                return true;
            }
        }
        return false;
    }
    // Copies take the entries in the same order; the bucket count is the caller's business.
    void copyEntries(const Model& other) { entries = other.entries; }
};

std::uint32_t hashOf(const std::string& key) {
    std::uint32_t h = 0;
    for (char c : key) {
        h = h ^ (static_cast<std::uint32_t>(static_cast<unsigned char>(c)) ^ (h << 5));
    }
    return h;
}

// What "%s" makes of a realm: everything before the first NUL.
std::string asFormatted(const std::string& text) {
    return text.substr(0, text.find('\0'));
}

void checkGet(const ProvisioningCredentials& store, const Model& model, const std::string& realm) {
    String user("old user");
    String password("old password");
    XCode result = store.get(String(realm), user, password);
    const Entry* found = model.find(realm);
    if (found == nullptr) {
        found = model.find("");
    }
    if (found == nullptr) {
        check(result.getValue() == XCode::GENERIC_FAILURE);
        check(result.getString().str() == "Neither credentials for realm '" + asFormatted(realm) +
                                              "' nor wild-card realm found.");
        check(user == "old user" && password == "old password");
    } else {
        check(result.isSuccess() && !result.hasMessage());
        check(user.str() == found->user && password.str() == found->password);
    }
}

void checkWildCard(const ProvisioningCredentials& store, const Model& model) {
    String user("old user");
    String password("old password");
    XCode result = store.get(user, password);
    const Entry* found = model.find("");
    if (found == nullptr) {
        check(result.getValue() == XCode::GENERIC_FAILURE);
        check(result.getString() == "No credentials for wild-card realm found.");
        check(user == "old user" && password == "old password");
    } else {
        check(result.isSuccess() && !result.hasMessage());
        check(user.str() == found->user && password.str() == found->password);
    }
}

void checkStore(const ProvisioningCredentials& store, const Model& model) {
    for (std::size_t i = 0; i < 10; ++i) {
        checkGet(store, model, poolString(i));
    }
    for (const Entry& entry : model.entries) {
        checkGet(store, model, entry.key);
    }
    checkWildCard(store, model);
}

void checkTable(const Table& table, const Model& model) {
    check(table.size() == model.entries.size());
    check(table.bucketCount() == model.buckets);
    std::vector<String> keys = table.keys();
    check(keys.size() == model.entries.size());
    std::vector<unsigned int> lengths(model.buckets, 0);
    for (std::size_t i = 0; i < keys.size(); ++i) {
        const Entry& entry = model.entries[i];
        check(keys[i].str() == entry.key);
        const unsigned int bucket = hashOf(entry.key) % model.buckets;
        check(table.bucketOfKey(keys[i]) == bucket);
        ++lengths[bucket];
        const Credentials* found = table.find(keys[i]);
        check(found != nullptr && found->user.str() == entry.user &&
              found->password.str() == entry.password);
    }
    for (unsigned int bucket = 0; bucket < model.buckets; ++bucket) {
        check(table.bucketLength(bucket) == lengths[bucket]);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Reader reader(data, size);
    std::unique_ptr<ProvisioningCredentials> stores[SLOTS];
    std::unique_ptr<Table> tables[SLOTS];
    Model storeModels[SLOTS];
    Model tableModels[SLOTS];
    for (std::size_t i = 0; i < SLOTS; ++i) {
        stores[i] = std::make_unique<ProvisioningCredentials>();
        tables[i] = std::make_unique<Table>(TABLE_BUCKETS[i]);
        tableModels[i].buckets = TABLE_BUCKETS[i];
    }

    for (int operation = 0; operation < MAX_OPERATIONS && !reader.atEnd(); ++operation) {
        const std::uint8_t code = reader.byte();
        const std::size_t target = reader.slot();
        switch (code % 8) {
            case 0: {  // add, to the store and to the table
                const std::string realm = reader.text();
                const std::string user = reader.text();
                const std::string password = reader.text();
                XCode result = stores[target]->add(String(realm), String(user), String(password));
                if (storeModels[target].insert(realm, user, password)) {
                    check(result.isSuccess() && !result.hasMessage());
                } else {
                    // The first entry stays as it was (checkStore below).
                    check(result.getValue() == XCode::GENERIC_FAILURE);
                    check(result.getString().str() ==
                          "Credentials for realm '" + asFormatted(realm) + "' already exists.");
                }
                check(
                    tables[target]->insert(String(realm), Credentials{user, password, String()}) ==
                    tableModels[target].insert(realm, user, password));
                break;
            }
            case 1:
                checkGet(*stores[target], storeModels[target], reader.text());
                break;
            case 2:
                checkWildCard(*stores[target], storeModels[target]);
                break;
            case 3: {  // copy construction replaces the target
                const std::size_t source = reader.slot();
                auto storeCopy = std::make_unique<ProvisioningCredentials>(*stores[source]);
                auto tableCopy = std::make_unique<Table>(*tables[source]);
                stores[target] = std::move(storeCopy);
                tables[target] = std::move(tableCopy);
                storeModels[target].copyEntries(storeModels[source]);
                tableModels[target].copyEntries(tableModels[source]);
                tableModels[target].buckets = tableModels[source].buckets;
                break;
            }
            case 4: {  // assignment keeps the target's bucket count
                const std::size_t source = reader.slot();
                *stores[target] = *stores[source];
                *tables[target] = *tables[source];
                storeModels[target].copyEntries(storeModels[source]);
                tableModels[target].copyEntries(tableModels[source]);
                break;
            }
            case 5: {  // table only: remove
                const std::string key = reader.text();
                check(tables[target]->remove(String(key)) == tableModels[target].remove(key));
                break;
            }
            case 6:  // table only: clear
                tables[target]->clear();
                tableModels[target].entries.clear();
                break;
            default:  // destroy and start again empty
                stores[target] = std::make_unique<ProvisioningCredentials>();
                tables[target] = std::make_unique<Table>(TABLE_BUCKETS[target]);
                storeModels[target] = Model();
                tableModels[target] = Model();
                tableModels[target].buckets = TABLE_BUCKETS[target];
                break;
        }
        checkStore(*stores[target], storeModels[target]);
        checkTable(*tables[target], tableModels[target]);
    }
    for (std::size_t i = 0; i < SLOTS; ++i) {
        checkStore(*stores[i], storeModels[i]);
        checkTable(*tables[i], tableModels[i]);
    }
    return 0;
}
