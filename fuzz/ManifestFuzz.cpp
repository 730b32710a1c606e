// libFuzzer target for the manifest: KtManifestParser, FirmwareProvisioningJob::
// getImageVersionOfManifest and the firmware job's decision determineActionsNeeded.
//
// Input: the manifest text. When its first line reads "#!<c> <n> <k> <active version>" (a comment
// to the parser) it sets the decision's inputs: compare flag ('1' true), next and active image
// slot, and the running version; otherwise compare is on, next 2, active 1, running "X 1.2 7".
//
// Checked against a model written here from the contracts: the parse outcome (error text with
// its line number), the entry's parameters in order of appearance with later keys winning, that
// the entry written back out as "key=value" lines parses to the same parameters, the version or
// "SOFTWARE INFORMATIONS ARE MISSING IN MANIFEST", and the decision table with its result line.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "engine/Monitors.h"
#include "expression/ExpressionResolver.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "platform/KtEventLoop.h"
#include "platform/KtManifestParser.h"
#include "platform/Monitor.h"
#include "transfer/ProvisioningCredentials.h"

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

using Params = std::vector<std::pair<std::string, std::string>>;

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

std::string trimmed(const std::string& text) {
    std::size_t first = 0;
    std::size_t last = text.size();
    while (first < last && isSpace(text[first])) {
        ++first;
    }
    while (last > first && isSpace(text[last - 1])) {
        --last;
    }
    return text.substr(first, last - first);
}

// The parser's contract: one key=value a line, '#' comments and blank lines skipped.
bool modelParse(const std::string& text, Params& params, std::string& error) {
    std::size_t begin = 0;
    for (unsigned int number = 1;; ++number) {
        std::size_t end = text.find('\n', begin);
        std::string line = text.substr(begin, end == std::string::npos ? end : end - begin);
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        const std::string stripped = trimmed(line);
        if (!stripped.empty() && stripped[0] != '#') {
            std::size_t equals = line.find('=');
            if (equals == std::string::npos) {
                error = "MANIFEST PARSE ERROR AT LINE " + std::to_string(number) + ": missing '='";
                return false;
            }
            const std::string key = trimmed(line.substr(0, equals));
            if (key.empty()) {
                error = "MANIFEST PARSE ERROR AT LINE " + std::to_string(number) + ": missing key";
                return false;
            }
            const std::string value = line.substr(equals + 1);
            bool replaced = false;
            for (auto& param : params) {
                if (param.first == key) {
                    param.second = value;
                    replaced = true;
                    break;
                }
            }
            if (!replaced) {
                params.emplace_back(key, value);
            }
        }
        if (end == std::string::npos) {
            return true;
        }
        begin = end + 1;
    }
}

Params paramsOf(const KtManifestEntry& entry) {
    Params params;
    for (const auto& param : entry.params()) {
        params.emplace_back(param.first.str(), param.second.str());
    }
    return params;
}

const std::string* find(const Params& params, const char* key) {
    for (const auto& param : params) {
        if (param.first == key) {
            return &param.second;
        }
    }
    return nullptr;
}

std::vector<std::string>& logLines() {
    static std::vector<std::string> lines;
    return lines;
}

RTD::Monitor& captureMonitor() {
    static RTD::Monitor monitor("PROV", 6, [](const RTD::Monitor&, int, const String& line) {
        logLines().push_back(line.str());
    });
    return monitor;
}

struct NoHandler : ProvisioningJob::CallbackHandler {
    void jobFinished(ProvisioningJob&, XCode) override {}
};

// The firmware job with its decision and inputs opened.
class DecisionJob : public FirmwareProvisioningJob {
  public:
    using FirmwareProvisioningJob::determineActionsNeeded;
    using FirmwareProvisioningJob::FirmwareProvisioningJob;

    void setInputs(bool compare, unsigned int next, unsigned int active, const String& running) {
        compareWithStored = compare;
        nextImage = next;
        activeImage = active;
        activeVersion = running;
    }
    void setOutputs(ImageAction action, bool activation) {
        imageAction = action;
        activationFlag = activation;
    }
};

DecisionJob& decisionJob() {
    static KtEventLoop loop;
    static ExpressionResolver resolver;
    static NoHandler handler;
    static DecisionJob job(loop, "fw", ProvisioningJob::None, true, KtList<String>(),
                           ProvisioningCredentials(), resolver, handler, "stored one", "stored two",
                           "X 1.2 7", 2, 1);
    return job;
}

struct Decision {
    bool compare = true;
    unsigned int next = 2;
    unsigned int active = 1;
    std::string running = "X 1.2 7";
};

unsigned int digitOf(char c) {
    return c >= '0' && c <= '9' ? static_cast<unsigned int>(c - '0') : 0U;
}

