#include "host/DeviceSettings.h"

#include <toml++/toml.h>
#include <cstdlib>
#include <string>

#include "platform/posix/PrivateFile.h"

namespace Provctl {

namespace {

// Far more than any device file or credentials file needs.
constexpr std::size_t MAX_SETTINGS_FILE = 1024 * 1024;

XCode usageError(const char* format, const String& a, const String& b = String()) {
    XCode error(XCode::GENERIC_FAILURE);
    error.setStringF(format, a.c_str(), b.c_str());
    return error;
}

// Keys written unquoted (system.mac = "x") arrive as nested tables; both spellings name the
// same value.
XCode collectValues(const toml::table& table, const String& prefix, const String& path,
                    DeviceSettings& settings) {
    for (const auto& [key, node] : table) {
        String name = prefix + String(std::string(key.str()));
        if (const toml::table* nested = node.as_table()) {
            XCode result = collectValues(*nested, name + ".", path, settings);
            if (result.isErr()) {
                return result;
            }
            continue;
        }
        const std::optional<std::string> value = node.value<std::string>();
        if (!node.is_string() || !value) {
            return usageError("%s: [values] %s is not a string", path, name);
        }
        settings.values.emplace_back(name, String(*value));
    }
    return XCode::SUCCESS;
}

String stringField(const toml::node_view<const toml::node>& node) {
    return String(node.value_or(std::string()));
}

XCode checkString(const toml::table& table, const char* key, const String& where,
                  const String& path) {
    const toml::node* node = table.get(key);
    if (node != nullptr && !node->is_string()) {
        return usageError("%s: %s is not a string", path, where + "." + key);
    }
    return XCode::SUCCESS;
}

// A misspelt key would leave every command accepted without a word: only "reject" is known.
XCode readCli(const toml::node& cli, const String& path, DeviceSettings& settings) {
    const toml::table* table = cli.as_table();
    if (table == nullptr) {
        return usageError("%s: cli is not a table", path);
    }
    for (const auto& entry : *table) {
        if (entry.first.str() != "reject") {
            return usageError("%s: cli.%s is not a known key (known: reject)", path,
                              String(std::string(entry.first.str())));
        }
    }
    const toml::node* reject = table->get("reject");
    if (reject == nullptr) {
        return XCode::SUCCESS;
    }
    const toml::array* patterns = reject->as_array();
    if (patterns == nullptr) {
        return usageError("%s: cli.reject is not an array of strings", path);
    }
    for (const toml::node& pattern : *patterns) {
        const std::optional<std::string> text = pattern.value<std::string>();
        if (!pattern.is_string() || !text) {
            return usageError("%s: cli.reject is not an array of strings", path);
        }
        settings.rejectedCommands.emplace_back(*text);
    }
    return XCode::SUCCESS;
}

XCode readTables(const toml::table& root, const String& path, DeviceSettings& settings) {
    if (const toml::node* values = root.get("values")) {
        if (!values->is_table()) {
            return usageError("%s: values is not a table", path);
        }
        XCode result = collectValues(*values->as_table(), String(), path, settings);
        if (result.isErr()) {
            return result;
        }
    }
    if (const toml::node* credentials = root.get("credentials")) {
        if (!credentials->is_table()) {
            return usageError("%s: credentials is not a table", path);
        }
        for (const auto& [key, node] : *credentials->as_table()) {
            String realm(std::string(key.str()));
            const toml::table* entry = node.as_table();
            if (entry == nullptr) {
                return usageError("%s: [credentials] '%s' is not a table", path, realm);
            }
            for (const char* field : {"user", "password", "host"}) {
                XCode result = checkString(*entry, field, "credentials." + realm, path);
                if (result.isErr()) {
                    return result;
                }
            }
            if (realm == "*") {
                realm = String();
            }
            toml::node_view<const toml::node> view(entry);
            settings.credentials[realm] = {stringField(view["user"]), stringField(view["password"]),
                                           stringField(view["host"])};
        }
    }
    if (const toml::node* https = root.get("https")) {
        const toml::table* table = https->as_table();
        if (table == nullptr) {
            return usageError("%s: https is not a table", path);
        }
        for (const char* field : {"ca", "cert", "key"}) {
            XCode result = checkString(*table, field, "https", path);
            if (result.isErr()) {
                return result;
            }
        }
        toml::node_view<const toml::node> view(table);
        settings.httpsGiven = true;
        settings.httpsCa = stringField(view["ca"]);
        settings.httpsCert = stringField(view["cert"]);
        settings.httpsKey = stringField(view["key"]);
    }
    if (const toml::node* cli = root.get("cli")) {
        return readCli(*cli, path, settings);
    }
    return XCode::SUCCESS;
}

bool holdsPasswords(const DeviceSettings& settings) {
    for (const auto& entry : settings.credentials) {
        if (!entry.second.password.isEmpty()) {
            return true;
        }
    }
    return false;
}

// A file with passwords that others may read (or replace) gives them away: refused.
XCode checkOwnerOnly(const String& path, const PrivateFile::Access& access) {
    if (access.ownerOnly()) {
        return XCode::SUCCESS;
    }
    XCode error(XCode::GENERIC_FAILURE);
    error.setStringF(
        "%s holds passwords but has mode %04o and owner uid %u: it must be owned by "
        "uid %u and readable and writable by its owner only (chmod 600 %s)",
        path.c_str(), access.mode, access.owner, access.effectiveUser, path.c_str());
    return error;
}

XCode parseDeviceFile(const String& path, const String& text, DeviceSettings& settings) {
    // toml++ reports through exceptions; they end here.
    try {
        toml::table root = toml::parse(text.str(), path.str());
        return readTables(root, path, settings);
    } catch (const toml::parse_error& error) {
        const toml::source_position where = error.source().begin;
        XCode result(XCode::GENERIC_FAILURE);
        result.setStringF("%s:%u:%u: %s", path.c_str(), where.line, where.column,
                          std::string(error.description()).c_str());
        return result;
    }
}

// One REALM:USER:PASSWORD; the password is everything after the second ':'.
bool splitCredential(const String& text, String& realm, DeviceSettings::Credential& credential) {
    String rest;
    credential = DeviceSettings::Credential();
    return text.split(':', realm, rest) && rest.split(':', credential.user, credential.password);
}

XCode parseCredentialLines(const String& what, const String& text, DeviceSettings& settings) {
    std::vector<String> lines = text.split('\n');
    for (std::size_t index = 0; index < lines.size(); ++index) {
        String line = lines[index];
        if (line.endsWith("\r")) {
            line = line.substring(0, line.length() - 1);
        }
        if (line.isEmpty() || line.startsWith("#")) {
            continue;
        }
        String realm;
        DeviceSettings::Credential credential;
        if (!splitCredential(line, realm, credential)) {
            // The line itself is not shown: it may hold a password.
            XCode error(XCode::GENERIC_FAILURE);
            error.setStringF("%s:%u: expected REALM:USER:PASSWORD", what.c_str(),
                             static_cast<unsigned int>(index + 1));
            return error;
        }
        settings.credentials[realm] = credential;
    }
    return XCode::SUCCESS;
}

}  // namespace

String DEFAULT_DEVICE_DIRECTORY() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') {
        return String(state) + "/provctl/device";
    }
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] != '\0') {
        return String(home) + "/.local/state/provctl/device";
    }
    return "provctl-device";
}

