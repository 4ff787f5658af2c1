// The option store: a file of `key = value` lines, overridden by --option key=value on the command line.
//
// Keys are the daemon's five ("policyroute....") and the host's own, which begin with "host.". Each host
// key is declared below with its default, so that an unknown key is an error that names file and line.
// Read-only after start-up.
#ifndef HOST_OPTION_OPTION_H
#define HOST_OPTION_OPTION_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace host {

// key, default, meaning. "host.vrf.NAME" (value: kernel table number) is a family of keys beside these.
#define HOST_OPTIONS(X)                                                                             \
    X("host.root", "", "folder below which every socket and file of this run is put")              \
    X("host.device", "kernel", "forwarding plane: kernel, ebpf or memory")                          \
    X("host.ebpf-redirect", "auto", "eBPF device: on: packets are sent on at once; off: only marked; auto: as the machine allows") \
    X("host.neighbour-probe-ms", "1000", "longest time in ms between two confirmations of a next hop") \
    X("host.next-hop-via-gateway", "on", "on: a next hop beyond a connected network is followed by its gateway") \
    X("host.mark-mask", "0xfff00000", "bits of the packet mark that are ours")                      \
    X("host.rule-preference", "15000", "preference of our first policy rule")                       \
    X("host.table-base", "1000000", "number of our first routing table")                            \
    X("host.defrag", "on", "on: fragments are reassembled before they are matched, where the kernel can") \
    X("host.map-from", "8", "rules of one form from which on packets are looked up in a map; 0: never") \
    X("host.adopt-wait-ms", "10000", "longest time in ms that a policy found at start is kept untouched") \
    X("host.group", "", "group whose members may write to the sockets; none: root only")            \
    X("host.user", "", "user that the process becomes when root starts it; none: it stays root, without root's rights") \
    X("host.seccomp", "on", "on: system calls that the daemon does not use are refused by the kernel") \
    X("host.read-others", "no", "yes: everybody may read through the sockets")                      \
    X("host.journal", "on", "on: the running policy comes back by itself at the next start")          \
    X("host.state-dir", "", "folder of the journal; none: /var/lib/policyroute below host.root")       \
    X("host.log", "auto", "where log records go: auto, stderr, syslog")                             \
    X("host.memory-capacity", "0", "memory device: most entries held, 0 without limit")             \
    X("host.memory-member-entries", "off", "memory device: on: members of an aggregation get entries of their own")

// Value of a key: command line, else file, else the default of HOST_OPTIONS; none for a key without
// value and default. Any thread after start-up. Lock: none
std::optional<std::string> optionGet(const std::string &key);

// The same as a number (decimal, 0x hexadecimal); the default when the text is no number.
uint64_t optionNumber(const std::string &key);

// All values under "prefix." that were given, as (rest of the key, value).
std::vector<std::pair<std::string, std::string>> optionFamily(const std::string &prefix);

// host.root + path: where a file or socket of this run is; folders are made (mode 0755) as needed.
// path: begins with a slash.
std::string optionPath(const std::string &path);

// Reads the option file and the command line, whose later entries win over earlier ones and over the
// file. overrides: texts "key=value". file: empty stands for /etc/policyroute/policyroute.conf, which may
// be absent. In a file, blank lines and comments (# at the start of a line or behind a blank) are passed
// over, and a key may stand once. Numbers (decimal, or hexadecimal with 0x) and words of host keys are
// checked; nothing is taken over when there is an error.
// Result: empty, or an error text naming its place ("FILE:LINE: ..." or "--option ...: ...").
// Before other threads read options. Lock: none
std::string optionLoad(const std::vector<std::string> &overrides, const std::string &file);

} // namespace host

#endif
