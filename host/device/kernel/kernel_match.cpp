// The match of one ACL rule: see kernel_match.h. Used by the rule builders.
//
// The order is that of the headers; the kernel leaves a rule at the first expression that does not hold.
#include "host/device/kernel/kernel_match.h"

#include <netinet/in.h> // before the kernel's headers, which then leave out what it has

#include <linux/if_arp.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <cstring>
#include <utility>

#include "aclrule/acl_rule_names.h"

namespace host {

namespace {

constexpr uint32_t TCP_FLAGS_OFFSET = 13;
constexpr uint32_t LENGTH_BYTES = 4; // a packet's length is a 32-bit number of the machine

class Builder {
public:
    Builder(const AclRule &rule, int family) : rule_(rule), family_(family) {}

    std::vector<NftExpr> build() {
        sourceMac();
        family();
        fragments();
        traffic();
        length();
        const uint32_t size = family_ == 6 ? 16 : 4, source = family_ == 6 ? 8 : 12;
        address(rule_.source, source, size);
        address(rule_.destination, source + size, size);
        protocol();
        protocolHeader();
        ports(rule_.sourcePorts, 0);
        ports(rule_.destinationPorts, 2);
        flags();
        icmp();
        return std::move(exprs_);
    }

private:
    void compare(uint32_t op, std::vector<uint8_t> data) { exprs_.push_back(nftCompare(op, std::move(data))); }

    void load(uint32_t base, uint32_t offset, uint32_t size) {
        exprs_.push_back(nftPayload(base, offset, size));
    }

    // Of what was loaded only the bits of the mask.
    void mask(std::vector<uint8_t> bits) {
        std::vector<uint8_t> flip(bits.size(), 0);
        exprs_.push_back(nftBitwise(std::move(bits), std::move(flip)));
    }

    // Only Ethernet has the source address where it is looked for.
    void sourceMac() {
        if (!rule_.sourceMac) {
            return;
        }
        const uint16_t ether = ARPHRD_ETHER;
        std::vector<uint8_t> type(sizeof ether);
        memcpy(type.data(), &ether, sizeof ether);
        exprs_.push_back(nftMetaLoad(NFT_META_IIFTYPE));
        compare(NFT_CMP_EQ, type);
        load(NFT_PAYLOAD_LL_HEADER, 6, 6);
        compare(NFT_CMP_EQ, {rule_.sourceMac->begin(), rule_.sourceMac->end()});
    }

    // The family is told again where its header is read: for the eyes of `nft list`, which else prints bytes.
    void family() {
        const bool isHeaderRead = !rule_.source.any || !rule_.destination.any || rule_.fragments ||
                                  rule_.dscp >= 0 || rule_.precedence >= 0;
        if (isHeaderRead) {
            exprs_.push_back(nftMetaLoad(NFT_META_NFPROTO));
            compare(NFT_CMP_EQ, {static_cast<uint8_t>(family_ == 6 ? NFPROTO_IPV6 : NFPROTO_IPV4)});
        }
    }

    // Later fragments: the offset is not 0. IPv6 keeps it in the upper 13 bits of its fragment header.
    void fragments() {
        if (!rule_.fragments) {
            return;
        }
        if (family_ == 6) {
            exprs_.push_back(nftHeader(IPPROTO_FRAGMENT, 2, 2));
            mask({0xff, 0xf8});
        } else {
            load(NFT_PAYLOAD_NETWORK_HEADER, 6, 2);
            mask({0x1f, 0xff});
        }
        compare(NFT_CMP_NEQ, {0, 0});
    }

    // DSCP and precedence: the upper bits of the TOS byte, or of the traffic class between version and
    // flow label.
    void traffic() {
        if (rule_.dscp < 0 && rule_.precedence < 0) {
            return;
        }
        const uint8_t bits = rule_.dscp >= 0 ? 0xfc : 0xe0;
        const uint8_t tos = static_cast<uint8_t>(rule_.dscp >= 0 ? rule_.dscp << 2 : rule_.precedence << 5);
        if (family_ == 4) {
            load(NFT_PAYLOAD_NETWORK_HEADER, 1, 1);
            mask({bits});
            compare(NFT_CMP_EQ, {tos});
            return;
        }
        load(NFT_PAYLOAD_NETWORK_HEADER, 0, 2);
        mask({static_cast<uint8_t>(bits >> 4), static_cast<uint8_t>(bits << 4)});
        compare(NFT_CMP_EQ, {static_cast<uint8_t>(tos >> 4), static_cast<uint8_t>(tos << 4)});
    }

