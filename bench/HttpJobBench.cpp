// A whole HTTP download job (location walk, work file, ProvisioningHttpClient, wget, response
// analysis, callbacks on the event loop) against a bare `wget -q -O file URL` of the same URL,
// both from lighttpd on loopback, for a 1 KiB and a 256 MiB file; then the peak resident set of a
// fresh process that runs one such job, for both sizes.
//
// Bench tooling, like tests/support: it talks to POSIX directly to hand lighttpd its listening
// socket and to read resource usage. Run it from the build directory:
//   bench/HttpJobBench [--benchmark_filter=...]
// It re-runs itself with --child URL for the resident-set measurement.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/ProvisioningJob.h"
#include "platform/Device.h"
#include "platform/KtEventLoop.h"
#include "platform/Shell.h"
#include "platform/WgetUtil.h"

namespace {

constexpr long long KIB = 1024;
constexpr long long MIB = 1024 * KIB;
const std::chrono::milliseconds JOB_DEADLINE{600000};

// Takes any file it is given; the download is all there is to measure.
class AcceptingJob : public ProvisioningJob {
  public:
    AcceptingJob(KtEventLoop& loop, const KtList<String>& locations,
                 const ProvisioningCredentials& credentials, ExpressionResolver& resolver,
                 CallbackHandler& handler)
        : ProvisioningJob(loop, "bench", None, Download, false, locations, credentials, resolver,
                          handler) {}

