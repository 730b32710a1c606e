#pragma once

#include "engine/ProvisioningJob.h"

// Uploads the stored startup configuration (never the running one).
class UploadProvisioningJob : public ProvisioningJob {
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
class CdrUploadJob : public ProvisioningJob {
  public:
    CdrUploadJob(KtEventLoop& loop, const String& name, const String& sourceName,
                 ReloadType reloadType, bool compare, const KtList<String>& locations,
                 const ProvisioningCredentials& credentials, ExpressionResolver& resolver,
                 CallbackHandler& handler);
    ~CdrUploadJob() override = default;

  protected:
    [[nodiscard]] XCode getFileForUpload() override;
};
