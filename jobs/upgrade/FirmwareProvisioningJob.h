#pragma once

#include "jobs/upgrade/UpgradeProvisioningJob.h"
#include "platform/Export.h"

// Upgrades the device's firmware image. The downloaded file is either a tar archive (location
// ending in ".tar") holding the image and its "manifest", or a bare manifest (location ending in
// "manifest") whose image stays on the server. The manifest's version decides whether an upgrade
// is needed and what must happen to the two image slots afterwards; the upgrade itself runs in
// the update controller, whose termination ends the job.
class PROV_API FirmwareProvisioningJob : public UpgradeProvisioningJob {
  public:
    FirmwareProvisioningJob(KtEventLoop& loop, const String& name,
                            ProvisioningJob::ReloadType reloadType, bool compare,
                            const KtList<String>& locations,
                            const ProvisioningCredentials& credentials,
                            ExpressionResolver& resolver, ProvisioningJob::CallbackHandler& handler,
                            const String& storedVersion1, const String& storedVersion2,
                            const String& activeVersion, unsigned int nextImage,
                            unsigned int activeImage);
    ~FirmwareProvisioningJob() override = default;

    // "sw_type sw_version sw_build_num" of the manifest text; `version` stays empty on failure
    // ("SOFTWARE INFORMATIONS ARE MISSING IN MANIFEST", or the parser's error unchanged).
    [[nodiscard]] static XCode getImageVersionOfManifest(const String& manifest, String& version);

  protected:
    [[nodiscard]] XCode onFailedFileDownload() override;
    [[nodiscard]] XCode onSuccessfulFileDownload() override;
    void onUpgradeTerminated(const String& text, XCode result, bool first, bool second) override;

    [[nodiscard]] XCode onSuccessfulFileDownloadTar();
    [[nodiscard]] XCode onSuccessfulFileDownloadManifest();
    // Compares the manifest's version with the device's and sets `upgrade`, imageAction and
    // activationFlag. On failure nothing is changed and nothing is logged.
    [[nodiscard]] XCode determineActionsNeeded(const String& manifest, bool& upgrade);
    // The decision itself, with its two log lines, for a version already read.
    void decideActions(const String& downloaded, bool& upgrade);

    String spare;  // kept empty; the device's management process knows the field
    String storedVersion1;
    String storedVersion2;
    String activeVersion;
    unsigned int nextImage;
    unsigned int activeImage;

  private:
    // Steps 5 to 7 of both flows: log the manifest, decide, and stop here when no upgrade is
    // needed (`upgrade` false with success).
    [[nodiscard]] XCode judgeManifest(const char* heading, const String& manifest, bool& upgrade);
};
