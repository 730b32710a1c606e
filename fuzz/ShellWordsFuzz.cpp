// libFuzzer target for the platform shell's two halves: Kt::Shell::SPLIT_WORDS, the word splitter
// behind every command the platform runs, and Kt::Shell::JOIN_WORDS, the one builder of command
// lines, which every caller (tftp, wget, tar, the update controller's fetches) uses.
//
// Input: a command line. Checked:
// - the words hold no '"' (quotes only group); without quotes they are the non-empty pieces
//   between blanks and tabs;
// - JOIN_WORDS of those words is accepted (unless one holds a NUL) and splits back to exactly the
//   same words, and joining again gives the same line;
// The input is also read as a list of words separated by NUL: JOIN_WORDS refuses the list exactly
// when a word holds a '"' (leaving its output as it was), and otherwise splits back to the list,
// empty words and blanks included.

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

std::vector<String> toStrings(const std::vector<std::string>& words) {
    std::vector<String> strings;
    for (const std::string& word : words) {
        strings.emplace_back(word);
    }
    return strings;
}

// JOIN_WORDS refuses exactly the lists with a '"' or a NUL in a word; what it accepts splits back.
void checkRoundTrip(const std::vector<std::string>& words) {
    bool passable = !words.empty();
    for (const std::string& word : words) {
        passable =
            passable && word.find('"') == std::string::npos && word.find('\0') == std::string::npos;
    }
    String line("unchanged");
    const XCode joined = Kt::Shell::JOIN_WORDS(toStrings(words), line);
    if (words.empty()) {
        return;
    }
    check(joined.isSuccess() == passable);
    if (!passable) {
        check(line == "unchanged");
        return;
    }
    check(split(line.str()) == words);
    String again;
    check(Kt::Shell::JOIN_WORDS(Kt::Shell::SPLIT_WORDS(line), again).isSuccess());
    check(again == line);
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
        } else {
            word += c;
        }
    }
    listed.push_back(word);
    checkRoundTrip(listed);
    return 0;
}
