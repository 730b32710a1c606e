#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "engine/ProvisioningJob.h"

namespace suite {

// A download job that takes whatever file arrives: the location walk, the work file, the
// transfer and the callbacks on the loop, and nothing of a content job's own work. A failed
// location ends the walk like in every job.
class AcceptingJob : public ProvisioningJob {
  public:
    AcceptingJob(KtEventLoop& loop, const String& name, const KtList<String>& locations,
                 const ProvisioningCredentials& credentials, ExpressionResolver& resolver,
                 CallbackHandler& handler)
        : ProvisioningJob(loop, name, None, Download, false, locations, credentials, resolver,
                          handler) {}

  protected:
    XCode onSuccessfulFileDownload() override { return XCode(); }
    XCode onFailedFileDownload() override { return XCode(); }
};

// Records the result and the moment of the call (CLOCK_MONOTONIC).
struct RecordingHandler : ProvisioningJob::CallbackHandler {
    void jobFinished(ProvisioningJob& job, XCode code) override;
    bool finished = false;
    long long finishedAtNs = 0;
    XCode result;
    // Called after the fields are set, still inside jobFinished.
    std::function<void(ProvisioningJob&)> then;
};

struct JobRun {
    XCode result;
    long long executeAtNs = 0;   // just before execute()
    long long finishedAtNs = 0;  // in the handler
    double seconds() const { return static_cast<double>(finishedAtNs - executeAtNs) / 1e9; }
};

// Builds one AcceptingJob for `url` on a fresh loop, runs it to its end and destroys it.
// `https1` is the CA certificate given to setAuthentication (empty: none).
JobRun RUN_ONE_JOB(const String& url, const String& https1 = String(),
                   std::chrono::milliseconds deadline = std::chrono::minutes(10));

}  // namespace suite
