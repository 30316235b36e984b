// The system-wide centre over D-Bus: a notification is the signal Post(s name) on
// interface com.brindle.Notify, path /com/brindle/Notify, on the system bus.
//
// Posting and observing use two connections: posts come from any thread, while
// the observing connection belongs to one run loop, whose thread reads it and
// calls the observers. The bus filters by name (one match rule per observed
// name), so a process is not woken by notifications it does not observe.
#include <sys/timerfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>

#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <optional>
#include <mutex>
#include <vector>

#include "platform/NotificationCenter.h"
#include "platform/SdBus.h"
#include "platform/SystemLog.h"

namespace jx {
namespace {

constexpr const char* kPath = "/com/brindle/Notify";
constexpr const char* kInterface = "com.brindle.Notify";
constexpr const char* kMember = "Post";
// Sent by an observer to a poster it has named, addressed to that poster alone.
constexpr const char* kReceiptMember = "Received";

using Slot = BusSlot;

// Said once per process: a device without a bus runs on without system-wide notifications.
std::atomic<bool> gSaidNoBus{false};

Bus openSystemBus() {
    sd_bus* bus = nullptr;
    int r = sd_bus_open_system(&bus);
    if (r < 0) {
        if (!gSaidNoBus.exchange(true))
            systemLogf(kLogNotice, "no system bus (%s): system-wide notifications are off", strerror(-r));
        return nullptr;
    }
    return Bus(bus);
}

// A match rule for the Post signal carrying one name. A name that cannot be
// quoted in a rule is matched by the signal alone and filtered on arrival.
std::string matchRule(const std::string& name) {
    std::string rule = std::string("type='signal',path='") + kPath + "',interface='" + kInterface + "',member='" + kMember + "'";
    if (name.find_first_of("'\\,") == std::string::npos) rule += ",arg0='" + name + "'";
    return rule;
}

class DBusSystemCenter : public SystemNotificationCenter {
public:
    bool post(const std::string& name) override {
        std::lock_guard lock(postMutex_);
        return emitLocked(name);
    }

    Receipt postAwaitingReceipt(const std::string& name, double seconds) override {
        std::lock_guard lock(postMutex_);
        if (!postBus_ && !(postBus_ = openSystemBus())) return Receipt::NotPosted;
        bool received = false;
        sd_bus_slot* raw = nullptr;
        const std::string rule = std::string("type='signal',path='") + kPath + "',interface='" + kInterface +
                                 "',member='" + kReceiptMember + "'";
        auto onReceipt = [](sd_bus_message* m, void* flag, sd_bus_error*) -> int {
            const char* got = nullptr;
            auto* state = static_cast<std::pair<bool*, const std::string*>*>(flag);
            if (sd_bus_message_read(m, "s", &got) >= 0 && got && *state->second == got) *state->first = true;
            return 0;
        };
        std::pair<bool*, const std::string*> state{&received, &name};
        if (sd_bus_add_match(postBus_.get(), &raw, rule.c_str(), onReceipt, &state) < 0) postBus_.reset();
        Slot slot(raw);
        if (!emitLocked(name)) return Receipt::NotPosted;
        using Clock = std::chrono::steady_clock;
        const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
        while (!received && postBus_) {
            int r = sd_bus_process(postBus_.get(), nullptr);
            if (r < 0) break;
            if (r > 0) continue;
            const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count();
            if (left <= 0) break;
            if (sd_bus_wait(postBus_.get(), static_cast<uint64_t>(left)) < 0) break;
        }
        return received ? Receipt::Received : Receipt::Posted;
    }

private:
    bool emitLocked(const std::string& name) {
        // A connection kept from earlier may belong to a bus that has gone since
        // (restarted): then one fresh connection is tried before giving up.
        for (int attempt = 0; attempt < 2; ++attempt) {
            const bool fresh = !postBus_;
            if (fresh && !(postBus_ = openSystemBus())) return false;
            int r = sd_bus_emit_signal(postBus_.get(), kPath, kInterface, kMember, "s", name.c_str());
            if (r >= 0) r = sd_bus_flush(postBus_.get());
            if (r >= 0) return true;
            postBus_.reset();
            if (fresh) {
                systemLogf(kLogError, "could not post %s on the system bus: %s", name.c_str(), strerror(-r));
                return false;
            }
        }
        return false;
    }

public:
    bool addObserver(void* observer, const std::string& name, Callback callback, SuspensionBehavior,
                     std::shared_ptr<RunLoop> loop) override {
        if (!loop) loop = RunLoop::current();
        std::lock_guard lock(mutex_);
        if (!home_) home_ = loop;
        // While a lost bus is being retried, the observation waits for the new connection.
        if (!bus_ && !retrySource_) {
            Bus bus = openSystemBus();
            if (!bus || !attachLocked(std::move(bus))) {
                if (observers_.empty()) closeLocked();
                return false;
            }
        }
        if (bus_ && !matches_.count(name) && !addMatchLocked(name)) {
            if (observers_.empty()) closeLocked();
            return false;
        }
        observers_.push_back(Observer{nextId_++, observer, name, std::make_shared<Callback>(std::move(callback)), loop});
        // The synchronous call may have read messages off the socket already; they
        // wait in the connection, not in the socket, so nothing would wake the loop.
        if (bus_) home_->perform([this] { serve(); });
        return true;
    }

