// Owned sd-bus handles: a connection (flushed and closed when it goes), a slot
// (a match rule or a call in flight, removed when it goes) and a message.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

namespace jx {

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;

struct BusSlotDeleter {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using BusSlot = std::unique_ptr<sd_bus_slot, BusSlotDeleter>;

struct BusMessageDeleter {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using BusMessage = std::unique_ptr<sd_bus_message, BusMessageDeleter>;

// Whether a service holds its well-known name on the bus. Asked of the bus
// itself, so that a service started on demand is not started by asking.
inline bool nameHasOwner(sd_bus* bus, const char* name) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int owner = 0;
    const int r = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                     "NameHasOwner", &error, &reply, "s", name);
    BusMessage owned(reply);
    sd_bus_error_free(&error);
    return r >= 0 && sd_bus_message_read(reply, "b", &owner) >= 0 && owner;
}

}  // namespace jx
