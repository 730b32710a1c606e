// The interoperability matrix: the same scenarios, each a real job of the engine, against every
// HTTP and TFTP server packaged for the host. One server per kind serves all of its scenarios; a
// complete run rewrites docs/INTEROPERABILITY.md.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "InteropCells.h"
#include "InteropReport.h"
#include "InteropServers.h"
#include "platform/Shell.h"
#include "platform/posix/ShellControl.h"
#include "support/Certificates.h"
#include "support/DnsmasqTftpServer.h"

namespace {

using interop::HttpScenario;
using interop::TftpScenario;
namespace site = interop::site;

// Before main and before any thread: this process, and every server and tool it starts, lives in
// a network namespace of its own, where dnsmasq may have port 69.
const ::testing::AssertionResult OWN_NETWORK = provtest::enterOwnNetworkNamespace();

// In the order of HttpScenario.
const std::vector<interop::ScenarioText> HTTP_SCENARIOS = {
    {"plain download",
     "a configuration job downloads `/files/unit.cfg` and stores it as the startup "
     "configuration; the transfer log names the location."},
    {"301, absolute Location",
     "the server answers 301 with an absolute URL; the job logs \"Redirected: ...\", downloads "
     "the target and stores it, and the transfer log names the target."},
    {"301, relative Location",
     "the same with a path as Location, which the job completes with the request's scheme, host "
     "and port. Python's stock handler and BusyBox httpd redirect nothing but a folder asked for "
     "without its trailing slash: there the cell checks that the job follows the redirect to the "
     "folder and refuses it (\"INVALID LOCATION: Cannot download folder\"). Apache's own redirect "
     "directives always send absolute URLs, so a CGI program answers this one there."},
    {"302, absolute Location", "as for 301."},
    {"302, relative Location", "as for 301."},
    {"Basic authentication",
     "the file lies in a realm with Basic authentication; the job holds credentials for that "
     "realm and another one, is challenged, retries once with the realm's user (logged without "
     "the password) and stores the file."},
    {"Digest authentication", "the same with Digest."},
    {"HTTPS, private CA",
     "download over HTTPS; the server presents a certificate for 127.0.0.1 issued by the tests' "
     "intermediate CA with the chain, and the job trusts nothing but the root CA given to it."},
    {"HTTPS, client certificate",
     "the server wants a certificate from the client CA for `/device/`: the job without one is "
     "refused and stores nothing, the job with the device's certificate and key stores the "
     "file."},
    {"404",
     "a missing file: the job fails with \"UNHANDLED ERROR RESPONSE STATUS: <the server's status "
     "line>: wget EXITED WITH STATUS 8\", logs \"FAILED TO DOWNLOAD CONFIGURATION\" at level 3, "
     "leaves no work file, stores nothing and writes no transfer-log line."},
    {"403", "the same for a file that the server refuses."},
    {"large file (64 MiB)",
     "a firmware job downloads a tar archive of a manifest and a 64 MiB image (made once per run "
     "from a sparse file with a marker at every MiB); the work file has the archive's size and "
     "SHA-256, the update controller writes the image into the inactive slot (size and SHA-256 "
     "again) and the transfer log says `-> flash: : succeeded`."},
};

// In the order of TftpScenario.
const std::vector<interop::ScenarioText> TFTP_SCENARIOS = {
    {"download", "a configuration job fetches `/files/unit.cfg` with BusyBox tftp and stores it."},
    {"missing file",
     "the server's TFTP error 1 reaches the monitor (\"[TFTP] tftp: server error: (1) ...\"), the "
     "job fails with tftp's exit status 1, leaves no work file, stores nothing and writes no "
     "transfer-log line."},
    {"large file (64 MiB, blksize)",
     "the firmware archive of the HTTP scenario, fetched by BusyBox tftp asking for 1428-byte "
     "blocks (the blksize option), checked the same way."},
    {"configuration upload",
     "an upload job sends the stored startup configuration to `/uploads/unit.cfg`, which the "
     "server then holds byte for byte; an upload writes no transfer-log line."},
};

::testing::Environment* const PAGE = ::testing::AddGlobalTestEnvironment(new interop::PageWriter(
    PROV_SOURCE_DIR "/docs/INTEROPERABILITY.md", HTTP_SCENARIOS, TFTP_SCENARIOS));

// One server of a kind for all the scenarios of the kind's suite.
template <typename Kind, typename Scenario>
class Interop : public interop::Cell {
  public:
    static void SetUpTestSuite() {
        server_ = Kind::make();
        ::testing::AssertionResult started = server_->start();
        startError_ = started ? "" : started.message();
        interop::Matrix::get().setVersion(server_->name(), server_->version());
    }
    static void TearDownTestSuite() { server_.reset(); }

