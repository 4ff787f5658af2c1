/* The maps' contents, as the daemon writes and the program reads them. C and C++; everything in machine order
 * but what is copied from packets, which stays in network order.
 *
 * A packet becomes a *key*: the fields that rules may ask for, at fixed places. A rule asks for some bits of it.
 * Rules that ask for the same bits share a *tuple*, a mask; their values are entries of one hash map,
 * found by the packet's key behind the mask. A policy is a row of tuples, those with the earliest rules first.
 *
 * A rule's *rank* is its place among the rules of its interface, asked in ascending order: of all entries that a
 * packet finds, the least rank is the first rule that matches it. */
#ifndef HOST_DEVICE_EBPF_EBPF_LAYOUT_H
#define HOST_DEVICE_EBPF_EBPF_LAYOUT_H

#ifdef __cplusplus
#include <cstdint>
namespace host {
#endif

enum {
    EBPF_TUPLES = 60,   /* of a policy, at most: its size stays below a page */
    EBPF_HITS = 8,      /* rules of the very same key: of other ranges, deny rules and what stands behind */
    EBPF_PASSES = 6,    /* deny rules of different nodes that one packet may meet */
    EBPF_WORDS_4 = 4,   /* of an IPv4 key */
    EBPF_WORDS_6 = 7,
    EBPF_NO_RANK = 0xffffffff,
};

/* The first word of a key; behind it addresses, then what is told below. */
struct EbpfKeyHead {
    uint32_t generation; /* of the policy; 0 in a packet's key and in masks */
    uint16_t tuple;      /* likewise */
    uint16_t length;     /* of the IP packet, machine order */
};

struct EbpfKeyTail {
    uint8_t ports[4]; /* the first four bytes of the protocol's header: two ports, or ICMP type and code */
    uint8_t protocol;
    uint8_t traffic;  /* TOS byte or traffic class */
    uint8_t flags;    /* TCP flags byte */
    uint8_t zero;
    uint8_t mac[6];   /* source, of the Ethernet header */
    uint8_t zeros[2];
};

struct EbpfKey4 {
    struct EbpfKeyHead head;
    uint8_t addresses[2][4]; /* source, destination */
    struct EbpfKeyTail tail;
};

struct EbpfKey6 {
    struct EbpfKeyHead head;
    uint8_t addresses[2][16];
    struct EbpfKeyTail tail;
};

union EbpfKey {
    uint64_t words[EBPF_WORDS_6]; /* IPv4: the first EBPF_WORDS_4 */
    struct EbpfKey4 v4;
    struct EbpfKey6 v6;
};

struct EbpfTuple {
    union EbpfKey mask;
    uint32_t least; /* rank of its first rule */
    uint32_t zero;
};

enum {
    EBPF_POLICY_REDIRECT = 1, /* packets may be sent on at once */
    EBPF_POLICY_WHOLE = 2,    /* all rules are in it: what none matches is routed as usual */
};

/* Of one interface and family; key: interface index * 2, + 1 for IPv6. */
struct EbpfPolicy {
    uint32_t generation; /* its entries carry it */
    uint32_t count;      /* of tuples */
    uint32_t flags;
    uint32_t zero;
    struct EbpfTuple tuples[EBPF_TUPLES]; /* ascending by least */
};

/* Ends of ranges that a rule asks for besides, machine order, both inclusive: of the source and the destination port and
 * of the length. */
enum { EBPF_SOURCE_PORT, EBPF_DESTINATION_PORT, EBPF_LENGTH, EBPF_RANGES };

struct EbpfHit {
    uint32_t rank; /* EBPF_NO_RANK: none here, nor behind */
    uint32_t rule; /* its counter */
    uint32_t node; /* place in the nodes; permit rules */
    uint32_t next; /* deny rules: the first rank of the next node; permit rules: 0 */
    uint16_t first[EBPF_RANGES], last[EBPF_RANGES];
    uint16_t isRanged; /* 0: no range is asked for */
    uint16_t zero;
};

struct EbpfEntry {
    struct EbpfHit hits[EBPF_HITS]; /* ascending by rank */
};

enum {
    EBPF_NODE_KNOWN = 1, /* else: the other half of the device decides */
    EBPF_NODE_DROP = 2,  /* nothing usable: its packets are dropped */
    EBPF_NODE_ROUTED = 4, /* nothing usable: its packets are routed as usual, unchanged */
};

/* What happens to a node's packets; written whole, in one store. */
struct EbpfNode {
    uint32_t decision;  /* 0: none, see flags */
    uint16_t flags;
    uint16_t precedence; /* 1..7; 0: unchanged */
};

struct EbpfCount {
    uint64_t packets, bytes;
};

/* Fixed when the program is loaded: where marks and tables of decisions are. */
struct EbpfOptions {
    uint32_t markMask, markShift, tableBase;
};

/* Addresses of this machine: a prefix of 0..128 bits of `address` (IPv4 in the first 4 bytes). */
struct EbpfLocal {
    uint32_t prefixLen; /* + 8: the family is compared too */
    uint8_t family;     /* 4 or 6 */
    uint8_t address[16];
    uint8_t zeros[3];
};

/* A bit for each value that an address of this machine may fold to: of most others one look at it is enough. */
enum { EBPF_FOLDS = 65536 };

static inline uint32_t ebpfFold(uint32_t word) { return (word * 0x9e3779b1u) >> 16; }
static inline uint32_t ebpfFold6(const uint32_t *words) { return ebpfFold(words[0] ^ words[1] * 3 ^ words[2] * 5 ^ words[3] * 7); }

#ifdef __cplusplus
static_assert(sizeof(EbpfKey4) == 8 * EBPF_WORDS_4 && sizeof(EbpfKey6) == 8 * EBPF_WORDS_6);
static_assert(sizeof(EbpfTuple) == 64 && sizeof(EbpfPolicy) <= 4096 - 64);
static_assert(sizeof(EbpfHit) == 32 && sizeof(EbpfNode) == 8 && sizeof(EbpfCount) == 16 && sizeof(EbpfLocal) == 24);
} /* namespace host */
#endif

#endif
