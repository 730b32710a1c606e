#include "host/Files.h"

#include <fcntl.h>

#include "platform/KtFile.h"

namespace Provctl {

XCode READ_FILE(const String& path, String& content) {
    return KtFile::READ_TEXT_FILE<String>(path, content, KtFile::READ_ONLY, false, true);
}

}  // namespace Provctl
