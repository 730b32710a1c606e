#include "platform/posix/ProcessReactor.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>

#include "platform/posix/ProcessSpawn.h"

namespace Kt::process {

namespace {

// Exit polling interval for children without a pidfd.
constexpr int REAP_POLL_MS = 50;
constexpr std::size_t READ_SIZE = std::size_t{64} * 1024;
constexpr int READS_PER_WAKE = 4;

// Milliseconds from `now` to `when` as a poll timeout (at least 1, at most INT_MAX).
int millisecondsUntil(std::chrono::steady_clock::time_point when,
                      std::chrono::steady_clock::time_point now) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(when - now).count();
    return static_cast<int>(std::min<long long>(std::max<long long>(left, 0) + 1, INT_MAX));
}

}  // namespace

Reactor& Reactor::INSTANCE() {
    // Never destroyed: the thread may still be polling while the process exits.
    static Reactor* reactor = new Reactor();  // NOLINT(cppcoreguidelines-owning-memory)
    return *reactor;
}

int Reactor::start() {
    std::lock_guard<std::mutex> guard(mutex_);
    if (started_) {
        return 0;
    }
    if (wakeFd_ < 0) {
        wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (wakeFd_ < 0) {
            return errno;
        }
    }
    // The thread takes no signals: they belong to the host's threads.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    pthread_t thread;
    int error = ::pthread_create(&thread, nullptr, &Reactor::THREAD_MAIN, this);
    ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (error != 0) {
        return error;
    }
    ::pthread_detach(thread);
    started_ = true;
    return 0;
}

void Reactor::add(std::shared_ptr<Command> command) {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        incoming_.push_back(std::move(command));
    }
    wake();
}

void Reactor::wake() {
    std::uint64_t one = 1;
    // A full counter already means "wake up"; nothing else can go wrong with an eventfd.
    ssize_t written = ::write(wakeFd_, &one, sizeof one);
    (void)written;
}

void* Reactor::THREAD_MAIN(void* reactor) {
    static_cast<Reactor*>(reactor)->run();
    return nullptr;
}

void Reactor::takeOverIncoming() {
    std::lock_guard<std::mutex> guard(mutex_);
    for (auto& command : incoming_) {
        active_.push_back(std::move(command));
    }
    incoming_.clear();
}

void Reactor::closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

void Reactor::endChild(Command& command, std::chrono::steady_clock::time_point now) {
    if (command.reaped) {
        return;
    }
    if (!command.terminating) {
        SIGNAL_GROUP(command.pid, SIGTERM);
        command.terminating = true;
        command.killAt = now + TERMINATION_GRACE;
    } else if (!command.killed && now >= command.killAt) {
        SIGNAL_GROUP(command.pid, SIGKILL);
        command.killed = true;
    }
}

void Reactor::handleAbandonment(Command& command, std::chrono::steady_clock::time_point now) {
    if (!command.abandoned.load()) {
        return;
    }
    // Nobody reads the output any more; a child writing on gets EPIPE.
    closeFd(command.outFd);
    closeFd(command.errFd);
    endChild(command, now);
}

void Reactor::handleDeadline(Command& command, std::chrono::steady_clock::time_point now) {
    if (!command.timedOut && !command.reaped && now >= command.deadlineAt) {
        command.timedOut = true;
    }
    if (!command.timedOut) {
        return;
    }
    endChild(command, now);
    if (command.reaped) {
        // Whatever escaped the group and still holds a pipe does not hold up the result.
        closeFd(command.outFd);
        closeFd(command.errFd);
    }
}

void Reactor::readPipe(Command& command, bool errorStream) {
    static char buffer[READ_SIZE];  // reactor thread only
    int& fd = errorStream ? command.errFd : command.outFd;
    // Reads on until the pipe is empty (a bounded number of times, so that one talkative child
    // cannot hold up the others): a child's last output and its end of file then arrive in one
    // wake-up, and the result does not wait for another round through poll.
    for (int reads = 0; reads < READS_PER_WAKE; ++reads) {
        ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count > 0) {
            if (command.abandoned.load()) {
                return;
            }
            String piece(buffer, static_cast<std::size_t>(count));
            command.collected.append(piece);
            std::lock_guard<std::recursive_mutex> guard(command.deliveryMutex);
            if (!command.abandoned.load()) {
                Shell::OutputCallback callback = errorStream ? command.errorOutput : command.output;
                callback(std::move(piece));
            }
            continue;
        }
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0 && errno == EAGAIN) {
            return;
        }
        // End of file, or an error that ends the stream just the same.
        closeFd(fd);
        return;
    }
}

void Reactor::tryReap(Command& command) {
    pid_t reaped;
    do {
        reaped = ::waitpid(command.pid, &command.waitStatus, WNOHANG);
    } while (reaped < 0 && errno == EINTR);
    if (reaped == 0) {
        return;
    }
    command.statusLost = reaped < 0;
    command.reaped = true;
    closeFd(command.pidFd);
    {
        std::lock_guard<std::mutex> guard(command.doneMutex);
        command.ended = true;
    }
    REAPED();
    command.doneChanged.notify_all();
}

