// The program in the kernel: see ebpf_program.h. Called by the ingress stage; calls libbpf.
#include "host/device/ebpf/ebpf_program.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>

#include "host/device/ebpf/ebpf_code.h"

namespace host {

namespace {

constexpr size_t WARNING_BYTES = 512;

// What libbpf says goes into the text of the call that fails. Loading is done by one thread.
std::string &ebpfWarning() {
    static std::string text;
    return text;
}

int warningKeep(libbpf_print_level level, const char *pFormat, va_list arguments) {
    if (level == LIBBPF_WARN && ebpfWarning().empty()) {
        std::array<char, WARNING_BYTES> text{};
        (void)vsnprintf(text.data(), text.size(), pFormat, arguments); // cut short when it is long
        ebpfWarning() = text.data();
        std::replace(ebpfWarning().begin(), ebpfWarning().end(), '\n', ' ');
    }
    return 0;
}

std::string ebpfError(const std::string &what, int error) {
    return error == 0 ? "" : what + ": " + strerror(error < 0 ? -error : error);
}

// Prefixes that the program looks at by itself have no fold; any other prefix may be of every fold.
std::vector<uint64_t> foldsOf(const std::vector<EbpfLocal> &locals) {
    std::vector<uint64_t> folds(EBPF_FOLDS / 64);
    for (const EbpfLocal &local : locals) {
        const bool isWhole = local.prefixLen == (local.family == 6 ? 8 + 128 : 8 + 32);
        const uint8_t first = local.address[0];
        const bool isLink = first == 0xfe && (local.address[1] & 0xc0) == 0x80;
        const bool isByItself = local.family == 6 ? first == 0xff || isLink : first == 127 || first >= 224;
        if (!isWhole && !isByItself) {
            return std::vector<uint64_t>(EBPF_FOLDS / 64, UINT64_MAX);
        }
        uint32_t words[4];
        memcpy(words, local.address, sizeof words);
        const uint32_t fold = local.family == 6 ? ebpfFold6(words) : ebpfFold(words[0]);
        folds[fold / 64] |= uint64_t{1} << fold % 64;
    }
    return folds;
}

struct LocalLess {
    bool operator()(const EbpfLocal &left, const EbpfLocal &right) const { return memcmp(&left, &right, sizeof left) < 0; }
};

} // namespace

struct EbpfProgram::Maps {
    bpf_object *pObject = nullptr;
    int program = -1, policies = -1, entries4 = -1, entries6 = -1, nodes = -1, counts = -1, locals = -1, folds = -1;
    std::set<EbpfLocal, LocalLess> held; // of the map `locals`
    std::vector<uint64_t> foldsHeld = std::vector<uint64_t>(EBPF_FOLDS / 64);

