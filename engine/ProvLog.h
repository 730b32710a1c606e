#pragma once

#include "engine/Monitors.h"
#include "platform/String.h"
#include "platform/XCode.h"

// The engine's writers of MON_PROV and MON_XFER lines.
namespace ProvLog {

// Each returns at once when the monitor is null.
void log(RTD::Monitor* monitor, int level, const char* format, ...) KT_PRINTF(3, 4);
// Level 6 on MON_PROV.
void progress(const char* format, ...) KT_PRINTF(1, 2);
// Level 6 on MON_PROV: `prefix` followed by `text`, the text never used as a format.
void progressPrefixed(const String& prefix, const String& text);
// Level 3 on MON_PROV: "[name] EXECUTION FAILED: <result.toString()>".
void executionFailed(const String& name, const XCode& result);

}  // namespace ProvLog
