#pragma once

#include "concurrency/Subscription.h"

#include <cassert>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace vantorix {

namespace detail {

// Logs an exception that escaped a subscriber (category "Concurrency").
void reportSubscriberFailure(const std::exception_ptr& failure) noexcept;

// Remembers the thread that first used an object and tells whether the caller is that thread.
// Without NDEBUG only; release builds do not check.
class ThreadAffinity {
public:
    bool holds() const {
#ifndef NDEBUG
        if (owner_ == std::thread::id()) owner_ = std::this_thread::get_id();
        return owner_ == std::this_thread::get_id();
#else
        return true;
#endif
    }

private:
#ifndef NDEBUG
    mutable std::thread::id owner_;
#endif
};

}  // namespace detail

// A piece of observable state: a value that its owner changes on the main thread only, and the
// subscribers that are told after each change. Every member function is for the main thread
// (debug builds assert that all calls come from the thread that used the value first).
//
// Notification: after each change the subscribers are called in the order they subscribed, each
// with a reference to the current value. A subscriber may subscribe or unsubscribe anyone (itself
// included) during a notification: one that leaves is not called again, one that joins is called
// from the next change on. A subscriber that changes the value during a notification ends the
// round in progress; a new round then tells every subscriber the new value, so no subscriber is
// told an older value after a newer one. An exception thrown by a subscriber is logged, and the
// others are still told. The value must outlive its notifications: a subscriber must not destroy
// the Published it is being told about.
template <class T>
class Published {
public:
    using Subscriber = std::function<void(const T&)>;

    Published() requires std::default_initializable<T> : Published(T{}) {}
    explicit Published(T initial) : value_(std::move(initial)), subscribers_(std::make_shared<Subscribers>()) {}

    Published(const Published&) = delete;
    Published& operator=(const Published&) = delete;

    const T& get() const {
        assert(affinity_.holds());
        return value_;
    }

    // Stores `value` and notifies, whether or not it differs from the value before. For state
    // that is republished as a whole, such as the sample history after every batch.
    void set(T value) {
        assert(affinity_.holds());
        value_ = std::move(value);
        subscribers_->notify(value_);
    }

    // Stores `value` and notifies only when it differs from the current value; true when it did.
    bool setIfChanged(T value) requires std::equality_comparable<T> {
        assert(affinity_.holds());
        if (value_ == value) return false;
        set(std::move(value));
        return true;
    }

    // Changes the value in place with `change(T&)` and notifies; saves copying a large value.
    template <class Change>
    void update(Change&& change) {
        assert(affinity_.holds());
        std::invoke(std::forward<Change>(change), value_);
        subscribers_->notify(value_);
    }

    // Registers `subscriber` to be told of every later change, until the subscription ends. The
    // current value is not delivered on subscribing; read it with get().
    Subscription subscribe(Subscriber subscriber) {
        assert(affinity_.holds());
        const std::uint64_t id = subscribers_->add(std::move(subscriber));
        return {std::weak_ptr<detail::SubscriberList>(subscribers_), id};
    }

    std::size_t subscriberCount() const {
        assert(affinity_.holds());
        return subscribers_->count();
    }

private:
    class Subscribers final : public detail::SubscriberList {
    public:
        std::uint64_t add(Subscriber subscriber) {
            const std::uint64_t id = ++lastId_;
            entries_.push_back(Entry{id, std::make_shared<const Subscriber>(std::move(subscriber))});
            return id;
        }

        void unsubscribe(std::uint64_t id) noexcept override {
            for (auto it = entries_.begin(); it != entries_.end(); ++it) {
                if (it->id != id) continue;
                if (notifying_) {
                    it->subscriber.reset();  // a running call keeps its own reference
                    hasGaps_ = true;
                } else {
                    entries_.erase(it);
                }
                return;
            }
        }

        std::size_t count() const {
            std::size_t n = 0;
            for (const Entry& e : entries_) n += e.subscriber ? 1U : 0U;
            return n;
        }

        void notify(const T& value) {
            if (notifying_) {
                restart_ = true;
                return;
            }
            notifying_ = true;
            do {
                restart_ = false;
                const std::size_t subscribed = entries_.size();  // later subscribers wait for the next change
                for (std::size_t i = 0; i < subscribed && !restart_; ++i) {
                    const std::shared_ptr<const Subscriber> subscriber = entries_[i].subscriber;
                    if (!subscriber || !*subscriber) continue;
                    try {
                        (*subscriber)(value);
                    } catch (...) {
                        detail::reportSubscriberFailure(std::current_exception());
                    }
                }
            } while (restart_);
            notifying_ = false;
            if (hasGaps_) {
                std::erase_if(entries_, [](const Entry& e) { return !e.subscriber; });
                hasGaps_ = false;
            }
        }

    private:
        struct Entry {
            std::uint64_t id;
            std::shared_ptr<const Subscriber> subscriber;
        };

        std::vector<Entry> entries_;
        std::uint64_t lastId_ = 0;
        bool notifying_ = false;
        bool restart_ = false;
        bool hasGaps_ = false;
    };

    T value_;
    std::shared_ptr<Subscribers> subscribers_;
    [[no_unique_address]] detail::ThreadAffinity affinity_;
};

}  // namespace vantorix
