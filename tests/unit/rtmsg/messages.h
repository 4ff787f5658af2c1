// Route messages of the tests and one read of them.
#ifndef TESTS_UNIT_RTMSG_MESSAGES_H
#define TESTS_UNIT_RTMSG_MESSAGES_H

#include <gtest/gtest.h>

#include <cstring>

#include "core/pbr_info.h"
#include "platform/qrv_rtm.h"
#include "rtmsg/pbr_rtm_rcv.h"
#include "store/pbr_if_entry.h"
#include "tests/fake/fake.h"
#include "tests/support/builders.h"
#include "tests/support/store_checker.h"

namespace messages {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

inline Bytes joined(std::initializer_list<Bytes> parts) {
    Bytes read;
    for (const Bytes &one : parts) {
        read.insert(read.end(), one.begin(), one.end());
    }
    return read;
}

// One read of the route socket.
inline void receive(const Bytes &read) {
    fake::deliver(read);
    pbrRtmRcv(3);
    checkStore();
}

inline Bytes aclRule(uint16_t type, uint32_t listNum, uint32_t ruleNum) {
    const AclRuleMsg msg = {listNum, ruleNum};
    return fake::message(type, &msg, sizeof(msg));
}

// A debug text of this module's events as the trace shows it; \r\n at its end is added.
inline std::string eventText(const std::string &text) {
    return "debug 0x044B0002 7 0 \"" + text + "\\r\\n\"";
}

// The texts of events only, without those of the operations that they call.
inline Lines eventTexts(const Lines &trace) {
    Lines out;
    for (const std::string &line : trace) {
        if (line.rfind("debug 0x044B0002", 0) == 0) {
            out.push_back(line);
        }
    }
    return out;
}

// The calls of a trace whose line starts like this.
inline Lines callsOf(const Lines &trace, const std::string &start) {
    Lines out;
    for (const std::string &line : trace) {
        if (line.rfind(start, 0) == 0) {
            out.push_back(line);
        }
    }
    return out;
}

inline PbrIfNodeEntry *linkOf(uint32_t ifUnit, const PbrNodeEntry *pNode) {
    const PbrIfEntry *pIf = pbrIfEntryGet(ifUnit);
    for (PbrIfNodeEntry *pLink = pIf == nullptr ? nullptr : pbrIfIfNodeFirst(pIf); pLink != nullptr;
         pLink = pbrIfIfNodeNext(pIf, pLink)) {
        if (pLink->pPbrNode == pNode) {
            return pLink;
        }
    }
    ADD_FAILURE() << "no link on " << ifUnit;
    return nullptr;
}

} // namespace messages

#endif
