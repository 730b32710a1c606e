#pragma once

#include "engine/ProvisioningJob.h"
#include "platform/Export.h"

// Downloads the device's key file and stores it as "/flash/preferences/key".
class PROV_API KeyProvisioningJob : public ProvisioningJob {
  public:
    KeyProvisioningJob(KtEventLoop& loop, const String& name, ReloadType reloadType, bool compare,
                       const KtList<String>& locations, const ProvisioningCredentials& credentials,
                       ExpressionResolver& resolver, CallbackHandler& handler);
    ~KeyProvisioningJob() override = default;

  protected:
    [[nodiscard]] XCode onFailedFileDownload() override;
    [[nodiscard]] XCode onSuccessfulFileDownload() override;
};
