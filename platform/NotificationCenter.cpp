#include "platform/NotificationCenter.h"

#include <algorithm>
#include <atomic>

namespace jx {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

void NotificationCenter::addObserver(const void* observer, const std::string& name, Callback callback) {
    std::lock_guard lock(mutex_);
    observers_.push_back(Entry{observer, name, std::make_shared<Callback>(std::move(callback))});
}

void NotificationCenter::removeObserver(const void* observer) {
    std::lock_guard lock(mutex_);
    std::erase_if(observers_, [&](const Entry& e) { return e.observer == observer; });
}

void NotificationCenter::removeObserver(const void* observer, const std::string& name) {
    std::lock_guard lock(mutex_);
    std::erase_if(observers_, [&](const Entry& e) { return e.observer == observer && e.name == name; });
}

void NotificationCenter::post(const std::string& name, const void* object, const Value& userInfo) {
    std::vector<std::shared_ptr<Callback>> targets;
    {
        std::lock_guard lock(mutex_);
        for (const Entry& e : observers_)
            if (e.name.empty() || e.name == name) targets.push_back(e.callback);
    }
    // Called without the lock, so an observer may add or remove observers.
    Notification n{name, object, userInfo};
    for (auto& cb : targets) (*cb)(n);
}

}  // namespace jx
