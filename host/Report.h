#pragma once

#include <nlohmann/json.hpp>

#include "host/JobRunner.h"

namespace Provctl {

// The version of the JSON object's layout, "schemaVersion": raised when a key changes meaning or
// goes away (adding one keeps it). The layout is share/provisioning/provctl-result.schema.json.
constexpr int RESULT_SCHEMA_VERSION = 1;

// The outcome as one JSON object:
// {"ok", "value", "message", "text", "imageAction", "activation", "postUpgrade",
//  "followUp": {"pending", "mode", "command", "arguments"}, "statusLocation", "schemaVersion",
//  "kind", "name", "reason", "locations": [{"location", "outcome", "redirectedTo", "reason",
//  "toolLine"}]}.
nlohmann::ordered_json OUTCOME_TO_JSON(const JobOutcome& outcome);

// The outcome as "key: value" lines: the job, one "tried: " line per location, the job's
// flags, the status location, on failure "reason: " with the tool's own last error line, and
// last "result: OK" or "result: " + toString(); `quiet`: the result line only. Control
// characters are escaped (RTD::Monitor::ESCAPE_CONTROLS).
String OUTCOME_TO_TEXT(const String& name, const JobOutcome& outcome, bool quiet = false);

// One JSON text on one line, ASCII only (other characters as \u escapes); bytes that are not
// UTF-8 are replaced, never an error.
String DUMP_JSON(const nlohmann::ordered_json& object);

}  // namespace Provctl
