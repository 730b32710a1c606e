#pragma once

#include <cstdarg>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

#define KT_PRINTF(fmtIndex, argIndex) __attribute__((format(printf, fmtIndex, argIndex)))

// The platform's byte string: bytes with a known length (embedded NULs allowed), printf-style
// formatting and the search and edit operations the engine uses. Positions are ints; -1 means
// "not found". Out-of-range positions are clamped rather than undefined.
class String {
  public:
    static const String s_empty;

    String() = default;
    String(const char* text);  // NOLINT: implicit on purpose, literals are Strings everywhere
    String(const char* data, std::size_t length) : text_(data, length) {}
    String(std::string text) : text_(std::move(text)) {}  // NOLINT

    static String format(const char* format, ...) KT_PRINTF(1, 2);
    static String vformat(const char* format, va_list args);
    String& concatf(const char* format, ...) KT_PRINTF(2, 3);

    const char* c_str() const { return text_.c_str(); }
    const char* data() const { return text_.data(); }
    int length() const { return static_cast<int>(text_.size()); }
    bool isEmpty() const { return text_.empty(); }
    // '\0' outside the text.
    char at(int position) const {
        return position >= 0 && position < length() ? text_[static_cast<std::size_t>(position)]
                                                    : '\0';
    }
    const std::string& str() const { return text_; }
    std::string& str() { return text_; }

    int indexOf(char c, int start = 0) const;
    int indexOf(const String& text, int start = 0) const;
    int lastIndexOf(char c) const;
    // Last occurrence that begins at or before `start` (default: anywhere).
    int lastIndexOf(const String& text, int start = -1) const;
    bool startsWith(const String& prefix) const;
    bool endsWith(const String& suffix) const;

    String substring(int from) const;
    // Characters from `from` up to, not including, `to`.
    String substring(int from, int to) const;
    // Removes `count` characters starting at `start`.
    String& deleteRegion(int start, int count);
    String& insert(int position, const String& text);
    String& append(const String& text);
    String& append(const char* data, std::size_t length);
    // Removes white space (isspace) at both ends.
    String& trim();
    String& toUpperCase();
    String& toLowerCase();

    // Decimal digits only, at least one, value at most 4294967295.
    bool isNumeric() const;
    // The decimal value (optional leading '-' or '+'), or -1 when the text is not a number.
    int toInteger() const;
    unsigned int toUnsigned() const;

    // Splits at the first `separator`: false (and both outputs untouched) when there is none.
    // Either output may be this string itself.
    bool split(char separator, String& left, String& right) const;
    // Splits at every `separator`; empty pieces are kept.
    std::vector<String> split(char separator) const;

    String& operator+=(const String& other) { return append(other); }
    String& operator+=(char c) {
        text_.push_back(c);
        return *this;
    }
    friend String operator+(String left, const String& right) { return left += right; }
    friend bool operator==(const String& a, const String& b) { return a.text_ == b.text_; }
    friend bool operator!=(const String& a, const String& b) { return a.text_ != b.text_; }
    friend bool operator<(const String& a, const String& b) { return a.text_ < b.text_; }

  private:
    std::string text_;
};

template <>
struct std::hash<String> {
    std::size_t operator()(const String& s) const noexcept {
        return std::hash<std::string>()(s.str());
    }
};

#pragma GCC visibility pop
