// The maps of flat lists: see kernel_map.h. Used by the compilation of flat lists and by the codec.
#include "host/device/kernel/kernel_map.h"

#include <netinet/in.h> // before the kernel's headers, which then leave out what it has

#include <linux/if_arp.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <algorithm>
#include <cstring>

namespace host {

namespace {

constexpr size_t WORD = 4;
constexpr const char *PREFIX = "map";

const char *kindName(ClassStepKind kind) {
    return kind == ClassStepKind::Hash ? "hash" : kind == ClassStepKind::Range ? "range" : "ranges";
}

std::optional<ClassStepKind> kindOf(const std::string &name) {
    for (const ClassStepKind kind : {ClassStepKind::Hash, ClassStepKind::Range, ClassStepKind::Ranges}) {
        if (name == kindName(kind)) {
            return kind;
        }
    }
    return std::nullopt;
}

std::optional<ClassField> fieldOf(const std::string &name) {
    for (size_t i = 0; i < CLASS_FIELD_COUNT; i++) {
        if (name == classFieldName(static_cast<ClassField>(i))) {
            return static_cast<ClassField>(i);
        }
    }
    return std::nullopt;
}

// The DSCP stands in the upper bits of the TOS byte, or between version and flow label.
uint64_t onTheWire(ClassField field, int family, uint64_t low) {
    return field != ClassField::Dscp ? low : family == 6 ? low << 6 : low << 2;
}

void numberPut(std::string &key, const KernelMapLayout &layout, ClassField field, const ClassNumber &number) {
    const size_t size = layout.sizeOf(field);
    const uint64_t low = onTheWire(field, layout.family, number.low);
    for (size_t i = size; i-- > 0;) {
        key += static_cast<char>(i >= 8 ? number.high >> 8 * (i - 8) : low >> 8 * i);
    }
    key.append(layout.roomOf(field) - size, '\0');
}

class Loads {
public:
    Loads(const KernelMapLayout &layout, const aclrule::AclRule &guard) : layout_(layout), guard_(guard) {}

    std::vector<NftExpr> build() {
        before();
        for (const ClassField field : layout_.fields) {
            const size_t begin = exprs_.size();
            load(field);
            for (size_t i = begin; i < exprs_.size(); i++) {
                exprs_[i].reg = reg_;
            }
            reg_ += static_cast<uint32_t>(layout_.roomOf(field) / WORD);
        }
        return std::move(exprs_);
    }

private:
    bool has(ClassField field) const {
        return std::find(layout_.fields.begin(), layout_.fields.end(), field) != layout_.fields.end();
    }

    // What must be true of a packet before its bytes are what they are taken for.
    void before() {
        if (has(ClassField::SourceMac)) {
            const uint16_t ether = ARPHRD_ETHER;
            std::vector<uint8_t> type(sizeof ether);
            memcpy(type.data(), &ether, sizeof ether);
            exprs_.push_back(nftMetaLoad(NFT_META_IIFTYPE));
            exprs_.push_back(nftCompare(NFT_CMP_EQ, type));
        }
        const bool isTold = !guard_.source.any || !guard_.destination.any || guard_.fragments || guard_.dscp >= 0 ||
                            guard_.precedence >= 0;
        if (!isTold && (has(ClassField::Dscp) || has(ClassField::Source) || has(ClassField::Destination))) {
            exprs_.push_back(nftMetaLoad(NFT_META_NFPROTO)); // for the eyes of `nft list`
            exprs_.push_back(nftCompare(NFT_CMP_EQ, {static_cast<uint8_t>(layout_.family == 6 ? NFPROTO_IPV6 : NFPROTO_IPV4)}));
        }
        const bool isHeaderRead = !guard_.sourcePorts.any || !guard_.destinationPorts.any || guard_.established ||
                                  (guard_.flagsSet | guard_.flagsClear) != 0 || guard_.icmpType >= 0;
        if (!isHeaderRead && (has(ClassField::SourcePort) || has(ClassField::DestinationPort) || has(ClassField::IcmpType) ||
                              has(ClassField::IcmpCode))) {
            payload(NFT_PAYLOAD_TRANSPORT_HEADER, 0, 3); // later fragments have none: see kernel_match.cpp
        }
    }

    void payload(uint32_t base, uint32_t offset, uint32_t size) { exprs_.push_back(nftPayload(base, offset, size)); }

    void traffic() {
        if (layout_.family == 4) {
            payload(NFT_PAYLOAD_NETWORK_HEADER, 1, 1);
            exprs_.push_back(nftBitwise({0xfc}, {0}));
        } else {
            payload(NFT_PAYLOAD_NETWORK_HEADER, 0, 2);
            exprs_.push_back(nftBitwise({0x0f, 0xc0}, {0, 0}));
        }
    }

