#include "UpdateController.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "Cli.h"
#include "Device.h"
#include "KtEventLoop.h"
#include "KtFunction.h"
#include "KtManifestParser.h"
#include "Monitor.h"
#include "Shell.h"
#include "SlotState.h"
#include "UriUtil.h"
#include "WgetUtil.h"

namespace UpdateController {
namespace {

constexpr const char* ACTION = "update";
constexpr const char* DESTINATION = "flash:";
constexpr const char* ARCHIVE_PREFIX = "file:";
constexpr const char* WORK_DIRECTORY_TEMPLATE = "/tmp/provisioning/.update-XXXXXX";
constexpr int UNIQUE_PART_LENGTH = 6;  // mkdtemp's "XXXXXX"
constexpr std::size_t COPY_CHUNK = 64 * 1024;
// A manifest or a script is read whole; anything larger is not one.
constexpr off_t MAX_TEXT_SIZE = 16 * 1024 * 1024;
// What wget says when --max-redirect=0 stopped it at a redirect.
constexpr const char* REDIRECT_REFUSED = "redirections exceeded";
// Progress reports per image: one after each quarter.
constexpr unsigned long long PROGRESS_STEPS = 4;

XCode failure(const char* format, ...) KT_PRINTF(1, 2);
XCode failure(const char* format, ...) {
    va_list args;
    va_start(args, format);
    String message = String::vformat(format, args);
    va_end(args);
    return XCode(XCode::GENERIC_FAILURE).setString(message);
}

XCode systemFailure(int error, const char* what, const String& path) {
    return XCode::fromErrno(error).setStringF("%s %s: %s", what, path.c_str(),
                                              std::strerror(error));
}

// The last non-empty line of a tool's output, for error messages.
String lastLine(const String& output) {
    std::vector<String> lines = output.split('\n');
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        String text = *line;
        text.trim();
        if (!text.isEmpty()) {
            return text;
        }
    }
    return String();
}

// A tool's failure: its result, then what it said last.
String describeToolFailure(const XCode& result, const String& output) {
    String detail = lastLine(output);
    return detail.isEmpty() ? result.toString() : result.toString() + ": " + detail;
}

// Appends `word` as one word for the shell's word splitter (double quotes group). A word that
// holds a double quote cannot be passed: false.
bool appendWord(String& commandLine, const String& word) {
    if (word.indexOf('"') >= 0) {
        return false;
    }
    commandLine += " \"";
    commandLine += word;
    commandLine += "\"";
    return true;
}

// A member name as `tar --quoting-style=c` lists it: false for lines that are not a quoted name.
// Only the quote and the backslash are unescaped; other escapes stand for characters that are
// neither '/' nor '.', so they are kept as they are.
bool unquoteMember(const String& line, String& member) {
    if (line.length() < 2 || !line.startsWith("\"") || !line.endsWith("\"")) {
        return false;
    }
    member = String();
    for (int i = 1; i < line.length() - 1; ++i) {
        char c = line.at(i);
        if (c == '\\' && i + 1 < line.length() - 1 &&
            (line.at(i + 1) == '"' || line.at(i + 1) == '\\')) {
            c = line.at(++i);
        }
        member += c;
    }
    return true;
}

bool isUnsafeMember(const String& member) {
    if (member.startsWith("/")) {
        return true;
    }
    for (const String& component : member.split('/')) {
        if (component == "..") {
            return true;
        }
    }
    return false;
}

// One upgrade's link to its handler. The background work posts reports through it; they are
// delivered on the handler's loop. Cancelling stops every later post and delivery, and waits for
// a delivery under way on another thread.
class Session {
  public:
    static std::shared_ptr<Session> CREATE(CallbackHandler* handler, KtEventLoop& loop);

    CallbackHandler* handler() const { return handler_; }
    bool stopRequested() const { return stopRequested_.load(); }

    // Any thread. False once cancelled or terminated.
    bool postProgress(const String& text);
    bool postTerminated(const String& text, const XCode& result, bool first, bool second);
    // Any thread, also from inside a delivery to the handler.
    void cancel();

