#include "BenchJob.h"

#include "Measure.h"

namespace suite {

void RecordingHandler::jobFinished(ProvisioningJob& job, XCode code) {
    finishedAtNs = NOW_NS();
    finished = true;
    result = code;
    if (then) {
        then(job);
    }
}

JobRun RUN_ONE_JOB(const String& url, const String& https1, std::chrono::milliseconds deadline) {
    JobRun run;
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    RecordingHandler handler;
    KtList<String> locations;
    locations.pushBack(url);
    AcceptingJob job(loop, "bench", locations, credentials, resolver, handler);
    if (!https1.isEmpty()) {
        job.setAuthentication(https1, String(), String());
    }
    run.executeAtNs = NOW_NS();
    XCode started = job.execute();
    if (started.isErr()) {
        run.result = started;
        run.finishedAtNs = handler.finished ? handler.finishedAtNs : NOW_NS();
        return run;
    }
    if (!loop.runUntil([&handler] { return handler.finished; }, deadline)) {
        run.result = testExpression(false).setString("JOB DID NOT FINISH");
        run.finishedAtNs = NOW_NS();
        return run;
    }
    run.result = handler.result;
    run.finishedAtNs = handler.finishedAtNs;
    return run;
}

}  // namespace suite
