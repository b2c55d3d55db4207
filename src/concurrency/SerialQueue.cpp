#include "concurrency/SerialQueue.h"

#include "log/Log.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>

#include <optional>
#include <utility>

namespace vantorix {

namespace {
using Executor = asio::io_context::executor_type;
}  // namespace

struct SerialQueue::Core {
    Core(std::string queueLabel, QualityOfService queueQos)
        : label(std::move(queueLabel)), qos(queueQos), keepAlive(asio::make_work_guard(context)) {}

    const std::string label;
    const QualityOfService qos;
    asio::io_context context{1};
    // Keeps run() going while the queue is idle; released by the destructor.
    std::optional<asio::executor_work_guard<Executor>> keepAlive;
};

namespace {

// The queue whose thread is the calling thread, if any.
thread_local const void* tCurrentQueue = nullptr;

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
    asio::post(core_->context, [core = core_.get(), work = std::move(work)] {
        try {
            if (work) work();
        } catch (...) {
            logEscapedException(core->label, std::current_exception());
        }
    });
}

bool SerialQueue::isCurrent() const noexcept { return tCurrentQueue == core_.get(); }

void SerialQueue::enqueue(std::function<void()> work) { asio::post(core_->context, std::move(work)); }

asio::io_context& SerialQueue::context() const noexcept { return core_->context; }

}  // namespace vantorix
