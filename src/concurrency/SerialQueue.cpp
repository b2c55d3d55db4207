#include "concurrency/SerialQueue.h"

#include "log/Log.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace vantorix {

namespace {

using Executor = asio::io_context::executor_type;

void logEscapedException(const std::string& label, const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& e) {
        log::logger("Concurrency").error("Work on queue {} failed: {}", label, e.what());
    } catch (...) {
        log::logger("Concurrency").error("Work on queue {} failed with an unknown exception", label);
    }
}

}  // namespace

// How the queue waits for watched descriptors. While none is watched, the thread idles inside
// io_context::run(). Once one is, a work item (the waiter) blocks in epoll_wait on the queue's own
// epoll set, where each descriptor stays registered (edge-triggered, so a consumed descriptor is
// not polled again) from watch() to unwatch(), beside an eventfd that async() and sync() signal
// while the waiter blocks. The waiter hands the thread back to the io_context whenever work is
// queued, and re-posts itself behind that work. A wake-up therefore costs the wait and whatever
// the callback does, nothing more.
//
// Asio I/O objects on the context would not be served while the waiter blocks, so once context()
// has been handed out the watches move to Asio waits (one epoll_ctl per wake-up) for good.
struct SerialQueue::Core {
    struct Watch : std::enable_shared_from_this<Watch> {
        Watch(int fd, std::function<void()> callback) : descriptor(fd), onReadable(std::move(callback)) {}
        ~Watch() {
            // The descriptor belongs to whoever watches it; Asio must not close it.
            if (asioWait && asioWait->is_open()) asioWait->release();
        }
        int descriptor;
        bool active = true;
        std::function<void()> onReadable;
        std::unique_ptr<asio::posix::stream_descriptor> asioWait;
    };

    Core(std::string queueLabel, QualityOfService queueQos)
        : label(std::move(queueLabel)), qos(queueQos), keepAlive(asio::make_work_guard(context)) {}

    ~Core() {
        if (epollFd >= 0) ::close(epollFd);
        if (wakeFd >= 0) ::close(wakeFd);
    }

    const std::string label;
    const QualityOfService qos;
    asio::io_context context{1};
    // Keeps run() going while the queue is idle; released by the destructor.
    std::optional<asio::executor_work_guard<Executor>> keepAlive;

    // Work posted through the queue and not yet started; the waiter blocks only while it is 0.
    std::atomic<std::uint64_t> queuedItems{0};
    // True while the waiter blocks (or is about to block) in epoll_wait.
    std::atomic<bool> waiting{false};
    std::atomic<bool> contextHandedOut{false};

    // Queue thread only (the two descriptors are made there before `waiting` is first set).
    std::vector<std::shared_ptr<Watch>> watches;
    int epollFd = -1;
    int wakeFd = -1;
    bool waiterQueued = false;
    bool waitsInAsio = false;

    template <class F>
    void post(F&& work) {
        queuedItems.fetch_add(1, std::memory_order_seq_cst);
        asio::post(context, [this, work = std::forward<F>(work)]() mutable {
            queuedItems.fetch_sub(1, std::memory_order_relaxed);
            work();
        });
        if (waiting.load(std::memory_order_seq_cst)) wake();
    }

    void wake() const {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto n = ::write(wakeFd, &one, sizeof one);
    }

    void watch(int descriptor, std::function<void()> onReadable) {
        auto entry = std::make_shared<Watch>(descriptor, std::move(onReadable));
        watches.push_back(entry);
        if (waitsInAsio || contextHandedOut.load(std::memory_order_acquire)) {
            moveWatchesToAsio();
            return;
        }
        if (!openEpoll()) {
            moveWatchesToAsio();
            return;
        }
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        event.data.ptr = entry.get();
        if (::epoll_ctl(epollFd, EPOLL_CTL_ADD, descriptor, &event) != 0) {
            log::logger("Concurrency").error("Queue {} cannot watch descriptor {}: errno {}", label, descriptor, errno);
            moveWatchesToAsio();
            return;
        }
        if (!waiterQueued) {
            waiterQueued = true;
            asio::post(context, [this] { waitForWatches(); });
        }
    }

    void unwatch(int descriptor) {
        const auto found = std::find_if(watches.begin(), watches.end(),
                                        [descriptor](const auto& w) { return w->descriptor == descriptor; });
        if (found == watches.end()) return;
        std::shared_ptr<Watch> entry = std::move(*found);
        watches.erase(found);
        entry->active = false;
        if (entry->asioWait) {
            // Deregisters now, while the descriptor is still open; a pending wait ends aborted.
            if (entry->asioWait->is_open()) entry->asioWait->release();
        } else if (epollFd >= 0) {
            ::epoll_ctl(epollFd, EPOLL_CTL_DEL, descriptor, nullptr);
        }
        // A callback that is running keeps its own reference (see dispatch()).
    }

