#include "host/Report.h"

#include "platform/Monitor.h"

namespace Provctl {

namespace {

nlohmann::ordered_json attemptsToJson(const std::vector<Attempt>& attempts) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const Attempt& attempt : attempts) {
        list.push_back({{"location", attempt.location.str()},
                        {"outcome", attempt.outcome.str()},
                        {"redirectedTo", attempt.redirectedTo.str()},
                        {"reason", attempt.reason.str()},
                        {"toolLine", attempt.toolLine.str()}});
    }
    return list;
}

// "tried: <location>[ -> <redirect target>]: <outcome>[: <reason>]"
String attemptsToText(const std::vector<Attempt>& attempts) {
    String text;
    for (const Attempt& attempt : attempts) {
        text.concatf("tried: %s", attempt.location.c_str());
        if (!attempt.redirectedTo.isEmpty()) {
            text.concatf(" -> %s", attempt.redirectedTo.c_str());
        }
        text.concatf(": %s", attempt.outcome.c_str());
        if (!attempt.reason.isEmpty()) {
            text.concatf(": %s", attempt.reason.c_str());
        }
        text += "\n";
    }
    return text;
}

String resultLine(const JobOutcome& outcome) {
    return outcome.result.isSuccess()
               ? String("result: OK\n")
               : String::format("result: %s\n", outcome.result.toString().c_str());
}

}  // namespace

nlohmann::ordered_json OUTCOME_TO_JSON(const JobOutcome& outcome) {
    nlohmann::ordered_json arguments = nlohmann::ordered_json::array();
    for (const String& argument : outcome.followUpArguments) {
        arguments.push_back(argument.str());
    }
    return nlohmann::ordered_json{
        {"ok", outcome.result.isSuccess()},
        {"value", static_cast<long long>(outcome.result.getValue())},
        {"message", outcome.result.getString().str()},
        {"text", outcome.result.toString().str()},
        {"imageAction", ProvisioningJob::IMAGE_ACTION_TO_STRING(outcome.imageAction)},
        {"activation", outcome.activation},
        {"postUpgrade", outcome.postUpgrade},
        {"followUp",
         {{"pending", outcome.followUpPending},
          {"mode", outcome.followUpMode.str()},
          {"command", outcome.followUpCommand.str()},
          {"arguments", arguments}}},
        {"statusLocation", outcome.statusLocation.str()},
        {"schemaVersion", RESULT_SCHEMA_VERSION},
        {"kind", outcome.kind.str()},
        {"name", outcome.name.str()},
        {"reason", outcome.result.isSuccess() ? std::string() : outcome.toolLine.str()},
        {"locations", attemptsToJson(outcome.attempts)},
    };
}

String OUTCOME_TO_TEXT(const String& name, const JobOutcome& outcome, bool quiet) {
    if (quiet) {
        return RTD::Monitor::ESCAPE_CONTROLS(resultLine(outcome));
    }
    String text;
    text.concatf("job: %s\n", name.c_str());
    text += attemptsToText(outcome.attempts);
    text.concatf("image action: %s\n",
                 ProvisioningJob::IMAGE_ACTION_TO_STRING(outcome.imageAction));
    text.concatf("activation: %s\n", outcome.activation ? "yes" : "no");
    text.concatf("post upgrade: %s\n", outcome.postUpgrade ? "yes" : "no");
    if (outcome.followUpPending) {
        text.concatf("follow-up: %s (mode %s)", outcome.followUpCommand.c_str(),
                     outcome.followUpMode.c_str());
        for (const String& argument : outcome.followUpArguments) {
            text.concatf(" %s", argument.c_str());
        }
        text += "\n";
    }
    text.concatf("status location: %s\n", outcome.statusLocation.c_str());
    if (outcome.result.isErr() && !outcome.toolLine.isEmpty()) {
        text.concatf("reason: %s\n", outcome.toolLine.c_str());
    }
    text += resultLine(outcome);
    // The result and the status location may come from a server (a status line, a redirect).
    return RTD::Monitor::ESCAPE_CONTROLS(text);
}

String DUMP_JSON(const nlohmann::ordered_json& object) {
    // ASCII only: JSON escapes the C0 controls itself, and with ensure_ascii also the C1 ones
    // (as \u0080 to \u009F), so no server text reaches a terminal raw.
    return object.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace Provctl
