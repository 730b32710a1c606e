#pragma once

#include "engine/ProvisioningJob.h"
#include "platform/Export.h"

// Downloads a dial plan and stores it as "/flash/dialplan/<name>", where <name> is the part of
// the dial plan's name after its last ':'.
class PROV_API DialplanProvisioningJob : public ProvisioningJob {
  public:
    DialplanProvisioningJob(KtEventLoop& loop, const String& name, String dialplanName,
                            ReloadType reloadType, bool compare, const KtList<String>& locations,
                            const ProvisioningCredentials& credentials,
                            ExpressionResolver& resolver, CallbackHandler& handler);
    ~DialplanProvisioningJob() override = default;

  protected:
    [[nodiscard]] XCode onFailedFileDownload() override;
    [[nodiscard]] XCode onSuccessfulFileDownload() override;
};
