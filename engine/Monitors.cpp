#include "engine/ProvLog.h"

RTD::Monitor* MON_PROV = nullptr;
RTD::Monitor* MON_XFER = nullptr;

namespace ProvLog {

void log(RTD::Monitor* monitor, int level, const char* format, ...) {
    if (monitor == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    monitor->vmonitor(level, format, args);
    va_end(args);
}

void progress(const char* format, ...) {
    if (MON_PROV == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    MON_PROV->vmonitor(LEVEL_PROGRESS, format, args);
    va_end(args);
}

void progressPrefixed(const String& prefix, const String& text) {
    if (MON_PROV != nullptr) {
        MON_PROV->monitorPrefix(LEVEL_PROGRESS, prefix, "%s", text.c_str());
    }
}

void executionFailed(const String& name, const XCode& result) {
    if (MON_PROV != nullptr) {
        MON_PROV->monitor(LEVEL_FAILURE, "[%s] EXECUTION FAILED: %s", name.c_str(),
                          result.toString().c_str());
    }
}

}  // namespace ProvLog