    ~Maps() { bpf_object__close(pObject); }
    int entries(int family) const { return family == 6 ? entries6 : entries4; }
};

EbpfProgram::EbpfProgram() : pMaps_(std::make_unique<Maps>()) {}

EbpfProgram::~EbpfProgram() = default;

int EbpfProgram::fd() const { return pMaps_->program; }

std::string EbpfProgram::load(const EbpfOptions &options) {
    libbpf_set_print(warningKeep);
    ebpfWarning().clear();
    const auto failure = [](const std::string &what, int error) {
        return ebpfError(what, error) + (ebpfWarning().empty() ? "" : " (" + ebpfWarning() + ")");
    };
    bpf_object_open_opts how = {};
    how.sz = sizeof how;
    how.object_name = EBPF_NAME;
    pMaps_->pObject = bpf_object__open_mem(ebpfCode, ebpfCodeSize, &how);
    if (pMaps_->pObject == nullptr) {
        return failure("the eBPF program cannot be read", errno);
    }
    bpf_map *pOptions = bpf_object__find_map_by_name(pMaps_->pObject, ".rodata");
    int error = pOptions == nullptr ? ENOENT : bpf_map__set_initial_value(pOptions, &options, sizeof options);
    error = error != 0 ? error : bpf_object__load(pMaps_->pObject);
    if (error != 0) {
        return failure("the kernel does not take the eBPF program", error);
    }
    const bpf_program *pProgram = bpf_object__find_program_by_name(pMaps_->pObject, EBPF_NAME);
    pMaps_->program = pProgram == nullptr ? -1 : bpf_program__fd(pProgram);
    const auto fdOf = [this](const char *pName) { return bpf_object__find_map_fd_by_name(pMaps_->pObject, pName); };
    pMaps_->policies = fdOf("policies");
    pMaps_->entries4 = fdOf("entries4");
    pMaps_->entries6 = fdOf("entries6");
    pMaps_->nodes = fdOf("nodes");
    pMaps_->counts = fdOf("counts");
    pMaps_->locals = fdOf("locals");
    pMaps_->folds = fdOf("folds");
    return "";
}

// One by one where the kernel does not take them together.
std::string EbpfProgram::entriesPut(int family, uint32_t generation,
                                    const std::vector<std::pair<EbpfKey, EbpfEntry>> &entries) {
    const size_t size = family == 6 ? sizeof(EbpfKey6) : sizeof(EbpfKey4);
    std::vector<uint8_t> keys(size * entries.size());
    std::vector<EbpfEntry> values;
    values.reserve(entries.size());
    for (size_t i = 0; i < entries.size(); i++) {
        EbpfKey key = entries[i].first;
        key.v4.head.generation = generation;
        memcpy(&keys[i * size], &key, size);
        values.push_back(entries[i].second);
    }
    auto done = static_cast<uint32_t>(entries.size());
    if (done == 0 || bpf_map_update_batch(pMaps_->entries(family), keys.data(), values.data(), &done, nullptr) == 0) {
        return "";
    }
    for (size_t i = 0; i < entries.size(); i++) {
        if (bpf_map_update_elem(pMaps_->entries(family), &keys[i * size], &values[i], BPF_ANY) != 0) {
            return ebpfError("the kernel does not take the policy's entries", errno);
        }
    }
    return "";
}

void EbpfProgram::entriesRemove(int family, uint32_t generation, const std::vector<EbpfKey> &keys) {
    for (EbpfKey key : keys) {
        key.v4.head.generation = generation;
        (void)bpf_map_delete_elem(pMaps_->entries(family), &key); // one that is not there is gone
    }
}

std::string EbpfProgram::policyPut(uint32_t ifIndex, int family, const EbpfPolicy &policy) {
    const uint32_t key = ifIndex * 2 + (family == 6 ? 1 : 0);
    return bpf_map_update_elem(pMaps_->policies, &key, &policy, BPF_ANY) == 0
               ? ""
               : ebpfError("the kernel does not take the policy", errno);
}

void EbpfProgram::policyRemove(uint32_t ifIndex, int family) {
    const uint32_t key = ifIndex * 2 + (family == 6 ? 1 : 0);
    (void)bpf_map_delete_elem(pMaps_->policies, &key); // one that is not there is gone
}

std::string EbpfProgram::nodePut(uint32_t place, const EbpfNode &node) {
    return bpf_map_update_elem(pMaps_->nodes, &place, &node, BPF_ANY) == 0
               ? ""
               : ebpfError("the kernel does not take a node's action", errno);
}

EbpfCount EbpfProgram::count(uint32_t place) const {
    EbpfCount sum = {};
    const int processors = libbpf_num_possible_cpus();
    if (processors > 0) {
        std::vector<EbpfCount> counts(static_cast<size_t>(processors));
        if (bpf_map_lookup_elem(pMaps_->counts, &place, counts.data()) == 0) {
            for (const EbpfCount &count : counts) {
                sum.packets += count.packets;
                sum.bytes += count.bytes;
            }
        }
    }
    return sum;
}

void EbpfProgram::countClear(uint32_t place) {
    const int processors = libbpf_num_possible_cpus();
    const std::vector<EbpfCount> none(static_cast<size_t>(std::max(processors, 1)));
    (void)bpf_map_update_elem(pMaps_->counts, &place, none.data(), BPF_ANY); // an array's places are always there
}

std::string EbpfProgram::foldsPut(const std::vector<uint64_t> &wanted) {
    for (uint32_t at = 0; at < wanted.size(); at++) {
        if (wanted[at] != pMaps_->foldsHeld[at] && bpf_map_update_elem(pMaps_->folds, &at, &wanted[at], BPF_ANY) != 0) {
            return ebpfError("the kernel does not take an address of this machine", errno);
        }
        pMaps_->foldsHeld[at] = wanted[at];
    }
    return "";
}

std::string EbpfProgram::localsPut(const std::vector<EbpfLocal> &locals) {
    const std::set<EbpfLocal, LocalLess> wanted(locals.begin(), locals.end());
    const uint32_t one = 1;
    std::string error;
    for (const EbpfLocal &local : wanted) {
        if (pMaps_->held.count(local) == 0 && bpf_map_update_elem(pMaps_->locals, &local, &one, BPF_ANY) != 0) {
            error = ebpfError("the kernel does not take an address of this machine", errno);
            continue;
        }
        pMaps_->held.insert(local);
    }
    const std::string foldsError = foldsPut(foldsOf(locals));
    error = error.empty() ? foldsError : error;
    for (auto it = pMaps_->held.begin(); it != pMaps_->held.end();) {
        if (wanted.count(*it) == 0) {
            (void)bpf_map_delete_elem(pMaps_->locals, &*it); // one that is not there is gone
            it = pMaps_->held.erase(it);
        } else {
            ++it;
        }
    }
    return error;
}

} // namespace host
