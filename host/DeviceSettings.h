#pragma once

#include <map>
#include <utility>
#include <vector>

#include "expression/ExpressionResolver.h"
#include "host/CommandLine.h"
#include "platform/String.h"
#include "platform/XCode.h"
#include "transfer/ProvisioningCredentials.h"

namespace Provctl {

// What the host knows about the simulated device besides its directory: the device values, the
// HTTP credentials and the HTTPS settings. Read from <device>/device.toml, then overridden by the
// command line. Every error of this file is a usage error (exit status 2).
struct DeviceSettings {
    struct Credential {
        String user;
        String password;
        String host;  // empty: any host; else the only host that the credential is sent to
    };

    // NAME -> value in the order given; a later entry of the same name wins.
    std::vector<std::pair<String, String>> values;
    // Realm -> credential; the empty realm is the wild-card.
    std::map<String, Credential> credentials;
    bool httpsGiven = false;
    String httpsCa;
    String httpsCert;
    String httpsKey;
    // Glob patterns of the commands that the simulated running system refuses.
    std::vector<String> rejectedCommands;
};

// The directory used without --device: $XDG_STATE_HOME/provctl/device, else
// $HOME/.local/state/provctl/device, else "./provctl-device".
String DEFAULT_DEVICE_DIRECTORY();

// Reads a device.toml. A missing file leaves `settings` empty and succeeds; a symbolic link to
// nothing, a directory or anything else that is not a regular file is an error. Layout:
//   [values]        "system.mac" = "00a0ba0b0c0d"   (names as for --set; a quoted key and the
//                   same name unquoted, system.mac = ..., are one value and may not both be
//                   given). Strings; the numbers among them (system.hw.major, system.hw.minor,
//                   system.sw.major, system.sw.minor, system.sw.build, cli.major, cli.minor) may
//                   be non-negative integers as well
//   [credentials]   "realm" = { user = "u", password = "p" }; the realm "*" (or "", not both) is
//                   the wild-card; with host = "h" the credential is sent to that host only
// A file that holds a password is refused unless it is owned by the effective user and neither
// group nor others may read or write it.
//   [https]         ca = "...", cert = "...", key = "..."
//   [cli]           reject = ["ipaddress 999.*", "no *"]   (strings only)
// Nothing else: another table or key, a value of another type and a credential without user or
// password are errors (PARSE_DEVICE_FILE in DeviceFile.h says how they are reported).
[[nodiscard]] XCode LOAD_DEVICE_FILE(const String& path, DeviceSettings& settings);

// Puts --set, the credentials file, --credential and --https-auth over what the file gave, in
// this order.
[[nodiscard]] XCode APPLY_COMMAND_LINE(const Options& options, DeviceSettings& settings);

// Reads REALM:USER:PASSWORD lines (empty lines and lines starting with '#' are skipped) from
// `path`, or from standard input when `path` is "-". A file is refused unless only its owner
// (the effective user) may read or write it. Later lines win over earlier ones of a realm.
[[nodiscard]] XCode LOAD_CREDENTIALS_FILE(const String& path, DeviceSettings& settings);

// Writes the values into the resolver; an unknown name, and a value that holds "$(", is an error
// naming it. This is the one place where the values of --set and device.toml (DHCP options 66
// and 67 among them) reach the resolver.
[[nodiscard]] XCode FILL_RESOLVER(const DeviceSettings& settings, ExpressionResolver& resolver);

// Adds every credential to the store.
[[nodiscard]] XCode FILL_CREDENTIALS(const DeviceSettings& settings,
                                     ProvisioningCredentials& credentials);

}  // namespace Provctl
