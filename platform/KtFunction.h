#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <tuple>
#include <utility>

#include "platform/KtEventLoop.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

namespace Kt {

enum class Delivery {
    Direct,  // runs at once on the caller's thread
    Sync,    // runs at once on the caller's thread, holding the target loop's lock
    Async,   // queued; runs later on the target loop's thread, in order
};

struct CallContext {
    Delivery delivery;
    KtEventLoop* loop;
};

inline CallContext directCall() {
    return {Delivery::Direct, nullptr};
}
inline CallContext syncCall(KtEventLoop& loop) {
    return {Delivery::Sync, &loop};
}
inline CallContext asyncCall(KtEventLoop& loop) {
    return {Delivery::Async, &loop};
}

template <typename Signature>
class Function;

// A reference-counted callable with a delivery kind and a target loop. Copies share one target.
//
// Destroying the last handle of an async function cancels the deliveries still queued: they never
// run, so a callback bound to an object never reaches it after the object (which owns the handle)
// is gone. setDontCancelOnDestruction(true) keeps queued deliveries alive instead.
// The last handle must be destroyed on the target loop's thread (or while that loop is not
// running): a delivery already under way on another thread is not waited for.
template <typename... Args>
class Function<void(Args...)> {
  public:
    Function() = default;
    Function(CallContext context, std::function<void(Args...)> target)
        : handle_(std::make_shared<Handle>(std::make_shared<Core>(context, std::move(target)))) {}

    explicit operator bool() const { return handle_ != nullptr; }

    void operator()(Args... args) const {
        if (handle_) {
            handle_->core->deliver(handle_->core, std::move(args)...);
        }
    }

    void setDontCancelOnDestruction(bool dontCancel) {
        if (handle_) {
            handle_->dontCancel = dontCancel;
        }
    }

    // Drops queued deliveries now; later calls still deliver.
    void cancelPending() const {
        if (handle_) {
            handle_->core->cancel(false);
        }
    }

  private:
    class Core {
      public:
        Core(CallContext context, std::function<void(Args...)> target)
            : context_(context), target_(std::move(target)) {}

        void deliver(const std::shared_ptr<Core>& self, Args... args) {
            switch (context_.delivery) {
                case Delivery::Direct:
                    target_(std::move(args)...);
                    return;
                case Delivery::Sync: {
                    std::lock_guard<std::recursive_mutex> guard(context_.loop->lock());
                    target_(std::move(args)...);
                    return;
                }
                case Delivery::Async:
                    enqueue(self, std::make_tuple(std::move(args)...));
                    return;
            }
        }

        void cancel(bool forever) {
            std::lock_guard<std::mutex> guard(mutex_);
            queue_.clear();
            cancelled_ = cancelled_ || forever;
        }

      private:
        void enqueue(const std::shared_ptr<Core>& self, std::tuple<Args...> arguments) {
            {
                std::lock_guard<std::mutex> guard(mutex_);
                if (cancelled_) {
                    return;
                }
                queue_.push_back(std::move(arguments));
            }
            // The event holds the core, never the handle: the handle's lifetime decides.
            context_.loop->post([self] { self->runOne(); });
        }

        void runOne() {
            std::tuple<Args...> arguments;
            {
                std::lock_guard<std::mutex> guard(mutex_);
                if (cancelled_ || queue_.empty()) {
                    return;
                }
                arguments = std::move(queue_.front());
                queue_.pop_front();
            }
            std::apply(target_, std::move(arguments));
        }

        CallContext context_;
        std::function<void(Args...)> target_;
        std::mutex mutex_;
        std::deque<std::tuple<Args...>> queue_;
        bool cancelled_ = false;
    };

    struct Handle {
        explicit Handle(std::shared_ptr<Core> c) : core(std::move(c)) {}
        ~Handle() {
            if (!dontCancel) {
                core->cancel(true);
            }
        }
        Handle(const Handle&) = delete;
        Handle& operator=(const Handle&) = delete;
        std::shared_ptr<Core> core;
        bool dontCancel = false;
    };

    std::shared_ptr<Handle> handle_;
};

}  // namespace Kt

#pragma GCC visibility pop