  protected:
    XCode onSuccessfulFileDownload() override { return XCode(); }
    XCode onFailedFileDownload() override { return XCode(); }
};

struct Handler : ProvisioningJob::CallbackHandler {
    void jobFinished(ProvisioningJob&, XCode code) override {
        finished = true;
        result = code;
    }
    bool finished = false;
    XCode result;
};

// Runs one job to its end on a fresh loop.
XCode runJob(const String& url) {
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    Handler handler;
    AcceptingJob job(loop, {url}, credentials, resolver, handler);
    XCode started = job.execute();
    if (started.isErr()) {
        return started;
    }
    if (!loop.runUntil([&handler] { return handler.finished; }, JOB_DEADLINE)) {
        return testExpression(false).setString("JOB DID NOT FINISH");
    }
    return handler.result;
}

// lighttpd serving a document root, on a port the kernel chose (socket activation).
class Lighttpd {
  public:
    bool start(const std::string& directory, std::string& error) {
        docroot_ = directory + "/docroot";
        if (Device::MAKE_DIRECTORIES(docroot_.c_str()).isErr()) {
            error = "cannot create " + docroot_;
            return false;
        }
        int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener, 64) != 0 ||
            ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            error = std::string("listening socket: ") + std::strerror(errno);
            return false;
        }
        port_ = ntohs(address.sin_port);
        std::string config = directory + "/lighttpd.conf";
        std::ofstream(config) << "server.document-root = \"" << docroot_ << "\"\n"
                              << "server.bind = \"127.0.0.1\"\n"
                              << "server.port = " << port_ << "\n"
                              << "server.systemd-socket-activation = \"enable\"\n"
                              << "server.errorlog = \"" << directory << "/error.log\"\n"
                              << "mimetype.assign = (\"\" => \"application/octet-stream\")\n";
        std::string program = "/usr/sbin/lighttpd";
        std::vector<char*> argv = {program.data(), const_cast<char*>("-D"), const_cast<char*>("-f"),
                                   config.data(), nullptr};
        char listenFds[] = "LISTEN_FDS=1";
        char listenPid[32] = "LISTEN_PID=";
        pid_ = ::fork();
        if (pid_ == 0) {
            // Only async-signal-safe calls until exec.
            ::setpgid(0, 0);
            if (listener == 3) {
                ::fcntl(3, F_SETFD, 0);  // dup2 onto itself would keep close-on-exec
            } else {
                ::dup2(listener, 3);
            }
            char digits[16];
            int count = 0;
            for (pid_t pid = ::getpid(); pid > 0; pid /= 10) {
                digits[count++] = static_cast<char>('0' + pid % 10);
            }
            std::size_t at = std::strlen(listenPid);
            while (count > 0) {
                listenPid[at++] = digits[--count];
            }
            listenPid[at] = '\0';
            char* envp[] = {listenFds, listenPid, nullptr};
            ::execve(argv[0], argv.data(), envp);
            ::_exit(127);
        }
        ::close(listener);
        if (pid_ < 0) {
            error = std::string("fork: ") + std::strerror(errno);
            return false;
        }
        // The socket already listens: the probe waits in its queue until lighttpd serves it.
        put("/probe", "ok");
        String output;
        XCode probe = Kt::Shell::execute(
            String::format("wget -q --no-config --no-proxy -O /dev/null %s", url("/probe").c_str()),
            &output);
        if (probe.isErr()) {
            error = "lighttpd did not answer: " + probe.toString().str();
            return false;
        }
        return true;
    }
    ~Lighttpd() {
        if (pid_ > 0) {
            ::kill(-pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    String url(const std::string& path) const {
        return String::format("http://127.0.0.1:%u%s", port_, path.c_str());
    }
    void put(const std::string& path, const std::string& content) const {
        std::ofstream(docroot_ + path, std::ios::binary) << content;
    }
    // A file of `size` bytes written in pieces.
    void putSized(const std::string& path, long long size) const {
        std::ofstream file(docroot_ + path, std::ios::binary);
        std::string block(MIB, 'c');
        for (long long left = size; left > 0; left -= MIB) {
            file.write(block.data(), static_cast<std::streamsize>(left < MIB ? left : MIB));
        }
    }

  private:
    std::string docroot_;
    unsigned int port_ = 0;
    pid_t pid_ = -1;
};

struct Bench {
    std::string directory;
    std::unique_ptr<Lighttpd> server = std::make_unique<Lighttpd>();
    std::string error;
    std::vector<std::string> workFiles;
};
Bench* BENCH = nullptr;

std::string remoteName(const char* what, long long size) {
    return "/bench-" + std::to_string(::getpid()) + "-" + what + "-" + std::to_string(size / KIB) +
           "k.bin";
}

// Seconds and downloads summed over all repetitions, by benchmark name, for the summary.
struct Totals {
    double seconds = 0;
    long long runs = 0;
};
std::map<std::string, Totals> TOTALS;

void record(benchmark::State& state, const std::string& name, double seconds) {
    TOTALS[name].seconds += seconds;
    TOTALS[name].runs += static_cast<long long>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

// The served files, written before any benchmark runs so that their write-back does not fall
// into one benchmark's time.
const char* const SERVED_FILES[] = {"job", "bare", "options", "rss"};

void BM_DownloadJob(benchmark::State& state) {
    long long size = state.range(0);
    std::string path = remoteName("job", size);
    String url = BENCH->server->url(path);
    double seconds = 0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        XCode result = runJob(url);
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (result.isErr()) {
            state.SkipWithError(result.toString().c_str());
            break;
        }
    }
    record(state, "job/" + std::to_string(size), seconds);
}

void BM_BareWget(benchmark::State& state) {
    long long size = state.range(0);
    std::string path = remoteName("bare", size);
    std::string out = "/tmp/provisioning" + path;
    // --no-proxy only so that a proxy in the environment cannot take part; otherwise bare.
    String commandLine = String::format("wget -q --no-proxy -O %s %s", out.c_str(),
                                        BENCH->server->url(path).c_str());
    double seconds = 0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        XCode result = Kt::Shell::execute(commandLine);
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (result.isErr()) {
            state.SkipWithError(result.toString().c_str());
            break;
        }
    }
    record(state, "wget/" + std::to_string(size), seconds);
}

// The job's own wget command line, run synchronously: what the options cost, without the job.
void BM_WgetWithJobOptions(benchmark::State& state) {
    long long size = state.range(0);
    std::string path = remoteName("options", size);
    std::vector<String> args;
    XCode built =
        WgetUtil::buildArgs(true, BENCH->server->url(path), "", "",
                            ("/tmp/provisioning" + path).c_str(), "", "", "", false, args, "");
    if (built.isErr()) {
        state.SkipWithError(built.toString().c_str());
        return;
    }
    String commandLine("wget");
    for (const String& arg : args) {
        commandLine += " ";
        commandLine += arg;
    }
    double seconds = 0;
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        XCode result = Kt::Shell::execute(commandLine);
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (result.isErr()) {
            state.SkipWithError(result.toString().c_str());
            break;
        }
    }
    record(state, "options/" + std::to_string(size), seconds);
}

BENCHMARK(BM_DownloadJob)->Arg(KIB)->MinTime(2.0)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareWget)->Arg(KIB)->MinTime(2.0)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DownloadJob)
    ->Arg(256 * MIB)
    ->Iterations(5)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WgetWithJobOptions)
    ->Arg(KIB)
    ->MinTime(2.0)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WgetWithJobOptions)
    ->Arg(256 * MIB)
    ->Iterations(5)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BareWget)->Arg(256 * MIB)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);

// Child mode: one job, then this process's peak resident set and that of its largest reaped
// child (wget), in KiB.
int runChild(const char* url) {
    std::string root = "/tmp/prov-bench-child-" + std::to_string(::getpid());
    Device::SET_ROOT(root.c_str());
    if (Device::PREPARE().isErr()) {
        std::printf("error: cannot prepare %s\n", root.c_str());
        return 1;
    }
    XCode result = runJob(url);
    rusage self{};
    rusage children{};
    ::getrusage(RUSAGE_SELF, &self);
    ::getrusage(RUSAGE_CHILDREN, &children);
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    if (result.isErr()) {
        std::printf("error: %s\n", result.toString().c_str());
        return 1;
    }
    std::printf("maxrss %ld %ld\n", self.ru_maxrss, children.ru_maxrss);
    return 0;
}

