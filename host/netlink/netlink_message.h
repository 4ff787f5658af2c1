// Building and reading netlink messages: small wrappers over libmnl that grow, bound and own.
//
// NetlinkMessage builds one request (header, family header, attributes, nests) in a buffer of its own;
// NetlinkAttrs reads the attributes of a received message or nest with every length checked.
// Used by everything of the host that talks to the kernel (links, routes, neighbours, nftables).
#ifndef HOST_NETLINK_NETLINK_MESSAGE_H
#define HOST_NETLINK_NETLINK_MESSAGE_H

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <libmnl/libmnl.h>

namespace host {

class NetlinkMessage {
public:
    // type: RTM_NEWROUTE ...; for nftables (NFNL_SUBSYS_NFTABLES << 8) | NFT_MSG_... . flags: NLM_F_...;
    // NLM_F_REQUEST is added.
    NetlinkMessage(uint16_t type, uint16_t flags);

    // Appends the fixed header that follows nlmsghdr (rtmsg, ndmsg, nhmsg, nfgenmsg ...). Once, first.
    template <class T> NetlinkMessage &header(const T &value) {
        static_assert(std::is_trivially_copyable_v<T>);
        append(&value, sizeof(value));
        return *this;
    }

    // Appends one attribute; numbers in machine order, Be: in network order.
    NetlinkMessage &put(uint16_t type, const void *pData, size_t len);
    NetlinkMessage &putU8(uint16_t type, uint8_t value) { return put(type, &value, sizeof(value)); }
    NetlinkMessage &putU16(uint16_t type, uint16_t value) { return put(type, &value, sizeof(value)); }
    NetlinkMessage &putU32(uint16_t type, uint32_t value) { return put(type, &value, sizeof(value)); }
    NetlinkMessage &putU32Be(uint16_t type, uint32_t value);
    NetlinkMessage &putString(uint16_t type, const std::string &text); // with its terminator

    // Opens a nest; its token goes to nestEnd. Attributes put between belong to it.
    [[nodiscard]] size_t nestStart(uint16_t type);
    NetlinkMessage &nestEnd(size_t token);

    // The message; valid until the next put. Sequence number and port are the socket's business.
    nlmsghdr *get();
    const nlmsghdr *get() const { return reinterpret_cast<const nlmsghdr *>(bytes_.data()); }
    size_t size() const { return bytes_.size(); }

private:
    void append(const void *pData, size_t len); // padded to 4 bytes
    std::vector<uint8_t> bytes_;
};

class NetlinkAttrs {
public:
    // Attributes behind the fixed header of a message, or inside a nest. Attributes of types beyond
    // MAX_TYPE are passed over; of one type given twice the last counts.
    NetlinkAttrs(const nlmsghdr *pMessage, size_t headerBytes);
    explicit NetlinkAttrs(const nlattr *pNest);
    NetlinkAttrs(const void *pBytes, size_t len); // attributes that stand in plain bytes

    static constexpr uint16_t MAX_TYPE = 95;

    // The attribute, or null. Lives as long as the message.
    const nlattr *get(uint16_t type) const { return type <= MAX_TYPE ? attrs_[type] : nullptr; }
    bool has(uint16_t type) const { return get(type) != nullptr; }

    // The value; none when absent or too short for the type.
    std::optional<uint8_t> u8(uint16_t type) const { return number<uint8_t>(type); }
    std::optional<uint16_t> u16(uint16_t type) const { return number<uint16_t>(type); }
    std::optional<uint32_t> u32(uint16_t type) const { return number<uint32_t>(type); }
    std::optional<uint32_t> u32Be(uint16_t type) const;
    std::optional<uint64_t> u64Be(uint16_t type) const;
    std::string string(uint16_t type) const; // empty when absent; stops at a terminator
    std::vector<uint8_t> bytes(uint16_t type) const;

private:
    void takeAll(const void *pFirst, const uint8_t *pEnd);
    template <class T> std::optional<T> number(uint16_t type) const {
        const nlattr *pAttr = get(type);
        if (pAttr == nullptr || mnl_attr_get_payload_len(pAttr) < sizeof(T)) {
            return std::nullopt;
        }
        T value;
        std::memcpy(&value, mnl_attr_get_payload(pAttr), sizeof(value));
        return value;
    }
    std::array<const nlattr *, MAX_TYPE + 1> attrs_{};
};

// Visits the attributes of a nest, as many as are whole, one behind the other. pNest: null for none.
template <class Visit> void netlinkVisit(const nlattr *pNest, Visit visit) {
    if (pNest == nullptr) {
        return;
    }
    const auto *pAt = static_cast<const uint8_t *>(mnl_attr_get_payload(pNest));
    const uint8_t *const pEnd = pAt + mnl_attr_get_payload_len(pNest);
    while (pAt < pEnd && mnl_attr_ok(reinterpret_cast<const nlattr *>(pAt), static_cast<int>(pEnd - pAt))) {
        const auto *pAttr = reinterpret_cast<const nlattr *>(pAt);
        visit(pAttr);
        pAt += MNL_ALIGN(pAttr->nla_len);
    }
}

// Whether `left` bytes begin with a whole message. libmnl's own test takes a length from 2 GiB on for a negative
// one, which fits everywhere.
inline bool netlinkIsWhole(const nlmsghdr *pMessage, int left) {
    return left >= static_cast<int>(sizeof(nlmsghdr)) && pMessage->nlmsg_len >= sizeof(nlmsghdr) &&
           pMessage->nlmsg_len <= static_cast<uint32_t>(left);
}

// The fixed header behind nlmsghdr, or null when the message is too short to hold it.
template <class T> const T *netlinkHeader(const nlmsghdr *pMessage) {
    return mnl_nlmsg_get_payload_len(pMessage) < sizeof(T)
               ? nullptr
               : static_cast<const T *>(mnl_nlmsg_get_payload(pMessage));
}

} // namespace host

#endif
