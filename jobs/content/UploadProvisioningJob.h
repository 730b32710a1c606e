#pragma once

#include "engine/ProvisioningJob.h"
#include "platform/Export.h"

// Uploads the stored startup configuration (never the running one).
class PROV_API UploadProvisioningJob : public ProvisioningJob {
  public:
    UploadProvisioningJob(KtEventLoop& loop, const String& name, ReloadType reloadType,
                          bool compare, const KtList<String>& locations,
                          const ProvisioningCredentials& credentials, ExpressionResolver& resolver,
                          CallbackHandler& handler);
    ~UploadProvisioningJob() override = default;

  protected:
    [[nodiscard]] XCode getFileForUpload() override;
};

// The reserved slot for uploading call detail records: not implemented, always fails.
class PROV_API CdrUploadJob : public ProvisioningJob {
  public:
    CdrUploadJob(KtEventLoop& loop, const String& name, const String& sourceName,
                 ReloadType reloadType, bool compare, const KtList<String>& locations,
                 const ProvisioningCredentials& credentials, ExpressionResolver& resolver,
                 CallbackHandler& handler);
    ~CdrUploadJob() override = default;

  protected:
    [[nodiscard]] XCode getFileForUpload() override;
};
