// The wireless configuration interface of the kernel (nl80211, over generic
// netlink): what sysfs does not say about a wireless link, its bit rate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/FileDescriptor.h"

namespace jx {

class Nl80211 {
public:
    // The transmit bit rate, in units of 100 kbit/s, in the attributes of one
    // station reply (the payload after the generic netlink header); nothing
    // when the reply has none or is malformed.
    static std::optional<std::uint32_t> txBitrate(const unsigned char* attributes, std::size_t length);

    // The transmit bit rate of the station the interface is associated with, in
    // 100 kbit/s; nothing without nl80211, without association, or on error.
    std::optional<std::uint32_t> stationTxBitrate(unsigned interfaceIndex);

private:
    bool open();
    // Sends one request and hands each reply message of the given type to the
    // visitor until the kernel says it is done: 1 done, 0 refused by the kernel,
    // -1 the socket failed.
    template <typename Visit>
    int exchange(const void* request, std::size_t length, std::uint16_t replyType, Visit visit);

    FileDescriptor socket_;
    std::uint16_t family_ = 0;
    std::uint32_t sequence_ = 0;
};

}  // namespace jx
