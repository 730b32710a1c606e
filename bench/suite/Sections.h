#pragma once

#include <string>

#include "Measure.h"

namespace suite {

struct Options {
    int smallRuns = 30;  // runs of a 1 KiB transfer (and of each latency and firmware size)
    int largeRuns = 7;   // runs of a 16 MiB or 256 MiB transfer
    int concurrentJobs = 200;
    int concurrencyRounds = 5;
    std::string stampTool;  // bench/suite/StampTool.cpp
    std::string peakProbe;  // bench/suite/PeakMemoryProbe.cpp, preloaded into provctl
    std::string provctl;
    std::string filter;  // transfers: only the cases whose label contains this text
    // transfers: appended to every label, to tell a second run apart (" (tmpfs)")
    std::string labelSuffix;
};

// Each section records its figures and returns 0, or 1 when something did not work.
int RUN_TRANSFERS(const Options& options, Recorder& recorder);
int RUN_LATENCY(const Options& options, Recorder& recorder);
int RUN_CONCURRENCY(const Options& options, Recorder& recorder);
int RUN_FIRMWARE(const Options& options, Recorder& recorder);

}  // namespace suite
