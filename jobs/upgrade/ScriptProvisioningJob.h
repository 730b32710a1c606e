#pragma once

#include "jobs/upgrade/UpgradeProvisioningJob.h"
#include "platform/Export.h"

// Downloads a script (the "manifest" member of a tar archive, or a bare file whose location ends
// in "manifest") and has the update controller execute it. The last 20 characters of the script
// are kept in "/flash/provisioning/<job name>" after each successful run; with the compare flag
// set, a script whose last 20 characters equal the stored ones is not run again.
class PROV_API ScriptProvisioningJob : public UpgradeProvisioningJob {
  public:
    ScriptProvisioningJob(KtEventLoop& loop, const String& name,
                          ProvisioningJob::ReloadType reloadType, bool compare,
                          const KtList<String>& locations,
                          const ProvisioningCredentials& credentials, ExpressionResolver& resolver,
                          ProvisioningJob::CallbackHandler& handler);
    ~ScriptProvisioningJob() override = default;

    // Whether `name` may name a script job: its fingerprint lies in "/flash/provisioning/<name>",
    // so the name must be one file name there: not empty, not "." or "..", without '/' (and
    // without NUL, which would end the path early).
    static bool IS_VALID_NAME(const String& name);

  protected:
    [[nodiscard]] XCode onFailedFileDownload() override;
    [[nodiscard]] XCode onSuccessfulFileDownload() override;
    void onUpgradeTerminated(const String& text, XCode result, bool first, bool second) override;

    [[nodiscard]] XCode onSuccessfulFileDownloadTar();
    [[nodiscard]] XCode onSuccessfulFileDownloadManifest();

    // The fingerprint of the last downloaded script: its last 20 characters (not a hash).
    String checksum;

  private:
    // Takes the fingerprint of `script` and compares it with the stored one; true when the
    // script must run.
    bool mustRun(const String& script);
    // "/flash/provisioning/<job name>".
    String checksumPath() const;
};
