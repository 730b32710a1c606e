#pragma once

#include "engine/ProvisioningJob.h"
#include "platform/Export.h"

// Downloads a configuration in the device's CLI language and stores it as the startup
// configuration, or, after an HTTP 201, executes it on the running system.
class PROV_API ConfigProvisioningJob : public ProvisioningJob {
  public:
    ConfigProvisioningJob(KtEventLoop& loop, const String& name, ReloadType reloadType,
                          bool compare, const KtList<String>& locations,
                          const ProvisioningCredentials& credentials, ExpressionResolver& resolver,
                          CallbackHandler& handler);
    ~ConfigProvisioningJob() override = default;

    // The major version of "cli version N" in the text, 0 when none is recognised.
    static unsigned int getCliMajorVersion(const String& text);
    static bool isValidConfig(String& text);

  protected:
    [[nodiscard]] XCode onFailedFileDownload() override;
    [[nodiscard]] XCode onSuccessfulFileDownload() override;
    void addXferLogEntry(const String& result, const String& detail) override;

  private:
    [[nodiscard]] XCode storeConfiguration(const String& downloaded);
    [[nodiscard]] XCode executeConfiguration(const String& downloaded);
    // True when the stored configuration equals `downloaded` byte for byte.
    bool isUnchanged(const String& downloaded);
};
