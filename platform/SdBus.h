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

}  // namespace jx
