#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace vantorix {

// Closures handed to queues, timers, tasks and the main thread hold their owner weakly: when the
// closure runs after the owner is gone it does nothing. weakly() makes such a closure:
//
//     queue.async(weakly(weak_from_this(), [](DiskIOMonitor& monitor) { monitor.tick(); }));
//     coordinator.setHandler(weakly(self, [](DiskIOMonitor& m, const Payload& batch) { ... }));
//
// The closure locks the owner for the length of the call and calls `action(owner, args...)`.
// An action returning void gives a closure returning void; any other result comes back (as a
// copy) in a std::optional, empty when the owner was gone. Because the call holds a strong reference, the
// owner may be destroyed at the end of a call on the calling thread.
template <class Owner, class Action>
auto weakly(std::weak_ptr<Owner> owner, Action&& action) {
    return [owner = std::move(owner), action = std::forward<Action>(action)](auto&&... args) mutable {
        using R = std::remove_cvref_t<std::invoke_result_t<Action&, Owner&, decltype(args)...>>;
        if constexpr (std::is_void_v<R>) {
            if (const std::shared_ptr<Owner> strong = owner.lock()) {
                std::invoke(action, *strong, std::forward<decltype(args)>(args)...);
            }
        } else {
            if (const std::shared_ptr<Owner> strong = owner.lock()) {
                return std::optional<R>(std::invoke(action, *strong, std::forward<decltype(args)>(args)...));
            }
            return std::optional<R>();
        }
    };
}

template <class Owner, class Action>
auto weakly(const std::shared_ptr<Owner>& owner, Action&& action) {
    return weakly(std::weak_ptr<Owner>(owner), std::forward<Action>(action));
}

// For an owner derived (perhaps through a base) from std::enable_shared_from_this:
// weakly(this, ...). Made inside the owner's constructor, before a shared_ptr owns it, the
// closure never runs its action.
template <class Owner, class Action>
requires requires(Owner* o) { o->weak_from_this(); }
auto weakly(Owner* self, Action&& action) {
    // The aliasing constructor keeps the pointer to the most derived type while sharing the
    // ownership that enable_shared_from_this records for the base.
    std::weak_ptr<Owner> owner = std::shared_ptr<Owner>(self->weak_from_this().lock(), self);
    return weakly(std::move(owner), std::forward<Action>(action));
}

}  // namespace vantorix
