// What happens to a packet at the ingress of a bound interface, before the kernel's IP layer sees it.
//
// A packet is decided here only when the outcome is certain to be that of the nftables rules behind; else it goes
// on untouched and they decide. Decided packets get the decision's mark, which those rules leave alone, and
// are sent on at once where the decision's own routing table says how; what that table does not say, and what
// the IP layer has to answer (a hop limit that ends, a packet too large), goes on with the mark.
//
// The helpers know their place by pointers that the compiler must not copy around: the loop's callback gets one
// structure with all it needs.
#include <stddef.h>
#include <stdint.h>

#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>
#include <linux/ip.h>
#include <linux/ipv6.h>
#include <linux/pkt_cls.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "ebpf_layout.h"

#define FAMILY_4 2  /* AF_INET and AF_INET6 of every Linux */
#define FAMILY_6 10
#define FIB_DIRECT 1 /* one table, no rules */
#define FIB_TABLE 8  /* the table is told: newer than the headers of some systems */
#define PROTO_SCTP 132
#define PROTO_DCCP 33
#define PROTO_UDPLITE 136
#define TCP_LEAST 14 /* bytes with the flags */

// Written by the loader before the program is.
const volatile struct EbpfOptions options = {};

// Which folds of addresses the map `locals` may have something for.
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, EBPF_FOLDS / 64);
    __type(key, uint32_t);
    __type(value, uint64_t);
} folds SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, 2048);
    __type(key, uint32_t);
    __type(value, struct EbpfPolicy);
} policies SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, 262144);
    __type(key, struct EbpfKey4);
    __type(value, struct EbpfEntry);
} entries4 SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, 262144);
    __type(key, struct EbpfKey6);
    __type(value, struct EbpfEntry);
} entries6 SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 32768);
    __type(key, uint32_t);
    __type(value, struct EbpfNode);
} nodes SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __uint(max_entries, 65536);
    __type(key, uint32_t);
    __type(value, struct EbpfCount);
} counts SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_LPM_TRIE);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __uint(max_entries, 65536);
    __type(key, struct EbpfLocal);
    __type(value, uint32_t);
} locals SEC(".maps");

struct search {
    struct EbpfPolicy *policy;
    union EbpfKey key; // the packet's
    uint32_t is6;
    uint32_t from;     // ranks below were asked already
    uint32_t rank, rule, node, next; // of the best hit
    uint32_t flow;     // IPv6: the first word of the header, network order
    uint16_t values[EBPF_RANGES];
    uint16_t tuple;    // asked next
    uint32_t passes;   // deny rules met, and their counters
    uint32_t denied[8];
};

static __always_inline int isInside(const struct EbpfHit *hit, const uint16_t *values) {
    int inside = 1;
#pragma unroll
    for (int i = 0; i < EBPF_RANGES; i++) {
        inside &= (uint16_t)(values[i] - hit->first[i]) <= (uint16_t)(hit->last[i] - hit->first[i]);
    }
    return inside;
}

// All tuples were asked. Result: 1: that was all; 0: a deny rule was met, they are asked again for what comes behind
// its node.
static __always_inline long passEnd(struct search *s) {
    if (s->rank == EBPF_NO_RANK || s->next == 0 || s->passes >= EBPF_PASSES) {
        return 1;
    }
    s->denied[s->passes & 7] = s->rule;
    s->passes++;
    s->from = s->next;
    s->rank = EBPF_NO_RANK;
    s->tuple = 0;
    return 0;
}