    void removeObserver(void* observer, const std::string& name) override {
        std::lock_guard lock(mutex_);
        std::erase_if(observers_, [&](const Observer& o) { return o.observer == observer && o.name == name; });
        bool stillObserved = false;
        for (auto& o : observers_) stillObserved |= o.name == name;
        if (!stillObserved && matches_.erase(name) && bus_) sd_bus_flush(bus_.get());
        if (observers_.empty()) closeLocked();
    }

private:
    struct Observer {
        std::uint64_t id;
        void* observer;
        std::string name;
        std::shared_ptr<Callback> callback;
        std::shared_ptr<RunLoop> loop;
    };

    struct Received {
        std::string name;
        std::optional<uid_t> uid;
    };

    static constexpr int kFirstRetrySeconds = 1;
    static constexpr std::size_t kMaxSenders = 4096;
    static constexpr int kLastRetrySeconds = 300;

    // Serves a connection on the home loop; the match rules are added by the caller.
    bool attachLocked(Bus bus) {
        bus_ = std::move(bus);
        source_ = home_->addSource(sd_bus_get_fd(bus_.get()), [this] { serve(); });
        return source_ != 0;
    }

    bool addMatchLocked(const std::string& name) {
        sd_bus_slot* slot = nullptr;
        // Synchronous: once it returns the bus delivers the name to us.
        int r = sd_bus_add_match(bus_.get(), &slot, matchRule(name).c_str(), onSignal, this);
        if (r < 0) {
            systemLogf(kLogError, "could not observe %s on the system bus: %s", name.c_str(), strerror(-r));
            return false;
        }
        matches_[name] = Slot(slot);
        return true;
    }

    void detachLocked() {
        if (home_ && source_) home_->removeSource(source_);
        source_ = 0;
        matches_.clear();
        bus_.reset();
        received_.clear();
        // A new bus gives its unique names anew.
        senders_.clear();
    }

    // A lost bus is tried again after 1 s, then after twice as long each time, up
    // to five minutes; each failed try says so, so the log grows slower and slower.
    void scheduleRetryLocked() {
        if (!retryTimer_.valid()) {
            retryTimer_.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
            if (!retryTimer_.valid()) return;
            retrySource_ = home_->addSource(retryTimer_.get(), [this] { retry(); });
        }
        itimerspec due{};
        due.it_value.tv_sec = retrySeconds_;
        ::timerfd_settime(retryTimer_.get(), 0, &due, nullptr);
    }

    void cancelRetryLocked() {
        if (home_ && retrySource_) home_->removeSource(retrySource_);
        retrySource_ = 0;
        retryTimer_.reset();
        retrySeconds_ = kFirstRetrySeconds;
    }

    void retry() {
        std::lock_guard lock(mutex_);
        std::uint64_t expirations = 0;
        if (::read(retryTimer_.get(), &expirations, sizeof expirations) <= 0 || bus_ || observers_.empty()) return;
        sd_bus* raw = nullptr;
        int r = sd_bus_open_system(&raw);
        Bus bus(raw);
        if (r >= 0 && attachLocked(std::move(bus))) {
            bool all = true;
            for (auto& o : observers_)
                if (!matches_.count(o.name)) all &= addMatchLocked(o.name);
            if (all) {
                systemLog(kLogNotice, "the system bus is back: system-wide notifications are on again");
                cancelRetryLocked();
                home_->perform([this] { serve(); });
                return;
            }
            detachLocked();
        }
        retrySeconds_ = std::min(retrySeconds_ * 2, kLastRetrySeconds);
        systemLogf(kLogError, "the system bus is still not there: next try in %d s", retrySeconds_);
        scheduleRetryLocked();
    }

    static int onSignal(sd_bus_message* m, void* userdata, sd_bus_error*) {
        const char* name = nullptr;
        auto* self = static_cast<DBusSystemCenter*>(userdata);
        if (sd_bus_message_read(m, "s", &name) >= 0 && name)
            self->received_.push_back(Received{name, self->senderUid(sd_bus_message_get_sender(m), name)});
        return 0;
    }

