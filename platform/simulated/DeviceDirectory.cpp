#include "platform/simulated/DeviceDirectory.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/posix/ShellControl.h"

namespace Device {

namespace {

// <root>/tmp/provisioning, created 0700 when missing. An existing one keeps its mode and owner:
// CHECK_WORK_DIRECTORY judges it before every use.
XCode makeWorkDirectory() {
    const String hostPath = MAP_PATH("/tmp/provisioning");
    XCode result = MAKE_DIRECTORIES(ROOT() + "/tmp");
    if (result.isErr()) {
        return result;
    }
    if (::mkdir(hostPath.c_str(), 0700) == 0) {
        // Exactly 0700, whatever the process's umask.
        if (::chmod(hostPath.c_str(), 0700) != 0) {
            return XCode::SYSTEM_FAILURE(errno, "CANNOT CREATE DIRECTORY", hostPath);
        }
    } else if (errno != EEXIST) {
        return XCode::SYSTEM_FAILURE(errno, "CANNOT CREATE DIRECTORY", hostPath);
    }
    return XCode::SUCCESS;
}

// A host built against the installed package sees only the contract, which has no notion of a
// device directory: PROV_DEVICE_ROOT in its environment names one, laid out when this library is
// loaded, with BusyBox's applet as the device's tftp. The POSIX backend is a dependency of this
// library and so initialised before it. A later SET_ROOT (provctl's --device) takes over.
struct DeviceFromEnvironment {
    DeviceFromEnvironment() {
        // Read while the library is loaded, before the host can start a thread.
        const char* root = std::getenv(ROOT_VARIABLE);  // NOLINT(concurrency-mt-unsafe)
        if (root == nullptr || *root == '\0') {
            return;
        }
        SET_ROOT(root);
        Kt::ShellControl::SET_TOOL("tftp", {"busybox", "tftp"});
        XCode prepared = MAKE_DIRECTORIES(root);
        if (prepared.isSuccess()) {
            prepared = PREPARE();
        }
        if (prepared.isErr()) {
            // No caller to return it to: the jobs then fail on the missing directories.
            std::fprintf(stderr, "%s=%s: %s\n", ROOT_VARIABLE, root, prepared.toString().c_str());
        }
    }
};

const DeviceFromEnvironment DEVICE_FROM_ENVIRONMENT;

}  // namespace

XCode PREPARE() {
    const String& root = ROOT();
    if (root.isEmpty()) {
        return XCode::FAILURE("NO DEVICE DIRECTORY SET");
    }
    const char* const directories[] = {"/flash",
                                       "/flash/dialplan",
                                       "/flash/preferences",
                                       "/flash/wizard",
                                       "/flash/provisioning",
                                       "/config",
                                       "/slots",
                                       "/status"};
    for (const char* directory : directories) {
        XCode result = MAKE_DIRECTORIES(root + directory);
        if (result.isErr()) {
            return result;
        }
    }
    return makeWorkDirectory();
}

}  // namespace Device
