// python3's stock http.server, untouched, provisions a device through the provctl binary: a
// configuration, a dial plan, a key and a firmware archive, each job succeeding and leaving its
// result in the device directory. Its answers carry "Server: SimpleHTTP/0.6 Python/3.x", a
// header value holding "HTTP/", and come as HTTP/1.0.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/ProvctlRun.h"
#include "support/PythonHttpServer.h"
#include "support/TempDir.h"
#include "support/UpgradeSupport.h"

namespace {

using provtest::readFile;

const std::string CONFIG =
    "cli version 4.12\ncontext ip router\n  interface lan\nport ethernet 0 0\n";
const std::string PLAN = "route 0049* via trunk-a\nroute 00* via trunk-b\n";
const std::string KEY = "-----BEGIN KEY-----\nAAAABBBBCCCC\n-----END KEY-----\n";
const std::string MANIFEST = "sw_type=X\nsw_version=2.0\nsw_build_num=1\n";
const std::string IMAGE = "the image bytes of version 2.0\n";

class StockPythonServerTest : public ::testing::Test {
  public:
    static void SetUpTestSuite() {
        server_ = std::make_unique<provtest::PythonHttpServer>();
        staging_ = std::make_unique<provtest::TempDir>("prov-python-firmware");
        server_->put("/cfg/unit.cfg", CONFIG);
        server_->put("/plans/office.txt", PLAN);
        server_->put("/keys/unit.key", KEY);
        provtest::writeFile(staging_->file("manifest"), MANIFEST);
        provtest::writeFile(staging_->file("image"), IMAGE);
        provtest::makeDirs(server_->docroot() + "/fw");
        archived_ = provtest::makeTar(server_->docroot() + "/fw/firmware.tar", staging_->path(),
                                      {"manifest", "image"});
        started_ = server_->start();
    }
    static void TearDownTestSuite() {
        server_.reset();
        staging_.reset();
    }

  protected:
    void SetUp() override {
        ASSERT_TRUE(archived_);
        ASSERT_TRUE(started_);
    }

    // Runs provctl on this test's device; the job must succeed.
    ::testing::AssertionResult provctl(std::vector<std::string> args) {
        args.insert(args.begin() + 1, {"--device", device()});
        provtest::ProvctlOutcome run = provtest::runProvctl(dir_, args);
        if (!run.ended || run.status != 0) {
            return ::testing::AssertionFailure()
                   << "provctl " << args.front() << " ended with " << run.status << "\n"
                   << run.out << run.err << "server:\n"
                   << server_->log();
        }
        err_ = run.err;
        return ::testing::AssertionSuccess();
    }
    std::string device() const { return dir_.file("device"); }
    std::string url(const std::string& path) const { return server_->url(path); }
    bool logged(const std::string& line) const {
        return err_.find(line + "\n") != std::string::npos;
    }

    static inline std::unique_ptr<provtest::PythonHttpServer> server_;
    static inline std::unique_ptr<provtest::TempDir> staging_;
    static inline ::testing::AssertionResult archived_ = ::testing::AssertionFailure();
    static inline ::testing::AssertionResult started_ = ::testing::AssertionFailure();

    provtest::TempDir dir_{"prov-python-provctl"};
    std::string err_;
};

TEST_F(StockPythonServerTest, configurationIsStored) {
    ASSERT_TRUE(provctl({"config", url("/cfg/unit.cfg")}));
    EXPECT_EQ(readFile(device() + "/config/startup-config"), CONFIG);
    EXPECT_TRUE(
        logged("XFER 6 config : " + url("/cfg/unit.cfg") + " -> startup-config : succeeded"))
        << err_;
}

TEST_F(StockPythonServerTest, dialPlanIsStoredInFlash) {
    ASSERT_TRUE(provctl({"dialplan", "--dialplan", "flash:office", url("/plans/office.txt")}));
    EXPECT_EQ(readFile(device() + "/flash/dialplan/office"), PLAN);
    EXPECT_TRUE(
        logged("XFER 6 dialplan : " + url("/plans/office.txt") + " -> flash:office : succeeded"))
        << err_;
}

TEST_F(StockPythonServerTest, keyIsStoredInFlash) {
    ASSERT_TRUE(provctl({"key", url("/keys/unit.key")}));
    EXPECT_EQ(readFile(device() + "/flash/preferences/key"), KEY);
    EXPECT_TRUE(logged("XFER 6 key : " + url("/keys/unit.key") + " ->  : succeeded")) << err_;
}

TEST_F(StockPythonServerTest, firmwareIsWrittenToTheInactiveSlot) {
    ASSERT_TRUE(provctl({"firmware", url("/fw/firmware.tar")}));
    EXPECT_EQ(readFile(device() + "/slots/2"), IMAGE);
    EXPECT_EQ(readFile(device() + "/slots/state"),
              "active=1\nnext=2\nversion.1=\nversion.2=X 2.0 1\n");
    EXPECT_TRUE(logged("XFER 6 firmware : " + url("/fw/firmware.tar") + " -> flash: : succeeded"))
        << err_;
}

}  // namespace
