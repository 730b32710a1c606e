#pragma once

#include <vector>

#include "platform/String.h"

namespace Provctl {

// "; did you mean 'values'?" when exactly one of `known` is the closest to `word` and differs
// from it by at most two edits (one for words of up to four letters; an edit inserts, deletes or
// replaces a letter or swaps two neighbours); else empty.
String DID_YOU_MEAN(const String& word, const std::vector<String>& known);

}  // namespace Provctl