struct PeakRss {
    long self = -1;
    long wget = -1;
    std::string error;
};

PeakRss measureChild(const char* program, long long size) {
    PeakRss peak;
    std::string path = remoteName("rss", size);
    String output;
    XCode result = Kt::Shell::execute(
        String::format("%s --child %s", program, BENCH->server->url(path).c_str()), &output);
    if (result.isErr() ||
        std::sscanf(output.c_str(), "maxrss %ld %ld", &peak.self, &peak.wget) != 2) {
        peak.error = result.toString().str() + " " + output.str();
    }
    return peak;
}

// Mean seconds per download of a benchmark, or a negative value when it did not run.
double meanSeconds(const char* what, long long size) {
    auto found = TOTALS.find(std::string(what) + "/" + std::to_string(size));
    if (found == TOTALS.end() || found->second.runs == 0) {
        return -1;
    }
    return found->second.seconds / static_cast<double>(found->second.runs);
}

void printSummary(const char* program) {
    std::printf("\nMean wall time per download (ms); ratios against bare wget:\n");
    std::printf("%-10s %10s %14s %10s %10s %14s\n", "size", "job", "job's wget", "bare wget",
                "job/bare", "job's wget/bare");
    for (long long size : {KIB, 256 * MIB}) {
        double job = meanSeconds("job", size);
        double options = meanSeconds("options", size);
        double bare = meanSeconds("wget", size);
        if (job < 0 || options < 0 || bare <= 0) {
            continue;
        }
        std::printf("%-10s %10.2f %14.2f %10.2f %10.2f %14.2f\n", size == KIB ? "1 KiB" : "256 MiB",
                    job * 1000, options * 1000, bare * 1000, job / bare, options / bare);
    }
    std::printf("\nPeak resident set of a fresh process running one job (KiB):\n");
    std::printf("%-10s %14s %14s\n", "size", "job process", "wget");
    for (long long size : {KIB, 256 * MIB}) {
        PeakRss peak = measureChild(program, size);
        if (!peak.error.empty()) {
            std::printf("%-10s error: %s\n", size == KIB ? "1 KiB" : "256 MiB", peak.error.c_str());
            continue;
        }
        std::printf("%-10s %14ld %14ld\n", size == KIB ? "1 KiB" : "256 MiB", peak.self, peak.wget);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--child") == 0) {
        return runChild(argv[2]);
    }
    Bench bench;
    BENCH = &bench;
    char pattern[] = "/tmp/prov-bench-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) {
        std::fprintf(stderr, "mkdtemp: %s\n", std::strerror(errno));
        return 1;
    }
    bench.directory = pattern;
    Device::SET_ROOT((bench.directory + "/device").c_str());
    if (Device::PREPARE().isErr()) {
        std::fprintf(stderr, "cannot prepare the device directory\n");
        return 1;
    }
    if (!bench.server->start(bench.directory, bench.error)) {
        std::fprintf(stderr, "%s\n", bench.error.c_str());
        return 1;
    }
    for (const char* what : SERVED_FILES) {
        for (long long size : {KIB, 256 * MIB}) {
            std::string path = remoteName(what, size);
            bench.server->putSized(path, size);
            bench.workFiles.push_back("/tmp/provisioning" + path);
        }
    }
    ::sync();
    // Unless told otherwise: three repetitions of each, interleaved at random, so that a noisy
    // moment of a shared machine does not fall on one side of the comparison only.
    std::vector<char*> args(argv, argv + argc);
    std::string repetitions = "--benchmark_repetitions=3";
    std::string interleave = "--benchmark_enable_random_interleaving=true";
    bool userRepetitions = false;
    for (int i = 1; i < argc; ++i) {
        userRepetitions =
            userRepetitions || std::strncmp(argv[i], "--benchmark_repetitions", 23) == 0;
    }
    if (!userRepetitions) {
        args.push_back(repetitions.data());
        args.push_back(interleave.data());
    }
    int count = static_cast<int>(args.size());
    args.push_back(nullptr);
    benchmark::Initialize(&count, args.data());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printSummary(std::filesystem::canonical("/proc/self/exe").c_str());
    for (const std::string& file : bench.workFiles) {
        ::unlink(file.c_str());
    }
    bench.server.reset();
    std::error_code ignored;
    std::filesystem::remove_all(bench.directory, ignored);
    return 0;
}
