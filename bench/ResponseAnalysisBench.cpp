// The HTTP client's response analysis of recorded wget transcripts (tests/data/wget): the output
// as the reactor delivers it (one piece, or one piece per line), then the result, up to the
// completion's call. With the progress monitor off, and on with a sink that drops the lines (the
// cost of formatting them).

#include <benchmark/benchmark.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "engine/Monitors.h"
#include "transfer/ProvisioningHttpClient.h"

// The client's shell callbacks and run state, as the unit tests reach them.
struct ProvisioningHttpClientTestHook {
    static void startRun(ProvisioningHttpClient& client, Kt::Function<void(XCode)> done) {
        client.completion = std::move(done);
        client.responseText = String();
        client.lineBuffer = String();
    }
    static void output(ProvisioningHttpClient& client, String text) {
        client.onWgetOutput(std::move(text));
    }
    static void result(ProvisioningHttpClient& client, XCode result) {
        client.onWgetResult(std::move(result), String());
    }
};

namespace {

using Hook = ProvisioningHttpClientTestHook;

struct Transcript {
    String text;
    std::vector<String> lines;  // the same text cut after every '\n'
    XCode result;               // what the shell reports for wget's exit status
};

std::string readData(const std::string& name) {
    std::ifstream in(std::string(PROV_BENCH_DATA_DIR) + "/wget/" + name, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

Transcript load(const std::string& name) {
    Transcript transcript;
    std::string text = readData(name + ".txt");
    transcript.text = String(text);
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        end = end == std::string::npos ? text.size() : end + 1;
        transcript.lines.push_back(String(text.substr(start, end - start)));
        start = end;
    }
    int status = std::stoi(readData(name + ".exit"));
    if (status != 0) {
        transcript.result =
            XCode::family(XCode::EXIT_STATUS_FAMILY, static_cast<XCodeValue>(status));
        transcript.result.setStringF("wget EXITED WITH STATUS %d", status);
    }
    return transcript;
}

const char* const CASES[] = {"200-ok", "401-then-200", "301-moved", "401-digest"};

void analyse(benchmark::State& state, bool perLine, bool monitorOn) {
    const Transcript transcript = load(CASES[state.range(0)]);
    state.SetLabel(CASES[state.range(0)]);
    if (transcript.text.isEmpty()) {
        state.SkipWithError("transcript missing");
        return;
    }
    RTD::Monitor monitor("PROV", 6, [](const RTD::Monitor&, int, const String& line) {
        benchmark::DoNotOptimize(line.data());
    });
    MON_PROV = monitorOn ? &monitor : nullptr;
    KtEventLoop loop;
    ProvisioningHttpClient client("bench", "oem", "model", "serial", "1.0", "2", "B", loop);
    XCode outcome;
    Kt::Function<void(XCode)> done(Kt::directCall(), [&outcome](XCode code) { outcome = code; });
    for (auto _ : state) {
        Hook::startRun(client, done);
        if (perLine) {
            for (const String& line : transcript.lines) {
                Hook::output(client, line);
            }
        } else {
            Hook::output(client, transcript.text);
        }
        Hook::result(client, transcript.result);
        benchmark::DoNotOptimize(outcome);
    }
    MON_PROV = nullptr;
}

void BM_ResponseAnalysis(benchmark::State& state) {
    analyse(state, false, false);
}
void BM_ResponseAnalysisPerLine(benchmark::State& state) {
    analyse(state, true, false);
}
void BM_ResponseAnalysisLogged(benchmark::State& state) {
    analyse(state, false, true);
}

BENCHMARK(BM_ResponseAnalysis)->DenseRange(0, 3);
BENCHMARK(BM_ResponseAnalysisPerLine)->DenseRange(0, 3);
BENCHMARK(BM_ResponseAnalysisLogged)->DenseRange(0, 3);

}  // namespace

BENCHMARK_MAIN();
