#pragma once

#include <vector>

#include "platform/String.h"

namespace Provctl {

// What provctl knows of each job kind: its command's name, whether it sends a file (upload) or
// fetches one, whether the update controller acts on it (firmware, script: the slots follow the
// result), and which of the job's flags it acts on. An option of a flag the kind ignores is not
// offered by its command.
struct JobKind {
    const char* name;
    const char* summary;
    bool upload;
    bool upgrade;
    bool usesReload;   // --reload: the slot bookkeeping after an upgrade
    bool usesCompare;  // --compare: compared with the stored copy first
};

// In the order the help lists them.
const std::vector<JobKind>& JOB_KIND_TABLE();

// Null for a name that is no job kind.
const JobKind* FIND_JOB_KIND(const String& name);

// The valid words of --reload, in the order the help gives them.
const std::vector<String>& RELOAD_WORDS();

}  // namespace Provctl
