#pragma once

#include "engine/ProvisioningJob.h"
#include "platform/KtFile.h"

// What the dial-plan, key and wizard jobs share: reading the work file, comparing it with the
// copy in flash and replacing that copy whole.
namespace FlashFile {

// The whole work file, up to the platform's content cap (FileNode::CONTENT_CAP); on failure the
// error carries "Cannot read content of downloaded file" (and the reason of a refusal).
[[nodiscard]] XCode READ_DOWNLOADED(const String& workFile, String& content);
// The whole file at `devicePath` ("/flash/...").
[[nodiscard]] XCode READ_STORED(const String& devicePath, String& content);
// Replaces the file at `devicePath` with `content` (flags 577, one blocking write). A new file
// gets `mode`; a replaced one keeps its own. The old file stays intact when this fails. A path
// whose last component is empty, "." or ".." is refused, and so is a symbolic link.
[[nodiscard]] XCode STORE(const String& devicePath, const String& content,
                          unsigned int mode = KtFile::MODE_SHARED);
// The comparison of a content job: true when `compare` is set and `target` holds exactly
// `downloaded`. Logs on MON_PROV "[name] No stored <what>: <reason>", "[name] Downloaded and
// stored <equal> are equal" or, without `compare`, "[name] No <what> comparison is done".
bool UNCHANGED(const char* name, bool compare, const String& target, const String& downloaded,
               const char* what, const char* equal);
// The part of `text` after its last `separator` (all of it when there is none).
String LAST_COMPONENT(const String& text, char separator);

}  // namespace FlashFile
