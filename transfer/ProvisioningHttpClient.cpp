#include "transfer/ProvisioningHttpClient.h"

#include <memory>
#include <utility>
#include <vector>

#include "engine/ProvLog.h"
#include "platform/KtSemaphore.h"
#include "platform/StringTokenizer.h"
#include "platform/WgetUtil.h"

namespace {

// The private files of one wget run (credentials, CA directory). Released when wget has ended, or
// when the last holder lets go (a run that was abandoned or never started).
class WgetSecrets {
  public:
    explicit WgetSecrets(std::vector<String> wgetArgs) : args(std::move(wgetArgs)) {}
    ~WgetSecrets() { release(); }
    WgetSecrets(const WgetSecrets&) = delete;
    WgetSecrets& operator=(const WgetSecrets&) = delete;
    void release() { WgetUtil::RELEASE_SECRETS(args); }

  private:
    std::vector<String> args;
};

// What a blocking call waits for; shared with the completion so that neither side outlives it.
struct BlockingOutcome {
    KtSemaphore done{0, 2147483647, KtSemaphore::MONOTONIC};
    XCode result;
};

}  // namespace

ProvisioningHttpClient::ProvisioningHttpClient(const String& clientName, const String& oemName,
                                               const String& modelName, const String& serialNumber,
                                               const String& swVersion, const String& hwVersion,
                                               const String& hwRevision, KtEventLoop& loop)
    : eventLoop(loop),
      name(clientName),
      oemName(oemName),
      modelName(modelName),
      serialNumber(serialNumber),
      swVersion(swVersion),
      hwVersion(hwVersion),
      hwRevision(hwRevision) {}

ProvisioningHttpClient::~ProvisioningHttpClient() {
    // A running wget is ended and reaped before the client goes: its callbacks never run, and
    // nothing writes the output file any more.
    future.abandonAndReap();
    completion = Kt::Function<void(XCode)>();
}

XCode ProvisioningHttpClient::getHttpInBackground(const String& url, const String& outFile,
                                                  Kt::Function<void(XCode)> done) {
    return getHttpHttpsInBackground(url, String::s_empty, String::s_empty, outFile, String::s_empty,
                                    String::s_empty, String::s_empty, std::move(done));
}

XCode ProvisioningHttpClient::getHttpInBackground(const String& url, const String& user,
                                                  const String& password, const String& outFile,
                                                  Kt::Function<void(XCode)> done) {
    return getHttpHttpsInBackground(url, user, password, outFile, String::s_empty, String::s_empty,
                                    String::s_empty, std::move(done));
}

XCode ProvisioningHttpClient::getHttpsInBackground(const String& url, const String& outFile,
                                                   const String& https1, const String& https2,
                                                   const String& https3,
                                                   Kt::Function<void(XCode)> done) {
    return getHttpHttpsInBackground(url, String::s_empty, String::s_empty, outFile, https1, https2,
                                    https3, std::move(done));
}

XCode ProvisioningHttpClient::getHttpsInBackground(const String& url, const String& user,
                                                   const String& password, const String& outFile,
                                                   const String& https1, const String& https2,
                                                   const String& https3,
                                                   Kt::Function<void(XCode)> done) {
    return getHttpHttpsInBackground(url, user, password, outFile, https1, https2, https3,
                                    std::move(done));
}

