// Sets, maps and their elements on the wire: see nft_set_codec.h.
#include "host/device/kernel/nft_set_codec.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <algorithm>

#include <libnftnl/udata.h>

#include "host/device/kernel/kernel_map.h"
#include "host/device/kernel/kernel_rules.h"

namespace host {

namespace {

// How nft prints keys: its numbers for kinds of values, six bits each in a key of several fields.
constexpr uint32_t DATATYPE_INTEGER = 4, DATATYPE_IPADDR = 7, DATATYPE_IP6ADDR = 8, DATATYPE_ETHERADDR = 9,
                   DATATYPE_PROTOCOL = 12, DATATYPE_SERVICE = 13, DATATYPE_ICMP_TYPE = 14, DATATYPE_ICMP6_TYPE = 29,
                   DATATYPE_ICMP_CODE = 32, DATATYPE_ICMP6_CODE = 33, DATATYPE_FIB_ADDR = 38, DATATYPE_IFNAME = 41;
constexpr uint32_t DATATYPE_BITS = 6;
constexpr uint32_t ENDIAN_HOST = 1, ENDIAN_NETWORK = 2;
constexpr uint32_t VERDICT_BYTES = 4; // size of a verdict to the kernel: it takes no other notice

uint32_t datatypeOf(const KernelMapLayout &layout, ClassField field) {
    const bool isV6 = layout.family == 6;
    switch (field) {
    case ClassField::SourceMac: return DATATYPE_ETHERADDR;
    case ClassField::Dscp:
    case ClassField::Length: return DATATYPE_INTEGER;
    case ClassField::Source:
    case ClassField::Destination: return isV6 ? DATATYPE_IP6ADDR : DATATYPE_IPADDR;
    case ClassField::Protocol: return DATATYPE_PROTOCOL;
    case ClassField::SourcePort:
    case ClassField::DestinationPort: return DATATYPE_SERVICE;
    case ClassField::IcmpType: return isV6 ? DATATYPE_ICMP6_TYPE : DATATYPE_ICMP_TYPE;
    case ClassField::IcmpCode: return isV6 ? DATATYPE_ICMP6_CODE : DATATYPE_ICMP_CODE;
    }
    return DATATYPE_INTEGER;
}

void udataSet(nftnl_set *pSet, uint32_t endian) {
    const std::unique_ptr<nftnl_udata_buf, decltype(&nftnl_udata_buf_free)> buffer(nftnl_udata_buf_alloc(NFT_USERDATA_MAXLEN),
                                                                                  &nftnl_udata_buf_free);
    nftnl_udata_put_u32(buffer.get(), NFTNL_UDATA_SET_KEYBYTEORDER, endian);
    nftnl_set_set_data(pSet, NFTNL_SET_USERDATA, nftnl_udata_buf_data(buffer.get()), nftnl_udata_buf_len(buffer.get()));
}

void verdictsSet(nftnl_set *pSet) {
    nftnl_set_set_u32(pSet, NFTNL_SET_DATA_TYPE, NFT_DATA_VERDICT);
    nftnl_set_set_u32(pSet, NFTNL_SET_DATA_LEN, VERDICT_BYTES);
}

void mapSet(nftnl_set *pSet, const KernelMapLayout &layout) {
    const bool isConcat = layout.fields.size() > 1;
    uint32_t type = 0;
    for (const ClassField field : layout.fields) {
        type = type << DATATYPE_BITS | datatypeOf(layout, field);
    }
    uint32_t flags = NFT_SET_MAP;
    flags |= layout.kind == ClassStepKind::Hash ? 0u : static_cast<uint32_t>(NFT_SET_INTERVAL);
    flags |= isConcat ? static_cast<uint32_t>(NFT_SET_CONCAT) : 0u;
    nftnl_set_set_u32(pSet, NFTNL_SET_FLAGS, flags);
    nftnl_set_set_u32(pSet, NFTNL_SET_KEY_TYPE, type);
    nftnl_set_set_u32(pSet, NFTNL_SET_KEY_LEN, static_cast<uint32_t>(layout.keySize()));
    if (isConcat) {
        std::vector<uint8_t> sizes;
        for (const ClassField field : layout.fields) {
            sizes.push_back(static_cast<uint8_t>(layout.sizeOf(field)));
        }
        nftnl_set_set_data(pSet, NFTNL_SET_DESC_CONCAT, sizes.data(), static_cast<uint32_t>(sizes.size()));
    }
    verdictsSet(pSet);
    udataSet(pSet, ENDIAN_NETWORK);
}

// The key one behind; empty: there is none.
std::string keyBehind(std::string key) {
    for (size_t i = key.size(); i-- > 0;) {
        key[i] = static_cast<char>(key[i] + 1);
        if (key[i] != 0) {
            return key;
        }
    }
    return "";
}

std::string keyBefore(std::string key) {
    for (size_t i = key.size(); i-- > 0;) {
        key[i] = static_cast<char>(key[i] - 1);
        if (key[i] != '\xff') {
            break;
        }
    }
    return key;
}

void keySet(nftnl_set_elem *pElement, uint16_t attr, const std::string &key) {
    nftnl_set_elem_set(pElement, attr, key.data(), static_cast<uint32_t>(key.size()));
}

nftnl_set_elem *elementOf(const std::string &key, const std::string *pTarget) {
    nftnl_set_elem *pElement = nftnl_set_elem_alloc();
    keySet(pElement, NFTNL_SET_ELEM_KEY, key);
    if (pTarget != nullptr && !pTarget->empty()) {
        const bool isJump = pTarget->rfind(NFT_JUMP_TO, 0) == 0;
        const std::string chain = isJump ? pTarget->substr(std::string(NFT_JUMP_TO).size()) : *pTarget;
        nftnl_set_elem_set_u32(pElement, NFTNL_SET_ELEM_VERDICT, static_cast<uint32_t>(isJump ? NFT_JUMP : NFT_GOTO));
        nftnl_set_elem_set_str(pElement, NFTNL_SET_ELEM_CHAIN, chain.c_str());
    }
    return pElement;
}

nftnl_set_elem *endOf(const std::string &key) {
    nftnl_set_elem *pElement = elementOf(key, nullptr);
    nftnl_set_elem_set_u32(pElement, NFTNL_SET_ELEM_FLAGS, NFT_SET_ELEM_INTERVAL_END);
    return pElement;
}

std::string targetOf(const NftElementRead &read) {
    const bool isJump = !read.chain.empty() && read.verdict == static_cast<uint32_t>(NFT_JUMP);
    return (isJump ? NFT_JUMP_TO : "") + read.chain;
}

} // namespace

NftSet nftSetBuild(const std::string &name, uint32_t id) {
    NftSet set(nftnl_set_alloc());
    nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, KERNEL_TABLE);
    nftnl_set_set_str(set.get(), NFTNL_SET_NAME, name.c_str());
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, id);
    if (const std::optional<KernelMapLayout> layout = kernelMapLayout(name)) {
        mapSet(set.get(), *layout);
        return set;
    }
    const bool isMap = name != KERNEL_LOCAL_SET;
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, isMap ? DATATYPE_IFNAME : DATATYPE_FIB_ADDR);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, isMap ? 16 : 4);
    if (isMap) {
        nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_MAP);
        verdictsSet(set.get());
    }
    udataSet(set.get(), ENDIAN_HOST);
    return set;
}