  protected:
    bool claim(Scenario scenario, const std::vector<interop::ScenarioText>& texts) {
        return Cell::claim(server_->name(), texts.at(static_cast<std::size_t>(scenario)).title,
                           server_->cannot(scenario), startError_);
    }
    auto& server() { return *server_; }

    static inline decltype(Kind::make()) server_;
    static inline std::string startError_;
};

template <typename Kind>
class HttpInterop : public Interop<Kind, HttpScenario> {
  protected:
    bool claim(HttpScenario scenario) {
        return Interop<Kind, HttpScenario>::claim(scenario, HTTP_SCENARIOS);
    }
    ::testing::AssertionResult redirected(HttpScenario scenario, int status) {
        if (this->server().redirectsOnlyFolders()) {
            this->notApplicable(
                "its only redirect sends a folder to its trailing slash, and a folder names no "
                "file: the job follows it and refuses the folder");
            return this->redirectedToFolder(this->server().redirectLocation(scenario),
                                            this->server().redirectTarget(scenario), status);
        }
        return this->redirectFollowed(this->server().redirectLocation(scenario),
                                      this->server().redirectTarget(scenario), status);
    }
};

template <typename Kind>
class TftpInterop : public Interop<Kind, TftpScenario> {
  protected:
    bool claim(TftpScenario scenario) {
        return Interop<Kind, TftpScenario>::claim(scenario, TFTP_SCENARIOS);
    }
};

// The kinds of server: NAME appears in the test names (HttpInterop/Nginx.plainDownloadIsStored),
// make() builds the one server that the kind's suite shares.
struct Lighttpd {
    static constexpr const char* NAME = "Lighttpd";
    static auto make() { return interop::makeLighttpd(); }
};
struct Nginx {
    static constexpr const char* NAME = "Nginx";
    static auto make() { return interop::makeNginx(); }
};
struct Apache {
    static constexpr const char* NAME = "Apache";
    static auto make() { return interop::makeApache(); }
};
struct Python {
    static constexpr const char* NAME = "Python";
    static auto make() { return interop::makePython(); }
};
struct Busybox {
    static constexpr const char* NAME = "Busybox";
    static auto make() { return interop::makeBusybox(); }
};
struct TftpdHpa {
    static constexpr const char* NAME = "TftpdHpa";
    static auto make() { return interop::makeTftpdHpa(); }
};
struct Dnsmasq {
    static constexpr const char* NAME = "Dnsmasq";
    static auto make() { return interop::makeDnsmasq(OWN_NETWORK ? "" : OWN_NETWORK.message()); }
};

struct KindNames {
    template <typename Kind>
    static std::string GetName(int) {
        return Kind::NAME;
    }
};

using HttpKinds = ::testing::Types<Lighttpd, Nginx, Apache, Python, Busybox>;
using TftpKinds = ::testing::Types<TftpdHpa, Dnsmasq>;
TYPED_TEST_SUITE(HttpInterop, HttpKinds, KindNames);
TYPED_TEST_SUITE(TftpInterop, TftpKinds, KindNames);

interop::TlsSettings privateCa() {
    return {provtest::Certificates::get().rootCa(), "", ""};
}

// --- HTTP ---

TYPED_TEST(HttpInterop, plainDownloadIsStored) {
    if (!this->claim(HttpScenario::Plain)) {
        GTEST_SKIP() << this->reason();
    }
    const std::string location = this->server().url(site::FILE);
    this->expectPasses(this->configStored(location, location));
}

TYPED_TEST(HttpInterop, movedPermanentlyToAnAbsoluteUrlIsFollowed) {
    if (!this->claim(HttpScenario::MovedAbsolute)) {
        GTEST_SKIP() << this->reason();
    }
    this->expectPasses(this->redirected(HttpScenario::MovedAbsolute, 301));
}

TYPED_TEST(HttpInterop, movedPermanentlyToAPathIsFollowed) {
    if (!this->claim(HttpScenario::MovedRelative)) {
        GTEST_SKIP() << this->reason();
    }
    this->expectPasses(this->redirected(HttpScenario::MovedRelative, 301));
}

TYPED_TEST(HttpInterop, foundAtAnAbsoluteUrlIsFollowed) {
    if (!this->claim(HttpScenario::FoundAbsolute)) {
        GTEST_SKIP() << this->reason();
    }
    this->expectPasses(this->redirected(HttpScenario::FoundAbsolute, 302));
}

TYPED_TEST(HttpInterop, foundAtAPathIsFollowed) {
    if (!this->claim(HttpScenario::FoundRelative)) {
        GTEST_SKIP() << this->reason();
    }
    this->expectPasses(this->redirected(HttpScenario::FoundRelative, 302));
}

TYPED_TEST(HttpInterop, basicChallengeIsAnsweredWithTheRealmsCredentials) {
    if (!this->claim(HttpScenario::Basic)) {
        GTEST_SKIP() << this->reason();
    }
    this->expectPasses(this->challengeAnswered(
        this->server().url(site::BASIC), {site::BASIC_REALM, site::USER, site::PASSWORD}, "Basic"));
}

TYPED_TEST(HttpInterop, digestChallengeIsAnsweredWithTheRealmsCredentials) {
    if (!this->claim(HttpScenario::Digest)) {
        GTEST_SKIP() << this->reason();
    }
    this->expectPasses(this->challengeAnswered(this->server().url(site::DIGEST),
                                               {site::DIGEST_REALM, site::USER, site::PASSWORD},
                                               "Digest"));
}

TYPED_TEST(HttpInterop, httpsFromAPrivateCaIsStored) {
    if (!this->claim(HttpScenario::HttpsPrivateCa)) {
        GTEST_SKIP() << this->reason();
    }
    const std::string location = this->server().httpsUrl(site::FILE);
    this->expectPasses(this->configStored(location, location, privateCa()));
    EXPECT_GE(this->prov.indexOf("[" + interop::JOB + "] Starting HTTPS download"), 0);
}

TYPED_TEST(HttpInterop, clientCertificateIsRequiredAndAccepted) {
    if (!this->claim(HttpScenario::HttpsClientCertificate)) {
        GTEST_SKIP() << this->reason();
    }
    const provtest::Certificates& certificates = provtest::Certificates::get();
    this->expectPasses(this->clientCertificateRequired(
        this->server().httpsUrl(site::DEVICE),
        {certificates.rootCa(), certificates.clientCert(), certificates.clientKey()}));
}

TYPED_TEST(HttpInterop, missingFileFailsWithTheServersStatusLine) {
    if (!this->claim(HttpScenario::NotFound)) {
        GTEST_SKIP() << this->reason();
    }
    this->expectPasses(this->refusedWithStatus(this->server().url(site::MISSING), 404));
}

TYPED_TEST(HttpInterop, forbiddenFileFailsWithTheServersStatusLine) {
    if (!this->claim(HttpScenario::Forbidden)) {
        GTEST_SKIP() << this->reason();
    }
    this->expectPasses(this->refusedWithStatus(this->server().url(site::FORBIDDEN), 403));
}

TYPED_TEST(HttpInterop, largeFirmwareArrivesWholeAndIsWritten) {
    if (!this->claim(HttpScenario::LargeFile)) {
        GTEST_SKIP() << this->reason();
    }
    this->expectPasses(this->largeFirmwareWritten(this->server().url(site::LARGE)));
}

// --- TFTP ---

TYPED_TEST(TftpInterop, downloadIsStored) {
    if (!this->claim(TftpScenario::Download)) {
        GTEST_SKIP() << this->reason();
    }
    const std::string location = this->server().location(site::FILE);
    this->expectPasses(this->configStored(location, location));
}

TYPED_TEST(TftpInterop, missingFileFailsWithTheServersError) {
    if (!this->claim(TftpScenario::MissingFile)) {
        GTEST_SKIP() << this->reason();
    }
    this->expectPasses(this->tftpFileMissing(this->server().location(site::MISSING)));
}

TYPED_TEST(TftpInterop, largeFirmwareArrivesInLargeBlocks) {
    if (!this->claim(TftpScenario::LargeFile)) {
        GTEST_SKIP() << this->reason();
    }
    // The device's tftp asks for blocks that fill an Ethernet frame. In 512-byte blocks 64 MiB
    // would also need the 16-bit block number to wrap, which the blksize option avoids.
    Kt::ShellControl::SET_TOOL("tftp", {"busybox", "tftp", "-b", "1428"});
    ::testing::AssertionResult verdict =
        this->largeFirmwareWritten(this->server().location(site::LARGE));
    Kt::ShellControl::SET_TOOL("tftp", {"busybox", "tftp"});
    this->expectPasses(verdict);
}

TYPED_TEST(TftpInterop, configurationIsUploaded) {
    if (!this->claim(TftpScenario::Upload)) {
        GTEST_SKIP() << this->reason();
    }
    const std::string location = this->server().location("/uploads/unit.cfg");
    const std::string copy = this->server().root() + "/uploads/unit.cfg";
    const std::string refusal = this->server().uploadRefusal();
    if (refusal.empty()) {
        this->expectPasses(this->configUploaded(
            location, [&copy] { return provtest::readUpload(copy, interop::CONFIG.size()); }));
        return;
    }
    this->expectPasses(
        this->uploadRefused(location, refusal, [&copy] { return provtest::fileExists(copy); }));
    this->notApplicable("read-only: answers an upload with the TFTP error " + refusal);
}

}  // namespace
