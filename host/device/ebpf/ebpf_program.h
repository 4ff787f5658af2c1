// The ingress program and its maps in the kernel: loading, writing, reading, attaching.
//
// A program lives as long as a filter of some interface leads to it, or this object. Filters are recognised by
// their name and priority; those of others are not touched. Not for several threads at once.
#ifndef HOST_DEVICE_EBPF_EBPF_PROGRAM_H
#define HOST_DEVICE_EBPF_EBPF_PROGRAM_H

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/device/ebpf/ebpf_image.h"
#include "host/device/ebpf/ebpf_layout.h"

namespace host {

class NetlinkSocket;

inline constexpr const char *EBPF_NAME = "policyroute"; // of the program and its filters
inline constexpr uint16_t EBPF_FILTER_PRIORITY = 65000;  // behind all filters that others attach

constexpr uint32_t EBPF_NODES = 32768, EBPF_COUNTS = 65536; // places in these maps

class EbpfProgram {
public:
    EbpfProgram();
    ~EbpfProgram(); // what is attached stays in the kernel
    EbpfProgram(const EbpfProgram &) = delete;

    // Results of all that follows: empty, or why not.
    std::string load(const EbpfOptions &options);

    // Everything of an image as `generation`, but for the policy itself.
    std::string entriesPut(int family, uint32_t generation, const std::vector<std::pair<EbpfKey, EbpfEntry>> &entries);
    void entriesRemove(int family, uint32_t generation, const std::vector<EbpfKey> &keys);
    std::string policyPut(uint32_t ifIndex, int family, const EbpfPolicy &policy);
    void policyRemove(uint32_t ifIndex, int family);
    std::string nodePut(uint32_t place, const EbpfNode &node);

    EbpfCount count(uint32_t place) const; // of all processors
    void countClear(uint32_t place);

    // Makes the addresses of this machine those given.
    std::string localsPut(const std::vector<EbpfLocal> &locals);

    int fd() const; // of the program

private:
    std::string foldsPut(const std::vector<uint64_t> &wanted);
    struct Maps;
    std::unique_ptr<Maps> pMaps_;
};

// The interfaces (indexes) that a filter of ours is on, whichever program it leads to.
std::string ebpfFiltersRead(NetlinkSocket &socket, std::set<uint32_t> *pIfIndexes);
// Puts the program on an interface, in place of an earlier one of ours, in one step.
std::string ebpfAttach(NetlinkSocket &socket, uint32_t ifIndex, int fd);
// Takes ours away, and what filters hang on when nobody else has one.
std::string ebpfDetach(NetlinkSocket &socket, uint32_t ifIndex);

} // namespace host

#endif
