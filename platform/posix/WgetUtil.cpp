#include "platform/WgetUtil.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <initializer_list>
#include <string>

#include "platform/posix/DevicePaths.h"

// The options and the reasons for each are in docs/WGET.md; keep the two in step.
namespace WgetUtil {

const char* const SECRETS_DIRECTORY_PREFIX = "/tmp/provisioning/.wget-";

namespace {

const char* const CREDENTIALS_FILE = "wgetrc";
const char* const CA_DIRECTORY = "ca";
const char* const CONFIG_OPTION = "--config=";
const char* const CA_DIRECTORY_OPTION = "--ca-directory=";
// mkdtemp's template suffix.
constexpr int UNIQUE_PART_LENGTH = 6;

// The shell splits the command line into words at blanks and removes double quotes, and the
// client quotes an argument that holds a blank; a '"' could not survive that, a line break or NUL
// not the trip through exec.
bool isValidArgument(const String& argument) {
    for (char c : argument.str()) {
        if (c == '"' || c == '\n' || c == '\r' || c == '\0') {
            return false;
        }
    }
    return true;
}

// wget's configuration lines end at a line break and lose white space at both ends of the value;
// anything else (blanks inside, quotes, '#', '=') reaches the server as it stands.
XCode checkCredential(const String& value) {
    for (char c : value.str()) {
        if (c == '\n' || c == '\r' || c == '\0') {
            return XCode::FAILURE("INVALID CHARACTER IN WGET CREDENTIALS");
        }
    }
    auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    if (!value.isEmpty() && (isSpace(value.at(0)) || isSpace(value.at(value.length() - 1)))) {
        return XCode::FAILURE("WHITE SPACE AROUND WGET CREDENTIALS");
    }
    return XCode();
}

// The arguments keep the device paths; the shell maps them when wget starts. A path that the
// mapping would refuse is refused here already, before any private file exists.
XCode checkPath(const String& devicePath) {
    String ignored;
    return devicePath.isEmpty() ? XCode() : Device::MAP_PATH_CHECKED(devicePath, ignored);
}

// The private directory of one wget run: mode 0700, a fresh name under the work directory (which
// the platform prepares; it is never created here). `directory` is its device path.
XCode makePrivateDirectory(String& directory) {
    const String pattern = String(SECRETS_DIRECTORY_PREFIX) + "XXXXXX";
    String hostPattern;
    XCode result = Device::MAP_PATH_CHECKED(pattern, hostPattern);
    if (result.isErr()) {
        return result;
    }
    std::string made = hostPattern.str();
    if (::mkdtemp(&made[0]) == nullptr) {
        return XCode::SYSTEM_FAILURE(errno, "CANNOT CREATE", pattern);
    }
    directory = String(SECRETS_DIRECTORY_PREFIX) +
                String(made.substr(made.size() - static_cast<std::size_t>(UNIQUE_PART_LENGTH)));
    return XCode();
}

XCode writeCredentials(const String& devicePath, const String& user, const String& password) {
    const String path = Device::MAP_PATH(devicePath);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return XCode::SYSTEM_FAILURE(errno, "CANNOT CREATE", path);
    }
    String content = String("http_user = ") + user + "\nhttp_password = " + password + "\n";
    const char* data = content.data();
    std::size_t left = static_cast<std::size_t>(content.length());
    while (left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            int error = written < 0 ? errno : EIO;
            ::close(fd);
            ::unlink(path.c_str());
            return XCode::SYSTEM_FAILURE(error, "CANNOT WRITE", path);
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    if (::close(fd) != 0) {
        int error = errno;
        ::unlink(path.c_str());
        return XCode::SYSTEM_FAILURE(error, "CANNOT WRITE", path);
    }
    return XCode();
}

// The private directory named by an option value "<dir>/<leaf>", or empty when the value is not
// a path that buildArgs made.
String privateDirectoryOf(const String& value, const char* leaf) {
    String prefix(SECRETS_DIRECTORY_PREFIX);
    String suffix = String("/") + leaf;
    if (!value.startsWith(prefix) || !value.endsWith(suffix) ||
        value.length() != prefix.length() + UNIQUE_PART_LENGTH + suffix.length()) {
        return String();
    }
    String directory = value.substring(0, value.length() - suffix.length());
    if (directory.substring(prefix.length()).indexOf('/') >= 0) {
        return String();
    }
    return directory;
}

}  // namespace

XCode checkCredentials(const String& user, const String& password) {
    XCode result = checkCredential(user);
    if (result.isSuccess()) {
        result = checkCredential(password);
    }
    return result;
}

namespace {

// Every value that reaches wget's command line, checked before anything is created.
XCode checkValues(const String& url, const String& user, const String& password,
                  const String& output, const String& caCertificate, const String& certificate,
                  const String& privateKey, const String& extra) {
    if (output.isEmpty() || output == "-") {
        return XCode::FAILURE("NO OUTPUT FILE FOR WGET");
    }
    XCode result;
    for (const String* path : {&output, &caCertificate, &certificate, &privateKey}) {
        if (result.isSuccess()) {
            result = checkPath(*path);
        }
    }
    if (result.isErr()) {
        return result;
    }
    for (const String* value : std::initializer_list<const String*>{
             &url, &output, &caCertificate, &certificate, &privateKey, &extra}) {
        if (!isValidArgument(*value)) {
            return XCode::FAILURE("INVALID CHARACTER IN WGET ARGUMENT");
        }
    }
    if (!user.isEmpty() || !password.isEmpty()) {
        return checkCredentials(user, password);
    }
    return result;
}

// The HTTPS options: the CA certificate (with the private directory of its hashed copies, made
// when `create`) and the client's certificate and key.
XCode appendHttps(std::vector<String>& built, const String& privateDirectory, bool create,
                  const String& caCertificate, const String& certificate,
                  const String& privateKey) {
    XCode result;
    if (!caCertificate.isEmpty()) {
        String path = privateDirectory + "/" + CA_DIRECTORY;
        built.push_back(String("--ca-certificate=") + caCertificate);
        built.push_back(String(CA_DIRECTORY_OPTION) + path);
        if (create && ::mkdir(Device::MAP_PATH(path).c_str(), 0700) != 0) {
            result = XCode::SYSTEM_FAILURE(errno, "CANNOT CREATE", path);
        }
    }
    if (!certificate.isEmpty()) {
        built.push_back(String("--certificate=") + certificate);
    }
    if (!privateKey.isEmpty()) {
        built.push_back(String("--private-key=") + privateKey);
    }
    return result;
}

}  // namespace

XCode buildArgs(bool quiet, const String& url, const String& user, const String& password,
                const String& outFile, const String& https1, const String& https2,
                const String& https3, bool followRedirects, std::vector<String>& args,
                const String& extra) {
    args.clear();
    XCode result = checkValues(url, user, password, outFile, https1, https2, https3, extra);
    if (result.isErr()) {
        return result;
    }
    const bool sendCredentials = !user.isEmpty() || !password.isEmpty();
    String privateDirectory;
    if (sendCredentials || !https1.isEmpty()) {
        result = makePrivateDirectory(privateDirectory);
        if (result.isErr()) {
            return result;
        }
    }
    std::vector<String> built = {quiet ? "-q" : "-nv", "-S"};
    if (sendCredentials) {
        String path = privateDirectory + "/" + CREDENTIALS_FILE;
        built.push_back(String(CONFIG_OPTION) + path);
        result = writeCredentials(path, user, password);
    } else {
        built.push_back("--no-config");
    }
    for (const char* option :
         {"--no-netrc", "--no-proxy", "--no-hsts", "--tries=1", "--timeout=30"}) {
        built.push_back(option);
    }
    if (!followRedirects) {
        built.push_back("--max-redirect=0");
    }
    built.push_back("-O");
    built.push_back(outFile);
    XCode https = appendHttps(built, privateDirectory, result.isSuccess(), https1, https2, https3);
    if (result.isSuccess()) {
        result = https;
    }
    if (!extra.isEmpty()) {
        built.push_back(extra);
    }
    built.push_back("--");
    built.push_back(url);
    if (result.isErr()) {
        RELEASE_SECRETS(built);
        return result;
    }
    args = std::move(built);
    return result;
}

void RELEASE_SECRETS(const std::vector<String>& args) {
    for (const String& arg : args) {
        if (arg.startsWith(CONFIG_OPTION)) {
            String path =
                arg.substring(static_cast<int>(std::char_traits<char>::length(CONFIG_OPTION)));
            String directory = privateDirectoryOf(path, CREDENTIALS_FILE);
            if (!directory.isEmpty()) {
                // Already gone is fine: the release may run more than once.
                ::unlink(Device::MAP_PATH(path).c_str());
                ::rmdir(Device::MAP_PATH(directory).c_str());
            }
        } else if (arg.startsWith(CA_DIRECTORY_OPTION)) {
            String path = arg.substring(
                static_cast<int>(std::char_traits<char>::length(CA_DIRECTORY_OPTION)));
            String directory = privateDirectoryOf(path, CA_DIRECTORY);
            if (!directory.isEmpty()) {
                ::rmdir(Device::MAP_PATH(path).c_str());
                ::rmdir(Device::MAP_PATH(directory).c_str());
            }
        }
    }
}

}  // namespace WgetUtil
