#pragma once

#include "engine/ProvisioningJob.h"
#include "platform/Export.h"

// Downloads a wizard, stores it as "/flash/wizard/<file name of the location>" and leaves the
// CLI command "add wizard" in mode "Wizard" with the file's name for the job's owner.
class PROV_API WizardProvisioningJob : public ProvisioningJob {
  public:
    WizardProvisioningJob(KtEventLoop& loop, const String& name, ReloadType reloadType,
                          bool compare, const KtList<String>& locations,
                          const ProvisioningCredentials& credentials, ExpressionResolver& resolver,
                          CallbackHandler& handler);
    ~WizardProvisioningJob() override = default;

    // The place for a content test of wizards; every text is accepted for now.
    static bool isValidWizard(String& text);

  protected:
    [[nodiscard]] XCode onFailedFileDownload() override;
    [[nodiscard]] XCode onSuccessfulFileDownload() override;
};