void Reactor::finish(Command& command) {
    XCode code;
    if (command.timedOut) {
        code = DEADLINE_PASSED(command.program, command.deadline);
    } else if (command.statusLost) {
        code = XCode::fromErrno(ECHILD);
        code.setStringF("%s ENDED WITH UNKNOWN STATUS", command.program.c_str());
    } else {
        code = WAIT_STATUS_TO_XCODE(command.program, command.waitStatus);
    }
    // Finished before the call, so that the callback already sees a finished future.
    {
        std::lock_guard<std::mutex> guard(command.doneMutex);
        command.finished = true;
        command.outcome = code;
    }
    {
        std::lock_guard<std::recursive_mutex> guard(command.deliveryMutex);
        if (!command.abandoned.load()) {
            Shell::ResultCallback callback = command.result;
            callback(code, std::move(command.collected));
        }
    }
    {
        std::lock_guard<std::mutex> guard(command.doneMutex);
        command.delivered = true;
    }
    command.doneChanged.notify_all();
}

// What one round of the loop polls: the wake-up descriptor first, then for each live command its
// pidfd and pipes; `watched` names the command and descriptor of every entry after the first.
void Reactor::buildPollSet(PollSet& set, std::chrono::steady_clock::time_point now) {
    set.fds.clear();
    set.watched.clear();
    set.timeout = -1;
    bool pollForExits = false;
    set.fds.push_back({wakeFd_, POLLIN, 0});
    for (auto& command : active_) {
        handleAbandonment(*command, now);
        handleDeadline(*command, now);
        if (!command->reaped && command->pidFd < 0) {
            tryReap(*command);
        }
        if (command->reaped && command->outFd < 0 && command->errFd < 0) {
            continue;
        }
        if (!command->reaped) {
            if (command->pidFd >= 0) {
                set.add(command->pidFd, command.get(), Watch::PidFd);
            } else {
                pollForExits = true;
            }
            if (!command->terminating || !command->killed) {
                int wait = millisecondsUntil(
                    command->terminating ? command->killAt : command->deadlineAt, now);
                set.timeout = set.timeout < 0 ? wait : std::min(set.timeout, wait);
            }
        }
        if (command->outFd >= 0) {
            set.add(command->outFd, command.get(), Watch::Out);
        }
        if (command->errFd >= 0) {
            set.add(command->errFd, command.get(), Watch::Err);
        }
    }
    if (pollForExits) {
        set.timeout = set.timeout < 0 ? REAP_POLL_MS : std::min(set.timeout, REAP_POLL_MS);
    }
}

// Finished commands leave the list here, after their result was delivered.
void Reactor::retireFinished() {
    auto done = std::stable_partition(active_.begin(), active_.end(), [](const auto& command) {
        return !(command->reaped && command->outFd < 0 && command->errFd < 0);
    });
    for (auto it = done; it != active_.end(); ++it) {
        finish(**it);
    }
    active_.erase(done, active_.end());
}

void Reactor::dispatch(Command& command, Watch watch) {
    switch (watch) {
        case Watch::PidFd:
            if (!command.reaped) {
                tryReap(command);
            }
            break;
        case Watch::Out:
            if (command.outFd >= 0) {
                readPipe(command, false);
            }
            break;
        case Watch::Err:
            if (command.errFd >= 0) {
                readPipe(command, true);
            }
            break;
    }
    // A child closes its pipes on the way out, a moment before it can be reaped: one look now
    // often saves the wake-up for its exit.
    if (!command.reaped && command.pidFd >= 0 && command.outFd < 0 && command.errFd < 0) {
        tryReap(command);
    }
}

void Reactor::run() {
    PollSet set;
    while (true) {
        takeOverIncoming();
        buildPollSet(set, std::chrono::steady_clock::now());
        retireFinished();
        int ready = ::poll(set.fds.data(), set.fds.size(), set.timeout);
        if (ready <= 0) {
            continue;
        }
        if (set.fds[0].revents != 0) {
            std::uint64_t count;
            ssize_t drained = ::read(wakeFd_, &count, sizeof count);
            (void)drained;  // EAGAIN: someone else's wake-up was already consumed
        }
        for (std::size_t i = 1; i < set.fds.size(); ++i) {
            if (set.fds[i].revents != 0) {
                dispatch(*set.watched[i - 1].first, set.watched[i - 1].second);
            }
        }
    }
}

}  // namespace Kt::process

namespace Kt {

RunningCommand::~RunningCommand() {
    abandon();
}

void RunningCommand::abandon() {
    Shell::ResultCallback result;
    Shell::OutputCallback output;
    Shell::OutputCallback errorOutput;
    bool finished;
    {
        std::lock_guard<std::recursive_mutex> guard(command_->deliveryMutex);
        command_->abandoned.store(true);
        result = std::move(command_->result);
        output = std::move(command_->output);
        errorOutput = std::move(command_->errorOutput);
    }
    {
        std::lock_guard<std::mutex> guard(command_->doneMutex);
        finished = command_->finished;
    }
    if (!finished) {
        process::Reactor::INSTANCE().wake();
    }
    // The callbacks go here, on the owner's thread, after the last call into them.
}

void RunningCommand::abandonAndReap() {
    abandon();
    std::unique_lock<std::mutex> lock(command_->doneMutex);
    // SIGKILL follows SIGTERM after the grace period; a child that outlives both by this much
    // is stuck in the kernel, and waiting longer would not help.
    static_cast<void>(command_->doneChanged.wait_for(lock, process::TERMINATION_GRACE * 10,
                                                     [this] { return command_->ended; }));
}

XCode RunningCommand::wait() const {
    std::unique_lock<std::mutex> lock(command_->doneMutex);
    command_->doneChanged.wait(lock, [this] { return command_->delivered; });
    return command_->outcome;
}

bool RunningCommand::isFinished() const {
    std::lock_guard<std::mutex> guard(command_->doneMutex);
    return command_->finished;
}

}  // namespace Kt
