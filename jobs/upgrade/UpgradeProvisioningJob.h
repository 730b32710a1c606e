#pragma once

#include "engine/ProvisioningJob.h"
#include "platform/Export.h"
#include "platform/UpdateController.h"

// What the firmware and script jobs share: the choice of flow by the location's name, the
// extraction of the archive's manifest, the reading of the downloaded text, the two ways of
// handing the work to the update controller, and the failure step.
//
// Layout: ProvisioningJob first, then (non-public) UpdateController::CallbackHandler; this class
// adds no field and no virtual operation of its own, so a derived job keeps the slot order
// destructor, onFailedFileDownload, onSuccessfulFileDownload, getFileForUpload, addXferLogEntry,
// onUpgradeProgressUpdate, onUpgradeTerminated.
//
// Threading: everything runs on the job's event loop; the controller reports on the loop that
// started the upgrade, which is the job's. Destroying the job cancels the upgrade's reports: no
// call reaches the job afterwards.
class PROV_API UpgradeProvisioningJob : public ProvisioningJob,
                                        protected UpdateController::CallbackHandler {
  public:
    ~UpgradeProvisioningJob() override;

  protected:
    enum class Flow { Tar, Manifest };

    // Passes the download direction on and sets the destination "flash:".
    UpgradeProvisioningJob(KtEventLoop& loop, const String& name, ReloadType reloadType,
                           bool compare, const KtList<String>& locations,
                           const ProvisioningCredentials& credentials, ExpressionResolver& resolver,
                           ProvisioningJob::CallbackHandler& handler);

    // By the current location's file name (WORK_FILE_NAME of its path: no query, no fragment, no
    // ";" parameters), case-sensitive: ".tar" first, then "manifest"; anything else is refused
    // with "Provisioned file type not supported".
    [[nodiscard]] XCode chooseFlow(Flow& flow) const;
    // Extracts the member "manifest" of the archive in outFile into "/tmp/provisioning" and
    // reads it as the upgrade text. Whatever had the member's name goes first; a member that is
    // not a file with one link ("UNSAFE MEMBER IN ARCHIVE: manifest is a symbolic link"), or
    // larger than the manifest cap, is refused and removed without being opened or followed.
    [[nodiscard]] XCode readArchiveManifest(String& text) const;
    // Reads the work file as the upgrade text.
    [[nodiscard]] XCode readDownloadedManifest(String& text) const;
    // Hands the archive in outFile to the controller; sets asyncPending once it runs.
    [[nodiscard]] XCode startUpgradeFromArchive();
    // Hands the current location's URI (with its query, without its fragment and login), the
    // user and password held for its origin and the three HTTPS settings to the controller, which
    // fetches the file itself; sets asyncPending once it runs. A protocol other than TFTP, HTTP or
    // HTTPS is refused with "Invalid protocol".
    [[nodiscard]] XCode startUpgradeFromLocation();
    // The failure step of both flows: a transfer-log entry with the error's text; returns the
    // error for the base to end the job with.
    [[nodiscard]] XCode failUpgrade(XCode result);
    // "[name/Update] Terminated: <result>", when MON_PROV is enabled.
    void logUpgradeTerminated(const XCode& result) const;

    // Progress reports are ignored.
    void onUpgradeProgressUpdate(const String& text) override;

    // The directory the archive's manifest is extracted into, and the extracted file.
    static constexpr const char* EXTRACT_DIRECTORY = "/tmp/provisioning";
    static constexpr const char* EXTRACTED_MANIFEST = "/tmp/provisioning/manifest";

  private:
    // The text of `path`, up to the manifest cap, with the 20-character floor; both errors speak
    // of a script on purpose, also for the firmware job.
    [[nodiscard]] static XCode READ_UPGRADE_TEXT(const String& path, String& text);
    // Success when the extracted manifest is missing (the read reports that) or a file with one
    // link; else "UNSAFE MEMBER IN ARCHIVE: manifest <why>".
    [[nodiscard]] static XCode CHECK_EXTRACTED_MANIFEST();
    [[nodiscard]] XCode onUpgradeStarted(XCode started);
};
