// Sets, maps and their elements on the wire, over libnftnl: used by the codec (nft_codec.h) only.
//
// Ranges of one field are two elements to the kernel, the first key with the verdict and the one behind the
// last, marked as an end; ranges of several fields are one element with two keys. Here both are one element.
#ifndef HOST_DEVICE_KERNEL_NFT_SET_CODEC_H
#define HOST_DEVICE_KERNEL_NFT_SET_CODEC_H

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <libnftnl/set.h>

#include "host/device/kernel/nft_value.h"

namespace host {

struct NftSetDeleter {
    void operator()(nftnl_set *p) const { nftnl_set_free(p); }
};
using NftSet = std::unique_ptr<nftnl_set, NftSetDeleter>;

// The set of that name: interfaces4, interfaces6, local-types, or a map of kernel_map.h. id: any number of its
// own in the batch. Lock: none
NftSet nftSetBuild(const std::string &name, uint32_t id);

// A set with one element of ours; target: as NftImage has it, null: for removing it. Lock: none
NftSet nftElementBuild(const NftElementKey &key, const std::string *pTarget);

// An element as the kernel tells it.
struct NftElementRead {
    std::string key, keyEnd; // keyEnd: empty without
    std::string chain;       // empty: none
    uint32_t verdict = 0;    // NFT_GOTO, NFT_JUMP as a two's complement word
    uint32_t flags = 0;      // NFT_SET_ELEM_*
};

// Collects the elements of one set.
class NftElements {
public:
    explicit NftElements(const std::string &set) : set_(set) {}
    void take(NftElementRead read) { read_.push_back(std::move(read)); }
    void finish(NftImage *pImage) const; // all were taken

private:
    void rangesFinish(size_t keySize, NftImage *pImage) const;

    std::string set_;
    std::vector<NftElementRead> read_;
};

} // namespace host

#endif
