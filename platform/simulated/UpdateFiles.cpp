#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "platform/FileNode.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/UpdateSteps.h"

namespace UpdateController {

namespace {

constexpr const char* WORK_DIRECTORY_TEMPLATE = "/tmp/provisioning/.update-XXXXXX";
constexpr int UNIQUE_PART_LENGTH = 6;  // mkdtemp's "XXXXXX"

// The last non-empty line of a tool's output, for error messages.
String lastLine(const String& output) {
    std::vector<String> lines = output.split('\n');
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        String text = *line;
        text.trim();
        if (!text.isEmpty()) {
            return text;
        }
    }
    return String();
}

}  // namespace

String describeToolFailure(const XCode& result, const String& output) {
    String detail = lastLine(output);
    return detail.isEmpty() ? result.toString() : result.toString() + ": " + detail;
}

XCode WorkDirectory::create() {
    String hostTemplate;
    XCode result = Device::MAP_PATH_CHECKED(WORK_DIRECTORY_TEMPLATE, hostTemplate);
    if (result.isErr()) {
        return result;
    }
    std::string name = hostTemplate.str();
    if (::mkdtemp(name.data()) == nullptr) {
        return XCode::SYSTEM_FAILURE(errno, "CANNOT CREATE", WORK_DIRECTORY_TEMPLATE);
    }
    String templateText(WORK_DIRECTORY_TEMPLATE);
    path_ = templateText.substring(0, templateText.length() - UNIQUE_PART_LENGTH) +
            String(name.substr(name.size() - static_cast<std::size_t>(UNIQUE_PART_LENGTH)));
    return XCode(XCode::SUCCESS);
}

void WorkDirectory::remove() {
    if (!path_.isEmpty()) {
        std::error_code ignored;  // what cannot be removed stays; nothing to report it to
        std::filesystem::remove_all(Device::MAP_PATH(path_).str(), ignored);
    }
}

int Descriptor::close() {
    int error = 0;
    if (fd_ >= 0 && ::close(fd_) != 0) {
        error = errno;
    }
    fd_ = -1;
    return error;
}

XCode openRegularFile(const String& path, const char* what, Descriptor& fd, off_t& size) {
    String hostPath;
    XCode mapped = Device::MAP_PATH_CHECKED(path, hostPath);
    if (mapped.isErr()) {
        return mapped;
    }
    fd.reset(::open(hostPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (fd.get() < 0 && errno == ELOOP) {
        return XCode::FAILURE_F("%s IS NOT A FILE", what);
    }
    if (fd.get() < 0) {
        return XCode::SYSTEM_FAILURE(errno, "CANNOT OPEN", path);
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0) {
        return XCode::SYSTEM_FAILURE(errno, "CANNOT READ", path);
    }
    if (!S_ISREG(status.st_mode)) {
        return XCode::FAILURE_F("%s IS NOT A FILE", what);
    }
    size = status.st_size;
    return XCode(XCode::SUCCESS);
}

XCode readText(const String& path, const char* what, String& text) {
    XCode result = FileNode::READ_CAPPED(path, text, FileNode::CONTENT_CAP());
    if (FileNode::IS_TOO_LARGE(result)) {
        return XCode::FAILURE_F("%s TOO LARGE", what);
    }
    if (FileNode::IS_REFUSED(result)) {
        return XCode::FAILURE_F("%s IS NOT A FILE", what);
    }
    return result;
}

}  // namespace UpdateController
