#pragma once

#include "platform/Export.h"
#include "platform/Monitor.h"

// The two monitors this library exports; the host sets them (null logs nothing).
extern PROV_API RTD::Monitor* MON_PROV;  // job and transfer progress
extern PROV_API RTD::Monitor* MON_XFER;  // one line per acted-on transfer

namespace ProvLog {

// The levels the engine writes at: a host that shows only failures sets its monitors to 3.
constexpr int LEVEL_FAILURE = 3;   // the failure of a whole job
constexpr int LEVEL_PROGRESS = 6;  // progress and the failure of one location

}  // namespace ProvLog