XCode ProvisioningHttpClient::getHttpHttpsInBackground(const String& url, const String& user,
                                                       const String& password,
                                                       const String& outFile, const String& https1,
                                                       const String& https2, const String& https3,
                                                       Kt::Function<void(XCode)> done) {
    XCode result;
    completion = std::move(done);

    std::vector<String> args;
    result = WgetUtil::buildArgs(true, url, user, password, outFile, https1, https2, https3, false,
                                 args, String::s_empty);
    String commandLine;
    if (result.isSuccess()) {
        args.insert(args.begin(), "wget");
        result = Kt::Shell::JOIN_WORDS(args, commandLine);
        if (result.isErr()) {
            WgetUtil::RELEASE_SECRETS(args);
        }
    }
    if (result.isSuccess()) {
        ProvLog::progress("[%s/HTTP] Invoke wget with cmdline: %s", name.c_str(),
                          commandLine.c_str());

        responseText = String();
        lineBuffer = String();

        Kt::Shell::ResultCallback onResult(Kt::asyncCall(eventLoop),
                                           [this](XCode code, String output) {
                                               onWgetResult(std::move(code), std::move(output));
                                           });
        Kt::Shell::OutputCallback onOutput(Kt::asyncCall(eventLoop),
                                           [this](String text) { onWgetOutput(std::move(text)); });
        Kt::Shell::OutputCallback onErrorOutput(
            Kt::asyncCall(eventLoop), [this](String text) { onWgetOutput(std::move(text)); });
        // The shell calls this on its own thread as soon as wget has ended: the private files
        // go at once, and the result travels on to the loop. Abandoning the run drops it
        // unused, which releases the files too.
        auto secrets = std::make_shared<WgetSecrets>(std::move(args));
        Kt::Shell::ResultCallback onEnded(Kt::directCall(),
                                          [secrets, onResult](XCode code, String output) {
                                              secrets->release();
                                              onResult(std::move(code), std::move(output));
                                          });

        // An earlier run still going is abandoned, so its callbacks cannot mix with this one's.
        future.reset();
        result = Kt::Shell::invoke(commandLine, onEnded, onOutput, onErrorOutput, future);
        if (result.isSuccess()) {
            return result;
        }
        secrets->release();
    }
    ProvLog::progressPrefixed(String::format("[%s/HTTP] ", name.c_str()), result.toString());
    return result;
}

XCode ProvisioningHttpClient::getHttp(const String& url, const String& outFile) {
    return getHttpHttps(url, String::s_empty, String::s_empty, outFile, String::s_empty,
                        String::s_empty, String::s_empty);
}

XCode ProvisioningHttpClient::getHttp(const String& url, const String& user, const String& password,
                                      const String& outFile) {
    return getHttpHttps(url, user, password, outFile, String::s_empty, String::s_empty,
                        String::s_empty);
}

XCode ProvisioningHttpClient::getHttps(const String& url, const String& outFile,
                                       const String& https1, const String& https2,
                                       const String& https3) {
    return getHttpHttps(url, String::s_empty, String::s_empty, outFile, https1, https2, https3);
}

XCode ProvisioningHttpClient::getHttps(const String& url, const String& user,
                                       const String& password, const String& outFile,
                                       const String& https1, const String& https2,
                                       const String& https3) {
    return getHttpHttps(url, user, password, outFile, https1, https2, https3);
}

XCode ProvisioningHttpClient::getHttpHttps(const String& url, const String& user,
                                           const String& password, const String& outFile,
                                           const String& https1, const String& https2,
                                           const String& https3) {
    XCode result;
    if (KtEventLoop::current() == &eventLoop) {
        // The outcome is produced on this very loop: waiting here would never end.
        result = XCode::FAILURE();
        result.setString("BLOCKING HTTP CALL ON THE CLIENT'S EVENT LOOP");
        ProvLog::progressPrefixed(String::format("[%s/HTTP] ", name.c_str()), result.toString());
        return result;
    }
    auto outcome = std::make_shared<BlockingOutcome>();
    Kt::Function<void(XCode)> done(Kt::directCall(), [outcome](XCode code) {
        outcome->result = std::move(code);
        // Cannot fail: one signal per run, far below the maximum.
        (void)outcome->done.signal();
    });
    result = getHttpHttpsInBackground(url, user, password, outFile, https1, https2, https3, done);
    if (result.isErr()) {
        return result;
    }
    result = outcome->done.wait();
    if (result.isErr()) {
        return result;
    }
    return outcome->result;
}

void ProvisioningHttpClient::onWgetOutput(String text) {
    responseText += text;
    lineBuffer += text;
    // "\r\n" is a set of delimiters: a line may end in "\n" alone. The empty piece between '\r'
    // and '\n' (or of an empty line) is not logged.
    StringTokenizer tokenizer(lineBuffer, "\r\n");
    const std::vector<String>& pieces = tokenizer.getTokens();
    if (pieces.size() <= 1) {
        return;
    }
    for (std::size_t i = 0; i + 1 < pieces.size(); ++i) {
        if (!pieces[i].isEmpty()) {
            ProvLog::progress("[%s/HTTP] %s", name.c_str(), pieces[i].c_str());
        }
    }
    lineBuffer = pieces.back();
}
