#include "jobs/content/ConfigProvisioningJob.h"

#include "engine/ProvLog.h"
#include "jobs/content/FlashFile.h"
#include "platform/Cli.h"

ConfigProvisioningJob::ConfigProvisioningJob(KtEventLoop& loop, const String& jobName,
                                             ReloadType reload, bool compare,
                                             const KtList<String>& jobLocations,
                                             const ProvisioningCredentials& jobCredentials,
                                             ExpressionResolver& resolver, CallbackHandler& handler)
    : ProvisioningJob(loop, jobName, reload, Download, compare, jobLocations, jobCredentials,
                      resolver, handler) {
    uploadLocation = CLI::GET_STARTUP_CONFIGURATION_NAME();
}

XCode ConfigProvisioningJob::onFailedFileDownload() {
    ProvLog::log(MON_PROV, ProvLog::LEVEL_FAILURE, "[%s] FAILED TO DOWNLOAD CONFIGURATION",
                 name.c_str());
    return testExpression(true);
}

XCode ConfigProvisioningJob::onSuccessfulFileDownload() {
    ProvLog::progress("[%s] Successfully downloaded configuration", name.c_str());
    String downloaded;
    XCode result = FlashFile::READ_DOWNLOADED(outFile, downloaded);
    if (result.isSuccess()) {
        if (!comparisonAllowed) {
            // The server answered 201: run it, neither compared nor validated.
            result = executeConfiguration(downloaded);
        } else {
            bool unchanged = isUnchanged(downloaded);
            // Validation also applies to an unchanged configuration.
            if (!isValidConfig(downloaded)) {
                result = XCode::FAILURE("DOWNLOADED FILE IS NOT A VALID CONFIGURATION");
            } else if (unchanged) {
                // Intended silence: an unchanged configuration writes no transfer-log line.
                return result;
            } else {
                result = storeConfiguration(downloaded);
            }
        }
    }
    if (result.isErr()) {
        addXferLogEntry(result.toString(), "");
    }
    return result;
}

bool ConfigProvisioningJob::isUnchanged(const String& downloaded) {
    if (!compareWithStored) {
        ProvLog::progress("[%s] No configuration comparison performed", name.c_str());
        return false;
    }
    String stored;
    String error;
    if (CLI::GET_CONFIGURATION_CONTENT(uploadLocation, stored, error).isErr()) {
        ProvLog::progress("[%s] No stored configuration: %s", name.c_str(), error.c_str());
        return false;
    }
    if (stored == downloaded) {
        ProvLog::progress("[%s] Downloaded and stored configurations are equal", name.c_str());
        return true;
    }
    return false;
}

XCode ConfigProvisioningJob::storeConfiguration(const String& downloaded) {
    ProvLog::progress("[%s] Storing configuration", name.c_str());
    String error;
    XCode result = CLI::STORE_CONFIGURATION_CONTENT(uploadLocation, downloaded, error);
    if (result.isErr()) {
        return result.setString(error);
    }
    activationFlag = true;
    ProvLog::log(MON_EVENT, ProvLog::LEVEL_PROGRESS,
                 "[%s] Received and stored configuration update", name.c_str());
    addXferLogEntry("succeeded", "");
    return result;
}

XCode ConfigProvisioningJob::executeConfiguration(const String& downloaded) {
    ProvLog::progress("[%s] Executing configuration", name.c_str());
    // The executor gets the monitor only where it would log its command output.
    RTD::Monitor* output =
        RTD::REPOSITORY::GET_MONITOR_IF_ENABLED_FOR_LOGGING(MON_PROV, ProvLog::LEVEL_PROGRESS);
    XCode result = CmdExec::EXECUTE(downloaded, true, output, 0);
    if (result.isErr()) {
        return result;
    }
    activationFlag = false;
    ProvLog::log(MON_EVENT, ProvLog::LEVEL_PROGRESS, "[%s] Received and executed configuration",
                 name.c_str());
    addXferLogEntry("succeeded", "");
    return result;
}

void ConfigProvisioningJob::addXferLogEntry(const String& result, const String& detail) {
    const String& destination = comparisonAllowed ? uploadLocation : String("running-config");
    if (detail.isEmpty()) {
        ProvLog::log(MON_XFER, ProvLog::LEVEL_PROGRESS, "%s : %s -> %s : %s", name.c_str(),
                     downloadLocation.c_str(), destination.c_str(), result.c_str());
    } else {
        ProvLog::log(MON_XFER, ProvLog::LEVEL_PROGRESS, "%s : %s -> %s %s : %s", name.c_str(),
                     downloadLocation.c_str(), destination.c_str(), detail.c_str(), result.c_str());
    }
}

bool ConfigProvisioningJob::isValidConfig(String& text) {
    return text.indexOf("context ip") >= 0 && text.indexOf("port ethernet") >= 0 &&
           text.indexOf("interface") >= 0 && getCliMajorVersion(text) > 3;
}

unsigned int ConfigProvisioningJob::getCliMajorVersion(const String& text) {
    int search = 0;
    while (true) {
        int cli = text.indexOf("cli ", search);
        if (cli < 0) {
            return 0;
        }
        int position = cli + 4;
        while (position < text.length() && text.at(position) == ' ') {
            ++position;
        }
        if (text.substring(position, position + 8) != "version ") {
            search = position;
            continue;
        }
        // The digit scan starts inside the word "version" (plus 3, not plus 8); the word holds
        // no digit, so the result is the same.
        int start = position + 3;
        int lineEnd = text.indexOf('\n', start);
        if (lineEnd < 0) {
            // A version on the last, unterminated line is not recognised; intended.
            return 0;
        }
        auto isDigit = [&text](int i) { return text.at(i) >= '0' && text.at(i) <= '9'; };
        int digits = start;
        while (digits < lineEnd && !isDigit(digits)) {
            ++digits;
        }
        int end = digits;
        while (end < lineEnd && isDigit(end)) {
            ++end;
        }
        if (end == digits) {
            return 0;
        }
        unsigned long long version = 0;
        for (int i = digits; i < end && version <= 0xFFFFFFFFULL; ++i) {
            version = version * 10 + static_cast<unsigned long long>(text.at(i) - '0');
        }
        // A number too large for 32 bits saturates instead of wrapping into a small version.
        return version > 0xFFFFFFFFULL ? 0xFFFFFFFFU : static_cast<unsigned int>(version);
    }
}
