#include "host/Attempts.h"

#include "platform/StringTokenizer.h"

namespace Provctl {

namespace {

// The text after the first "] " of a "[name] text" line; empty for another line.
String afterTag(const String& text) {
    if (!text.startsWith("[")) {
        return String();
    }
    const int end = text.indexOf("] ");
    return end < 0 ? String() : text.substring(end + 2);
}

bool takeAfter(const String& text, const char* head, String& rest) {
    if (!text.startsWith(head)) {
        return false;
    }
    rest = text.substring(static_cast<int>(String(head).length()));
    return true;
}

// wget's answer to a failed request ("HTTP/1.1 404 Not Found", with -S) or its own complaint;
// every other line it prints is a header.
bool isHttpToolError(const String& line) {
    return line.startsWith("HTTP/") || line.startsWith("wget:");
}

String trimmed(const String& text) {
    String copy = text;
    copy.trim();
    return copy;
}

}  // namespace

void AttemptLog::onLine(const String& tag, const String& text) {
    if (tag != "PROV") {
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    String rest;
    if (takeAfter(text, "[TFTP] ", rest)) {
        // BusyBox's tftp writes its progress bar and its complaints ("tftp: timeout") alike.
        const StringTokenizer pieces(rest, "\r\n");
        for (const String& piece : pieces.getTokens()) {
            if (trimmed(piece).startsWith("tftp:")) {
                onToolLine(piece);
            }
        }
        return;
    }
    const int end = text.indexOf("] ");
    if (text.startsWith("[") && end > 0 && text.substring(0, end).endsWith("/HTTP")) {
        const String line = trimmed(afterTag(text));
        if (isHttpToolError(line)) {
            onToolLine(line);
        }
        return;
    }
    onProgress(afterTag(text));
}

void AttemptLog::onProgress(const String& body) {
    String rest;
    if (takeAfter(body, "Trying to download from location ", rest) ||
        takeAfter(body, "Trying to upload to location ", rest)) {
        attempts_.push_back(Attempt{rest, "not finished", String(), String(), String()});
        return;
    }
    if (attempts_.empty()) {
        return;
    }
    Attempt& current = attempts_.back();
    if (takeAfter(body, "Redirected: ", rest)) {
        // "'<from>' -> '<to>'"
        const int arrow = rest.indexOf("' -> '");
        if (arrow >= 0 && rest.endsWith("'")) {
            current.redirectedTo = rest.substring(arrow + 6, rest.length() - 1);
        }
    } else if (takeAfter(body, "DOWNLOAD LOCATION FAILED: ", rest)) {
        current.outcome = "failed";
        // "<location>: <reason>"; the location may hold ": " itself, so it is skipped by length.
        const String head =
            (current.redirectedTo.isEmpty() ? current.location : current.redirectedTo) + ": ";
        current.reason = rest.startsWith(head.c_str()) ? rest.substring(head.length()) : rest;
    } else if (body.startsWith("File downloaded: ") || body.startsWith("File uploaded : ")) {
        current.outcome = "transferred";
    }
}

void AttemptLog::onToolLine(const String& line) {
    const String clean = trimmed(line);
    if (!attempts_.empty() && !clean.isEmpty()) {
        attempts_.back().toolLine = clean;
    }
}

std::vector<Attempt> AttemptLog::attempts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return attempts_;
}

String AttemptLog::lastToolLine() const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto attempt = attempts_.rbegin(); attempt != attempts_.rend(); ++attempt) {
        if (attempt->outcome == "failed") {
            return attempt->toolLine;
        }
    }
    return String();
}

}  // namespace Provctl
