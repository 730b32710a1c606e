#pragma once

#include <functional>

#include "platform/String.h"
#include "platform/XCode.h"

// The simulated device as its hosts (provctl) drive it: exported.
#pragma GCC visibility push(default)

// The state of the simulated device's two image slots, kept in the device directory's
// "slots/state". Shared by the update controller (which records the version it wrote into a
// slot) and the host (which applies the job's image action and "restarts" into the next slot).
//
// File format, one "key=value" per line, in this order when written:
//   active=1           slot that runs now (1 or 2)
//   next=1             slot that starts next (1 or 2)
//   version.1=X 1.2 7  version held in slot 1 (everything after the first '='), empty when none
//   version.2=
// On reading, blanks around a key and its value, empty lines and lines starting with '#' are
// skipped, and a missing key keeps its default. A file that someone edited by hand is checked:
// a line without '=', an unknown key, a key given twice and an active or next slot other than 1
// or 2 are refused ("<path>:<line>: <what>", naming the key). A missing file is the state of a
// new device: both slots empty, active 1, next 1.
//
// Thread-safe within the process: every operation holds one lock; MODIFY holds it across the
// read, the change and the write. Writes replace the file atomically.
struct SlotState {
    unsigned int active = 1;
    unsigned int next = 1;
    String version1;
    String version2;

    // The version of slot 1 or 2 (slot 1 for any other number).
    const String& version(unsigned int slot) const { return slot == 2 ? version2 : version1; }
    String& version(unsigned int slot) { return slot == 2 ? version2 : version1; }
    // The slot that is not `slot`: 2 for 1, 1 for anything else.
    static unsigned int OTHER(unsigned int slot) { return slot == 1 ? 2 : 1; }

    // "<device root>/slots/state".
    static String PATH();
    // Parses the text of the file named `path` (for the messages) into `state`; on an error
    // `state` stays as it was.
    [[nodiscard]] static XCode PARSE(const String& path, const String& text, SlotState& state);
    String toText() const;

    // The current state; a missing file gives the defaults with success. An unreadable file, a
    // symbolic link to nothing and a file that PARSE refuses are errors and leave `state` as it
    // was.
    [[nodiscard]] static XCode LOAD(SlotState& state);
    // Replaces the file with `state`.
    [[nodiscard]] static XCode STORE(const SlotState& state);
    // Loads, calls `change`, stores; nothing is written when loading fails.
    [[nodiscard]] static XCode MODIFY(const std::function<void(SlotState&)>& change);
};

#pragma GCC visibility pop
