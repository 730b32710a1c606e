#include "host/DeviceSettings.h"

#include <cstdlib>

#include "host/DeviceFile.h"
#include "platform/posix/PrivateFile.h"

namespace Provctl {

namespace {

// Far more than any device file or credentials file needs.
constexpr std::size_t MAX_SETTINGS_FILE = 1024 * 1024;

XCode usageError(const char* format, const String& a, const String& b = String()) {
    return XCode::FAILURE_F(format, a.c_str(), b.c_str());
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
    return XCode::FAILURE_F(
        "%s holds passwords but has mode %04o and owner uid %u: it must be owned by "
        "uid %u and readable and writable by its owner only (chmod 600 %s)",
        path.c_str(), access.mode, access.owner, access.effectiveUser, path.c_str());
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
            return XCode::FAILURE_F("%s:%u: expected REALM:USER:PASSWORD", what.c_str(),
                                    static_cast<unsigned int>(index + 1));
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
    result = PARSE_DEVICE_FILE(path, text, fromFile);
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