// One step of the search: a tuple, or the end of a pass.
static long step(uint64_t number, struct search *s) {
    (void)number;
    struct EbpfPolicy *policy = s->policy;
    uint64_t index = s->tuple;
    asm volatile("" : "+r"(index)); // what is checked is what is used
    if (index >= policy->count || index >= EBPF_TUPLES) {
        return passEnd(s);
    }
    struct EbpfTuple *tuple = &policy->tuples[index];
    if (tuple->least >= s->rank) {
        return passEnd(s); // whatever is found here or behind comes later
    }
    s->tuple++;
    union EbpfKey key;
#pragma unroll
    for (int i = 0; i < EBPF_WORDS_4; i++) {
        key.words[i] = s->key.words[i] & tuple->mask.words[i];
    }
    key.v4.head.generation = policy->generation;
    key.v4.head.tuple = (uint16_t)index;
    struct EbpfEntry *entry;
    if (s->is6) {
#pragma unroll
        for (int i = EBPF_WORDS_4; i < EBPF_WORDS_6; i++) {
            key.words[i] = s->key.words[i] & tuple->mask.words[i];
        }
        entry = bpf_map_lookup_elem(&entries6, &key);
    } else {
        entry = bpf_map_lookup_elem(&entries4, &key);
    }
    if (!entry) {
        return 0;
    }
    for (int i = 0; i < EBPF_HITS; i++) {
        const struct EbpfHit *hit = &entry->hits[i];
        if (hit->rank >= s->rank) {
            break; // and so are those behind
        }
        if (hit->rank >= s->from && (!hit->isRanged || isInside(hit, s->values))) {
            s->rank = hit->rank;
            s->rule = hit->rule;
            s->node = hit->node;
            s->next = hit->next;
            break;
        }
    }
    return 0;
}

static __always_inline void count(uint32_t rule, uint32_t bytes) {
    struct EbpfCount *pCount = bpf_map_lookup_elem(&counts, &rule);
    if (pCount) {
        pCount->packets++;
        pCount->bytes += bytes;
    }
}

static __always_inline int isLocal(const struct search *s, int which) {
    uint32_t words[4], fold;
    if (s->is6) {
        __builtin_memcpy(words, s->key.v6.addresses[which], 16);
        fold = ebpfFold6(words);
    } else {
        __builtin_memcpy(words, s->key.v4.addresses[which], 4);
        fold = ebpfFold(words[0]);
    }
    uint32_t at = fold / 64;
    uint64_t *pBits = bpf_map_lookup_elem(&folds, &at);
    if (!pBits || (*pBits >> (fold & 63) & 1) == 0) {
        return 0;
    }
    struct EbpfLocal place = {};
    if (s->is6) {
        place.prefixLen = 8 + 128;
        place.family = 6;
        __builtin_memcpy(place.address, s->key.v6.addresses[which], 16);
    } else {
        place.prefixLen = 8 + 32;
        place.family = 4;
        __builtin_memcpy(place.address, s->key.v4.addresses[which], 4);
    }
    return bpf_map_lookup_elem(&locals, &place) != NULL;
}

// One's complement sum of changed 16-bit words: ~(~sum + ~old + new).
static __always_inline uint16_t sumChange(uint16_t sum, uint16_t old, uint16_t value) {
    uint32_t total = (uint16_t)~sum + (uint32_t)(uint16_t)~old + value;
    total = (total & 0xffff) + (total >> 16);
    total = (total & 0xffff) + (total >> 16);
    return (uint16_t)~total;
}

// Writes the new precedence, and for packets sent on one hop less. Pointers into the packet are old afterwards.
// Result: 0, or the packet cannot be written.
static __always_inline int headerWrite(struct __sk_buff *skb, uint32_t is6, uint16_t precedence, int isSent) {
    void *data = (void *)(long)skb->data, *end = (void *)(long)skb->data_end;
    if (is6) {
        struct ipv6hdr *ip6 = data + ETH_HLEN;
        if ((void *)(ip6 + 1) > end) {
            return -1;
        }
        if (precedence != 0) {
            uint8_t *first = (uint8_t *)ip6;
            *first = (uint8_t)((*first & 0xf1) | precedence << 1);
        }
        if (isSent) {
            ip6->hop_limit--;
        }
        return 0;
    }
    struct iphdr *ip = data + ETH_HLEN;
    if ((void *)(ip + 1) > end) {
        return -1;
    }
    if (precedence != 0) {
        uint16_t *word = (uint16_t *)ip, old = *word;
        ip->tos = (uint8_t)((ip->tos & 0x1f) | precedence << 5);
        ip->check = sumChange(ip->check, old, *word);
    }
    if (isSent) {
        uint16_t *word = (uint16_t *)&ip->ttl, old = *word;
        ip->ttl--;
        ip->check = sumChange(ip->check, old, *word);
    }
    return 0;
}

// The queueing disciplines' priority of a forwarded IPv4 packet, as the kernel derives it from TOS bits.
static __always_inline uint32_t priorityOf(uint8_t traffic) {
    switch (traffic & 0x18) {
    case 0x08: return 2;  // bulk
    case 0x10: return 6;  // interactive
    case 0x18: return 4;  // interactive bulk
    default: return 0;    // best effort
    }
}

