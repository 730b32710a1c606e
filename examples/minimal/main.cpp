// The smallest host of the provisioning engine: it plays the management process for one
// configuration job and prints the job's result. It uses only the installed headers, so the same
// program runs on a device, against the device's own libraries, and on a Linux host, against the
// simulated device, whose directory the environment names:
//
//   PROV_DEVICE_ROOT=DEVICE_DIRECTORY minimal-provisioning LOCATION...
//
// On the host the configuration is stored as DEVICE_DIRECTORY/config/startup-config. Exit status
// 0 when the job succeeded, 1 when it failed, 2 for a wrong command line.
#include <chrono>
#include <cstdio>

#include "engine/Monitors.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "platform/KtEventLoop.h"

namespace {

// The management process's side of the job: told exactly once, on the job's event loop.
class Handler : public ProvisioningJob::CallbackHandler {
  public:
    void jobFinished(ProvisioningJob& job, XCode jobResult) override {
        std::printf("job %s finished\n", job.getName().c_str());
        result = jobResult;
        finished = true;
    }

    XCode result;
    bool finished = false;
};

// Monitor lines go to standard error; the monitors may call this from any thread.
void printLine(const RTD::Monitor& monitor, int level, const String& line) {
    std::fprintf(stderr, "%s %d %s\n", monitor.getName().c_str(), level, line.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s LOCATION...\n", argv[0]);
        return 2;
    }

    RTD::Monitor prov("PROV", 6, printLine);
    RTD::Monitor xfer("XFER", 6, printLine);
    MON_PROV = &prov;
    MON_XFER = &xfer;

    KtList<String> locations;
    for (int index = 1; index < argc; ++index) {
        locations.pushBack(argv[index]);
    }
    ProvisioningCredentials credentials;  // no HTTP realm needs a user here
    ExpressionResolver resolver;          // no device values: locations without $(...)
    Handler handler;
    KtEventLoop loop;
    bool inTime = false;
    {
        ConfigProvisioningJob job(loop, "config", ProvisioningJob::None, false, locations,
                                  credentials, resolver, handler);
        // execute() runs on the job's loop like every later step; a failure to start reaches
        // the handler as well, so its return value needs no handling here.
        loop.post([&job] { static_cast<void>(job.execute()); });
        inTime = loop.runUntil([&handler] { return handler.finished; }, std::chrono::minutes(5));
    }  // a job destroyed before it finished is cancelled: its handler is never called
    MON_PROV = nullptr;
    MON_XFER = nullptr;

    if (!inTime) {
        std::printf("result: no result in time\n");
        return 1;
    }
    if (handler.result.isSuccess()) {
        std::printf("result: OK\n");
        return 0;
    }
    std::printf("result: %s\n", handler.result.toString().c_str());
    return 1;
}