  private:
    explicit Session(CallbackHandler* handler) : handler_(handler) {}
    void deliverProgress(const String& text);
    void deliverTerminated(const String& text, XCode result, bool first, bool second);

    CallbackHandler* const handler_;
    std::atomic<bool> stopRequested_{false};
    std::mutex postMutex_;
    bool cancelled_ = false;              // guarded by postMutex_
    bool terminationPosted_ = false;      // guarded by postMutex_
    std::recursive_mutex deliveryMutex_;  // held while a report runs
    bool silenced_ = false;               // guarded by deliveryMutex_
    Kt::Function<void(String)> progress_;
    Kt::Function<void(String, XCode, bool, bool)> terminated_;
};

// The controller's shared state. Never destroyed: background work may still end while the
// process exits.
struct Controller {
    std::mutex mutex;
    std::map<CallbackHandler*, std::shared_ptr<Session>> sessions;
    Interceptor interceptor;
    std::size_t running = 0;
    std::condition_variable idle;
};

Controller& controller() {
    static Controller* const instance = new Controller;
    return *instance;
}

// Forgets the handler's session if it is still `session`.
void unregister(const Session* session) {
    Controller& c = controller();
    std::lock_guard<std::mutex> lock(c.mutex);
    auto found = c.sessions.find(session->handler());
    if (found != c.sessions.end() && found->second.get() == session) {
        c.sessions.erase(found);
    }
}

std::shared_ptr<Session> findSession(CallbackHandler* handler) {
    Controller& c = controller();
    std::lock_guard<std::mutex> lock(c.mutex);
    auto found = c.sessions.find(handler);
    return found == c.sessions.end() ? nullptr : found->second;
}

std::shared_ptr<Session> Session::CREATE(CallbackHandler* handler, KtEventLoop& loop) {
    std::shared_ptr<Session> session(new Session(handler));
    // The deliveries hold the session weakly: the registry keeps it until its termination has
    // been delivered or it was cancelled.
    std::weak_ptr<Session> weak = session;
    session->progress_ = Kt::Function<void(String)>(Kt::asyncCall(loop), [weak](String text) {
        if (std::shared_ptr<Session> self = weak.lock()) {
            self->deliverProgress(text);
        }
    });
    session->terminated_ = Kt::Function<void(String, XCode, bool, bool)>(
        Kt::asyncCall(loop), [weak](String text, XCode result, bool first, bool second) {
            if (std::shared_ptr<Session> self = weak.lock()) {
                self->deliverTerminated(text, result, first, second);
            }
        });
    return session;
}

bool Session::postProgress(const String& text) {
    std::lock_guard<std::mutex> lock(postMutex_);
    if (cancelled_ || terminationPosted_) {
        return false;
    }
    progress_(text);
    return true;
}

bool Session::postTerminated(const String& text, const XCode& result, bool first, bool second) {
    std::lock_guard<std::mutex> lock(postMutex_);
    if (cancelled_ || terminationPosted_) {
        return false;
    }
    terminationPosted_ = true;
    terminated_(text, result, first, second);
    return true;
}

void Session::cancel() {
    stopRequested_ = true;
    {
        std::lock_guard<std::mutex> lock(postMutex_);
        cancelled_ = true;
    }
    {
        // Waits for a report running on another thread; from inside a report (the handler
        // cancels while it is being called) the lock is already ours.
        std::lock_guard<std::recursive_mutex> lock(deliveryMutex_);
        silenced_ = true;
    }
    progress_.cancelPending();
    terminated_.cancelPending();
}

void Session::deliverProgress(const String& text) {
    std::lock_guard<std::recursive_mutex> lock(deliveryMutex_);
    if (!silenced_) {
        handler_->onUpgradeProgressUpdate(text);
    }
}

void Session::deliverTerminated(const String& text, XCode result, bool first, bool second) {
    std::lock_guard<std::recursive_mutex> lock(deliveryMutex_);
    if (silenced_) {
        return;
    }
    silenced_ = true;
    // Unregistered before the call: the handler may destroy itself (and cancel) inside it, or
    // start another upgrade.
    unregister(this);
    handler_->onUpgradeTerminated(text, result, first, second);
}

// A private directory under /tmp/provisioning, removed with its content on every path.
class WorkDirectory {
  public:
    WorkDirectory() = default;
    WorkDirectory(const WorkDirectory&) = delete;
    WorkDirectory& operator=(const WorkDirectory&) = delete;
    ~WorkDirectory() { remove(); }

