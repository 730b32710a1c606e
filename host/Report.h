#pragma once

#include <nlohmann/json.hpp>

#include "host/JobRunner.h"

namespace Provctl {

// The outcome as one JSON object:
// {"ok", "value", "message", "text", "imageAction", "activation", "postUpgrade",
//  "followUp": {"pending", "mode", "command", "arguments"}, "statusLocation"}.
nlohmann::ordered_json OUTCOME_TO_JSON(const JobOutcome& outcome);

// The outcome as "key: value" lines, the last one "result: OK" or "result: " + toString(), with
// control characters escaped (RTD::Monitor::ESCAPE_CONTROLS).
String OUTCOME_TO_TEXT(const String& name, const JobOutcome& outcome);

// One JSON text on one line, ASCII only (other characters as \u escapes); bytes that are not
// UTF-8 are replaced, never an error.
String DUMP_JSON(const nlohmann::ordered_json& object);

}  // namespace Provctl
