#include "platform/StringTokenizer.h"

StringTokenizer::StringTokenizer(const String& text, const String& delimiters, bool skipEmpty) {
    if (text.isEmpty()) {
        return;
    }
    const std::string& chars = text.str();
    const std::string& set = delimiters.str();
    std::size_t start = 0;
    while (true) {
        std::size_t end = chars.find_first_of(set, start);
        std::size_t stop = end == std::string::npos ? chars.size() : end;
        if (!skipEmpty || stop > start) {
            tokens_.emplace_back(chars.substr(start, stop - start));
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
}

String StringTokenizer::nextToken() {
    if (!hasMoreTokens()) {
        return String();
    }
    return tokens_[static_cast<std::size_t>(next_++)];
}
