#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <string>

#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SlotState.h"
#include "platform/simulated/UpdateSteps.h"

namespace UpdateController {

namespace {

constexpr std::size_t COPY_CHUNK = std::size_t{64} * 1024;
// Progress reports per image: one after each quarter.
constexpr unsigned long long PROGRESS_STEPS = 4;

// One image write at a time: the inactive slot is chosen and written under this lock.
std::mutex& slotWriteMutex() {
    static std::mutex mutex;
    return mutex;
}

bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

XCode copyImage(StepContext& context, int source, int destination, unsigned long long total,
                const std::string& temporary) {
    std::unique_ptr<char[]> buffer(new char[COPY_CHUNK]);
    unsigned long long written = 0;
    unsigned long long nextReport = total / PROGRESS_STEPS;
    while (true) {
        XCode stop = context.checkStop();
        if (stop.isErr()) {
            return stop;
        }
        ssize_t count = ::read(source, buffer.get(), COPY_CHUNK);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return XCode::SYSTEM_FAILURE(errno, "CANNOT READ", "image");
        }
        if (count == 0) {
            break;
        }
        if (!writeAll(destination, buffer.get(), static_cast<std::size_t>(count))) {
            return XCode::SYSTEM_FAILURE(errno, "CANNOT WRITE", temporary);
        }
        written += static_cast<unsigned long long>(count);
        if (written >= nextReport && written < total) {
            context.progress(String::format("written %llu of %llu bytes", written, total));
            nextReport += total / PROGRESS_STEPS;
        }
    }
    context.progress(String::format("written %llu of %llu bytes", written, total));
    return XCode(XCode::SUCCESS);
}

// The copy into `temporary`, made durable and renamed over `target`; the temporary goes on
// failure.
XCode replaceSlot(StepContext& context, const Descriptor& source, off_t size,
                  std::string& temporary, const String& target) {
    Descriptor destination(::mkostemp(temporary.data(), O_CLOEXEC));
    if (destination.get() < 0) {
        return XCode::SYSTEM_FAILURE(errno, "CANNOT CREATE", temporary);
    }
    XCode result = copyImage(context, source.get(), destination.get(),
                             static_cast<unsigned long long>(size), temporary);
    if (result.isSuccess() && ::fchmod(destination.get(), 0644) != 0) {
        result = XCode::SYSTEM_FAILURE(errno, "CANNOT WRITE", temporary);
    }
    if (result.isSuccess() && ::fsync(destination.get()) != 0) {
        result = XCode::SYSTEM_FAILURE(errno, "CANNOT WRITE", temporary);
    }
    int closeError = destination.close();
    if (result.isSuccess() && closeError != 0) {
        result = XCode::SYSTEM_FAILURE(closeError, "CANNOT WRITE", temporary);
    }
    if (result.isSuccess() && ::rename(temporary.c_str(), target.c_str()) != 0) {
        result = XCode::SYSTEM_FAILURE(errno, "CANNOT WRITE", target);
    }
    if (result.isErr()) {
        ::unlink(temporary.c_str());
    }
    return result;
}

}  // namespace

XCode WRITE_IMAGE(StepContext& context, const String& imageFile, const String& version,
                  String& summary) {
    XCode result = context.checkStop();
    if (result.isErr()) {
        return result;
    }
    Descriptor source;
    off_t size = 0;
    result = openRegularFile(imageFile, "IMAGE", source, size);
    if (result.isErr()) {
        return result;
    }
    if (Device::ROOT().isEmpty()) {
        return XCode::FAILURE_F("NO DEVICE DIRECTORY SET");
    }
    std::lock_guard<std::mutex> lock(slotWriteMutex());
    SlotState state;
    result = SlotState::LOAD(state);
    if (result.isErr()) {
        return result;
    }
    const unsigned int slot = SlotState::OTHER(state.active);
    const String slots = Device::ROOT() + "/slots";
    result = Device::MAKE_DIRECTORIES(slots);
    if (result.isErr()) {
        return result;
    }
    std::string temporary = String::format("%s/.%u-XXXXXX", slots.c_str(), slot).str();
    result =
        replaceSlot(context, source, size, temporary, String::format("%s/%u", slots.c_str(), slot));
    if (result.isErr()) {
        return result;
    }
    result = SlotState::MODIFY([&](SlotState& changed) { changed.version(slot) = version; });
    if (result.isSuccess()) {
        summary = String::format("image %s written to slot %u", version.c_str(), slot);
    }
    return result;
}

}  // namespace UpdateController