    bool openEpoll() {
        if (epollFd >= 0) return true;
        const int poll = ::epoll_create1(EPOLL_CLOEXEC);
        if (poll < 0) return false;
        const int wakeUp = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        event.data.ptr = nullptr;
        if (wakeUp < 0 || ::epoll_ctl(poll, EPOLL_CTL_ADD, wakeUp, &event) != 0) {
            if (wakeUp >= 0) ::close(wakeUp);
            ::close(poll);
            return false;
        }
        epollFd = poll;
        wakeFd = wakeUp;
        return true;
    }

    // The waiter: a work item that keeps the thread in epoll_wait while there is nothing else to do.
    void waitForWatches() {
        for (;;) {
            if (watches.empty() || waitsInAsio) {
                waiterQueued = false;
                return;
            }
            // Set before the checks below, which async(), sync() and context() make the other way
            // round: either this sees their change, or they see the waiter and wake it.
            waiting.store(true, std::memory_order_seq_cst);
            if (contextHandedOut.load(std::memory_order_seq_cst)) {
                waiting.store(false, std::memory_order_relaxed);
                waiterQueued = false;
                moveWatchesToAsio();
                return;
            }
            if (queuedItems.load(std::memory_order_seq_cst) > 0) {
                waiting.store(false, std::memory_order_relaxed);
                asio::post(context, [this] { waitForWatches(); });  // behind the queued work
                return;
            }
            // One event at a time: a callback may unwatch another descriptor, whose pending event
            // would then point at nothing. A descriptor that was ready too stays on epoll's ready
            // list for the next call.
            epoll_event event{};
            const int n = ::epoll_wait(epollFd, &event, 1, -1);
            waiting.store(false, std::memory_order_relaxed);
            if (n != 1) continue;  // interrupted by a signal
            if (event.data.ptr == nullptr) {
                std::uint64_t count = 0;
                [[maybe_unused]] const auto r = ::read(wakeFd, &count, sizeof count);
                continue;
            }
            dispatch(*static_cast<Watch*>(event.data.ptr));
        }
    }

    void dispatch(Watch& watched) {
        // Keeps the watch (and the callback that is running) alive should the callback unwatch it.
        const std::shared_ptr<Watch> keep = watched.shared_from_this();
        if (!keep->active || !keep->onReadable) return;
        try {
            keep->onReadable();
        } catch (...) {
            logEscapedException(label, std::current_exception());
        }
    }

    void moveWatchesToAsio() {
        waitsInAsio = true;
        for (const auto& entry : watches) {
            if (entry->asioWait) continue;
            if (epollFd >= 0) ::epoll_ctl(epollFd, EPOLL_CTL_DEL, entry->descriptor, nullptr);
            entry->asioWait = std::make_unique<asio::posix::stream_descriptor>(context, entry->descriptor);
            waitInAsio(entry);
        }
    }

    void waitInAsio(const std::shared_ptr<Watch>& entry) {
        entry->asioWait->async_wait(asio::posix::stream_descriptor::wait_read,
                                    [this, entry](const std::error_code& error) {
                                        if (error || !entry->active) return;
                                        dispatch(*entry);
                                        if (entry->active) waitInAsio(entry);
                                    });
    }
};

namespace {

// The queue whose thread is the calling thread, if any.
thread_local const void* tCurrentQueue = nullptr;

}  // namespace

SerialQueue::SerialQueue(std::string label, QualityOfService qos)
    : core_(std::make_shared<Core>(std::move(label), qos)) {
    thread_ = std::thread([core = core_] {
        tCurrentQueue = core.get();
        configureCurrentThread(core->label, core->qos);
        for (;;) {
            // Work items of async() catch their own exceptions; this catches what Asio handlers
            // of the queue's timers and I/O objects throw. run() may simply be called again.
            try {
                core->context.run();
                break;
            } catch (...) {
                logEscapedException(core->label, std::current_exception());
            }
        }
        tCurrentQueue = nullptr;
    });
}

SerialQueue::~SerialQueue() {
    core_->keepAlive.reset();
    if (isCurrent()) {
        thread_.detach();  // the thread holds the core and exits once the remaining work is done
    } else {
        thread_.join();
    }
}

const std::string& SerialQueue::label() const noexcept { return core_->label; }

QualityOfService SerialQueue::qualityOfService() const noexcept { return core_->qos; }

void SerialQueue::async(std::function<void()> work) {
    core_->post([core = core_.get(), work = std::move(work)] {
        try {
            if (work) work();
        } catch (...) {
            logEscapedException(core->label, std::current_exception());
        }
    });
}

bool SerialQueue::isCurrent() const noexcept { return tCurrentQueue == core_.get(); }

void SerialQueue::enqueue(std::function<void()> work) { core_->post(std::move(work)); }

asio::io_context& SerialQueue::context() const noexcept {
    if (!core_->contextHandedOut.exchange(true, std::memory_order_seq_cst)) {
        // A waiter blocking for the queue's timers must hand over to Asio.
        if (core_->waiting.load(std::memory_order_seq_cst)) core_->wake();
    }
    return core_->context;
}

void SerialQueue::watch(int descriptor, std::function<void()> onReadable) {
    core_->watch(descriptor, std::move(onReadable));
}

void SerialQueue::unwatch(int descriptor) { core_->unwatch(descriptor); }

}  // namespace vantorix
