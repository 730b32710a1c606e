#include "host/DeviceSettings.h"

#include <toml++/toml.h>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace Provctl {

namespace {

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
            for (const char* field : {"user", "password"}) {
                XCode result = checkString(*entry, field, "credentials." + realm, path);
                if (result.isErr()) {
                    return result;
                }
            }
            if (realm == "*") {
                realm = String();
            }
            toml::node_view<const toml::node> view(entry);
            settings.credentials[realm] = {stringField(view["user"]),
                                           stringField(view["password"])};
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
    std::error_code ignored;
    if (!std::filesystem::exists(path.str(), ignored)) {
        return XCode::SUCCESS;
    }
    // toml++ reports through exceptions; they end here.
    try {
        toml::table root = toml::parse_file(path.str());
        return readTables(root, path, settings);
    } catch (const toml::parse_error& error) {
        const toml::source_position where = error.source().begin;
        XCode result(XCode::GENERIC_FAILURE);
        result.setStringF("%s:%u:%u: %s", path.c_str(), where.line, where.column,
                          std::string(error.description()).c_str());
        return result;
    }
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
    for (const String& credential : options.credentials) {
        String realm;
        String rest;
        String user;
        String password;
        if (!credential.split(':', realm, rest) || !rest.split(':', user, password)) {
            return usageError("--credential %s: expected REALM:USER:PASSWORD", credential);
        }
        settings.credentials[realm] = {user, password};
    }
    if (options.httpsAuthGiven) {
        std::vector<String> parts = options.httpsAuth.split(',');
        if (parts.size() != 3) {
            return usageError("--https-auth %s: expected CA,CERT,KEY", options.httpsAuth);
        }
        settings.httpsGiven = true;
        settings.httpsCa = parts[0];
        settings.httpsCert = parts[1];
        settings.httpsKey = parts[2];
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
        XCode result = credentials.add(realm, credential.user, credential.password);
        if (result.isErr()) {
            return result;
        }
    }
    return XCode::SUCCESS;
}

}  // namespace Provctl
