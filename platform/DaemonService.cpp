#include "platform/DaemonService.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "platform/FileDescriptor.h"
#include "platform/SdBus.h"
#include "platform/SystemLog.h"

namespace jx {

void notifyServiceManager(const std::string& state) { sd_notify(0, state.c_str()); }

struct DaemonService::State {
    Bus bus;
    BusSlot object;
    FileDescriptor stop;
    std::function<std::string()> status;
    std::thread thread;

    static int onStatus(sd_bus_message* m, void* userdata, sd_bus_error*) {
        auto* self = static_cast<State*>(userdata);
        const std::string text = self->status();
        return sd_bus_reply_method_return(m, "s", text.c_str());
    }

    void serve() {
        pthread_setname_np(pthread_self(), "joulix-status");
        for (;;) {
            int r = sd_bus_process(bus.get(), nullptr);
            if (r < 0) {
                systemLogf(kLogError, "the status service lost the system bus: %s", std::strerror(-r));
                return;
            }
            if (r > 0) continue;
            int timeout = -1;
            std::uint64_t until = 0;
            if (sd_bus_get_timeout(bus.get(), &until) >= 0 && until != UINT64_MAX) {
                timespec now{};
                clock_gettime(CLOCK_MONOTONIC, &now);
                const std::uint64_t nowUs = static_cast<std::uint64_t>(now.tv_sec) * 1000000u + now.tv_nsec / 1000;
                timeout = until > nowUs ? static_cast<int>((until - nowUs + 999) / 1000) : 0;
            }
            pollfd fds[2] = {{sd_bus_get_fd(bus.get()), static_cast<short>(sd_bus_get_events(bus.get())), 0},
                             {stop.get(), POLLIN, 0}};
            if (::poll(fds, 2, timeout) < 0 && errno != EINTR) return;
            if (fds[1].revents) return;
        }
    }
};

bool DaemonService::start(std::function<std::string()> status) {
    static const sd_bus_vtable kVtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Status", "", "s", State::onStatus, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    auto state = std::make_shared<State>();
    state->status = std::move(status);
    sd_bus* raw = nullptr;
    if (int r = sd_bus_open_system(&raw); r < 0) return false;  // the centre says there is no bus
    state->bus.reset(raw);
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_object_vtable(raw, &slot, kDaemonBusPath, kDaemonBusInterface, kVtable, state.get());
    state->object.reset(slot);
    if (r >= 0) r = sd_bus_request_name(raw, kDaemonBusName, 0);
    if (r < 0) {
        systemLogf(kLogError, "cannot take the name %s on the system bus (%s): joulixctl status will not find this daemon",
                   kDaemonBusName, std::strerror(-r));
        return false;
    }
    state->stop.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!state->stop.valid()) return false;
    state->thread = std::thread([s = state.get()] { s->serve(); });
    state_ = std::move(state);
    return true;
}

void DaemonService::stop() {
    if (!state_) return;
    const std::uint64_t one = 1;
    if (::write(state_->stop.get(), &one, sizeof one) < 0) {}
    if (state_->thread.joinable()) state_->thread.join();
    if (state_->bus) sd_bus_release_name(state_->bus.get(), kDaemonBusName);
    state_.reset();
}

DaemonService::~DaemonService() { stop(); }

bool DaemonService::running() {
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0) return false;
    Bus bus(raw);
    return nameHasOwner(raw, kDaemonBusName);
}

std::optional<std::string> DaemonService::queryStatus(double seconds, std::string* why) {
    sd_bus* raw = nullptr;
    if (int r = sd_bus_open_system(&raw); r < 0) {
        if (why) *why = std::string("no system bus: ") + std::strerror(-r);
        return std::nullopt;
    }
    Bus bus(raw);
    if (!nameHasOwner(raw, kDaemonBusName)) {
        if (why) *why = "nobody owns " + std::string(kDaemonBusName);
        return std::nullopt;
    }
    sd_bus_message* call = nullptr;
    if (sd_bus_message_new_method_call(raw, &call, kDaemonBusName, kDaemonBusPath, kDaemonBusInterface, "Status") < 0)
        return std::nullopt;
    BusMessage owned(call);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call(raw, call, static_cast<std::uint64_t>(seconds * 1e6), &error, &reply);
    BusMessage ownedReply(reply);
    const char* text = nullptr;
    if (r < 0 || sd_bus_message_read(reply, "s", &text) < 0 || !text) {
        if (why) *why = error.message ? error.message : std::strerror(-r);
        sd_bus_error_free(&error);
        return std::nullopt;
    }
    sd_bus_error_free(&error);
    return std::string(text);
}

}  // namespace jx
