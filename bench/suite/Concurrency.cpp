// Many jobs at once on one event loop against one lighttpd, against the same number of bare
// wget runs one after the other; afterwards the process must hold as many descriptors, threads
// and children as before.

#include <memory>
#include <string>
#include <vector>

#include "BenchJob.h"
#include "Measure.h"
#include "Sections.h"
#include "platform/Shell.h"
#include "platform/posix/ShellControl.h"
#include "platform/testing/ShellHooks.h"
#include "support/HttpServer.h"

namespace suite {

namespace {

struct Resources {
    int descriptors = 0;
    int threads = 0;
    int children = 0;
    std::size_t commands = 0;

    static Resources NOW() {
        return {OPEN_DESCRIPTORS(), THREADS(), CHILD_PROCESSES(),
                Kt::ShellHooks::RUNNING_COMMANDS()};
    }
    std::string describe() const {
        return "descriptors " + std::to_string(descriptors) + ", threads " +
               std::to_string(threads) + ", children " + std::to_string(children) +
               ", running commands " + std::to_string(commands);
    }
    bool operator==(const Resources& other) const {
        return descriptors == other.descriptors && threads == other.threads &&
               children == other.children && commands == other.commands;
    }
};

std::string fileName(int index) {
    return "concurrent-" + std::to_string(::getpid()) + "-" + std::to_string(index) + ".bin";
}

}  // namespace

int RUN_CONCURRENCY(const Options& options, Recorder& recorder) {
    const int count = options.concurrentJobs;
    provtest::HttpServer server;
    ::testing::AssertionResult started = server.start();
    if (!started) {
        recorder.note(std::string("lighttpd did not start: ") + started.message());
        return 1;
    }
    for (int i = 0; i < count; ++i) {
        if (!WRITE_SIZED_FILE(server.docroot() + "/" + fileName(i), KIB)) {
            recorder.note("cannot write the served files");
            return 1;
        }
    }
    // One job first: the reactor thread and its wake-up descriptor exist from then on.
    if (RUN_ONE_JOB(server.url("/" + fileName(0))).result.isErr()) {
        recorder.note("a single job failed");
        return 1;
    }
    REMOVE("/tmp/provisioning/" + fileName(0));
    const Resources baseline = Resources::NOW();
    recorder.note("baseline: " + baseline.describe());

    Series jobs{std::to_string(count) + " jobs on one loop", "ms", {}};
    Series bare{std::to_string(count) + " bare wget, one after the other", "ms", {}};
    Series ratio{std::to_string(count) + " jobs | ratio", "x", {}};
    Series peakDescriptors{std::to_string(count) + " jobs | descriptors after the starts", "", {}};
    Series cpu{std::to_string(count) + " jobs | engine CPU", "ms", {}};
    Series starting{std::to_string(count) + " jobs | time to start them all", "ms", {}};
    int failures = 0;
    int completedAll = 0;
    bool resourcesBack = true;
    std::string resourceDetail;
    for (int round = 0; round < options.concurrencyRounds; ++round) {
        KtEventLoop loop;
        ExpressionResolver resolver;
        ProvisioningCredentials credentials;
        std::vector<std::unique_ptr<RecordingHandler>> handlers;
        std::vector<std::unique_ptr<AcceptingJob>> running;
        int finished = 0;
        int succeeded = 0;
        int peak = 0;
        for (int i = 0; i < count; ++i) {
            auto handler = std::make_unique<RecordingHandler>();
            handler->then = [&finished](ProvisioningJob&) { ++finished; };
            KtList<String> locations;
            locations.pushBack(server.url("/" + fileName(i)));
            running.push_back(std::make_unique<AcceptingJob>(
                loop, String::format("job%d", i), locations, credentials, resolver, *handler));
            handlers.push_back(std::move(handler));
        }
        double cpuBefore = CPU_MS();
        long long start = NOW_NS();
        for (int i = 0; i < count; ++i) {
            if (running[static_cast<std::size_t>(i)]->execute().isErr()) {
                recorder.note("job " + std::to_string(i) + " did not start");
            }
        }
        peak = OPEN_DESCRIPTORS();
        starting.values.push_back(static_cast<double>(NOW_NS() - start) / 1e6);
        bool done = loop.runUntil([&] { return finished == count; }, std::chrono::minutes(5));
        long long end = NOW_NS();
        cpu.values.push_back(CPU_MS() - cpuBefore);
        for (const auto& handler : handlers) {
            succeeded += handler->finished && handler->result.isSuccess() ? 1 : 0;
        }
        if (!done || succeeded != count) {
            recorder.note("round " + std::to_string(round) + ": " + std::to_string(succeeded) +
                          " of " + std::to_string(count) + " jobs succeeded");
            ++failures;
        } else {
            ++completedAll;
        }
        running.clear();
        handlers.clear();
        for (int i = 0; i < count; ++i) {
            REMOVE("/tmp/provisioning/" + fileName(i));
        }
        // Reaping is the reactor's; once it has reaped everything nothing may be left over.
        Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, std::chrono::seconds(10));
        Resources after = Resources::NOW();
        if (!(after == baseline)) {
            resourcesBack = false;
            resourceDetail = "round " + std::to_string(round) + ": " + after.describe();
        }
        jobs.values.push_back(static_cast<double>(end - start) / 1e6);
        peakDescriptors.values.push_back(peak);

        long long bareStart = NOW_NS();
        for (int i = 0; i < count; ++i) {
            std::string out = "/tmp/provisioning/bare-" + fileName(i);
            ChildOutcome outcome =
                RUN_TOOL({"wget", "-q", "-O", out, server.url("/" + fileName(i))});
            REMOVE(out);
            if (!outcome.ok()) {
                recorder.note("bare wget " + outcome.describe());
                ++failures;
                break;
            }
        }
        bare.values.push_back(static_cast<double>(NOW_NS() - bareStart) / 1e6);
        ratio.values.push_back(jobs.values.back() / bare.values.back());
    }
    recorder.series(jobs);
    recorder.series(bare);
    recorder.series(ratio);
    recorder.series(cpu);
    recorder.series(starting);
    recorder.series(peakDescriptors);
    recorder.check({std::to_string(count) + " concurrent jobs all succeeded",
                    completedAll == options.concurrencyRounds,
                    std::to_string(completedAll) + " of " +
                        std::to_string(options.concurrencyRounds) + " rounds"});
    recorder.check({"descriptors, threads and children back to baseline", resourcesBack,
                    resourcesBack ? "baseline: " + baseline.describe() : resourceDetail});
    return failures == 0 && resourcesBack ? 0 : 1;
}

}  // namespace suite