    static std::vector<uint8_t> word(uint32_t value) { // network order
        return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
    }

    void length() {
        if (rule_.length.any) {
            return;
        }
        exprs_.push_back(nftMetaLoad(NFT_META_LEN));
        if (rule_.length.first == rule_.length.last) {
            compare(NFT_CMP_EQ, nftWord(rule_.length.first));
            return;
        }
        NftExpr order; // bytes are compared from the left
        order.op = NftOp::ToNetwork;
        order.a = LENGTH_BYTES;
        exprs_.push_back(order);
        compare(NFT_CMP_GTE, word(rule_.length.first));
        compare(NFT_CMP_LTE, word(rule_.length.last));
    }

    // Whole bytes are compared as they are; anything else is masked in the whole address.
    void address(const AclPrefix &prefix, uint32_t offset, uint32_t size) {
        if (prefix.any) {
            return;
        }
        const uint8_t *pAddress = prefix.address.data();
        if (prefix.length != 0 && prefix.length % 8 == 0) {
            load(NFT_PAYLOAD_NETWORK_HEADER, offset, prefix.length / 8u);
            compare(NFT_CMP_EQ, {pAddress, pAddress + prefix.length / 8u});
            return;
        }
        const AclAddress bits = aclPrefixMask(prefix, family_);
        load(NFT_PAYLOAD_NETWORK_HEADER, offset, size);
        mask({bits.begin(), bits.begin() + size});
        compare(NFT_CMP_EQ, {pAddress, pAddress + size});
    }

    void protocol() {
        if (rule_.protocol >= 0) {
            exprs_.push_back(nftMetaLoad(NFT_META_L4PROTO));
            compare(NFT_CMP_EQ, {static_cast<uint8_t>(rule_.protocol)});
        }
    }

    // Ends the rule for packets that do not carry the protocol's header. The kernel's short way for loads
    // of one, two and four bytes does not look for fragments: of later ones it reads IPv4 payload, or the
    // IPv6 header, in place of ports. A load of three bytes goes the long way, which looks.
    void protocolHeader() {
        const bool isRead = !rule_.sourcePorts.any || !rule_.destinationPorts.any || rule_.established ||
                            (rule_.flagsSet | rule_.flagsClear) != 0 || rule_.icmpType >= 0;
        if (isRead) {
            load(NFT_PAYLOAD_TRANSPORT_HEADER, 0, 3);
        }
    }

    static std::vector<uint8_t> portBytes(uint16_t port) {
        return {static_cast<uint8_t>(port >> 8), static_cast<uint8_t>(port)};
    }

    void ports(const AclPorts &ports, uint32_t offset) {
        if (ports.any) {
            return;
        }
        load(NFT_PAYLOAD_TRANSPORT_HEADER, offset, 2);
        if (ports.first == ports.last) {
            compare(NFT_CMP_EQ, portBytes(ports.first));
            return;
        }
        compare(NFT_CMP_GTE, portBytes(ports.first));
        compare(NFT_CMP_LTE, portBytes(ports.last));
    }

    void flags() {
        const uint8_t asked = rule_.flagsSet | rule_.flagsClear;
        if (asked != 0) {
            load(NFT_PAYLOAD_TRANSPORT_HEADER, TCP_FLAGS_OFFSET, 1);
            mask({asked});
            compare(NFT_CMP_EQ, {rule_.flagsSet});
        }
        if (rule_.established) {
            load(NFT_PAYLOAD_TRANSPORT_HEADER, TCP_FLAGS_OFFSET, 1);
            mask({static_cast<uint8_t>(aclrule::ACL_FLAG_ACK | aclrule::ACL_FLAG_RST)});
            compare(NFT_CMP_NEQ, {0});
        }
    }

    void icmp() {
        if (rule_.icmpType < 0) {
            return;
        }
        load(NFT_PAYLOAD_TRANSPORT_HEADER, 0, 1);
        compare(NFT_CMP_EQ, {static_cast<uint8_t>(rule_.icmpType)});
        if (rule_.icmpCode >= 0) {
            load(NFT_PAYLOAD_TRANSPORT_HEADER, 1, 1);
            compare(NFT_CMP_EQ, {static_cast<uint8_t>(rule_.icmpCode)});
        }
    }

    const AclRule &rule_;
    const int family_;
    std::vector<NftExpr> exprs_;
};

} // namespace

std::vector<NftExpr> kernelMatchExprs(const AclRule &rule, int family) { return Builder(rule, family).build(); }

} // namespace host