// Sends the packet on as the decision's table says, or without a decision as all tables and rules do. Result: the verdict;
// negative: the IP layer has to do it.
static __always_inline int forward(struct __sk_buff *skb, struct search *s, struct EbpfNode node, uint8_t hops,
                                   uint16_t length) {
    struct bpf_fib_lookup fib = {};
    if (hops <= 1) {
        return -1;
    }
    fib.ifindex = skb->ifindex;
    fib.tot_len = skb->gso_size ? 0 : length;
    uint32_t how = 0;
    if (node.decision != 0) {
        uint32_t table = options.tableBase + node.decision;
        __builtin_memcpy(&fib.h_vlan_proto, &table, sizeof table);
        how = FIB_DIRECT | FIB_TABLE;
    }
    const struct EbpfKeyTail *tail = s->is6 ? &s->key.v6.tail : &s->key.v4.tail;
    fib.l4_protocol = tail->protocol;
    if (tail->protocol == IPPROTO_TCP || tail->protocol == IPPROTO_UDP) {
        __builtin_memcpy(&fib.sport, tail->ports, 2);
        __builtin_memcpy(&fib.dport, tail->ports + 2, 2);
    }
    if (s->is6) {
        fib.family = FAMILY_6;
        fib.flowinfo = s->flow & bpf_htonl(0x0fffffff);
        __builtin_memcpy(fib.ipv6_src, s->key.v6.addresses[0], 16);
        __builtin_memcpy(fib.ipv6_dst, s->key.v6.addresses[1], 16);
    } else {
        fib.family = FAMILY_4;
        fib.tos = tail->traffic & 0xfc;
        __builtin_memcpy(&fib.ipv4_src, s->key.v4.addresses[0], 4);
        __builtin_memcpy(&fib.ipv4_dst, s->key.v4.addresses[1], 4);
    }
    if (bpf_fib_lookup(skb, &fib, sizeof fib, how) != 0 || fib.ifindex == skb->ifindex) {
        return -1;
    }
    if (skb->gso_size) {
        uint32_t mtu = 0;
        if (bpf_check_mtu(skb, fib.ifindex, &mtu, 0, BPF_MTU_CHK_SEGS) != 0) {
            return -1;
        }
    }
    struct bpf_redir_neigh neighbour = {};
    neighbour.nh_family = fib.family;
    if (fib.family == FAMILY_6) {
        __builtin_memcpy(neighbour.ipv6_nh, fib.ipv6_dst, 16);
    } else {
        neighbour.ipv4_nh = fib.ipv4_dst;
    }
    if (headerWrite(skb, s->is6, node.precedence, 1) != 0) {
        return -1;
    }
    if (!s->is6) {
        uint8_t traffic = tail->traffic;
        if (node.precedence != 0) {
            traffic = (uint8_t)((traffic & 0x1f) | node.precedence << 5);
        }
        skb->priority = priorityOf(traffic);
    }
    return (int)bpf_redirect_neigh(fib.ifindex, &neighbour, sizeof neighbour, 0);
}

// The rules that were met, each once.
static __always_inline void metCount(const struct search *s, uint16_t length) {
#pragma unroll
    for (uint32_t i = 0; i < EBPF_PASSES; i++) {
        if (i < s->passes) {
            count(s->denied[i], length);
        }
    }
    if (s->rank != EBPF_NO_RANK) {
        count(s->rule, length);
    }
}

// Sends on what is routed as usual, when that is certain. A mark of others may lead it elsewhere.
static __always_inline int routeOn(struct __sk_buff *skb, struct search *s, uint8_t hops, uint16_t length) {
    const uint32_t asked = EBPF_POLICY_REDIRECT | EBPF_POLICY_WHOLE;
    const struct EbpfNode none = {};
    if ((s->policy->flags & asked) != asked || skb->mark != 0 || isLocal(s, 0)) {
        return TC_ACT_UNSPEC;
    }
    int verdict = forward(skb, s, none, hops, length);
    if (verdict < 0) {
        return TC_ACT_UNSPEC;
    }
    metCount(s, length);
    return verdict;
}

