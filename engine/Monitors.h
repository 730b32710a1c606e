#pragma once

#include "platform/Monitor.h"
#include "platform/XCode.h"

// The two monitors this library exports; the host sets them (null logs nothing).
extern RTD::Monitor* MON_PROV;  // job and transfer progress
extern RTD::Monitor* MON_XFER;  // one line per acted-on transfer

namespace ProvLog {

constexpr int LEVEL_FAILURE = 3;   // the failure of a whole job
constexpr int LEVEL_PROGRESS = 6;  // progress and the failure of one location

// Each returns at once when the monitor is null.
void log(RTD::Monitor* monitor, int level, const char* format, ...) KT_PRINTF(3, 4);
// Level 6 on MON_PROV.
void progress(const char* format, ...) KT_PRINTF(1, 2);
// Level 6 on MON_PROV: `prefix` followed by `text`, the text never used as a format.
void progressPrefixed(const String& prefix, const String& text);
// Level 3 on MON_PROV: "[name] EXECUTION FAILED: <result.toString()>".
void executionFailed(const String& name, const XCode& result);

}  // namespace ProvLog
