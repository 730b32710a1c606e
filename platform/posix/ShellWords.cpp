// The shell's words: how a command line is split into a program's arguments, and the one way to
// build a command line from them.
#include "platform/Monitor.h"
#include "platform/Shell.h"

namespace Kt {

std::vector<String> Shell::SPLIT_WORDS(const String& commandLine) {
    std::vector<String> words;
    String word;
    bool inWord = false;
    bool quoted = false;
    for (char c : commandLine.str()) {
        if (c == '"') {
            quoted = !quoted;
            inWord = true;
        } else if (!quoted && (c == ' ' || c == '\t')) {
            if (inWord) {
                words.push_back(word);
                word = String();
                inWord = false;
            }
        } else {
            word += c;
            inWord = true;
        }
    }
    // An unterminated quote runs to the end of the line.
    if (inWord) {
        words.push_back(word);
    }
    return words;
}

XCode Shell::JOIN_WORDS(const std::vector<String>& words, String& commandLine) {
    String joined;
    for (const String& word : words) {
        if (word.indexOf('"') >= 0 || word.indexOf('\0') >= 0) {
            return XCode::FAILURE_F("ARGUMENT CANNOT BE PASSED TO %s: %s", words.front().c_str(),
                                    RTD::Monitor::ESCAPE_CONTROLS(word).c_str());
        }
        const bool quote = word.isEmpty() || word.indexOf(' ') >= 0 || word.indexOf('\t') >= 0;
        if (!joined.isEmpty()) {
            joined += " ";
        }
        joined += quote ? String("\"") + word + "\"" : word;
    }
    commandLine = joined;
    return XCode(XCode::SUCCESS);
}

}  // namespace Kt
