// A connection to the private system bus served from its own thread, for fake
// services. Declare it after whatever its handlers use, so that it stops first.
#pragma once

#include <systemd/sd-bus.h>

#include <atomic>
#include <functional>
#include <thread>

class BusServer {
public:
    BusServer() {
        sd_bus* bus = nullptr;
        if (sd_bus_open_system(&bus) >= 0) bus_ = bus;
    }
    ~BusServer() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (bus_) sd_bus_flush_close_unref(bus_);
    }
    BusServer(const BusServer&) = delete;
    BusServer& operator=(const BusServer&) = delete;

    // Null when there is no bus; objects are exported on it before serve().
    sd_bus* bus() const { return bus_; }
    // Takes the name and serves from now on, each turn beginning with the hook.
    bool serve(const char* name, std::function<void()> eachTurn = {}) {
        if (!bus_ || sd_bus_request_name(bus_, name, 0) < 0) return false;
        thread_ = std::thread([this, eachTurn = std::move(eachTurn)] {
            while (!stop_) {
                if (eachTurn) eachTurn();
                while (sd_bus_process(bus_, nullptr) > 0) {
                }
                sd_bus_wait(bus_, 5000);
            }
        });
        return true;
    }

private:
    sd_bus* bus_ = nullptr;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};
