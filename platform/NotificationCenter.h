// Named notifications: in-process (observers called on the posting thread) and
// system-wide (between processes).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/RunLoop.h"
#include "platform/Value.h"

namespace jx {

struct Notification {
    std::string name;
    const void* object = nullptr;
    Value userInfo;
};

class NotificationCenter {
public:
    using Callback = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    // An empty name observes every notification.
    void addObserver(const void* observer, const std::string& name, Callback callback);
    void removeObserver(const void* observer);
    void removeObserver(const void* observer, const std::string& name);
    void post(const std::string& name, const void* object = nullptr, const Value& userInfo = {});

private:
    struct Entry {
        const void* observer;
        std::string name;
        std::shared_ptr<Callback> callback;
    };
    std::mutex mutex_;
    std::vector<Entry> observers_;
};

// The key of the poster's user id in a system-wide notification's user information.
inline constexpr const char* kSenderUIDKey = "SenderUID";

// The system-wide centre. Posting reaches every process that observes the name.
class SystemNotificationCenter {
public:
    // The observer's callback: the centre, the observer as registered, the name,
    // and the object and user information. No object travels between processes;
    // the user information is {kSenderUIDKey: uid} when the bus told who posted.
    using Callback = std::function<void(SystemNotificationCenter* center, void* observer, const std::string& name,
                                        const void* object, const Value& userInfo)>;
    // What happens to a notification while the observing process is suspended.
    // Linux does not suspend daemons, so both deliver; the choice is kept for callers.
    enum class SuspensionBehavior { Drop, DeliverImmediately };

    virtual ~SystemNotificationCenter() = default;
    // Answers whether the notification left this process.
    virtual bool post(const std::string& name) = 0;
    // Observes a name. The callback runs on the thread of loop (by default the
    // calling thread's run loop), when that loop runs. The observation is in
    // place when the call returns; answers NO when there is no bus.
    virtual bool addObserver(void* observer, const std::string& name, Callback callback,
                             SuspensionBehavior behavior = SuspensionBehavior::DeliverImmediately,
                             std::shared_ptr<RunLoop> loop = nullptr) = 0;
    virtual void removeObserver(void* observer, const std::string& name) = 0;

    enum class Receipt { NotPosted, Posted, Received };
    // Posts, then waits up to the time for an observer to say it received the name
    // and learnt who posted it. A poster that leaves the bus at once could not be
    // named any more; this lets a short-lived tool stay until it has been.
    virtual Receipt postAwaitingReceipt(const std::string& name, double seconds) {
        (void)seconds;
        return post(name) ? Receipt::Posted : Receipt::NotPosted;
    }

    static SystemNotificationCenter& shared();
    // Tests put in a double (not owned; nullptr restores the real one).
    static void setShared(SystemNotificationCenter* center);
};

}  // namespace jx
