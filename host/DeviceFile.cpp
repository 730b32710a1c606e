#include "host/DeviceFile.h"

#include <toml++/toml.h>
#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "host/Suggestion.h"

namespace Provctl {

namespace {

using Position = toml::source_position;

const std::vector<String> TABLES = {"values", "credentials", "https", "cli"};
const std::vector<String> CREDENTIAL_KEYS = {"user", "password", "host"};
const std::vector<String> HTTPS_KEYS = {"ca", "cert", "key"};
const std::vector<String> CLI_KEYS = {"reject"};
// The device values that are numbers (conditional expressions compare them): an integer is
// taken for them as well as a string.
const std::vector<String> NUMERIC_VALUES = {"system.hw.major", "system.hw.minor", "system.sw.major",
                                            "system.sw.minor", "system.sw.build", "cli.major",
                                            "cli.minor"};

bool contains(const std::vector<String>& words, const String& word) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

const std::vector<String>& valueNames() {
    static const std::vector<String> names = [] {
        std::vector<String> all;
        for (std::size_t index = 0; ExpressionResolver::VALUE_NAME_AT(index) != nullptr; ++index) {
            all.emplace_back(ExpressionResolver::VALUE_NAME_AT(index));
        }
        return all;
    }();
    return names;
}

String join(const std::vector<String>& words) {
    String text;
    for (const String& word : words) {
        text += text.isEmpty() ? word : ", " + word;
    }
    return text;
}

bool before(const Position& a, const Position& b) {
    return a.line < b.line || (a.line == b.line && a.column < b.column);
}

String keyText(const toml::key& key) {
    return String(std::string(key.str()));
}

// A key as a dotted path shows it: bare where TOML allows, else quoted.
String pathPart(const String& key) {
    const std::string& text = key.str();
    const bool bare = !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '_' || c == '-';
    });
    return bare ? key : "\"" + key + "\"";
}

const char* typeName(const toml::node& node) {
    switch (node.type()) {
        case toml::node_type::table:
            return "a table";
        case toml::node_type::array:
            return "an array";
        case toml::node_type::string:
            return "a string";
        case toml::node_type::integer:
            return "an integer";
        case toml::node_type::floating_point:
            return "a float";
        case toml::node_type::boolean:
            return "a boolean";
        case toml::node_type::date:
            return "a date";
        case toml::node_type::time:
            return "a time";
        case toml::node_type::date_time:
            return "a date-time";
        case toml::node_type::none:
            break;
    }
    return "nothing";
}

// One entry of [values], whichever way its name was spelt.
struct ValueEntry {
    String name;
    const toml::node* node;
    Position where;
};

// Walks a parsed device file. Every problem is noted and the one that comes first in the file is
// reported, so that the message does not depend on the order in which toml++ keeps its tables.
class Reader {
  public:
    explicit Reader(const String& path) : path_(path) {}

    XCode read(const toml::table& root, DeviceSettings& settings);

  private:
    void problem(const Position& where, const String& what);
    bool knownKeys(const toml::table& table, const String& prefix,
                   const std::vector<String>& known);
    const toml::table* table(const toml::key& key, const toml::node& node, const String& name);
    const std::string* string(const toml::table& table, const char* key, const String& prefix);
    void collectValues(const toml::table& table, const String& prefix,
                       std::vector<ValueEntry>& entries);
    void readValue(const ValueEntry& entry, DeviceSettings& settings);
    void readValues(const toml::table& values, DeviceSettings& settings);
    void readCredential(const toml::key& key, const toml::node& node, DeviceSettings& settings);
    void readCredentials(const toml::table& credentials, DeviceSettings& settings);
    void readHttps(const toml::table& https, DeviceSettings& settings);
    void readCli(const toml::table& cli, DeviceSettings& settings);

    String path_;
    bool failed_ = false;
    Position where_{};
    String what_;
};

void Reader::problem(const Position& where, const String& what) {
    if (!failed_ || before(where, where_)) {
        failed_ = true;
        where_ = where;
        what_ = what;
    }
}

