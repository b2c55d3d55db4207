#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "concurrency/Subscription.h"

namespace vantorix {

// Process-wide named notifications without a payload: a component posts a name, and whoever
// observes that name is told. Front ends observe what they show (the helper-approval request, for
// instance); the component that posts does not know who listens.
//
// Observers run synchronously on the posting thread, in the order they were added. An observer
// may add or remove observers (itself included) while it runs; a removed one is not called again,
// an added one hears from the next post on. Safe from any thread.
class NotificationCenter {
public:
    using Observer = std::function<void()>;

    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // The centre of the process; made on first use, never destroyed.
    static NotificationCenter& defaultCenter();

    // Observes `name` until the subscription ends.
    Subscription addObserver(std::string name, Observer observer);

    void post(std::string_view name);

private:
    class Observers;
    std::shared_ptr<Observers> observers_;
};

}  // namespace vantorix
