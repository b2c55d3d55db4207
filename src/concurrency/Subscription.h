#pragma once

#include <cstdint>
#include <memory>
#include <utility>

namespace vantorix {

namespace detail {

// The subscriber list that a Subscription leaves when it ends.
class SubscriberList {
public:
    virtual void unsubscribe(std::uint64_t id) noexcept = 0;

protected:
    SubscriberList() = default;
    ~SubscriberList() = default;
    SubscriberList(const SubscriberList&) = default;
    SubscriberList& operator=(const SubscriberList&) = default;
};

}  // namespace detail

// One subscriber's registration with an observable value. Ending it (destruction, cancel(),
// assigning another subscription over it) unsubscribes; a subscription that outlives the value
// it observes ends quietly. Move-only; used on the thread of the value it observes.
class [[nodiscard]] Subscription {
public:
    Subscription() = default;
    Subscription(std::weak_ptr<detail::SubscriberList> list, std::uint64_t id) : list_(std::move(list)), id_(id) {}
    ~Subscription() { cancel(); }

    Subscription(Subscription&& other) noexcept : list_(std::move(other.list_)), id_(other.id_) { other.list_.reset(); }
    Subscription& operator=(Subscription&& other) noexcept {
        if (this != &other) {
            cancel();
            list_ = std::move(other.list_);
            id_ = other.id_;
            other.list_.reset();
        }
        return *this;
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    void cancel() noexcept {
        if (const auto list = list_.lock()) list->unsubscribe(id_);
        list_.reset();
    }

private:
    std::weak_ptr<detail::SubscriberList> list_;
    std::uint64_t id_ = 0;
};

}  // namespace vantorix