    void remove() {
        if (!path_.isEmpty()) {
            std::error_code ignored;  // what cannot be removed stays; nothing to report it to
            std::filesystem::remove_all(Device::MAP_PATH(path_).str(), ignored);
        }
    }

    // The directory keeps its device path (commands and reports name it so); the shell and
    // openRegularFile map it.
    [[nodiscard]] XCode create() {
        String hostTemplate;
        XCode result = Device::MAP_PATH_CHECKED(WORK_DIRECTORY_TEMPLATE, hostTemplate);
        if (result.isErr()) {
            return result;
        }
        std::string name = hostTemplate.str();
        if (::mkdtemp(name.data()) == nullptr) {
            return systemFailure(errno, "CANNOT CREATE", WORK_DIRECTORY_TEMPLATE);
        }
        String templateText(WORK_DIRECTORY_TEMPLATE);
        path_ = templateText.substring(0, templateText.length() - UNIQUE_PART_LENGTH) +
                String(name.substr(name.size() - static_cast<std::size_t>(UNIQUE_PART_LENGTH)));
        return XCode(XCode::SUCCESS);
    }
    const String& path() const { return path_; }
    String file(const char* name) const { return path_ + "/" + name; }

  private:
    String path_;
};

// A descriptor closed on every path.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { static_cast<void>(close()); }
    int get() const { return fd_; }
    void reset(int fd) {
        static_cast<void>(close());
        fd_ = fd;
    }
    // The error of close(2), 0 on success.
    int close() {
        int error = 0;
        if (fd_ >= 0 && ::close(fd_) != 0) {
            error = errno;
        }
        fd_ = -1;
        return error;
    }

  private:
    int fd_;
};

