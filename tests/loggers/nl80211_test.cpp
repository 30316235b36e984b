// The bit rate in a station reply of the kernel's wireless interface.
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>

#include "plugins/builtin/Nl80211.h"

using Bytes = std::vector<unsigned char>;

// One attribute as the kernel lays it out: length, type, value, padded to four.
static Bytes attribute(std::uint16_t type, const Bytes& value, bool nested = false) {
    const nlattr a{static_cast<std::uint16_t>(sizeof(nlattr) + value.size()),
                   static_cast<std::uint16_t>(type | (nested ? NLA_F_NESTED : 0))};
    Bytes out(reinterpret_cast<const unsigned char*>(&a), reinterpret_cast<const unsigned char*>(&a + 1));
    out.insert(out.end(), value.begin(), value.end());
    out.resize((out.size() + 3) & ~std::size_t{3}, 0);
    return out;
}
template <typename T>
static Bytes number(T v) {
    return Bytes(reinterpret_cast<const unsigned char*>(&v), reinterpret_cast<const unsigned char*>(&v + 1));
}
static Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST(Nl80211Test, TheTransmitBitRateOfAStationReply) {
    auto rateOf = [](const Bytes& reply) { return jx::Nl80211::txBitrate(reply.data(), reply.size()); };
    const Bytes rx = attribute(NL80211_STA_INFO_RX_BITRATE,
                               attribute(NL80211_RATE_INFO_BITRATE32, number<std::uint32_t>(1200)), true);
    const Bytes both = attribute(NL80211_RATE_INFO_BITRATE, number<std::uint16_t>(65535)) +
                       attribute(NL80211_RATE_INFO_BITRATE32, number<std::uint32_t>(86670));
    const Bytes ifindex = attribute(NL80211_ATTR_IFINDEX, number<std::uint32_t>(3));

    // The exact 32-bit rate over the saturated 16-bit one; the receive rate is not it.
    EXPECT_EQ(rateOf(ifindex +
                     attribute(NL80211_ATTR_STA_INFO, rx + attribute(NL80211_STA_INFO_TX_BITRATE, both, true), true)),
              86670u);
    EXPECT_EQ(rateOf(ifindex + attribute(NL80211_ATTR_STA_INFO, rx, true)), std::nullopt);

    // A reply cut short anywhere is read no further than it goes.
    const Bytes whole = attribute(NL80211_ATTR_STA_INFO, attribute(NL80211_STA_INFO_TX_BITRATE, both, true), true);
    for (std::size_t cut = 0; cut < whole.size(); ++cut)
        EXPECT_EQ(jx::Nl80211::txBitrate(whole.data(), cut), std::nullopt) << cut;
}