// Notes every key of `table` that is not one of `known`; false when there was one.
bool Reader::knownKeys(const toml::table& table, const String& prefix,
                       const std::vector<String>& known) {
    bool allKnown = true;
    for (const auto& [key, node] : table) {
        const String name = keyText(key);
        if (!contains(known, name)) {
            problem(key.source().begin,
                    String::format("unknown key '%s%s' (known: %s)%s", prefix.c_str(),
                                   pathPart(name).c_str(), join(known).c_str(),
                                   DID_YOU_MEAN(name, known).c_str()));
            allKnown = false;
        }
    }
    return allKnown;
}

const toml::table* Reader::table(const toml::key& key, const toml::node& node, const String& name) {
    const toml::table* table = node.as_table();
    if (table == nullptr) {
        problem(key.source().begin,
                String::format("'%s' must be a table, not %s", name.c_str(), typeName(node)));
    }
    return table;
}

// The string at `key` of `table`; null when there is none (a problem is noted for another type).
const std::string* Reader::string(const toml::table& table, const char* key, const String& prefix) {
    const auto found = table.find(key);
    if (found == table.end()) {
        return nullptr;
    }
    const toml::node& node = found->second;
    if (!node.is_string()) {
        problem(found->first.source().begin, String::format("'%s%s' must be a string, not %s",
                                                            prefix.c_str(), key, typeName(node)));
        return nullptr;
    }
    return &node.as_string()->get();
}

// Keys written unquoted (system.mac = "x") arrive as nested tables; both spellings name the same
// value. An empty table is an entry of its own, refused as a value of the wrong type.
void Reader::collectValues(const toml::table& table, const String& prefix,
                           std::vector<ValueEntry>& entries) {
    for (const auto& [key, node] : table) {
        const String name = prefix + keyText(key);
        const toml::table* nested = node.as_table();
        if (nested != nullptr && !nested->empty()) {
            collectValues(*nested, name + ".", entries);
        } else {
            entries.push_back({name, &node, key.source().begin});
        }
    }
}

void Reader::readValue(const ValueEntry& entry, DeviceSettings& settings) {
    if (!contains(valueNames(), entry.name)) {
        problem(entry.where, String::format("unknown device value '%s'%s", entry.name.c_str(),
                                            DID_YOU_MEAN(entry.name, valueNames()).c_str()));
        return;
    }
    const bool numeric = contains(NUMERIC_VALUES, entry.name);
    const toml::node& node = *entry.node;
    if (node.is_string()) {
        settings.values.emplace_back(entry.name, String(node.as_string()->get()));
        return;
    }
    String found = typeName(node);
    if (numeric && node.is_integer()) {
        const std::int64_t number = node.as_integer()->get();
        if (number >= 0) {
            settings.values.emplace_back(entry.name, String(std::to_string(number)));
            return;
        }
        found = String(std::to_string(number));
    }
    problem(entry.where,
            String::format("device value '%s' must be a string%s, not %s", entry.name.c_str(),
                           numeric ? " or a non-negative integer" : "", found.c_str()));
}

void Reader::readValues(const toml::table& values, DeviceSettings& settings) {
    std::vector<ValueEntry> entries;
    collectValues(values, String(), entries);
    std::sort(entries.begin(), entries.end(),
              [](const ValueEntry& a, const ValueEntry& b) { return before(a.where, b.where); });
    std::map<String, Position> first;
    for (const ValueEntry& entry : entries) {
        const auto [earlier, fresh] = first.emplace(entry.name, entry.where);
        if (!fresh) {
            problem(entry.where,
                    String::format("device value '%s' given twice (lines %u and %u)",
                                   entry.name.c_str(), earlier->second.line, entry.where.line));
            continue;
        }
        readValue(entry, settings);
    }
}

void Reader::readCredential(const toml::key& key, const toml::node& node,
                            DeviceSettings& settings) {
    const String realm = keyText(key);
    const String name = "credentials." + pathPart(realm);
    const toml::table* entry = table(key, node, name);
    // A misspelt key is reported rather than the key it leaves missing.
    if (entry == nullptr || !knownKeys(*entry, name + ".", CREDENTIAL_KEYS)) {
        return;
    }
    const std::string* user = string(*entry, "user", name + ".");
    const std::string* password = string(*entry, "password", name + ".");
    const std::string* host = string(*entry, "host", name + ".");
    for (const char* field : {"user", "password"}) {
        if (!entry->contains(field)) {
            problem(key.source().begin, String::format("'%s' has no '%s'", name.c_str(), field));
        }
    }
    if (user != nullptr && password != nullptr) {
        settings.credentials[realm == "*" ? String() : realm] = {
            String(*user), String(*password), host != nullptr ? String(*host) : String()};
    }
}

