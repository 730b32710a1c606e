// libFuzzer target for the extraction of an archive's manifest: the firmware job's own path
// (UpgradeProvisioningJob::readArchiveManifest), which runs the real GNU tar on the archive in
// the work directory.
//
// Input: a list of members, each "<type> <name> <link target> <size>" as four bytes choosing
// from the tables below, followed by <size> bytes of content (a size byte of 255 makes a member
// larger than the manifest cap). The target writes them as a tar archive (ustar headers, GNU long
// names past 100 bytes) into the work directory and extracts it through the job.
//
// The device directory is a fresh temporary one. Checked after every run: the sentinel directory
// beside the work directory (reached by "../" names, by absolute names and by link targets) holds
// exactly its one file, with its content, mode and single link; and "manifest" in the work
// directory is either absent or a regular file with one link. A failed check aborts.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "expression/ExpressionResolver.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "platform/FileNode.h"
#include "platform/KtEventLoop.h"
#include "platform/simulated/DeviceDirectory.h"
#include "transfer/ProvisioningCredentials.h"

namespace {

void check(bool condition, const char* what) {
    if (!condition) {
        std::fprintf(stderr, "ArchiveFuzz: %s\n", what);
        std::abort();
    }
}

const char* const SECRET = "sentinel content\n";

struct Places {
    std::string root;           // the device directory
    std::string work;           // host path of the work directory
    std::string sentinelName;   // the sentinel directory's name, beside the work directory
    std::string sentinel;       // its host path
    std::string archiveDevice;  // the archive as the job names it
};

// A device directory of the fuzzer's own: its work directory is shared with nobody.
Places& places() {
    static Places* setUp = [] {
        auto* p = new Places();
        char root[] = "/tmp/fz-archive-device-XXXXXX";
        check(::mkdtemp(root) != nullptr, "cannot make the device directory");
        p->root = root;
        Device::SET_ROOT(p->root.c_str());
        check(Device::PREPARE().isSuccess(), "cannot prepare the device");
        p->work = Device::MAP_PATH("/tmp/provisioning").str();
        p->sentinelName = "fz-sentinel-" + std::to_string(::getpid());
        p->sentinel = p->work.substr(0, p->work.rfind('/')) + "/" + p->sentinelName;
        ::mkdir(p->sentinel.c_str(), 0755);
        const std::string secret = p->sentinel + "/secret";
        int fd = ::open(secret.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        check(fd >= 0 && ::write(fd, SECRET, std::strlen(SECRET)) ==
                             static_cast<ssize_t>(std::strlen(SECRET)),
              "cannot write the sentinel");
        ::close(fd);
        p->archiveDevice = "/tmp/provisioning/fz-archive-" + std::to_string(::getpid()) + ".tar";
        std::atexit([] {
            const Places& done = places();
            ::unlink((done.sentinel + "/secret").c_str());
            ::rmdir(done.sentinel.c_str());
            ::unlink(Device::MAP_PATH(done.archiveDevice.c_str()).c_str());
            static_cast<void>(FileNode::REMOVE_WITHOUT_FOLLOWING(done.root.c_str()));
        });
        return p;
    }();
    return *setUp;
}

std::vector<std::string> memberNames(const Places& p) {
    return {"manifest",
            "manifest/x",
            "./manifest",
            "manifest/",
            "/manifest",
            "manifest/sub/deeper",
            "../" + p.sentinelName + "/created",
            "../" + p.sentinelName + "/secret",
            p.sentinel + "/created",
            "manifest/../../" + p.sentinelName + "/created",
            "manifest/" + std::string(150, 'a'),
            std::string(120, 'b') + "/manifest",
            "x",
            "manifest/link/escape"};
}

std::vector<std::string> linkTargets(const Places& p) {
    return {"manifest",
            p.sentinel + "/secret",
            "../" + p.sentinelName + "/secret",
            "../" + p.sentinelName,
            p.sentinel,
            "x",
            "fz-archive-" + std::to_string(::getpid()) + ".tar",
            "manifest/x",
            ""};
}

// ustar type flags: regular, hard link, symbolic link, character device, directory, FIFO.
const char TYPES[] = {'0', '1', '2', '3', '5', '6'};

void putOctal(char* field, std::size_t width, unsigned long value) {
    std::snprintf(field, width, "%0*lo", static_cast<int>(width - 1), value);
}

std::string header(const std::string& name, char type, const std::string& link, std::size_t size) {
    std::string block(512, '\0');
    char* h = &block[0];
    std::memcpy(h, name.data(), name.size() < 100 ? name.size() : 100);
    putOctal(h + 100, 8, type == '5' ? 0755 : 0644);
    putOctal(h + 108, 8, 0);
    putOctal(h + 116, 8, 0);
    putOctal(h + 124, 12, size);
    putOctal(h + 136, 12, 0);
    std::memset(h + 148, ' ', 8);
    h[156] = type;
    std::memcpy(h + 157, link.data(), link.size() < 100 ? link.size() : 100);
    std::memcpy(h + 257, "ustar", 6);
    std::memcpy(h + 263, "00", 2);
    putOctal(h + 329, 8, type == '3' ? 1 : 0);
    putOctal(h + 337, 8, type == '3' ? 5 : 0);  // 1:5, /dev/zero
    unsigned long sum = 0;
    for (unsigned char c : block) {
        sum += c;
    }
    std::snprintf(h + 148, 8, "%06lo", sum);
    return block;
}

void appendData(std::string& archive, const std::string& data) {
    archive += data;
    archive.append((512 - data.size() % 512) % 512, '\0');
}

// A GNU long-name entry ('L') before a header whose name does not fit in 100 bytes.
void appendMember(std::string& archive, const std::string& name, char type, const std::string& link,
                  const std::string& content) {
    if (name.size() >= 100) {
        archive += header("././@LongLink", 'L', "", name.size() + 1);
        appendData(archive, name + '\0');
    }
    const bool hasData = type == '0';
    archive += header(name, type, link, hasData ? content.size() : 0);
    if (hasData) {
        appendData(archive, content);
    }
}

std::string archiveOf(const std::uint8_t* data, std::size_t size, const Places& p) {
    const std::vector<std::string> names = memberNames(p);
    const std::vector<std::string> targets = linkTargets(p);
    std::string archive;
    std::size_t at = 0;
    for (int members = 0; members < 8 && at + 4 <= size; ++members) {
        const char type = TYPES[data[at] % sizeof TYPES];
        const std::string& name = names[data[at + 1] % names.size()];
        const std::string& link = targets[data[at + 2] % targets.size()];
        const std::size_t wanted = data[at + 3];
        at += 4;
        std::string content;
        if (wanted == 255) {
            content.assign(FileNode::MANIFEST_CAP() + 1000, 'A');
        } else {
            const std::size_t length = wanted < size - at ? wanted : size - at;
            content.assign(reinterpret_cast<const char*>(data + at), length);
            at += length;
        }
        appendMember(archive, name, type, link, content);
    }
    archive.append(1024, '\0');
    return archive;
}

class ExtractingJob : public FirmwareProvisioningJob {
  public:
    using FirmwareProvisioningJob::FirmwareProvisioningJob;
    XCode extract(const String& archive, String& text) {
        outFile = archive;
        return readArchiveManifest(text);
    }
};

struct NoHandler : ProvisioningJob::CallbackHandler {
    void jobFinished(ProvisioningJob&, XCode) override {}
};

ExtractingJob& job() {
    static KtEventLoop loop;
    static ExpressionResolver resolver;
    static NoHandler handler;
    static ExtractingJob extracting(loop, "fz", ProvisioningJob::None, true, KtList<String>(),
                                    ProvisioningCredentials(), resolver, handler, "X 1.0 1",
                                    "X 1.1 1", "X 1.2 7", 2, 1);
    return extracting;
}

void checkSentinel(const Places& p) {
    struct stat status {};
    check(::lstat(p.sentinel.c_str(), &status) == 0 && S_ISDIR(status.st_mode),
          "the sentinel directory changed");
    DIR* directory = ::opendir(p.sentinel.c_str());
    check(directory != nullptr, "cannot list the sentinel directory");
    int entries = 0;
    while (const dirent* entry = ::readdir(directory)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            check(std::strcmp(entry->d_name, "secret") == 0, "a file appeared outside");
            ++entries;
        }
    }
    ::closedir(directory);
    check(entries == 1, "the sentinel file went away");
    const std::string secret = p.sentinel + "/secret";
    check(::lstat(secret.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
              status.st_nlink == 1 && (status.st_mode & 07777) == 0600 &&
              static_cast<std::size_t>(status.st_size) == std::strlen(SECRET),
          "the sentinel file changed");
    char content[64] = {};
    int fd = ::open(secret.c_str(), O_RDONLY | O_CLOEXEC);
    check(fd >= 0 && ::read(fd, content, sizeof content - 1) >= 0, "cannot read the sentinel");
    ::close(fd);
    check(std::strcmp(content, SECRET) == 0, "the sentinel file was written");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Places& p = places();
    const std::string archive = archiveOf(data, size, p);
    const std::string hostArchive = Device::MAP_PATH(p.archiveDevice.c_str()).str();
    int fd = ::open(hostArchive.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    check(fd >= 0 &&
              ::write(fd, archive.data(), archive.size()) == static_cast<ssize_t>(archive.size()),
          "cannot write the archive");
    ::close(fd);
    // What an earlier run left is gone; half of the runs then start with a link at the
    // manifest's name to the sentinel directory, as an earlier writer could leave it: tar would
    // write a member "manifest/x" through it.
    check(FileNode::REMOVE_WITHOUT_FOLLOWING("/tmp/provisioning/manifest").isSuccess(),
          "cannot remove the manifest");
    if (size > 0 && (data[0] & 1) != 0) {
        check(::symlink(p.sentinel.c_str(),
                        Device::MAP_PATH("/tmp/provisioning/manifest").c_str()) == 0,
              "cannot plant the link");
    }

    String text;
    XCode result = job().extract(p.archiveDevice.c_str(), text);

    checkSentinel(p);
    FileNode::Info info;
    check(FileNode::INSPECT("/tmp/provisioning/manifest", info).isSuccess(),
          "cannot inspect the manifest");
    check(info.kind == FileNode::Kind::Missing || FileNode::IS_PLAIN_FILE(info),
          "the manifest left behind is not a plain file");
    check(result.isErr() || static_cast<std::size_t>(text.length()) <= FileNode::MANIFEST_CAP(),
          "a manifest over the cap was read");
    return 0;
}
