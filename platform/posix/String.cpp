#include "platform/String.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>

const String String::s_empty;

namespace {

std::size_t clampPosition(int position, std::size_t size) {
    if (position <= 0) {
        return 0;
    }
    return std::min(static_cast<std::size_t>(position), size);
}

int toPosition(std::size_t found) {
    return found == std::string::npos ? -1 : static_cast<int>(found);
}

}  // namespace

String::String(const char* text) : text_(text != nullptr ? text : "") {}

String String::format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    String result = vformat(format, args);
    va_end(args);
    return result;
}

String String::vformat(const char* format, va_list args) {
    char stackBuffer[256];
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, format, copy);
    va_end(copy);
    if (needed < 0) {
        return String();
    }
    if (static_cast<std::size_t>(needed) < sizeof stackBuffer) {
        return String(stackBuffer, static_cast<std::size_t>(needed));
    }
    std::string text(static_cast<std::size_t>(needed) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, args);
    text.resize(static_cast<std::size_t>(needed));
    return String(std::move(text));
}

String& String::concatf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    append(vformat(format, args));
    va_end(args);
    return *this;
}

int String::indexOf(char c, int start) const {
    return toPosition(text_.find(c, clampPosition(start, text_.size())));
}

int String::indexOf(const String& text, int start) const {
    if (start > length()) {
        return -1;
    }
    return toPosition(text_.find(text.text_, clampPosition(start, text_.size())));
}

int String::lastIndexOf(char c) const {
    return toPosition(text_.rfind(c));
}

int String::lastIndexOf(const String& text, int start) const {
    if (start < 0) {
        return toPosition(text_.rfind(text.text_));
    }
    return toPosition(text_.rfind(text.text_, static_cast<std::size_t>(start)));
}

bool String::startsWith(const String& prefix) const {
    return text_.compare(0, prefix.text_.size(), prefix.text_) == 0;
}

bool String::endsWith(const String& suffix) const {
    return text_.size() >= suffix.text_.size() &&
           text_.compare(text_.size() - suffix.text_.size(), suffix.text_.size(), suffix.text_) ==
               0;
}

String String::substring(int from) const {
    return String(text_.substr(clampPosition(from, text_.size())));
}

String String::substring(int from, int to) const {
    std::size_t begin = clampPosition(from, text_.size());
    std::size_t end = clampPosition(to, text_.size());
    if (end <= begin) {
        return String();
    }
    return String(text_.substr(begin, end - begin));
}

String& String::deleteRegion(int start, int count) {
    std::size_t begin = clampPosition(start, text_.size());
    if (count > 0) {
        text_.erase(begin, static_cast<std::size_t>(count));
    }
    return *this;
}

String& String::insert(int position, const String& text) {
    text_.insert(clampPosition(position, text_.size()), text.text_);
    return *this;
}

String& String::append(const String& text) {
    text_.append(text.text_);
    return *this;
}

String& String::append(const char* data, std::size_t length) {
    text_.append(data, length);
    return *this;
}

String& String::trim() {
    auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    auto first = std::find_if_not(text_.begin(), text_.end(), isSpace);
    auto last = std::find_if_not(text_.rbegin(), text_.rend(), isSpace).base();
    text_ = first < last ? std::string(first, last) : std::string();
    return *this;
}

String& String::toUpperCase() {
    for (char& c : text_) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return *this;
}

String& String::toLowerCase() {
    for (char& c : text_) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return *this;
}

bool String::isNumeric() const {
    if (text_.empty()) {
        return false;
    }
    unsigned long long value = 0;
    for (char c : text_) {
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + static_cast<unsigned long long>(c - '0');
        if (value > 4294967295ULL) {
            return false;
        }
    }
    return true;
}

int String::toInteger() const {
    std::size_t position = 0;
    bool negative = false;
    if (!text_.empty() && (text_[0] == '-' || text_[0] == '+')) {
        negative = text_[0] == '-';
        position = 1;
    }
    if (position == text_.size()) {
        return -1;
    }
    long long value = 0;
    for (; position < text_.size(); ++position) {
        char c = text_[position];
        if (c < '0' || c > '9') {
            return -1;
        }
        value = value * 10 + (c - '0');
        if (value > INT_MAX) {
            return -1;
        }
    }
    return static_cast<int>(negative ? -value : value);
}

unsigned int String::toUnsigned() const {
    return isNumeric() ? static_cast<unsigned int>(std::stoull(text_)) : 0U;
}

bool String::split(char separator, String& left, String& right) const {
    std::size_t found = text_.find(separator);
    if (found == std::string::npos) {
        return false;
    }
    String head(text_.substr(0, found));
    String tail(text_.substr(found + 1));
    left = std::move(head);
    right = std::move(tail);
    return true;
}

std::vector<String> String::split(char separator) const {
    std::vector<String> pieces;
    std::size_t begin = 0;
    while (true) {
        std::size_t found = text_.find(separator, begin);
        if (found == std::string::npos) {
            pieces.emplace_back(text_.substr(begin));
            return pieces;
        }
        pieces.emplace_back(text_.substr(begin, found - begin));
        begin = found + 1;
    }
}
