#include "host/JobKinds.h"

namespace Provctl {

const std::vector<JobKind>& JOB_KIND_TABLE() {
    // name, summary, upload, upgrade, usesReload, usesCompare
    static const std::vector<JobKind> kinds = {
        {"config", "download a configuration; store it as startup-config", false, false, false,
         true},
        {"upload", "upload the stored startup configuration", true, false, false, false},
        {"cdr-upload", "upload call detail records", true, false, false, false},
        {"dialplan", "download a dial plan into flash/dialplan/", false, false, false, true},
        {"key", "download the key file into flash/preferences/key", false, false, false, true},
        {"wizard", "download a wizard into flash/wizard/", false, false, false, true},
        {"firmware", "download a firmware archive or manifest and upgrade an image slot", false,
         true, true, true},
        {"script", "download a script and have the update controller run it", false, true, true,
         true},
    };
    return kinds;
}

const JobKind* FIND_JOB_KIND(const String& name) {
    for (const JobKind& kind : JOB_KIND_TABLE()) {
        if (name == kind.name) {
            return &kind;
        }
    }
    return nullptr;
}

const std::vector<String>& RELOAD_WORDS() {
    static const std::vector<String> words = {"none", "immediate", "graceful", "deferred"};
    return words;
}

}  // namespace Provctl