    void length() {
        exprs_.push_back(nftMetaLoad(NFT_META_LEN));
        NftExpr order;
        order.op = NftOp::ToNetwork;
        order.a = WORD;
        exprs_.push_back(order);
    }

    void load(ClassField field) {
        const uint32_t size = layout_.family == 6 ? 16 : 4, source = layout_.family == 6 ? 8 : 12;
        switch (field) {
        case ClassField::SourceMac: payload(NFT_PAYLOAD_LL_HEADER, 6, 6); break;
        case ClassField::Dscp: traffic(); break;
        case ClassField::Length: length(); break;
        case ClassField::Source: payload(NFT_PAYLOAD_NETWORK_HEADER, source, size); break;
        case ClassField::Destination: payload(NFT_PAYLOAD_NETWORK_HEADER, source + size, size); break;
        case ClassField::Protocol: exprs_.push_back(nftMetaLoad(NFT_META_L4PROTO)); break;
        case ClassField::SourcePort: payload(NFT_PAYLOAD_TRANSPORT_HEADER, 0, 2); break;
        case ClassField::DestinationPort: payload(NFT_PAYLOAD_TRANSPORT_HEADER, 2, 2); break;
        case ClassField::IcmpType: payload(NFT_PAYLOAD_TRANSPORT_HEADER, 0, 1); break;
        case ClassField::IcmpCode: payload(NFT_PAYLOAD_TRANSPORT_HEADER, 1, 1); break;
        }
    }

    const KernelMapLayout &layout_;
    const aclrule::AclRule &guard_;
    std::vector<NftExpr> exprs_;
    uint32_t reg_ = 0;
};

} // namespace

size_t KernelMapLayout::sizeOf(ClassField field) const {
    switch (field) {
    case ClassField::SourceMac: return 6;
    case ClassField::Dscp: return family == 6 ? 2 : 1;
    case ClassField::Length: return 4;
    case ClassField::Source:
    case ClassField::Destination: return family == 6 ? 16 : 4;
    case ClassField::Protocol:
    case ClassField::IcmpType:
    case ClassField::IcmpCode: return 1;
    case ClassField::SourcePort:
    case ClassField::DestinationPort: return 2;
    }
    return 0;
}

size_t KernelMapLayout::roomOf(ClassField field) const {
    const size_t size = sizeOf(field);
    return fields.size() == 1 ? size : (size + WORD - 1) / WORD * WORD;
}

size_t KernelMapLayout::keySize() const {
    size_t size = 0;
    for (const ClassField field : fields) {
        size += roomOf(field);
    }
    return size;
}

std::string kernelMapName(const KernelMapLayout &layout, const std::string &label, size_t number) {
    std::string name = PREFIX + std::to_string(layout.family) + "/" + label + "/" + std::to_string(number) + "/" + kindName(layout.kind);
    for (const ClassField field : layout.fields) {
        name += std::string(".") + classFieldName(field);
    }
    return name;
}

std::optional<KernelMapLayout> kernelMapLayout(const std::string &name) {
    const size_t begin = name.rfind('/');
    if (begin == std::string::npos || (name.rfind("map4/", 0) != 0 && name.rfind("map6/", 0) != 0)) {
        return std::nullopt;
    }
    KernelMapLayout layout;
    layout.family = name[3] == '6' ? 6 : 4;
    size_t at = std::min(name.find('.', begin), name.size());
    const std::optional<ClassStepKind> kind = kindOf(name.substr(begin + 1, at - begin - 1));
    while (at < name.size()) {
        const size_t end = std::min(name.find('.', at + 1), name.size());
        const std::optional<ClassField> field = fieldOf(name.substr(at + 1, end - at - 1));
        if (!field) {
            return std::nullopt;
        }
        layout.fields.push_back(*field);
        at = end;
    }
    if (!kind || layout.fields.empty()) {
        return std::nullopt;
    }
    layout.kind = *kind;
    return layout;
}

std::string kernelMapKey(const KernelMapLayout &layout, const ClassCell &cell) {
    std::string key;
    for (size_t i = 0; i < layout.fields.size(); i++) {
        numberPut(key, layout, layout.fields[i], cell.key[i].first);
    }
    for (size_t i = 0; layout.kind != ClassStepKind::Hash && i < layout.fields.size(); i++) {
        numberPut(key, layout, layout.fields[i], cell.key[i].last);
    }
    return key;
}

std::vector<NftExpr> kernelMapLoads(const KernelMapLayout &layout, const aclrule::AclRule &guard) {
    return Loads(layout, guard).build();
}

} // namespace host