NftSet nftElementBuild(const NftElementKey &key, const std::string *pTarget) {
    NftSet set(nftnl_set_alloc());
    nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, KERNEL_TABLE);
    nftnl_set_set_str(set.get(), NFTNL_SET_NAME, key.first.c_str());
    const std::optional<KernelMapLayout> layout = kernelMapLayout(key.first);
    const size_t size = layout ? layout->keySize() : key.second.size();
    if (!layout || layout->kind == ClassStepKind::Hash) {
        nftnl_set_elem_add(set.get(), elementOf(key.second, pTarget));
    } else if (layout->kind == ClassStepKind::Ranges) {
        nftnl_set_elem *pElement = elementOf(key.second.substr(0, size), pTarget);
        keySet(pElement, NFTNL_SET_ELEM_KEY_END, key.second.substr(std::min(size, key.second.size())));
        nftnl_set_elem_add(set.get(), pElement);
    } else if (key.second.size() <= size) { // an end without a begin, of somebody else
        nftnl_set_elem_add(set.get(), endOf(key.second));
    } else {
        nftnl_set_elem_add(set.get(), elementOf(key.second.substr(0, size), pTarget));
        if (const std::string behind = keyBehind(key.second.substr(size)); !behind.empty()) {
            nftnl_set_elem_add(set.get(), endOf(behind));
        }
    }
    return set;
}

void NftElements::finish(NftImage *pImage) const {
    const std::optional<KernelMapLayout> layout = kernelMapLayout(set_);
    if (layout && layout->kind == ClassStepKind::Range) {
        rangesFinish(layout->keySize(), pImage);
        return;
    }
    for (const NftElementRead &read : read_) {
        pImage->elements[{set_, read.key + read.keyEnd}] = targetOf(read);
    }
}

// A range goes to the next end. Ends that belong to no begin stand for themselves: they are not ours.
void NftElements::rangesFinish(size_t keySize, NftImage *pImage) const {
    std::map<std::string, std::string> begins;
    std::map<std::string, bool> ends; // -> used
    for (const NftElementRead &read : read_) {
        if ((read.flags & NFT_SET_ELEM_INTERVAL_END) != 0) {
            ends.emplace(read.key, false);
        } else {
            begins.emplace(read.key, targetOf(read));
        }
    }
    for (const auto &[key, target] : begins) {
        const auto end = ends.upper_bound(key);
        const bool isEndless = end == ends.end();
        pImage->elements[{set_, key + (isEndless ? std::string(keySize, '\xff') : keyBefore(end->first))}] = target;
        if (!isEndless) {
            end->second = true;
        }
    }
    for (const auto &[key, isUsed] : ends) {
        if (!isUsed) {
            pImage->elements[{set_, key}] = "";
        }
    }
}

} // namespace host
