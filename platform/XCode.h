#pragma once

#include <cstdint>
#include <memory>

#include "platform/String.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

using XCodeValue = std::uint32_t;

// A result code: a 31-bit value (0 is success) and an optional message. The top byte of the value
// names a family, the low 24 bits a detail:
//   0x00000000          success
//   0x10 + errno        a system call failed (file, pipe, spawn)
//   0x12 + status       a command ran and exited with a non-zero status
//   0x13 + signal       a command ended abnormally, killed by a signal
//   0x14 + status       an HTTP response with that status
//   0x15 + amount       a command ran past its deadline and was ended (seconds, or
//                       milliseconds when the message says so)
//   0x7FFFFFFF          the generic failure; the message says what failed
// A code without message is the bare value; a message moves value and message into a record that
// the code owns. Copies are deep.
class [[nodiscard]] XCode {
  public:
    static constexpr XCodeValue SUCCESS = 0;
    static constexpr XCodeValue GENERIC_FAILURE = 0x7FFFFFFF;
    static constexpr XCodeValue ERRNO_FAMILY = 0x10;
    static constexpr XCodeValue EXIT_STATUS_FAMILY = 0x12;
    static constexpr XCodeValue SIGNAL_FAMILY = 0x13;
    static constexpr XCodeValue HTTP_FAMILY = 0x14;
    static constexpr XCodeValue DEADLINE_FAMILY = 0x15;

    XCode() = default;
    XCode(XCodeValue value) : value_(value & GENERIC_FAILURE) {}  // NOLINT: codes are values
    XCode(int value) : XCode(static_cast<XCodeValue>(value)) {}   // NOLINT: -1 is generic failure
    XCode(const XCode& other);
    XCode(XCode&& other) noexcept = default;
    XCode& operator=(const XCode& other);
    XCode& operator=(XCode&& other) noexcept = default;
    // Sets the value and drops the message.
    XCode& operator=(XCodeValue value);
    XCode& operator=(int value) { return *this = static_cast<XCodeValue>(value); }
    ~XCode() = default;

    static XCode family(XCodeValue family, XCodeValue detail) {
        return XCode((family << 24) | (detail & 0xFFFFFF));
    }
    static XCode fromErrno(int error);
    // The generic failure, the one spelling of a failure that has no code of its own: without a
    // message, with one, or with one made by printf.
    static XCode FAILURE() { return XCode(GENERIC_FAILURE); }
    static XCode FAILURE(const String& message);
    static XCode FAILURE_F(const char* format, ...) KT_PRINTF(1, 2);
    // A failed system call: errno's code with "<what> <path>: <strerror(error)>" ("<path>:
    // <strerror(error)>" for an empty `what`).
    static XCode SYSTEM_FAILURE(int error, const char* what, const String& path);
    // The system's words for an errno value ("No such file or directory"). Thread-safe, unlike
    // strerror.
    static String REASON(int error);
    static XCode httpStatus(int status) {
        return family(HTTP_FAMILY, static_cast<XCodeValue>(status));
    }

    bool isErr() const { return getValue() != 0; }
    bool isSuccess() const { return getValue() == 0; }
    XCodeValue getValue() const { return record_ ? record_->value : value_; }
    XCodeValue getFamily() const { return getValue() >> 24; }
    XCodeValue getDetail() const { return getValue() & 0xFFFFFF; }
    bool hasMessage() const { return record_ != nullptr; }
    // The message, empty when none was set.
    const String& getString() const { return record_ ? record_->message : String::s_empty; }

    // Replace the message and keep the value.
    XCode& setString(const String& message);
    XCode& setStringF(const char* format, ...) KT_PRINTF(2, 3);
    // Puts `prefix` before the message: an empty prefix changes nothing; with no (or an empty)
    // message the prefix becomes the message; a prefix ending in a blank is joined directly,
    // any other prefix with `separator`.
    XCode& extendString(const String& prefix, const String& separator);
    XCode& set(const XCode& other) { return *this = other; }

    bool isHttpErr(int status) const {
        return getFamily() == HTTP_FAMILY && getDetail() == static_cast<XCodeValue>(status);
    }
    // One line: the message followed by the value in hex, "MESSAGE (0x7FFFFFFF)"; without message
    // a short description of the value's family instead, "EXIT STATUS 1 (0x12000001)".
    String toString() const;

    friend bool operator==(const XCode& a, const XCode& b) { return a.getValue() == b.getValue(); }
    friend bool operator!=(const XCode& a, const XCode& b) { return !(a == b); }

  private:
    struct Record {
        XCodeValue value;
        String message;
    };
    XCodeValue value_ = 0;
    std::unique_ptr<Record> record_;
};

// Success for true, the generic failure (no message) for false.
inline XCode testExpression(bool condition) {
    return condition ? XCode(XCode::SUCCESS) : XCode(XCode::GENERIC_FAILURE);
}

#pragma GCC visibility pop
