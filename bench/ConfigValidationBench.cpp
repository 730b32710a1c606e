// The configuration job's validation of a downloaded configuration of 5,000 lines: the words it
// must contain and the "cli version" it must name. The key words sit where a device's own
// configuration has them (the version at the top, the ports near the end), so the searches run
// through most of the text.

#include <benchmark/benchmark.h>

#include "jobs/content/ConfigProvisioningJob.h"

namespace {

constexpr int LINES = 5000;

String makeConfiguration(int lines) {
    String text =
        "#----------------------------------------------------------------#\n"
        "#  Configuration of unit 00A0BA0B0C0D, generated for the bench   #\n"
        "#----------------------------------------------------------------#\n"
        "\ncli version 5.00\n\n"
        "dns-client\n  name-server 192.168.1.1\n\n"
        "sntp-client\n  server primary 192.168.1.1 port 123 version 4\n\n";
    int written = 12;
    int block = 0;
    // Routing, location services and dial plan blocks make up the body.
    while (written < lines - 40) {
        text.concatf("context cs switch-%d\n", block);
        text.concatf("  routing-table called-e164 to-%d\n", block);
        for (int route = 0; route < 6; ++route) {
            text.concatf("    route ^%d%d(.*) dest-interface if-%d-%d MAP_%d\n", block, route,
                         block, route, route);
        }
        text.concatf("  mapping-table called-e164 to called-e164 MAP_%d\n", block);
        text.concatf("    map (.%%) to \\1\n\n");
        written += 11;
        ++block;
    }
    text +=
        "context ip router\n"
        "  interface eth0\n"
        "    ipaddress dhcp\n"
        "    tcp adjust-mss rx mtu\n"
        "    tcp adjust-mss tx mtu\n\n";
    written += 6;
    while (written < lines - 6) {
        text.concatf("  ! filler line %d of the ip context\n", written);
        ++written;
    }
    text +=
        "port ethernet 0 0\n"
        "  medium auto\n"
        "  encapsulation ip\n"
        "  bind interface router eth0\n"
        "  no shutdown\n"
        "\n";
    return text;
}

void BM_ConfigValidation(benchmark::State& state) {
    String text = makeConfiguration(LINES);
    state.SetLabel(String::format("%d lines, %d bytes", LINES, text.length()).c_str());
    for (auto _ : state) {
        bool valid = ConfigProvisioningJob::isValidConfig(text);
        benchmark::DoNotOptimize(valid);
    }
    if (!ConfigProvisioningJob::isValidConfig(text)) {
        state.SkipWithError("the bench configuration is not valid");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * text.length());
}
BENCHMARK(BM_ConfigValidation);

void BM_CliMajorVersion(benchmark::State& state) {
    const String text = makeConfiguration(LINES);
    for (auto _ : state) {
        unsigned int version = ConfigProvisioningJob::getCliMajorVersion(text);
        benchmark::DoNotOptimize(version);
    }
}
BENCHMARK(BM_CliMajorVersion);

}  // namespace

BENCHMARK_MAIN();
