#pragma once

#include <memory>
#include <vector>

#include "engine/ProvisioningJob.h"
#include "platform/KtEventLoop.h"
#include "platform/String.h"
#include "platform/XCode.h"

namespace Provctl {

struct JobRequest;

// Builds the job of a request with its kind's own constructor; null with `error` set when the
// device cannot give what the constructor needs (the firmware job's slot state).
using JobFactory = std::unique_ptr<ProvisioningJob> (*)(const JobRequest& request,
                                                        KtEventLoop& loop,
                                                        ProvisioningJob::CallbackHandler& handler,
                                                        XCode& error);

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
    JobFactory build;
};

// In the order the help lists them.
const std::vector<JobKind>& JOB_KIND_TABLE();

// Null for a name that is no job kind.
const JobKind* FIND_JOB_KIND(const String& name);

// The valid words of --reload, in the order the help gives them.
const std::vector<String>& RELOAD_WORDS();

}  // namespace Provctl
