#pragma once

#include <map>
#include <vector>

#include "platform/String.h"
#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// One entry of a manifest: its key/value parameters.
class KtManifestEntry {
  public:
    bool hasParam(const String& key) const;
    String getParam(const String& key) const;  // empty when absent
    void setParam(const String& key, const String& value);
    const std::vector<std::pair<String, String>>& params() const { return params_; }

  private:
    std::vector<std::pair<String, String>> params_;  // in order of appearance; later keys win
};

// Manifest text: one key=value per line; the key is trimmed of white space, the value is
// everything after the first '=' up to the line end (a trailing carriage return removed, nothing
// else). Blank lines and lines whose first non-blank character is '#' are ignored; any other line
// without '=' is an error that names its line number, "MANIFEST PARSE ERROR AT LINE <n>: missing
// '='" (and a line with nothing before '=' is one too: "...: missing key"). A new parse()
// replaces what an earlier one found, also when it fails.
class KtManifestParser {
  public:
    [[nodiscard]] XCode parse(const String& text);
    // An error when nothing has been parsed yet or the manifest held no parameter.
    [[nodiscard]] XCode getManifestEntry(KtManifestEntry& entry) const;

  private:
    bool parsed_ = false;
    KtManifestEntry entry_;
};

#pragma GCC visibility pop