// Opens a regular file for reading, refusing symbolic links and anything that is not a file.
// Non-blocking, so that a FIFO (which an archive can carry) is refused instead of blocking the
// open until a writer comes; reads of a regular file do not care.
XCode openRegularFile(const String& path, const char* what, Descriptor& fd, off_t& size) {
    String hostPath;
    XCode mapped = Device::MAP_PATH_CHECKED(path, hostPath);
    if (mapped.isErr()) {
        return mapped;
    }
    fd.reset(::open(hostPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (fd.get() < 0 && errno == ELOOP) {
        return failure("%s IS NOT A FILE", what);
    }
    if (fd.get() < 0) {
        return systemFailure(errno, "CANNOT OPEN", path);
    }
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0) {
        return systemFailure(errno, "CANNOT READ", path);
    }
    if (!S_ISREG(status.st_mode)) {
        return failure("%s IS NOT A FILE", what);
    }
    size = status.st_size;
    return XCode(XCode::SUCCESS);
}

XCode readText(const String& path, const char* what, String& text) {
    Descriptor fd;
    off_t size = 0;
    XCode result = openRegularFile(path, what, fd, size);
    if (result.isErr()) {
        return result;
    }
    if (size > MAX_TEXT_SIZE) {
        return failure("%s TOO LARGE", what);
    }
    text = String();
    char buffer[COPY_CHUNK];
    while (true) {
        ssize_t count = ::read(fd.get(), buffer, sizeof buffer);
        if (count > 0) {
            text.append(buffer, static_cast<std::size_t>(count));
            if (text.length() > MAX_TEXT_SIZE) {
                return failure("%s TOO LARGE", what);
            }
        } else if (count == 0) {
            return XCode(XCode::SUCCESS);
        } else if (errno != EINTR) {
            return systemFailure(errno, "CANNOT READ", path);
        }
    }
}

bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// One image write at a time: the inactive slot is chosen and written under this lock.
std::mutex& slotWriteMutex() {
    static std::mutex mutex;
    return mutex;
}

// One upgrade's background work. Runs on its own thread; reports go through the session.
class Upgrade {
  public:
    Upgrade(std::shared_ptr<Session> session, Request request)
        : session_(std::move(session)), request_(std::move(request)) {}

    void run() {
        XCode result = work_.create();
        if (result.isSuccess()) {
            progress(String::format("working in %s", work_.path().c_str()));
            const String& source = request_.files.front();
            result = source.startsWith(ARCHIVE_PREFIX)
                         ? fromArchive(source.substring(
                               static_cast<int>(std::char_traits<char>::length(ARCHIVE_PREFIX))))
                         : fromUri(source);
        }
        // The work is over, its files included, before the termination is reported.
        work_.remove();
        String text = result.isSuccess() ? summary_ : result.getString();
        // Ignored on purpose: a cancelled upgrade reports nothing.
        static_cast<void>(session_->postTerminated(text, result, imageWritten_, imageWritten_));
    }

  private:
    XCode checkStop() const {
        return session_->stopRequested() ? failure("UPGRADE CANCELLED") : XCode(XCode::SUCCESS);
    }

    void progress(const String& text) {
        // Ignored on purpose: a cancelled upgrade reports nothing.
        static_cast<void>(session_->postProgress(text));
    }

    XCode fromArchive(const String& archive) {
        // C quoting puts every name in double quotes, so that tar's own diagnostics (which share
        // the output) cannot be taken for member names.
        String command = "tar --quoting-style=c -t -f";
        if (!appendWord(command, archive)) {
            return failure("INVALID ARCHIVE NAME %s", archive.c_str());
        }
        String listing;
        XCode result = Kt::Shell::execute(command, &listing);
        if (result.isErr()) {
            return result.setStringF("CANNOT LIST ARCHIVE %s: %s", archive.c_str(),
                                     describeToolFailure(result, listing).c_str());
        }
        bool hasManifest = false;
        bool hasImage = false;
        for (const String& line : listing.split('\n')) {
            String member;
            if (!unquoteMember(line, member)) {
                continue;
            }
            if (isUnsafeMember(member)) {
                return failure("UNSAFE MEMBER IN ARCHIVE: %s", member.c_str());
            }
            hasManifest = hasManifest || member == "manifest";
            hasImage = hasImage || member == "image";
        }
        if (!hasManifest) {
            return failure("MANIFEST MISSING IN ARCHIVE");
        }
        result = checkStop();
        if (result.isErr()) {
            return result;
        }
        command = "tar xf";
        // The directory is ours and fresh; only the two named members are extracted.
        static_cast<void>(appendWord(command, archive));
        command += " -C";
        static_cast<void>(appendWord(command, work_.path()));
        command += hasImage ? " manifest image" : " manifest";
        String extractOutput;
        result = Kt::Shell::execute(command, &extractOutput);
        if (result.isErr()) {
            return result.setStringF("CANNOT EXTRACT ARCHIVE %s: %s", archive.c_str(),
                                     describeToolFailure(result, extractOutput).c_str());
        }
        String manifest;
        result = readText(work_.file("manifest"), "MANIFEST", manifest);
        if (result.isErr()) {
            return result;
        }
        KtManifestEntry entry;
        XCode parsed = parseManifest(manifest, entry);
        bool namesImage = parsed.isSuccess() && entry.hasParam("image");
        if (!hasImage && !namesImage) {
            return runScript(manifest);
        }
        if (!hasImage) {
            return failure("IMAGE MISSING IN ARCHIVE");
        }
        if (parsed.isErr()) {
            return parsed.extendString("INVALID MANIFEST IN ARCHIVE", ": ");
        }
        return writeImage(work_.file("image"), versionOf(entry));
    }

    XCode fromUri(const String& uri) {
        const String downloaded = work_.file("download");
        XCode result = fetch(uri, downloaded);
        if (result.isErr()) {
            return result;
        }
        String text;
        result = readText(downloaded, "DOWNLOADED FILE", text);
        if (result.isErr()) {
            return result;
        }
        KtManifestEntry entry;
        if (parseManifest(text, entry).isErr() || !entry.hasParam("image")) {
            return runScript(text);
        }
        String image = entry.getParam("image");
        image.trim();
        String imageUri;
        result = resolveImage(uri, image, imageUri);
        if (result.isErr()) {
            return result;
        }
        const String imageFile = work_.file("image");
        result = fetch(imageUri, imageFile);
        if (result.isErr()) {
            return result;
        }
        return writeImage(imageFile, versionOf(entry));
    }

    static XCode parseManifest(const String& text, KtManifestEntry& entry) {
        KtManifestParser parser;
        XCode result = parser.parse(text);
        if (result.isSuccess()) {
            result = parser.getManifestEntry(entry);
        }
        return result;
    }

    static String versionOf(const KtManifestEntry& entry) {
        return entry.getParam("sw_type") + " " + entry.getParam("sw_version") + " " +
               entry.getParam("sw_build_num");
    }

    // An absolute URI as it is; a name starting with "/" from the manifest server's root; any
    // other name beside the manifest.
    static XCode resolveImage(const String& manifestUri, const String& image, String& imageUri) {
        if (image.isEmpty()) {
            return failure("IMAGE MISSING IN MANIFEST");
        }
        if (image.indexOf("://") >= 0) {
            imageUri = image;
            return XCode(XCode::SUCCESS);
        }
        String scheme, host, path, error;
        unsigned int port = 0;
        XCode result = UriUtil::splitUri(manifestUri, scheme, host, port, path, error);
        if (result.isErr()) {
            return result.setStringF("CANNOT FETCH %s: %s", manifestUri.c_str(), error.c_str());
        }
        String imagePath =
            image.startsWith("/") ? image : path.substring(0, path.lastIndexOf('/') + 1) + image;
        imageUri = UriUtil::buildUri(scheme, host, port, imagePath);
        return result;
    }

    // The request's user and password go to the origin of the location it names (the
    // manifest's) and to no other: not to an image that the manifest names elsewhere.
    bool mayCarryCredentials(const String& uri) const {
        if (request_.user.isEmpty() && request_.password.isEmpty()) {
            return false;
        }
        String origin;
        String allowed;
        return UriUtil::originOf(uri, origin) &&
               UriUtil::originOf(request_.files.front(), allowed) && origin == allowed;
    }

    // Fetches `uri` into `localFile` with the HTTPS settings, and with the request's credentials
    // where they may go.
    XCode fetch(const String& uri, const String& localFile) {
        XCode result = checkStop();
        if (result.isErr()) {
            return result;
        }
        progress(String::format("fetching %s", uri.c_str()));
        String scheme, host, path, error;
        unsigned int port = 0;
        result = UriUtil::splitUri(uri, scheme, host, port, path, error);
        if (result.isErr()) {
            return result.setStringF("CANNOT FETCH %s: %s", uri.c_str(), error.c_str());
        }
        scheme.toLowerCase();
        String command;
        std::vector<String> wgetArgs;
        bool valid = true;
        bool withCredentials = false;
        if (scheme == "tftp") {
            command = "tftp -g -l";
            valid = appendWord(command, localFile) && (command += " -r", true) &&
                    appendWord(command, path) && appendWord(command, host);
            if (port != 0) {
                command.concatf(" %u", port);
            }
        } else if (scheme == "http" || scheme == "https") {
            bool https = scheme == "https";
            withCredentials = mayCarryCredentials(uri);
            // A fetch with credentials follows no redirect: wget would answer the next server's
            // challenge with them. Without credentials there is nothing to carry.
            result = WgetUtil::buildArgs(
                false, uri, withCredentials ? request_.user : String(),
                withCredentials ? request_.password : String(), localFile,
                https ? request_.auth1 : String(), https ? request_.auth2 : String(),
                https ? request_.auth3 : String(), !withCredentials, wgetArgs, "");
            if (result.isErr()) {
                return result.setStringF("CANNOT FETCH %s: %s", uri.c_str(),
                                         result.getString().c_str());
            }
            command = "wget";
            for (const String& arg : wgetArgs) {
                valid = valid && appendWord(command, arg);
            }
        } else {
            String upper = scheme;
            return failure("CANNOT FETCH %s: PROTOCOL %s NOT SUPPORTED", uri.c_str(),
                           upper.toUpperCase().c_str());
        }
        String output;
        if (!valid) {
            result = failure("CANNOT FETCH %s: INVALID CHARACTER IN LOCATION", uri.c_str());
        } else {
            result = Kt::Shell::execute(command, &output);
            if (result.isErr() && withCredentials && output.indexOf(REDIRECT_REFUSED) >= 0) {
                result.setStringF("CANNOT FETCH %s: REDIRECT NOT FOLLOWED WITH CREDENTIALS",
                                  uri.c_str());
            } else if (result.isErr()) {
                result.setStringF("CANNOT FETCH %s: %s", uri.c_str(),
                                  describeToolFailure(result, output).c_str());
            }
        }
        WgetUtil::RELEASE_SECRETS(wgetArgs);
        return result;
    }

    // Writes the image into the slot that does not run, through a temporary beside it, and
    // records its version.
    XCode writeImage(const String& imageFile, const String& version) {
        XCode result = checkStop();
        if (result.isErr()) {
            return result;
        }
        Descriptor source;
        off_t size = 0;
        result = openRegularFile(imageFile, "IMAGE", source, size);
        if (result.isErr()) {
            return result;
        }
        if (Device::ROOT().isEmpty()) {
            return failure("NO DEVICE DIRECTORY SET");
        }
        std::lock_guard<std::mutex> lock(slotWriteMutex());
        SlotState state;
        result = SlotState::LOAD(state);
        if (result.isErr()) {
            return result;
        }
        const unsigned int slot = SlotState::OTHER(state.active);
        const String slots = Device::ROOT() + "/slots";
        result = Device::MAKE_DIRECTORIES(slots);
        if (result.isErr()) {
            return result;
        }
        const String target = String::format("%s/%u", slots.c_str(), slot);
        std::string temporary = String::format("%s/.%u-XXXXXX", slots.c_str(), slot).str();
        Descriptor destination(::mkostemp(temporary.data(), O_CLOEXEC));
        if (destination.get() < 0) {
            return systemFailure(errno, "CANNOT CREATE", temporary);
        }
        result = copyImage(source.get(), destination.get(), static_cast<unsigned long long>(size),
                           temporary);
        if (result.isSuccess() && ::fchmod(destination.get(), 0644) != 0) {
            result = systemFailure(errno, "CANNOT WRITE", temporary);
        }
        if (result.isSuccess() && ::fsync(destination.get()) != 0) {
            result = systemFailure(errno, "CANNOT WRITE", temporary);
        }
        int closeError = destination.close();
        if (result.isSuccess() && closeError != 0) {
            result = systemFailure(closeError, "CANNOT WRITE", temporary);
        }
        if (result.isSuccess() && ::rename(temporary.c_str(), target.c_str()) != 0) {
            result = systemFailure(errno, "CANNOT WRITE", target);
        }
        if (result.isErr()) {
            ::unlink(temporary.c_str());
            return result;
        }
        result = SlotState::MODIFY([&](SlotState& changed) { changed.version(slot) = version; });
        if (result.isErr()) {
            return result;
        }
        imageWritten_ = true;
        summary_ = String::format("image %s written to slot %u", version.c_str(), slot);
        return result;
    }

    XCode copyImage(int source, int destination, unsigned long long total,
                    const std::string& temporary) {
        std::unique_ptr<char[]> buffer(new char[COPY_CHUNK]);
        unsigned long long written = 0;
        unsigned long long nextReport = total / PROGRESS_STEPS;
        while (true) {
            XCode stop = checkStop();
            if (stop.isErr()) {
                return stop;
            }
            ssize_t count = ::read(source, buffer.get(), COPY_CHUNK);
            if (count < 0) {
                if (errno == EINTR) {
                    continue;
                }
                return systemFailure(errno, "CANNOT READ", "image");
            }
            if (count == 0) {
                break;
            }
            if (!writeAll(destination, buffer.get(), static_cast<std::size_t>(count))) {
                return systemFailure(errno, "CANNOT WRITE", temporary);
            }
            written += static_cast<unsigned long long>(count);
            if (written >= nextReport && written < total) {
                progress(String::format("written %llu of %llu bytes", written, total));
                nextReport += total / PROGRESS_STEPS;
            }
        }
        progress(String::format("written %llu of %llu bytes", written, total));
        return XCode(XCode::SUCCESS);
    }

    // Runs the script on the running system one line at a time; the first failing line ends it.
    XCode runScript(const String& script) {
        std::vector<String> lines = script.split('\n');
        progress(
            String::format("running script of %u lines", static_cast<unsigned int>(lines.size())));
        RTD::Monitor* monitor = RTD::REPOSITORY::GET_MONITOR_IF_ENABLED_FOR_LOGGING(MON_EVENT, 6);
        unsigned int executed = 0;
        for (std::size_t index = 0; index < lines.size(); ++index) {
            String line = lines[index];
            String stripped = line;
            stripped.trim();
            if (stripped.isEmpty()) {
                continue;
            }
            XCode result = checkStop();
            if (result.isErr()) {
                return result;
            }
            result = CmdExec::EXECUTE(stripped, true, monitor, 0);
            if (result.isErr()) {
                String reason = result.hasMessage() ? result.getString() : result.toString();
                return result.setStringF("SCRIPT FAILED AT LINE %u: %s",
                                         static_cast<unsigned int>(index + 1), reason.c_str());
            }
            ++executed;
        }
        summary_ = String::format("script executed: %u lines", executed);
        return XCode(XCode::SUCCESS);
    }

    std::shared_ptr<Session> session_;
    Request request_;
    WorkDirectory work_;
    String summary_;
    bool imageWritten_ = false;
};

void workerStarted() {
    Controller& c = controller();
    std::lock_guard<std::mutex> lock(c.mutex);
    ++c.running;
}

void workerEnded() {
    Controller& c = controller();
    std::lock_guard<std::mutex> lock(c.mutex);
    --c.running;
    c.idle.notify_all();
}

void runInBackground(std::shared_ptr<Upgrade> upgrade) {
    upgrade->run();
    // Everything the upgrade held (its files, its session) is released before it counts as
    // ended.
    upgrade.reset();
    workerEnded();
}

bool isSupportedSource(const String& source) {
    if (source.startsWith(ARCHIVE_PREFIX)) {
        return source.length() > static_cast<int>(std::char_traits<char>::length(ARCHIVE_PREFIX));
    }
    String scheme, host, path, error;
    unsigned int port = 0;
    if (UriUtil::splitUri(source, scheme, host, port, path, error).isErr()) {
        return false;
    }
    scheme.toLowerCase();
    return scheme == "tftp" || scheme == "http" || scheme == "https";
}

XCode validate(const Request& request) {
    if (request.action != ACTION) {
        return failure("UNSUPPORTED UPGRADE ACTION %s", request.action.c_str());
    }
    if (request.files.size() != 2) {
        return failure("UPGRADE NEEDS TWO FILES, GOT %u",
                       static_cast<unsigned int>(request.files.size()));
    }
    if (request.files[1] != DESTINATION) {
        return failure("UNSUPPORTED UPGRADE DESTINATION %s", request.files[1].c_str());
    }
    if (!isSupportedSource(request.files[0])) {
        return failure("UNSUPPORTED UPGRADE SOURCE %s", request.files[0].c_str());
    }
    return XCode(XCode::SUCCESS);
}

XCode start(Request request, String& output) {
    if (request.handler == nullptr) {
        return failure("NO UPGRADE HANDLER");
    }
    KtEventLoop* loop = KtEventLoop::current();
    if (loop == nullptr) {
        return failure("NO EVENT LOOP FOR UPGRADE REPORTS");
    }
    Controller& c = controller();
    Interceptor interceptor;
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        interceptor = c.interceptor;
    }
    if (!interceptor) {
        XCode valid = validate(request);
        if (valid.isErr()) {
            return valid;
        }
    }
    std::shared_ptr<Session> session = Session::CREATE(request.handler, *loop);
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        if (c.sessions.count(request.handler) != 0) {
            return failure("UPGRADE ALREADY RUNNING");
        }
        c.sessions[request.handler] = session;
    }
    if (interceptor) {
        XCode accepted = interceptor(request);
        if (accepted.isErr()) {
            unregister(session.get());
        }
        return accepted;
    }
    output = String::format("update from %s started", request.files[0].c_str());
    auto upgrade = std::make_shared<Upgrade>(session, std::move(request));
    workerStarted();
    try {
        std::thread(runInBackground, std::move(upgrade)).detach();
    } catch (const std::system_error& error) {
        workerEnded();
        unregister(session.get());
        output = String();
        return failure("CANNOT START UPGRADE: %s", error.what());
    }
    return XCode(XCode::SUCCESS);
}

}  // namespace

