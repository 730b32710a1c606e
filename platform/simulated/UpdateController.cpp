#include "platform/UpdateController.h"

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/KtEventLoop.h"
#include "platform/Monitor.h"
#include "platform/UriUtil.h"
#include "platform/simulated/SimulatedUpdateController.h"
#include "platform/simulated/UpdateSession.h"
#include "platform/simulated/UpdateSteps.h"
#include "platform/simulated/UpdateUpgrade.h"
#include "platform/testing/UpdateControllerHooks.h"

namespace UpdateController {
namespace {

constexpr const char* ACTION = "update";
constexpr const char* DESTINATION = "flash:";

// The controller's shared state. Never destroyed: a host that exits without waiting for the
// workers (WAIT_IDLE) leaves them to the exit.
struct Controller {
    std::mutex mutex;
    std::map<CallbackHandler*, std::shared_ptr<Session>> sessions;
    Interceptor interceptor;
    // One worker thread per upgrade, owned here and joined once it has ended: by the next start
    // or by WAIT_IDLE. `running` counts the workers that have not ended yet.
    std::map<std::thread::id, std::thread> workers;
    std::vector<std::thread::id> ended;
    std::size_t running = 0;
    std::condition_variable idle;
};

Controller& controller() {
    // Never destroyed: a detached upgrade may still report while static objects go away.
    static Controller* const instance = new Controller;  // NOLINT(cppcoreguidelines-owning-memory)
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

// Joins the workers that have ended. Not on a worker (none calls it).
void joinEndedWorkers() {
    Controller& c = controller();
    std::vector<std::thread> finished;
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        for (std::thread::id id : c.ended) {
            auto found = c.workers.find(id);
            finished.push_back(std::move(found->second));
            c.workers.erase(found);
        }
        c.ended.clear();
    }
    for (std::thread& worker : finished) {
        worker.join();  // it has returned from its work already: no wait beyond its exit
    }
}

void runWorker(std::shared_ptr<Upgrade> upgrade) {
    upgrade->run();
    // Everything the upgrade held (its files, its session) is released before it counts as
    // ended.
    upgrade.reset();
    Controller& c = controller();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.ended.push_back(std::this_thread::get_id());
    --c.running;
    c.idle.notify_all();
}

// Starts the worker. The controller's lock is held while the thread is created, so that the
// worker cannot report its end before it is known.
XCode startWorker(std::shared_ptr<Upgrade> upgrade) {
    joinEndedWorkers();
    Controller& c = controller();
    std::lock_guard<std::mutex> lock(c.mutex);
    try {
        std::thread worker(runWorker, std::move(upgrade));
        std::thread::id id = worker.get_id();
        c.workers.emplace(id, std::move(worker));
    } catch (const std::system_error& error) {
        return XCode::FAILURE_F("CANNOT START UPGRADE: %s", error.what());
    }
    ++c.running;
    return XCode(XCode::SUCCESS);
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
        return XCode::FAILURE_F("UNSUPPORTED UPGRADE ACTION %s", request.action.c_str());
    }
    if (request.files.size() != 2) {
        return XCode::FAILURE_F("UPGRADE NEEDS TWO FILES, GOT %u",
                                static_cast<unsigned int>(request.files.size()));
    }
    if (request.files[1] != DESTINATION) {
        return XCode::FAILURE_F("UNSUPPORTED UPGRADE DESTINATION %s", request.files[1].c_str());
    }
    if (!isSupportedSource(request.files[0])) {
        return XCode::FAILURE_F("UNSUPPORTED UPGRADE SOURCE %s", request.files[0].c_str());
    }
    return XCode(XCode::SUCCESS);
}

XCode start(Request request, String& output) {
    if (request.handler == nullptr) {
        return XCode::FAILURE_F("NO UPGRADE HANDLER");
    }
    KtEventLoop* loop = KtEventLoop::current();
    if (loop == nullptr) {
        return XCode::FAILURE_F("NO EVENT LOOP FOR UPGRADE REPORTS");
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
    std::shared_ptr<Session> session = Session::CREATE(request.handler, *loop, unregister);
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        if (c.sessions.count(request.handler) != 0) {
            return XCode::FAILURE_F("UPGRADE ALREADY RUNNING");
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
    const String started = String::format("update from %s started", request.files[0].c_str());
    // The script's commands log on the host's event monitor as it is now; the host keeps it
    // until the workers have ended.
    XCode result = startWorker(std::make_shared<Upgrade>(session, std::move(request), MON_EVENT));
    if (result.isErr()) {
        unregister(session.get());
        return result;
    }
    output = started;
    return result;
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
    {
        std::unique_lock<std::mutex> lock(c.mutex);
        if (!c.idle.wait_for(lock, timeout, [&c] { return c.running == 0; })) {
            return false;
        }
    }
    joinEndedWorkers();
    return true;
}

}  // namespace UpdateController
