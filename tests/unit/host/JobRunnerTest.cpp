#include "host/JobRunner.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>

#include "host/StopSignals.h"
#include "platform/Shell.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SlotState.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace {

using Provctl::JobOutcome;

class JobRunnerTest : public ::testing::Test {
  protected:
    void SetUp() override { Device::SET_ROOT(dir_.path().c_str()); }
    void TearDown() override { Device::SET_ROOT(""); }

    void store(unsigned int active, unsigned int next) {
        SlotState state;
        state.active = active;
        state.next = next;
        state.version1 = "V 1 1";
        state.version2 = "V 2 2";
        ASSERT_TRUE(SlotState::STORE(state).isSuccess());
    }
    SlotState load() {
        SlotState state;
        EXPECT_TRUE(SlotState::LOAD(state).isSuccess());
        return state;
    }
    static JobOutcome outcome(ProvisioningJob::ImageAction action, bool activation,
                              bool succeeded = true) {
        JobOutcome result;
        result.imageAction = action;
        result.activation = activation;
        if (!succeeded) {
            result.result = XCode(XCode::GENERIC_FAILURE);
        }
        return result;
    }

    Provctl::JobRequest request(const String& kind) {
        Provctl::JobRequest made;
        made.kind = kind;
        made.name = kind;
        made.locations.pushBack("tftp://127.0.0.1:9/x");
        made.resolver = &resolver_;
        return made;
    }

    provtest::TempDir dir_{"prov-runner"};
    ExpressionResolver resolver_;
};

struct SlotCase {
    const char* title;
    unsigned int active;
    unsigned int next;
    ProvisioningJob::ImageAction action;
    bool activation;
    bool succeeded;
    ProvisioningJob::ReloadType reload;
    unsigned int activeAfter;
    unsigned int nextAfter;
};

TEST_F(JobRunnerTest, imageActionAndRestartTable) {
    const SlotCase cases[] = {
        {"update info keeps next", 1, 2, ProvisioningJob::UpdateImageInfo, false, true,
         ProvisioningJob::None, 1, 2},
        {"no action keeps next", 2, 1, ProvisioningJob::NoAction, false, true,
         ProvisioningJob::None, 2, 1},
        {"swap from 1", 1, 1, ProvisioningJob::SwapNextImage, true, true, ProvisioningJob::None, 1,
         2},
        {"swap from 2", 2, 2, ProvisioningJob::SwapNextImage, true, true, ProvisioningJob::None, 2,
         1},
        {"next to inactive", 2, 2, ProvisioningJob::SetNextToInactive, true, true,
         ProvisioningJob::None, 2, 1},
        {"swap and restart", 1, 1, ProvisioningJob::SwapNextImage, true, true,
         ProvisioningJob::Immediate, 2, 2},
        {"graceful restart", 1, 2, ProvisioningJob::UpdateImageInfo, true, true,
         ProvisioningJob::Graceful, 2, 2},
        {"no restart without activation", 1, 2, ProvisioningJob::UpdateImageInfo, false, true,
         ProvisioningJob::Immediate, 1, 2},
        {"no restart after failure", 1, 1, ProvisioningJob::SwapNextImage, true, false,
         ProvisioningJob::Immediate, 1, 2},
    };
    for (const SlotCase& c : cases) {
        store(c.active, c.next);
        ASSERT_TRUE(Provctl::APPLY_TO_SLOTS(outcome(c.action, c.activation, c.succeeded), c.reload)
                        .isSuccess())
            << c.title;
        SlotState after = load();
        EXPECT_EQ(after.active, c.activeAfter) << c.title;
        EXPECT_EQ(after.next, c.nextAfter) << c.title;
        EXPECT_EQ(after.version1, "V 1 1") << c.title;
        EXPECT_EQ(after.version2, "V 2 2") << c.title;
    }
}

TEST_F(JobRunnerTest, everyKindHasAJob) {
    for (const char* kind :
         {"config", "upload", "cdr-upload", "dialplan", "key", "wizard", "firmware", "script"}) {
        KtEventLoop loop;
        class : public ProvisioningJob::CallbackHandler {
            void jobFinished(ProvisioningJob&, XCode) override {}
        } handler;
        XCode error;
        std::unique_ptr<ProvisioningJob> job =
            Provctl::BUILD_JOB(request(kind), loop, handler, error);
        ASSERT_NE(job, nullptr) << kind;
        EXPECT_EQ(job->getName(), kind);
    }
}

TEST_F(JobRunnerTest, unknownKindBuildsNothing) {
    KtEventLoop loop;
    class : public ProvisioningJob::CallbackHandler {
        void jobFinished(ProvisioningJob&, XCode) override {}
    } handler;
    XCode error;
    EXPECT_EQ(Provctl::BUILD_JOB(request("flash"), loop, handler, error), nullptr);
    EXPECT_TRUE(error.isErr());
}

TEST_F(JobRunnerTest, runReportsTheJobsResult) {
    KtEventLoop loop;
    Provctl::JobRequest cdr = request("cdr-upload");
    cdr.sourceName = "calls";
    JobOutcome outcome = Provctl::RUN_JOB(cdr, loop);
    EXPECT_FALSE(outcome.interrupted);
    EXPECT_EQ(outcome.result.getString(), "NOT IMPLEMENTED");
}

TEST_F(JobRunnerTest, runOfAnUnknownKindFails) {
    KtEventLoop loop;
    JobOutcome outcome = Provctl::RUN_JOB(request("flash"), loop);
    EXPECT_TRUE(outcome.result.isErr());
}

TEST_F(JobRunnerTest, watcherLooksAtTheRunningJobUntilItEnds) {
    ASSERT_TRUE(Device::PREPARE().isSuccess());
    Kt::ShellControl::SET_TOOL("tftp", {"busybox", "tftp"});
    // A bound port that never answers: the transfer runs until the job is stopped.
    provtest::LoopbackSocket silent = provtest::LoopbackSocket::udp();
    ASSERT_TRUE(silent.valid()) << silent.error();
    Provctl::JobRequest config = request("config");
    config.locations = KtList<String>();
    config.locations.pushBack(String::format("tftp://127.0.0.1:%u/watched-%d.cfg", silent.port(),
                                             static_cast<int>(::getpid())));
    int looks = 0;
    String seenName;
    Provctl::INSTALL_STOP_SIGNALS();
    KtEventLoop loop;
    JobOutcome outcome = Provctl::RUN_JOB(config, loop, [&](const ProvisioningJob& job) {
        seenName = job.getName();
        // The first look stops the job, as Ctrl-C would. (A sanitizer may hand the signal to
        // its handler a little later, so more looks may follow.)
        if (looks++ == 0) {
            std::raise(SIGTERM);
        }
    });
    Provctl::REMOVE_STOP_SIGNALS();
    EXPECT_GE(looks, 1);
    EXPECT_EQ(seenName, "config");
    EXPECT_TRUE(outcome.interrupted);
}

TEST_F(JobRunnerTest, watcherIsNotCalledForAJobThatEndsAtOnce) {
    KtEventLoop loop;
    int looks = 0;
    JobOutcome outcome = Provctl::RUN_JOB(request("cdr-upload"), loop,
                                          [&looks](const ProvisioningJob&) { ++looks; });
    EXPECT_EQ(looks, 0);
    EXPECT_EQ(outcome.result.getString(), "NOT IMPLEMENTED");
}

}  // namespace
