#pragma once

// Measuring helpers of the job suite: clocks, samples, the bare tools run without the engine,
// the process's own resources, and the JSON lines that bench/report.py turns into tables.
//
// Bench tooling, like tests/support: it talks to POSIX directly.

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

namespace suite {

// CLOCK_MONOTONIC in nanoseconds: the clock the stamp tool uses too.
long long NOW_NS();

// One measured figure: every run's value, in `unit`.
struct Series {
    std::string name;
    std::string unit;
    std::vector<double> values;
};

// A yes/no check with what was seen.
struct Check {
    std::string name;
    bool passed = false;
    std::string detail;
};

// Appends one JSON object per line to a file (or standard output). Each line names the section.
class Recorder {
  public:
    Recorder(std::string section, const std::string& path);
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    void series(const Series& series);
    void check(const Check& check);
    void value(const std::string& name, const std::string& unit, double value);
    // Also printed to standard error so that a run shows what it does.
    void note(const std::string& text);

  private:
    std::string section_;
    std::FILE* out_;
};

std::string JSON_STRING(const std::string& text);

struct ChildOutcome {
    int waitStatus = -1;
    bool started = false;
    long long maxRssKiB = -1;  // wait4's ru_maxrss: the child and its reaped descendants
    bool ok() const;
    std::string describe() const;
};

// Runs `argv` (argv[0] looked up on PATH) to its end with standard input, output and error on
// /dev/null (or output and error appended to `logPath`), extra environment entries added.
ChildOutcome RUN_TOOL(const std::vector<std::string>& argv, const std::string& logPath = "",
                      const std::vector<std::string>& extraEnv = {});

// CPU time (user and system) this process has used so far, all threads, in milliseconds.
double CPU_MS();

// Voluntary context switches so far (how often a thread went to sleep): of the main thread, and
// of all other live threads of this process together.
long long MAIN_THREAD_SLEEPS();
long long OTHER_THREADS_SLEEPS();

// The number of open descriptors, threads and live child processes of this process.
int OPEN_DESCRIPTORS();
int THREADS();
int CHILD_PROCESSES();

// Writes a file of `size` bytes ('p' repeated) in 1 MiB pieces; false on error.
bool WRITE_SIZED_FILE(const std::string& path, long long size);
void REMOVE(const std::string& path);

constexpr long long KIB = 1024;
constexpr long long MIB = 1024 * KIB;

}  // namespace suite