void Reader::readCredentials(const toml::table& credentials, DeviceSettings& settings) {
    for (const auto& [key, node] : credentials) {
        readCredential(key, node, settings);
    }
    const auto star = credentials.find("*");
    const auto empty = credentials.find("");
    if (star != credentials.end() && empty != credentials.end()) {
        Position a = star->first.source().begin;
        Position b = empty->first.source().begin;
        if (before(b, a)) {
            std::swap(a, b);
        }
        problem(b, String::format("the wild-card realm given twice, as \"*\" and \"\" "
                                  "(lines %u and %u)",
                                  a.line, b.line));
    }
}

void Reader::readHttps(const toml::table& https, DeviceSettings& settings) {
    static_cast<void>(knownKeys(https, "https.", HTTPS_KEYS));
    settings.httpsGiven = true;
    String* fields[] = {&settings.httpsCa, &settings.httpsCert, &settings.httpsKey};
    for (std::size_t index = 0; index < HTTPS_KEYS.size(); ++index) {
        const std::string* text = string(https, HTTPS_KEYS[index].c_str(), "https.");
        *fields[index] = text != nullptr ? String(*text) : String();
    }
}

// A misspelt key would leave every command accepted without a word: only "reject" is known.
void Reader::readCli(const toml::table& cli, DeviceSettings& settings) {
    static_cast<void>(knownKeys(cli, "cli.", CLI_KEYS));
    const auto reject = cli.find("reject");
    if (reject == cli.end()) {
        return;
    }
    const toml::array* patterns = reject->second.as_array();
    if (patterns == nullptr) {
        problem(reject->first.source().begin,
                String::format("'cli.reject' must be an array of strings, not %s",
                               typeName(reject->second)));
        return;
    }
    for (std::size_t index = 0; index < patterns->size(); ++index) {
        const toml::node& pattern = *patterns->get(index);
        if (!pattern.is_string()) {
            problem(pattern.source().begin,
                    String::format("'cli.reject' must be an array of strings; item %zu is %s",
                                   index + 1, typeName(pattern)));
            continue;
        }
        settings.rejectedCommands.emplace_back(pattern.as_string()->get());
    }
}

XCode Reader::read(const toml::table& root, DeviceSettings& settings) {
    for (const auto& [key, node] : root) {
        const String name = keyText(key);
        if (!contains(TABLES, name)) {
            problem(key.source().begin,
                    String::format("unknown %s '%s' (known: %s)%s",
                                   node.is_table() ? "table" : "key", pathPart(name).c_str(),
                                   join(TABLES).c_str(), DID_YOU_MEAN(name, TABLES).c_str()));
            continue;
        }
        const toml::table* content = table(key, node, name);
        if (content == nullptr) {
            continue;
        }
        if (name == "values") {
            readValues(*content, settings);
        } else if (name == "credentials") {
            readCredentials(*content, settings);
        } else if (name == "https") {
            readHttps(*content, settings);
        } else {
            readCli(*content, settings);
        }
    }
    if (!failed_) {
        return XCode::SUCCESS;
    }
    return XCode::FAILURE_F("%s:%u:%u: %s", path_.c_str(), where_.line, where_.column,
                            what_.c_str());
}

}  // namespace

XCode PARSE_DEVICE_FILE(const String& path, const String& text, DeviceSettings& settings) {
    // toml++ reports through exceptions; they end here.
    try {
        toml::table root = toml::parse(text.str(), path.str());
        return Reader(path).read(root, settings);
    } catch (const toml::parse_error& error) {
        const Position where = error.source().begin;
        XCode result = XCode::FAILURE();
        if (where.line == 0) {
            result.setStringF("%s: %s", path.c_str(), std::string(error.description()).c_str());
        } else {
            result.setStringF("%s:%u:%u: %s", path.c_str(), where.line, where.column,
                              std::string(error.description()).c_str());
        }
        return result;
    }
}

}  // namespace Provctl
