#include "engine/ProvisioningJob.h"
#include "platform/SystemStatus.h"

namespace {
constexpr unsigned int PROVISIONING_SUBSYSTEM = 1;
}

void ProvisioningJob::SET_SUBSYSTEM_STATUS(bool busy) {
    std::list<KtPPtr<ISystemStatus>> interfaces;
    DRIVER::INSTANCE().getDriverInterfaces<ISystemStatus>(DID_SystemStatus(), String::s_empty,
                                                          interfaces);
    // The last registered interface wins.
    KtPPtr<ISystemStatus> status;
    for (const KtPPtr<ISystemStatus>& candidate : interfaces) {
        if (candidate) {
            status = candidate;
        }
    }
    if (!status) {
        return;
    }
    KtLockPtr lock = status.getLock();
    // The driver's answer is not examined: a status that cannot be shown does not stop a job.
    static_cast<void>(status->setSubsystemBusy(PROVISIONING_SUBSYSTEM, busy));
    lock.unlock();
}
