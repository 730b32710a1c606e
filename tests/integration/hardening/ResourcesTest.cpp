// Jobs destroyed by the host at random points of their walk, and a thousand jobs in a row: no
// callback after destruction, no child left behind, and no growth in descriptors, threads,
// children or memory.
#include <unistd.h>

#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "integration/hardening/HardeningSupport.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/content/KeyProvisioningJob.h"
#include "platform/posix/ShellControl.h"
#include "platform/testing/ShellHooks.h"
#include "support/HttpServer.h"
#include "support/TftpServer.h"

namespace {

using namespace provtest::hardening;
using provtest::HttpServer;
using provtest::TftpServer;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif
#else
constexpr bool SANITIZED = false;
#endif

class ResourcesTest : public DeviceTest {
  protected:
    String tftp(const std::string& name) const {
        return String::format("tftp://127.0.0.1:%u/%s", tftpServer.port(), name.c_str());
    }

    TftpServer tftpServer;
};

TEST_F(ResourcesTest, jobsDestroyedAtRandomPointsAreNeverCalledBackAndLeaveNoChild) {
    HttpServer httpServer;
    httpServer.options().auth = {{"/secure/", "dev", HttpServer::Scheme::Basic, "u", "p"}};
    httpServer.options().redirects = {
        {"/moved/" + unique + ".cfg", httpServer.url("/secure/" + unique + ".cfg"), 302}};
    httpServer.put("/secure/" + unique + ".cfg", NEW_CONFIG);
    httpServer.put("/secure/" + unique + ".key", "new key\n");
    ASSERT_TRUE(httpServer.start());
    std::string config = remote(".cfg");
    std::string key = remote(".key");
    tftpServer.put(config, NEW_CONFIG);
    tftpServer.put(key, "new key\n");
    ASSERT_TRUE(tftpServer.start());
    ASSERT_TRUE(credentials.add("dev", "u", "p").isSuccess());
    ASSERT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, 20s));
    // The two servers are this process's children too.
    const int servers = currentResources().children;

    // Walks of different lengths: a failure first, a redirect and a challenge over HTTP.
    const std::vector<KtList<String>> walks = {
        {tftp(unique + "-absent.cfg"), tftp(config)},
        {httpServer.url("/moved/" + unique + ".cfg").c_str()},
        {httpServer.url("/" + unique + "-absent.cfg").c_str(),
         httpServer.url("/secure/" + unique + ".cfg").c_str(), tftp(config)},
        {tftp(unique + "-absent.key"), httpServer.url("/secure/" + unique + ".key").c_str()},
    };
    // A fixed seed: a failure can be replayed.
    std::mt19937 random(20240611);
    int finishedBeforeDestruction = 0;
    int destroyedWhileRunning = 0;
    const int rounds = 150;
    for (int round = 0; round < rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        std::size_t walk = random() % walks.size();
        int events = static_cast<int>(random() % 24);
        std::unique_ptr<ProvisioningJob> job;
        if (walk == 3) {
            job = std::make_unique<KeyProvisioningJob>(loop, "key", ProvisioningJob::None, true,
                                                       walks[walk], credentials, resolver, handler);
        } else {
            job = std::make_unique<ConfigProvisioningJob>(loop, "cfg", ProvisioningJob::None, true,
                                                          walks[walk], credentials, resolver,
                                                          handler);
        }
        handler.results.clear();
        ASSERT_TRUE(job->execute().isSuccess());
        // A random point of the walk: after so many events of the loop (or the end).
        int seen = 0;
        loop.runUntil([&] { return seen++ >= events || !handler.results.empty(); }, 30s);
        std::size_t toldBefore = handler.results.size();
        finishedBeforeDestruction += toldBefore > 0 ? 1 : 0;
        destroyedWhileRunning += Kt::ShellHooks::RUNNING_COMMANDS() > 0 ? 1 : 0;
        job.reset();
        // Every child is terminated and reaped, and nothing queued for the job calls it back.
        ASSERT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, 20s));
        EXPECT_EQ(currentResources().children, servers);
        loop.runPending();
        EXPECT_EQ(handler.results.size(), toldBefore);
        EXPECT_LE(handler.results.size(), 1U);
        // Whatever stood in the store is whole: the old content or the new one.
        std::string stored = storedConfig();
        EXPECT_TRUE(stored == OLD_CONFIG || stored == NEW_CONFIG) << stored;
        std::string storedKey = provtest::readFile(device.file("flash/preferences/key"));
        EXPECT_TRUE(storedKey == OLD_KEY || storedKey == "new key\n") << storedKey;
    }
    // The random points covered both sides: jobs that had finished and jobs cut short, some of
    // them with a tool running.
    EXPECT_GT(finishedBeforeDestruction, 0);
    EXPECT_LT(finishedBeforeDestruction, rounds);
    EXPECT_GT(destroyedWhileRunning, 0);
    EXPECT_EQ(currentResources().children, servers);
    std::istringstream changes(describeChanges(before, snapshotFiles(device.path())));
    for (std::string change; std::getline(changes, change);) {
        // Nothing lost, no temporary left beside a stored file: only the two replaced ones.
        EXPECT_TRUE(change.rfind("changed: config/startup-config ", 0) == 0 ||
                    change.rfind("changed: flash/preferences/key ", 0) == 0)
            << change;
    }
}

