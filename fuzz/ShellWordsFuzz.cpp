// libFuzzer target for Kt::Shell::SPLIT_WORDS, the word splitter behind every command the
// platform shell runs.
//
// Input: a command line. Checked:
// - the words hold no '"' (quotes only group); without quotes they are the non-empty pieces
//   between blanks and tabs;
// - joining the words as the HTTP client builds wget's command line (" \"%s\"" for a word holding
//   a blank or a tab, " %s" otherwise) splits back to the same words, but for empty words, which
//   that join writes as nothing and so loses (the client's arguments are never empty but for an
//   empty URL); quoting empty words as well keeps them.
// The same is checked for the input read as a list of words separated by NUL, less any '"' (which
// WgetUtil::buildArgs refuses in an argument).

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/Shell.h"

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool holdsBlank(const std::string& word) {
    return word.find(' ') != std::string::npos || word.find('\t') != std::string::npos;
}

// The HTTP client's join; `quoteEmpty` also writes an empty word as "".
std::string join(const std::vector<std::string>& words, bool quoteEmpty) {
    std::string line = "wget";
    for (const std::string& word : words) {
        bool quote = holdsBlank(word) || (quoteEmpty && word.empty());
        line += quote ? " \"" + word + "\"" : " " + word;
    }
    return line;
}

// Without quotes, the words are the non-empty pieces between blanks and tabs.
std::vector<std::string> piecesBetweenBlanks(const std::string& line) {
    std::vector<std::string> pieces;
    std::string piece;
    for (char c : line) {
        if (c == ' ' || c == '\t') {
            if (!piece.empty()) {
                pieces.push_back(piece);
            }
            piece.clear();
        } else {
            piece += c;
        }
    }
    if (!piece.empty()) {
        pieces.push_back(piece);
    }
    return pieces;
}

std::vector<std::string> split(const std::string& line) {
    std::vector<std::string> words;
    for (const String& word : Kt::Shell::SPLIT_WORDS(String(line))) {
        words.push_back(word.str());
    }
    return words;
}

void checkRoundTrip(const std::vector<std::string>& words) {
    std::vector<std::string> withProgram{"wget"};
    std::vector<std::string> nonEmpty{"wget"};
    for (const std::string& word : words) {
        withProgram.push_back(word);
        if (!word.empty()) {
            nonEmpty.push_back(word);
        }
    }
    const std::string line = join(words, false);
    check(split(line) == nonEmpty);
    check(split(join(words, true)) == withProgram);
    // Without empty words, joining what came back gives the same line again.
    if (nonEmpty.size() == withProgram.size()) {
        check(join(std::vector<std::string>(nonEmpty.begin() + 1, nonEmpty.end()), false) == line);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);

    const std::vector<std::string> words = split(input);
    if (input.find('"') == std::string::npos) {
        check(words == piecesBetweenBlanks(input));
    }
    for (const std::string& word : words) {
        check(word.find('"') == std::string::npos);
    }
    checkRoundTrip(words);

    std::vector<std::string> listed;
    std::string word;
    for (char c : input) {
        if (c == '\0') {
            listed.push_back(word);
            word.clear();
        } else if (c != '"') {
            word += c;
        }
    }
    listed.push_back(word);
    checkRoundTrip(listed);
    return 0;
}