XCode PERFORM_UPGRADE_IMAGE_JOB(const String& action, std::vector<String>& files,
                                const String& arg3, String& output, const String& caller,
                                CallbackHandler* handler) {
    Request request;
    request.action = action;
    request.files = files;
    request.arg3 = arg3;
    request.caller = caller;
    request.handler = handler;
    return start(std::move(request), output);
}

XCode PERFORM_UPGRADE_IMAGE_JOB(const String& action, std::vector<String>& files,
                                const String& arg3, const String& user, const String& password,
                                const String& auth1, const String& auth2, const String& auth3,
                                String& output, const String& caller, CallbackHandler* handler) {
    Request request;
    request.action = action;
    request.files = files;
    request.arg3 = arg3;
    request.user = user;
    request.password = password;
    request.auth1 = auth1;
    request.auth2 = auth2;
    request.auth3 = auth3;
    request.caller = caller;
    request.withCredentials = true;
    request.handler = handler;
    return start(std::move(request), output);
}

void CANCEL(CallbackHandler* handler) {
    std::shared_ptr<Session> session;
    {
        Controller& c = controller();
        std::lock_guard<std::mutex> lock(c.mutex);
        auto found = c.sessions.find(handler);
        if (found == c.sessions.end()) {
            return;
        }
        session = found->second;
        c.sessions.erase(found);
    }
    session->cancel();
}

void SET_INTERCEPTOR(Interceptor interceptor) {
    Controller& c = controller();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.interceptor = std::move(interceptor);
}

bool REPORT_PROGRESS(CallbackHandler* handler, const String& text) {
    std::shared_ptr<Session> session = findSession(handler);
    return session != nullptr && session->postProgress(text);
}

bool REPORT_TERMINATED(CallbackHandler* handler, const String& text, XCode result, bool first,
                       bool second) {
    std::shared_ptr<Session> session = findSession(handler);
    return session != nullptr && session->postTerminated(text, result, first, second);
}

std::size_t RUNNING_UPGRADES() {
    Controller& c = controller();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.running;
}

bool WAIT_IDLE(std::chrono::milliseconds timeout) {
    Controller& c = controller();
    std::unique_lock<std::mutex> lock(c.mutex);
    return c.idle.wait_for(lock, timeout, [&c] { return c.running == 0; });
}

}  // namespace UpdateController