TEST_F(ResourcesTest, thousandJobsInARowLeaveNoDescriptorThreadChildOrMemoryBehind) {
    std::string config = remote(".cfg");
    tftpServer.put(config, NEW_CONFIG);
    ASSERT_TRUE(tftpServer.start());
    // The captured monitors would grow with every job.
    MON_PROV = nullptr;
    MON_XFER = nullptr;
    MON_EVENT = nullptr;
    auto runJob = [&] {
        CountingHandler told;
        ConfigProvisioningJob job(loop, "cfg", ProvisioningJob::None, true, {tftp(config)},
                                  credentials, resolver, told);
        if (job.execute().isErr() || !loop.runUntil([&] { return !told.results.empty(); }, 30s)) {
            return false;
        }
        loop.runPending();
        return told.results.size() == 1 && told.results[0].isSuccess();
    };
    auto settled = [] {
        // The last job's tftp is reaped before its result is delivered; this only makes sure.
        EXPECT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, 20s));
        return currentResources();
    };

    const int warmUp = 100;
    const int total = 1000;
    for (int i = 0; i < warmUp; ++i) {
        ASSERT_TRUE(runJob()) << "job " << i;
    }
    Resources start = settled();
    std::vector<long> resident{start.residentKiB};
    for (int i = warmUp; i < total; ++i) {
        ASSERT_TRUE(runJob()) << "job " << i;
        if ((i + 1) % 100 == 0) {
            Resources now = settled();
            EXPECT_EQ(now.descriptors, start.descriptors) << "after " << i + 1 << " jobs";
            EXPECT_EQ(now.threads, start.threads) << "after " << i + 1 << " jobs";
            // The TFTP server is the one child.
            EXPECT_EQ(now.children, start.children) << "after " << i + 1 << " jobs";
            resident.push_back(now.residentKiB);
        }
    }
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
    EXPECT_EQ(storedConfig(), NEW_CONFIG);
    std::string samples;
    for (long kib : resident) {
        samples += std::to_string(kib) + " ";
    }
    RecordProperty("resident_kib", samples);
    if (SANITIZED) {
        // The sanitizers' allocators hold freed memory back on purpose (ASan's quarantine);
        // leaks are LeakSanitizer's to find there.
        return;
    }
    // Memory: 900 jobs after the warm-up may cost a little (allocator caches, page rounding),
    // never a steady climb. 512 KiB would be under 600 bytes per job.
    long growth = resident.back() - resident.front();
    EXPECT_LE(growth, 512) << "resident KiB every 100 jobs: " << samples;
    int rises = 0;
    for (std::size_t i = 1; i < resident.size(); ++i) {
        rises += resident[i] > resident[i - 1] ? 1 : 0;
    }
    EXPECT_FALSE(rises == static_cast<int>(resident.size()) - 1 && growth > 128)
        << "resident KiB grew at every sample: " << samples;
}

}  // namespace
