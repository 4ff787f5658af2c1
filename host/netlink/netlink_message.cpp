// Netlink messages: see the header. Each attribute's length is checked
// against what is left of the message.
#include "host/netlink/netlink_message.h"

#include <arpa/inet.h>
#include <endian.h>

#include <cassert>

namespace host {

NetlinkMessage::NetlinkMessage(uint16_t type, uint16_t flags) {
    bytes_.reserve(256);
    bytes_.resize(MNL_NLMSG_HDRLEN);
    nlmsghdr *pHeader = reinterpret_cast<nlmsghdr *>(bytes_.data());
    pHeader->nlmsg_type = type;
    pHeader->nlmsg_flags = static_cast<uint16_t>(flags | NLM_F_REQUEST);
}

void NetlinkMessage::append(const void *pData, size_t len) {
    const uint8_t *pBytes = static_cast<const uint8_t *>(pData);
    bytes_.insert(bytes_.end(), pBytes, pBytes + len);
    bytes_.resize(MNL_ALIGN(bytes_.size()));
}

NetlinkMessage &NetlinkMessage::put(uint16_t type, const void *pData, size_t len) {
    assert(len <= UINT16_MAX - MNL_ATTR_HDRLEN);
    nlattr attr = {};
    attr.nla_len = static_cast<uint16_t>(MNL_ATTR_HDRLEN + len);
    attr.nla_type = type;
    append(&attr, sizeof(attr));
    append(pData, len);
    return *this;
}

NetlinkMessage &NetlinkMessage::putU32Be(uint16_t type, uint32_t value) {
    return putU32(type, htonl(value));
}

NetlinkMessage &NetlinkMessage::putString(uint16_t type, const std::string &text) {
    return put(type, text.c_str(), text.size() + 1);
}

size_t NetlinkMessage::nestStart(uint16_t type) {
    const size_t token = bytes_.size();
    put(static_cast<uint16_t>(type | NLA_F_NESTED), nullptr, 0);
    return token;
}

NetlinkMessage &NetlinkMessage::nestEnd(size_t token) {
    const size_t len = bytes_.size() - token;
    assert(len <= UINT16_MAX);
    reinterpret_cast<nlattr *>(bytes_.data() + token)->nla_len = static_cast<uint16_t>(len);
    return *this;
}

nlmsghdr *NetlinkMessage::get() {
    nlmsghdr *pHeader = reinterpret_cast<nlmsghdr *>(bytes_.data());
    pHeader->nlmsg_len = static_cast<uint32_t>(bytes_.size());
    return pHeader;
}

NetlinkAttrs::NetlinkAttrs(const nlmsghdr *pMessage, size_t headerBytes) {
    if (mnl_nlmsg_get_payload_len(pMessage) < MNL_ALIGN(headerBytes)) {
        return;
    }
    const void *pFirst = mnl_nlmsg_get_payload_offset(pMessage, headerBytes);
    takeAll(pFirst, reinterpret_cast<const uint8_t *>(pMessage) + pMessage->nlmsg_len); // libmnl's tail is rounded up
}

NetlinkAttrs::NetlinkAttrs(const nlattr *pNest) {
    const uint8_t *pFirst = static_cast<const uint8_t *>(mnl_attr_get_payload(pNest));
    takeAll(pFirst, pFirst + mnl_attr_get_payload_len(pNest));
}

NetlinkAttrs::NetlinkAttrs(const void *pBytes, size_t len) {
    takeAll(pBytes, static_cast<const uint8_t *>(pBytes) + len);
}

void NetlinkAttrs::takeAll(const void *pFirst, const uint8_t *pEnd) {
    const uint8_t *pAt = static_cast<const uint8_t *>(pFirst);
    while (pAt < pEnd) {
        const nlattr *pAttr = reinterpret_cast<const nlattr *>(pAt);
        if (!mnl_attr_ok(pAttr, static_cast<int>(pEnd - pAt))) {
            return;
        }
        const uint16_t type = mnl_attr_get_type(pAttr);
        if (type <= MAX_TYPE) {
            attrs_[type] = pAttr;
        }
        pAt += MNL_ALIGN(pAttr->nla_len);
    }
}

std::optional<uint32_t> NetlinkAttrs::u32Be(uint16_t type) const {
    const std::optional<uint32_t> value = u32(type);
    return value ? std::optional<uint32_t>(ntohl(*value)) : std::nullopt;
}

std::optional<uint64_t> NetlinkAttrs::u64Be(uint16_t type) const {
    const std::optional<uint64_t> value = number<uint64_t>(type);
    return value ? std::optional<uint64_t>(be64toh(*value)) : std::nullopt;
}

std::string NetlinkAttrs::string(uint16_t type) const {
    const nlattr *pAttr = get(type);
    if (pAttr == nullptr) {
        return {};
    }
    const char *pText = static_cast<const char *>(mnl_attr_get_payload(pAttr));
    return {pText, strnlen(pText, mnl_attr_get_payload_len(pAttr))};
}

std::vector<uint8_t> NetlinkAttrs::bytes(uint16_t type) const {
    const nlattr *pAttr = get(type);
    if (pAttr == nullptr) {
        return {};
    }
    const uint8_t *pBytes = static_cast<const uint8_t *>(mnl_attr_get_payload(pAttr));
    return {pBytes, pBytes + mnl_attr_get_payload_len(pAttr)};
}

} // namespace host
