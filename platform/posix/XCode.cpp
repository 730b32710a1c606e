#include "platform/XCode.h"

#include <cstring>

XCode::XCode(const XCode& other) : value_(other.value_) {
    if (other.record_) {
        record_ = std::make_unique<Record>(*other.record_);
    }
}

XCode& XCode::operator=(const XCode& other) {
    if (this != &other) {
        value_ = other.value_;
        record_ = other.record_ ? std::make_unique<Record>(*other.record_) : nullptr;
    }
    return *this;
}

XCode& XCode::operator=(XCodeValue value) {
    value_ = value & GENERIC_FAILURE;
    record_.reset();
    return *this;
}

namespace {

// strerror_r comes in two forms: the GNU one returns the text, the XSI one fills the buffer.
[[maybe_unused]] const char* reasonText(const char* text, const char* /*buffer*/) {
    return text;
}

[[maybe_unused]] const char* reasonText(int failed, const char* buffer) {
    return failed == 0 ? buffer : "Unknown error";
}

}  // namespace

String XCode::REASON(int error) {
    char buffer[256] = {};
    return String(reasonText(::strerror_r(error, buffer, sizeof buffer), buffer));
}

XCode XCode::fromErrno(int error) {
    XCode code = family(ERRNO_FAMILY, static_cast<XCodeValue>(error));
    return code.setString(REASON(error).c_str());
}

XCode XCode::FAILURE(const String& message) {
    XCode code(GENERIC_FAILURE);
    return code.setString(message);
}

XCode XCode::FAILURE_F(const char* format, ...) {
    va_list args;
    va_start(args, format);
    XCode code(GENERIC_FAILURE);
    code.setString(String::vformat(format, args));
    va_end(args);
    return code;
}

XCode XCode::SYSTEM_FAILURE(int error, const char* what, const String& path) {
    XCode code = family(ERRNO_FAMILY, static_cast<XCodeValue>(error));
    if (what == nullptr || *what == '\0') {
        return code.setStringF("%s: %s", path.c_str(), REASON(error).c_str());
    }
    return code.setStringF("%s %s: %s", what, path.c_str(), REASON(error).c_str());
}

XCode& XCode::setString(const String& message) {
    if (record_) {
        record_->message = message;
    } else {
        record_ = std::make_unique<Record>(Record{value_, message});
        value_ = 0;
    }
    return *this;
}

XCode& XCode::setStringF(const char* format, ...) {
    va_list args;
    va_start(args, format);
    String message = String::vformat(format, args);
    va_end(args);
    return setString(message);
}

XCode& XCode::extendString(const String& prefix, const String& separator) {
    if (prefix.isEmpty()) {
        return *this;
    }
    if (getString().isEmpty()) {
        return setString(prefix);
    }
    if (prefix.endsWith(" ")) {
        return setString(prefix + getString());
    }
    return setString(prefix + separator + getString());
}

namespace {

String describeValue(XCodeValue value) {
    XCodeValue family = value >> 24;
    int detail = static_cast<int>(value & 0xFFFFFF);
    if (value == XCode::SUCCESS) {
        return "SUCCESS";
    }
    if (value == XCode::GENERIC_FAILURE) {
        return "GENERIC FAILURE";
    }
    switch (family) {
        case XCode::ERRNO_FAMILY:
            return String::format("SYSTEM ERROR %d: %s", detail, XCode::REASON(detail).c_str());
        case XCode::EXIT_STATUS_FAMILY:
            return String::format("EXIT STATUS %d", detail);
        case XCode::SIGNAL_FAMILY:
            return String::format("KILLED BY SIGNAL %d", detail);
        case XCode::HTTP_FAMILY:
            return String::format("HTTP STATUS %d", detail);
        case XCode::DEADLINE_FAMILY:
            return String::format("DID NOT FINISH WITHIN %d", detail);
        default:
            return "ERROR";
    }
}

}  // namespace

String XCode::toString() const {
    const String& message = getString();
    String text = message.isEmpty() ? describeValue(getValue()) : message;
    return text.concatf(" (0x%08X)", getValue());
}