// Asks the policy and does what it says. Result: the verdict.
static __always_inline int decide(struct __sk_buff *skb, struct search *s, uint8_t hops, uint16_t length) {
    const struct EbpfKeyTail *tail = s->is6 ? &s->key.v6.tail : &s->key.v4.tail;
    s->values[EBPF_SOURCE_PORT] = (uint16_t)(tail->ports[0] << 8 | tail->ports[1]);
    s->values[EBPF_DESTINATION_PORT] = (uint16_t)(tail->ports[2] << 8 | tail->ports[3]);
    s->values[EBPF_LENGTH] = length;
    s->rank = EBPF_NO_RANK;
    bpf_loop((EBPF_TUPLES + 1) * (EBPF_PASSES + 1), step, s, 0);
    if (s->rank == EBPF_NO_RANK) {
        return routeOn(skb, s, hops, length);
    }
    if (s->next != 0) {
        return TC_ACT_UNSPEC; // more deny rules than can be remembered
    }
    uint32_t place = s->node;
    struct EbpfNode *pNode = bpf_map_lookup_elem(&nodes, &place);
    if (!pNode) {
        return TC_ACT_UNSPEC;
    }
    struct EbpfNode node = *pNode;
    if (!(node.flags & EBPF_NODE_KNOWN) || isLocal(s, 1)) {
        return TC_ACT_UNSPEC;
    }
    if (node.decision == 0 && !(node.flags & EBPF_NODE_DROP)) {
        return node.flags & EBPF_NODE_ROUTED ? routeOn(skb, s, hops, length) : TC_ACT_UNSPEC;
    }
    metCount(s, length);
    if (node.decision == 0) {
        return TC_ACT_SHOT;
    }
    int verdict = -1;
    if ((s->policy->flags & EBPF_POLICY_REDIRECT) && !isLocal(s, 0)) {
        verdict = forward(skb, s, node, hops, length);
    }
    if (verdict >= 0) {
        return verdict;
    }
    if (node.precedence != 0 && headerWrite(skb, s->is6, node.precedence, 0) != 0) {
        return TC_ACT_UNSPEC;
    }
    skb->mark = (skb->mark & ~options.markMask) | node.decision << options.markShift;
    return TC_ACT_UNSPEC;
}

// Reads the protocol's header into the key. Result: 0, or it does not say what rules may ask for.
static __always_inline int upperRead(struct EbpfKeyTail *tail, void *header, void *end, uint8_t protocol, uint8_t icmp,
                                     uint32_t length) {
    tail->protocol = protocol;
    if (protocol != IPPROTO_TCP && protocol != IPPROTO_UDP && protocol != icmp && protocol != PROTO_SCTP &&
        protocol != PROTO_DCCP && protocol != PROTO_UDPLITE) {
        return 0;
    }
    if (header + 4 > end || length < 4) {
        return -1;
    }
    __builtin_memcpy(tail->ports, header, 4);
    if (protocol == IPPROTO_TCP) {
        if (header + TCP_LEAST > end || length < TCP_LEAST) {
            return -1;
        }
        tail->flags = ((uint8_t *)header)[13];
    }
    return 0;
}

// Of a packet with an IPv4 header that every router would forward, and nothing unusual in it.
static __always_inline int ingress4(struct __sk_buff *skb, struct search *s) {
    void *data = (void *)(long)skb->data, *end = (void *)(long)skb->data_end;
    struct iphdr *ip = data + ETH_HLEN;
    if ((void *)(ip + 1) > end) {
        return TC_ACT_UNSPEC;
    }
    uint16_t length = bpf_ntohs(ip->tot_len);
    if (ip->version != 4 || ip->ihl != 5 || length < sizeof *ip || length + ETH_HLEN > skb->len ||
        (ip->frag_off & bpf_htons(0x3fff)) != 0) {
        return TC_ACT_UNSPEC;
    }
    uint16_t *words = (uint16_t *)ip;
    uint32_t sum = 0;
#pragma unroll
    for (int i = 0; i < 10; i++) {
        sum += words[i];
    }
    sum = (sum & 0xffff) + (sum >> 16);
    sum = (sum & 0xffff) + (sum >> 16);
    if (sum != 0xffff) {
        return TC_ACT_UNSPEC;
    }
    // Nets that are none (0), this machine (127), groups and what is behind them (224 and up).
    const uint8_t *from = (uint8_t *)&ip->saddr, *to = (uint8_t *)&ip->daddr;
    if (*from == 0 || *from == 127 || *from >= 224 || *to == 0 || *to == 127 || *to >= 224) {
        return TC_ACT_UNSPEC;
    }
    s->key.v4.head.length = length;
    __builtin_memcpy(s->key.v4.addresses, &ip->saddr, 8);
    s->key.v4.tail.traffic = ip->tos;
    __builtin_memcpy(s->key.v4.tail.mac, data + ETH_ALEN, ETH_ALEN);
    if (upperRead(&s->key.v4.tail, ip + 1, end, ip->protocol, IPPROTO_ICMP, length - sizeof *ip) != 0) {
        return TC_ACT_UNSPEC;
    }
    return decide(skb, s, ip->ttl, length);
}