Decision decisionOf(const std::string& text) {
    Decision decision;
    if (text.compare(0, 2, "#!") != 0) {
        return decision;
    }
    std::string line = text.substr(
        2, text.find('\n') == std::string::npos ? std::string::npos : text.find('\n') - 2);
    decision.compare = !line.empty() && line[0] == '1';
    decision.next = line.size() > 2 ? digitOf(line[2]) : 0;
    decision.active = line.size() > 4 ? digitOf(line[4]) : 0;
    decision.running = line.size() > 6 ? line.substr(6) : std::string();
    return decision;
}

void checkDecision(const std::string& text, const std::string& version, bool versionFound) {
    const Decision decision = decisionOf(text);
    DecisionJob& job = decisionJob();
    job.setInputs(decision.compare, decision.next, decision.active, String(decision.running));
    job.setOutputs(ProvisioningJob::NoAction, false);
    logLines().clear();
    bool upgrade = false;
    XCode result = job.determineActionsNeeded(String(text), upgrade);
    if (!versionFound) {
        // Nothing changed, nothing logged.
        check(result.isErr());
        check(!upgrade && job.getImageAction() == ProvisioningJob::NoAction &&
              !job.getActivationFlag());
        check(logLines().empty());
        return;
    }
    check(result.isSuccess());
    const bool expectedUpgrade = !decision.compare || version != decision.running;
    const unsigned int target = decision.active == 1 ? 2 : 1;
    const ProvisioningJob::ImageAction expectedAction = !expectedUpgrade || decision.next == target
                                                            ? ProvisioningJob::UpdateImageInfo
                                                            : ProvisioningJob::SwapNextImage;
    const bool expectedActivation =
        version.empty() || !decision.compare || version != decision.running;
    check(upgrade == expectedUpgrade);
    check(job.getImageAction() == expectedAction);
    check(job.getActivationFlag() == expectedActivation);
    check(logLines().size() == 2);
    check(logLines()[0].rfind("[fw]Comparing image versions, downloaded: ", 0) == 0);
    const std::string resultLine =
        std::string("[fw] Resulting actions: upgrade: ") + (expectedUpgrade ? "yes" : "no") +
        ", image: " + ProvisioningJob::IMAGE_ACTION_TO_STRING(expectedAction) +
        ", activation: " + (expectedActivation ? "yes" : "no");
    check(logLines()[1] == resultLine);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    MON_PROV = &captureMonitor();

    Params expected;
    std::string expectedError;
    const bool parses = modelParse(text, expected, expectedError);

    KtManifestParser parser;
    KtManifestEntry entry;
    check(parser.getManifestEntry(entry).isErr());
    XCode result = parser.parse(String(text));
    check(result.isSuccess() == parses);
    if (!parses) {
        check(result.getValue() == XCode::GENERIC_FAILURE);
        check(result.getString().str() == expectedError);
        check(parser.getManifestEntry(entry).isErr());
    } else if (expected.empty()) {
        check(parser.getManifestEntry(entry).isErr());
    } else {
        check(parser.getManifestEntry(entry).isSuccess());
        check(paramsOf(entry) == expected);
        for (const auto& param : expected) {
            check(entry.hasParam(String(param.first)));
            check(entry.getParam(String(param.first)).str() == param.second);
        }
        // Written back out, the entry parses to itself; a line end of "\r\n" keeps a value's own
        // trailing carriage return.
        std::string written;
        for (const auto& param : expected) {
            written += param.first + "=" + param.second + "\r\n";
        }
        KtManifestParser again;
        KtManifestEntry againEntry;
        check(again.parse(String(written)).isSuccess());
        check(again.getManifestEntry(againEntry).isSuccess());
        check(paramsOf(againEntry) == expected);
    }
    // A failed parse forgets what an earlier one found.
    if (parses && !expected.empty()) {
        check(parser.parse("no equals sign").isErr());
        check(parser.getManifestEntry(entry).isErr());
    }

    String version("untouched");
    XCode versionResult = FirmwareProvisioningJob::getImageVersionOfManifest(String(text), version);
    const std::string* type = find(expected, "sw_type");
    const std::string* swVersion = find(expected, "sw_version");
    const std::string* build = find(expected, "sw_build_num");
    const bool versionFound = parses && type != nullptr && swVersion != nullptr && build != nullptr;
    if (versionFound) {
        check(versionResult.isSuccess());
        check(version.str() == *type + " " + *swVersion + " " + *build);
    } else {
        check(versionResult.isErr());
        check(version.isEmpty());
        if (!parses) {
            check(versionResult.getString().str() == expectedError);
        } else if (expected.empty()) {
            check(versionResult.getString() == "NO MANIFEST ENTRY");
        } else {
            check(versionResult.getValue() == XCode::GENERIC_FAILURE);
            check(versionResult.getString() == "SOFTWARE INFORMATIONS ARE MISSING IN MANIFEST");
        }
    }

    checkDecision(text, version.str(), versionFound);
    MON_PROV = nullptr;
    return 0;
}