XCode LOAD_DEVICE_FILE(const String& path, DeviceSettings& settings) {
    String text;
    PrivateFile::Access access;
    bool exists = false;
    XCode result = PrivateFile::READ(path, MAX_SETTINGS_FILE, text, access, exists);
    if (result.isErr() || !exists) {
        return result;
    }
    DeviceSettings fromFile;
    result = parseDeviceFile(path, text, fromFile);
    if (result.isSuccess() && holdsPasswords(fromFile)) {
        result = checkOwnerOnly(path, access);
    }
    if (result.isSuccess()) {
        settings = std::move(fromFile);
    }
    return result;
}

XCode LOAD_CREDENTIALS_FILE(const String& path, DeviceSettings& settings) {
    String text;
    XCode result;
    String what = path;
    if (path == "-") {
        what = "standard input";
        result = PrivateFile::READ_STANDARD_INPUT(MAX_SETTINGS_FILE, text);
    } else {
        PrivateFile::Access access;
        bool exists = false;
        result = PrivateFile::READ(path, MAX_SETTINGS_FILE, text, access, exists);
        if (result.isSuccess() && !exists) {
            result = usageError("%s: no such file", path);
        }
        if (result.isSuccess()) {
            result = checkOwnerOnly(path, access);
        }
    }
    if (result.isSuccess()) {
        result = parseCredentialLines(what, text, settings);
    }
    if (result.isErr()) {
        result.extendString("--credentials-file", ": ");
    }
    return result;
}

XCode APPLY_COMMAND_LINE(const Options& options, DeviceSettings& settings) {
    for (const String& assignment : options.sets) {
        String name;
        String value;
        if (!assignment.split('=', name, value) || name.isEmpty()) {
            return usageError("--set %s: expected NAME=VALUE", assignment);
        }
        settings.values.emplace_back(name, value);
    }
    if (!options.credentialsFile.isEmpty()) {
        XCode result = LOAD_CREDENTIALS_FILE(options.credentialsFile, settings);
        if (result.isErr()) {
            return result;
        }
    }
    for (const String& text : options.credentials) {
        String realm;
        DeviceSettings::Credential credential;
        if (!splitCredential(text, realm, credential)) {
            // The value is not echoed: a malformed one may still hold a password.
            return usageError("--credential: expected REALM:USER:PASSWORD%s", String());
        }
        settings.credentials[realm] = credential;
    }
    if (options.httpsAuthGiven) {
        settings.httpsGiven = true;
        settings.httpsCa = options.caCertificate;
        settings.httpsCert = options.certificate;
        settings.httpsKey = options.privateKey;
    }
    return XCode::SUCCESS;
}

XCode FILL_RESOLVER(const DeviceSettings& settings, ExpressionResolver& resolver) {
    for (const auto& [name, value] : settings.values) {
        String* slot = ExpressionResolver::VALUE_BY_NAME(resolver, name);
        if (slot == nullptr) {
            return usageError("unknown device value '%s'", name);
        }
        if (ExpressionResolver::HOLDS_EXPRESSION(value)) {
            // The resolver would take it for an expression and resolve it again, without end.
            return usageError(
                "device value '%s' may not hold \"$(\" (it would be resolved as an "
                "expression)",
                name);
        }
        *slot = value;
    }
    return XCode::SUCCESS;
}

XCode FILL_CREDENTIALS(const DeviceSettings& settings, ProvisioningCredentials& credentials) {
    for (const auto& [realm, credential] : settings.credentials) {
        XCode result =
            credentials.add(realm, credential.user, credential.password, credential.host);
        if (result.isErr()) {
            return result;
        }
    }
    return XCode::SUCCESS;
}

}  // namespace Provctl