// Addresses of groups, of one link, of none and of this machine alone.
static __always_inline int isUnusual6(const struct in6_addr *address) {
    const uint8_t *bytes = address->in6_u.u6_addr8;
    if (bytes[0] == 0xff || (bytes[0] == 0xfe && (bytes[1] & 0xc0) == 0x80)) {
        return 1;
    }
    const uint32_t *words = address->in6_u.u6_addr32;
    return words[0] == 0 && words[1] == 0; // ::, ::1, and what carries IPv4 addresses
}

static __always_inline int ingress6(struct __sk_buff *skb, struct search *s) {
    void *data = (void *)(long)skb->data, *end = (void *)(long)skb->data_end;
    struct ipv6hdr *ip6 = data + ETH_HLEN;
    if ((void *)(ip6 + 1) > end) {
        return TC_ACT_UNSPEC;
    }
    uint32_t payload = bpf_ntohs(ip6->payload_len), length = payload + sizeof *ip6;
    if (ip6->version != 6 || payload == 0 || length > 0xffff || length + ETH_HLEN > skb->len) {
        return TC_ACT_UNSPEC;
    }
    switch (ip6->nexthdr) { // headers behind which others stand
    case 0: case 43: case 44: case 50: case 51: case 59: case 60: case 135: case 139: case 140: case 253: case 254:
        return TC_ACT_UNSPEC;
    default:
        break;
    }
    if (isUnusual6(&ip6->saddr) || isUnusual6(&ip6->daddr)) {
        return TC_ACT_UNSPEC;
    }
    s->is6 = 1;
    s->key.v6.head.length = (uint16_t)length;
    __builtin_memcpy(s->key.v6.addresses, &ip6->saddr, 32);
    const uint8_t *first = (uint8_t *)ip6;
    __builtin_memcpy(&s->flow, first, 4);
    s->key.v6.tail.traffic = (uint8_t)(first[0] << 4 | first[1] >> 4);
    __builtin_memcpy(s->key.v6.tail.mac, data + ETH_ALEN, ETH_ALEN);
    if (upperRead(&s->key.v6.tail, ip6 + 1, end, ip6->nexthdr, IPPROTO_ICMPV6, payload) != 0) {
        return TC_ACT_UNSPEC;
    }
    return decide(skb, s, ip6->hop_limit, (uint16_t)length);
}

SEC("tc")
int policyroute(struct __sk_buff *skb) {
    // Marked already, for another machine, or of a VLAN that the kernel hands to another interface: not ours.
    if ((skb->mark & options.markMask) != 0 || skb->pkt_type != 0 || skb->vlan_present) {
        return TC_ACT_UNSPEC;
    }
    const int is6 = skb->protocol == bpf_htons(ETH_P_IPV6);
    if (!is6 && skb->protocol != bpf_htons(ETH_P_IP)) {
        return TC_ACT_UNSPEC;
    }
    uint32_t place = skb->ifindex * 2 + (uint32_t)is6;
    struct search s = {};
    s.policy = bpf_map_lookup_elem(&policies, &place);
    if (!s.policy) {
        return TC_ACT_UNSPEC;
    }
    return is6 ? ingress6(skb, &s) : ingress4(skb, &s);
}

// This file may be used under Apache-2.0 or GPL-2.0: the kernel gives some helpers to the latter only.
char _license[] SEC("license") = "GPL and additional rights";
