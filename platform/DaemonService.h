// The daemon as the service manager and the system bus see it: readiness and
// stopping told to the service manager, and a well-known name on the system bus
// answering a Status method with one JSON text. The name is served on a thread of
// its own that sleeps in the bus until a call comes: no cost while nobody asks.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace jx {

constexpr const char* kDaemonBusName = "com.brindle.joulix";
constexpr const char* kDaemonBusPath = "/com/brindle/joulix";
constexpr const char* kDaemonBusInterface = "com.brindle.joulix.Daemon";

// Tells the service manager a state ("READY=1", "STOPPING=1"); nothing happens
// outside a service (no NOTIFY_SOCKET).
void notifyServiceManager(const std::string& state);

class DaemonService {
public:
    // Takes the well-known name and answers Status with what status() returns.
    // False (said once) when there is no bus or the name is taken.
    bool start(std::function<std::string()> status);
    void stop();
    ~DaemonService();

    // The client's side: the Status text of the running daemon; nullopt when
    // nobody owns the name or no answer came within the time (why says which).
    static std::optional<std::string> queryStatus(double seconds, std::string* why);
    // Whether a daemon holds the name now.
    static bool running();

private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace jx
