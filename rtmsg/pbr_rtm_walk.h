// Framing of route messages: splits what was read into messages and hands each to the row of its type.
//
// Handlers contain no framing. What lives as long as one read, and is shared by its messages, is in
// PbrRtmRead, zeroed once a read and not a message; it is meant so.
#ifndef RTMSG_PBR_RTM_WALK_H
#define RTMSG_PBR_RTM_WALK_H

#include <cstddef>
#include <cstdint>

#include "core/pbr_store_lock.h"
#include "store/pbr_records.h"

// State of one read.
struct PbrRtmRead {
    uint8_t hrdAddress[16]; // address of the latest peer report, network order; an IPv4 report leaves
                            // bytes 4..15 as an earlier IPv6 report of the same read made them
    PbrNodeEntry *foundNode; // node whose ACL an ACL-rule message named, from the last list in which one
                             // matched; null: none yet in this read
    uint32_t hwCount;        // rule operations done in this read
};

// Handles one message. pMessage: its header, 4-byte aligned; the bytes behind the read are zero, for
// at least 128 bytes. payloadLen: bytes of the read behind this message's header, which may belong to
// further messages. Result: true to go on, false to drop the rest of the read. Lock: held by caller
typedef bool (*PbrRtmHandler)(PbrRtmRead *pRead, const uint8_t *pMessage, int32_t payloadLen);

// One row a message type.
struct PbrRtmRow {
    uint16_t type;        // QrvRtmType
    const char *name;     // for readers and tools
    int32_t leastPayload; // the message is passed over when payloadLen is below; 0: not tested
    PbrRtmHandler handler;
};

// Walks the messages of one read. pBuffer: 4-byte aligned, `got` bytes read, then 128 zero bytes. Ends
// silently at the first message whose length word is below 24 or beyond what is left; types without a
// row are skipped silently. Lock: held by caller
void pbrRtmWalk(const PbrRtmRow *pRows, size_t rowCount, const uint8_t *pBuffer, int32_t got) PBR_LOCK_HELD;

#endif
