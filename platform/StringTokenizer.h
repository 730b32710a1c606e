#pragma once

#include <vector>

#include "platform/String.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// Splits a text on a set of delimiter characters ("\r\n" splits on either). Pieces between two
// adjacent delimiters are empty tokens and are kept, so "a\r\nb" gives "a", "", "b" with the
// delimiter set "\r\n"; `skipEmpty` drops them. An empty text has no tokens.
class StringTokenizer {
  public:
    StringTokenizer(const String& text, const String& delimiters, bool skipEmpty = false);

    int countTokens() const { return static_cast<int>(tokens_.size()) - next_; }
    bool hasMoreTokens() const { return countTokens() > 0; }
    // The next token, or an empty string when there is none left.
    String nextToken();
    const std::vector<String>& getTokens() const { return tokens_; }

  private:
    std::vector<String> tokens_;
    int next_ = 0;
};

#pragma GCC visibility pop