    // The user of a sender, asked of the bus once per connection: a unique name is
    // never given to another connection while the bus runs, so the answer is kept.
    std::optional<uid_t> senderUid(const char* sender, const char* name) {
        if (!sender || !bus_) return std::nullopt;
        if (auto it = senders_.find(sender); it != senders_.end()) return it->second;
        sd_bus_creds* raw = nullptr;
        std::optional<uid_t> uid;
        if (sd_bus_get_name_creds(bus_.get(), sender, SD_BUS_CREDS_EUID | SD_BUS_CREDS_UID, &raw) >= 0) {
            uid_t u = 0;
            if (sd_bus_creds_get_euid(raw, &u) >= 0 || sd_bus_creds_get_uid(raw, &u) >= 0) uid = u;
            sd_bus_creds_unref(raw);
        }
        // Bounded: many short-lived senders must not grow the table without end.
        if (senders_.size() >= kMaxSenders) senders_.clear();
        senders_.emplace(sender, uid);
        // Named now: the poster, which may be waiting for this, may leave.
        if (uid) {
            sd_bus_message* receipt = nullptr;
            if (sd_bus_message_new_signal(bus_.get(), &receipt, kPath, kInterface, kReceiptMember) >= 0 &&
                sd_bus_message_set_destination(receipt, sender) >= 0 && sd_bus_message_append(receipt, "s", name) >= 0)
                sd_bus_send(bus_.get(), receipt, nullptr);
            sd_bus_message_unref(receipt);
        }
        return uid;
    }

    // On the home loop's thread: reads what the bus has, then calls the observers
    // without holding the lock, so that a callback may add or remove observers.
    void serve() {
        std::vector<Received> names;
        {
            std::lock_guard lock(mutex_);
            if (!bus_) return;
            for (;;) {
                int r = sd_bus_process(bus_.get(), nullptr);
                if (r < 0) {
                    systemLogf(kLogError, "lost the system bus (%s): trying again in %d s", strerror(-r), retrySeconds_);
                    detachLocked();
                    scheduleRetryLocked();
                    break;
                }
                if (r == 0) break;
            }
            names.swap(received_);
        }
        for (const Received& r : names) deliver(r.name, r.uid);
    }

    void deliver(const std::string& name, std::optional<uid_t> uid) {
        // Who posted, for observers that act only for some: {"SenderUID": uid} when the bus said.
        Value info = uid ? Value(Dictionary{{kSenderUIDKey, Value(static_cast<long long>(*uid))}}) : Value();
        std::vector<Observer> targets;
        std::shared_ptr<RunLoop> home;
        {
            std::lock_guard lock(mutex_);
            home = home_;
            for (auto& o : observers_)
                if (o.name == name) targets.push_back(o);
        }
        for (Observer& o : targets) {
            auto call = [this, o, name, info] {
                // An observer removed by an earlier callback is not called.
                if (!registered(o.id)) return;
                (*o.callback)(this, o.observer, name, nullptr, info);
            };
            if (o.loop == home || !o.loop) call();
            else o.loop->perform(call);
        }
    }

    bool registered(std::uint64_t id) {
        std::lock_guard lock(mutex_);
        for (auto& o : observers_)
            if (o.id == id) return true;
        return false;
    }

    void closeLocked() {
        detachLocked();
        cancelRetryLocked();
        home_.reset();
    }

    std::mutex postMutex_;
    Bus postBus_;

    std::mutex mutex_;
    Bus bus_;
    // Declared after the bus, so that the match slots go first.
    std::map<std::string, Slot> matches_;
    std::shared_ptr<RunLoop> home_;
    RunLoop::SourceId source_ = 0;
    std::vector<Observer> observers_;
    std::vector<Received> received_;
    std::map<std::string, std::optional<uid_t>> senders_;
    std::uint64_t nextId_ = 1;
    FileDescriptor retryTimer_;
    RunLoop::SourceId retrySource_ = 0;
    int retrySeconds_ = kFirstRetrySeconds;
};

std::atomic<SystemNotificationCenter*> gOverride{nullptr};

}  // namespace

SystemNotificationCenter& SystemNotificationCenter::shared() {
    if (SystemNotificationCenter* c = gOverride.load()) return *c;
    // Never destroyed: the run loop that serves it may outlive static destruction.
    static DBusSystemCenter* center = new DBusSystemCenter;
    return *center;
}

void SystemNotificationCenter::setShared(SystemNotificationCenter* center) { gOverride.store(center); }

}  // namespace jx
