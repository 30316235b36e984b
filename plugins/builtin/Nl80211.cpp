#include "plugins/builtin/Nl80211.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace jx {

namespace {

constexpr std::size_t kAlign = 4;
constexpr std::size_t align(std::size_t n) { return (n + kAlign - 1) & ~(kAlign - 1); }
constexpr std::size_t kGenlHeader = align(sizeof(genlmsghdr));

// Calls visit(type, data, length) for each attribute of a list, stopping at the
// first one that does not fit.
template <typename Visit>
void forEachAttribute(const unsigned char* data, std::size_t length, Visit visit) {
    while (length >= sizeof(nlattr)) {
        nlattr a;
        std::memcpy(&a, data, sizeof a);
        if (a.nla_len < sizeof(nlattr) || a.nla_len > length) return;
        visit(static_cast<std::uint16_t>(a.nla_type & NLA_TYPE_MASK), data + sizeof(nlattr),
              a.nla_len - sizeof(nlattr));
        const std::size_t step = align(a.nla_len);
        if (step >= length) return;
        data += step;
        length -= step;
    }
}

// Appends one attribute to a request being built.
void putAttribute(std::vector<unsigned char>& out, std::uint16_t type, const void* data, std::size_t length) {
    nlattr a{};
    a.nla_len = static_cast<std::uint16_t>(sizeof(nlattr) + length);
    a.nla_type = type;
    const std::size_t at = out.size();
    out.resize(at + align(a.nla_len), 0);
    std::memcpy(out.data() + at, &a, sizeof a);
    std::memcpy(out.data() + at + sizeof a, data, length);
}

std::vector<unsigned char> request(std::uint16_t type, std::uint16_t flags, std::uint8_t command,
                                   const std::vector<unsigned char>& attributes, std::uint32_t sequence) {
    std::vector<unsigned char> out(NLMSG_HDRLEN + kGenlHeader + attributes.size(), 0);
    genlmsghdr g{};
    g.cmd = command;
    g.version = 1;
    std::memcpy(out.data() + NLMSG_HDRLEN, &g, sizeof g);
    if (!attributes.empty()) std::memcpy(out.data() + NLMSG_HDRLEN + kGenlHeader, attributes.data(), attributes.size());
    nlmsghdr h{};
    h.nlmsg_len = static_cast<std::uint32_t>(out.size());
    h.nlmsg_type = type;
    h.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    h.nlmsg_seq = sequence;
    std::memcpy(out.data(), &h, sizeof h);
    return out;
}

}  // namespace

std::optional<std::uint32_t> Nl80211::txBitrate(const unsigned char* attributes, std::size_t length) {
    std::optional<std::uint32_t> rate16, rate32;
    forEachAttribute(attributes, length, [&](std::uint16_t type, const unsigned char* data, std::size_t size) {
        if (type != NL80211_ATTR_STA_INFO) return;
        forEachAttribute(data, size, [&](std::uint16_t infoType, const unsigned char* info, std::size_t infoSize) {
            if (infoType != NL80211_STA_INFO_TX_BITRATE) return;
            forEachAttribute(info, infoSize, [&](std::uint16_t rateType, const unsigned char* rate, std::size_t n) {
                // The 16-bit field saturates above 6.5 Gbit/s; the 32-bit one, where given, is exact.
                if (rateType == NL80211_RATE_INFO_BITRATE32 && n >= 4) {
                    std::uint32_t v;
                    std::memcpy(&v, rate, 4);
                    rate32 = v;
                } else if (rateType == NL80211_RATE_INFO_BITRATE && n >= 2) {
                    std::uint16_t v;
                    std::memcpy(&v, rate, 2);
                    rate16 = v;
                }
            });
        });
    });
    return rate32 ? rate32 : rate16;
}

bool Nl80211::open() {
    if (socket_.valid()) return family_ != 0;
    socket_.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC));
    if (!socket_.valid()) return false;
    // The kernel answers at once; the bound only keeps a broken socket from holding the logger.
    timeval bound{1, 0};
    ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) return false;

    std::vector<unsigned char> attributes;
    putAttribute(attributes, CTRL_ATTR_FAMILY_NAME, NL80211_GENL_NAME, sizeof NL80211_GENL_NAME);
    const auto ask = request(GENL_ID_CTRL, 0, CTRL_CMD_GETFAMILY, attributes, ++sequence_);
    exchange(ask.data(), ask.size(), GENL_ID_CTRL, [&](const unsigned char* data, std::size_t length) {
        forEachAttribute(data, length, [&](std::uint16_t type, const unsigned char* value, std::size_t size) {
            if (type == CTRL_ATTR_FAMILY_ID && size >= 2) std::memcpy(&family_, value, 2);
        });
    });
    return family_ != 0;
}

template <typename Visit>
int Nl80211::exchange(const void* message, std::size_t length, std::uint16_t replyType, Visit visit) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(socket_.get(), message, length, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) !=
        static_cast<ssize_t>(length))
        return -1;
    std::vector<unsigned char> buffer(32768);
    for (;;) {
        ssize_t n = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return -1;
        std::size_t left = static_cast<std::size_t>(n);
        const unsigned char* at = buffer.data();
        while (left >= sizeof(nlmsghdr)) {
            nlmsghdr h;
            std::memcpy(&h, at, sizeof h);
            if (h.nlmsg_len < sizeof(nlmsghdr) || h.nlmsg_len > left) return -1;
            if (h.nlmsg_seq == sequence_) {
                if (h.nlmsg_type == NLMSG_DONE) return 1;
                if (h.nlmsg_type == NLMSG_ERROR) {
                    nlmsgerr e{};
                    if (h.nlmsg_len >= NLMSG_HDRLEN + sizeof e) std::memcpy(&e, at + NLMSG_HDRLEN, sizeof e);
                    return e.error == 0 ? 1 : 0;
                }
                if (h.nlmsg_type == replyType && h.nlmsg_len >= NLMSG_HDRLEN + kGenlHeader)
                    visit(at + NLMSG_HDRLEN + kGenlHeader, h.nlmsg_len - NLMSG_HDRLEN - kGenlHeader);
                // A reply that is not a dump ends with its one message.
                if (!(h.nlmsg_flags & NLM_F_MULTI)) return 1;
            }
            const std::size_t step = NLMSG_ALIGN(h.nlmsg_len);
            if (step >= left) break;
            at += step;
            left -= step;
        }
    }
}

std::optional<std::uint32_t> Nl80211::stationTxBitrate(unsigned interfaceIndex) {
    if (!open()) return std::nullopt;
    std::vector<unsigned char> attributes;
    const std::uint32_t index = interfaceIndex;
    putAttribute(attributes, NL80211_ATTR_IFINDEX, &index, sizeof index);
    const auto ask = request(family_, NLM_F_DUMP, NL80211_CMD_GET_STATION, attributes, ++sequence_);
    std::optional<std::uint32_t> rate;
    const int outcome = exchange(ask.data(), ask.size(), family_, [&](const unsigned char* data, std::size_t length) {
        if (!rate) rate = txBitrate(data, length);
    });
    if (outcome < 0) {
        // A socket that failed is opened afresh next time; a refusal (no such
        // interface, not associated) leaves it as it is.
        socket_.reset();
        family_ = 0;
    }
    return rate;
}

}  // namespace jx
