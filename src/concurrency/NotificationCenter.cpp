#include "concurrency/NotificationCenter.h"

#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "concurrency/Published.h"

namespace vantorix {

class NotificationCenter::Observers final : public detail::SubscriberList {
public:
    std::uint64_t add(std::string name, Observer observer) {
        std::lock_guard lock(mutex_);
        const std::uint64_t id = ++lastId_;
        entries_.push_back(Entry{id, std::move(name), std::make_shared<const Observer>(std::move(observer))});
        return id;
    }

    void unsubscribe(std::uint64_t id) noexcept override {
        std::lock_guard lock(mutex_);
        std::erase_if(entries_, [id](const Entry& entry) { return entry.id == id; });
    }

    void post(std::string_view name) {
        std::vector<std::pair<std::uint64_t, std::shared_ptr<const Observer>>> matching;
        {
            std::lock_guard lock(mutex_);
            for (const Entry& entry : entries_) {
                if (entry.name == name) matching.emplace_back(entry.id, entry.observer);
            }
        }
        for (const auto& [id, observer] : matching) {
            if (!isSubscribed(id)) continue;  // removed by an observer that ran before it
            try {
                (*observer)();
            } catch (...) {
                detail::reportSubscriberFailure(std::current_exception());
            }
        }
    }

private:
    struct Entry {
        std::uint64_t id;
        std::string name;
        std::shared_ptr<const Observer> observer;
    };

    bool isSubscribed(std::uint64_t id) const {
        std::lock_guard lock(mutex_);
        for (const Entry& entry : entries_) {
            if (entry.id == id) return true;
        }
        return false;
    }

    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
    std::uint64_t lastId_ = 0;
};

NotificationCenter::NotificationCenter() : observers_(std::make_shared<Observers>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
    static auto* center = new NotificationCenter();  // never destroyed: observers may end during static destruction
    return *center;
}

Subscription NotificationCenter::addObserver(std::string name, Observer observer) {
    const std::uint64_t id = observers_->add(std::move(name), std::move(observer));
    return {std::weak_ptr<detail::SubscriberList>(observers_), id};
}

void NotificationCenter::post(std::string_view name) { observers_->post(name); }

}  // namespace vantorix
