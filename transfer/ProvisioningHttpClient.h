#pragma once

#include "platform/Export.h"
#include "platform/KtEventLoop.h"
#include "platform/KtFunction.h"
#include "platform/Shell.h"
#include "platform/String.h"
#include "platform/XCode.h"

struct ProvisioningHttpClientTestHook;

// Fetches one URL over HTTP or HTTPS into a local file by running wget in the background and
// reports one XCode per run to a completion callback: success, the HTTP code for 401 (realm and
// scheme recorded), the HTTP code for 302 (also for a 301; Location recorded) or a failure with a
// message.
//
// Threading: the background members and every callback run on the client's event loop; the
// completion is called there, once per started run, from onWgetResult. The blocking members wait
// for the same run and must be called from another thread while that loop runs.
// Destroying the client abandons a running wget: no callback of that run reaches the client or
// its completion afterwards. Destroy it on its loop's thread or while that loop does not run.
class PROV_API ProvisioningHttpClient {
  public:
    ProvisioningHttpClient(const String& clientName, const String& oemName, const String& modelName,
                           const String& serialNumber, const String& swVersion,
                           const String& hwVersion, const String& hwRevision, KtEventLoop& loop);
    ~ProvisioningHttpClient();
    ProvisioningHttpClient(const ProvisioningHttpClient&) = delete;
    ProvisioningHttpClient& operator=(const ProvisioningHttpClient&) = delete;

    // Start a run and return at once. Success: `completion` will be called once with the
    // outcome. Error: nothing was started and `completion` is never called.
    [[nodiscard]] XCode getHttpInBackground(const String& url, const String& outFile,
                                            Kt::Function<void(XCode)> completion);
    [[nodiscard]] XCode getHttpInBackground(const String& url, const String& user,
                                            const String& password, const String& outFile,
                                            Kt::Function<void(XCode)> completion);
    [[nodiscard]] XCode getHttpsInBackground(const String& url, const String& outFile,
                                             const String& https1, const String& https2,
                                             const String& https3,
                                             Kt::Function<void(XCode)> completion);
    [[nodiscard]] XCode getHttpsInBackground(const String& url, const String& user,
                                             const String& password, const String& outFile,
                                             const String& https1, const String& https2,
                                             const String& https3,
                                             Kt::Function<void(XCode)> completion);
    [[nodiscard]] XCode getHttpHttpsInBackground(const String& url, const String& user,
                                                 const String& password, const String& outFile,
                                                 const String& https1, const String& https2,
                                                 const String& https3,
                                                 Kt::Function<void(XCode)> completion);

    // Blocking forms: start a run and wait for its outcome. Never on the client's loop thread
    // (refused there with an error, since the outcome is produced on that loop). The client must
    // outlive the call: destroying it abandons the run, and the call would wait for ever.
    [[nodiscard]] XCode getHttp(const String& url, const String& outFile);
    [[nodiscard]] XCode getHttp(const String& url, const String& user, const String& password,
                                const String& outFile);
    [[nodiscard]] XCode getHttps(const String& url, const String& outFile, const String& https1,
                                 const String& https2, const String& https3);
    [[nodiscard]] XCode getHttps(const String& url, const String& user, const String& password,
                                 const String& outFile, const String& https1, const String& https2,
                                 const String& https3);
    [[nodiscard]] XCode getHttpHttps(const String& url, const String& user, const String& password,
                                     const String& outFile, const String& https1,
                                     const String& https2, const String& https3);

    // What the last run's responses said; kept until the next run overwrites them. Read on the
    // client's loop (or after the blocking form returned).
    const String& getRealm() const { return realm; }
    const String& getAuthScheme() const { return authScheme; }
    // -1 until a status line has been parsed.
    int getLastStatus() const { return lastStatus; }
    const String& getLocation() const { return location; }

    // Response analysis on wget's printed headers, line by line. Only the final response counts:
    // its status line is the last line whose first non-blank characters are "HTTP/", and a
    // header is a line of that response that starts with the header's name (case included).
    [[nodiscard]] XCode parseResponseLine(const String& text, int& status, String& statusLine);
    [[nodiscard]] XCode getHeaderLine(const String& text, const String& headerName,
                                      String& line) const;
    // Sets the Location value.
    [[nodiscard]] XCode parseLocationHeader(const String& text);
    // Sets the scheme and the realm.
    [[nodiscard]] XCode parseAuthHeader(const String& text);

  private:
    friend struct ProvisioningHttpClientTestHook;

    // Shell callbacks, delivered on the client's loop. Output of both streams, piece by piece.
    void onWgetOutput(String text);
    // Once per run, after wget ended; `output` is not used (onWgetOutput collected it).
    void onWgetResult(XCode result, String output);
    [[nodiscard]] XCode analyseWgetExit(const XCode& result);

    KtEventLoop& eventLoop;
    String name;
    Kt::Function<void(XCode)> completion;
    Kt::Future<String> future;
    String responseText;
    String lineBuffer;
    String realm;
    String authScheme;
    int lastStatus = -1;
    String location;
    // Kept for the client's life; nothing reads them.
    String oemName;
    String modelName;
    String serialNumber;
    String swVersion;
    String hwVersion;
    String hwRevision;
};
