// The route socket of the fake: reads are queued with deliver, one is taken a qrv_recvfrom.
#include "platform/qrv_socket.h"

#include <algorithm>
#include <cstring>

#include "platform/qrv_rtm.h"
#include "tests/fake/fake_state.h"

namespace fake {

void deliver(const std::vector<uint8_t> &read) {
    state().reads.push_back(read);
}

uint32_t pendingBytes() {
    size_t bytes = 0;
    for (const auto &read : state().reads) {
        bytes += read.size();
    }
    return static_cast<uint32_t>(bytes);
}

std::vector<std::string> selects() {
    std::vector<std::string> taken;
    taken.swap(state().selects);
    return taken;
}

namespace {

// The request for a probe's state in words; every byte that is not named is zero.
std::string nqaRequest(const uint8_t *pMessage, uint32_t len) {
    NqaStatusMsg msg;
    RtMsgHeader header;
    memcpy(&header, pMessage, sizeof(header));
    memcpy(&msg, pMessage + sizeof(header), sizeof(msg));
    if (header.length != len || msg.adminNameLen > NQA_NAME_BYTES || msg.testNameLen > NQA_NAME_BYTES) {
        misuse("a request with wrong lengths");
        return "";
    }
    NqaStatusMsg expected = {};
    memcpy(expected.adminName, msg.adminName, msg.adminNameLen);
    memcpy(expected.testName, msg.testName, msg.testNameLen);
    expected.adminNameLen = msg.adminNameLen;
    expected.testNameLen = msg.testNameLen;
    expected.status = msg.status;
    const uint8_t zeros[sizeof(header.rest)] = {};
    if (memcmp(&expected, &msg, sizeof(msg)) != 0 || memcmp(header.rest, zeros, sizeof(zeros)) != 0) {
        misuse("a request with bytes beside its fields");
    }
    auto name = [](const uint8_t *p, uint8_t n) { return quoted(std::string(reinterpret_cast<const char *>(p), n)) + text("/%u", n); };
    return "admin=" + name(msg.adminName, msg.adminNameLen) + " test=" + name(msg.testName, msg.testNameLen) +
           text(" status=%u", msg.status);
}

} // namespace
} // namespace fake

using namespace fake;

extern "C" int32_t qrv_socket(int32_t family, int32_t type, int32_t protocol) {
    const std::string line = text("qrv_socket(%d, %d, %d)", family, type, protocol);
    const int64_t fd = fallible("qrv_socket", line, 3, -1);
    if (fd >= 0) {
        state().sockets.insert(static_cast<int32_t>(fd));
    }
    return static_cast<int32_t>(fd);
}

extern "C" int32_t qrv_bind(int32_t fd, const void *pAddr, uint32_t addrLen) {
    QrvNetlinkAddr addr = {};
    memcpy(&addr, pAddr, std::min<size_t>(addrLen, sizeof(addr)));
    return static_cast<int32_t>(
        fallible("qrv_bind", text("qrv_bind(%d, len=%u family=%u pad=%u port=%u groups=%u, %u)", fd, addr.len,
                                  addr.family, addr.pad, addr.port, addr.groups, addrLen), 0, -1));
}

extern "C" int32_t qrv_setsockopt(int32_t fd, int32_t level, int32_t option, const void *pValue,
                                  uint32_t valueLen) {
    uint32_t value = 0;
    memcpy(&value, pValue, std::min<size_t>(valueLen, sizeof(value)));
    return static_cast<int32_t>(fallible("qrv_setsockopt",
                                         text("qrv_setsockopt(%d, %d, 0x%x, %u, %u)", fd, level,
                                              static_cast<unsigned>(option), value, valueLen), 0, -1));
}

extern "C" int32_t qrv_ioctl(int32_t fd, uint32_t request, uint32_t *pValue) {
    if (request != QRV_FIONREAD) {
        return static_cast<int32_t>(call("qrv_ioctl", text("qrv_ioctl(%d, 0x%x, %u)", fd, request, *pValue), 0));
    }
    *pValue = pendingBytes();
    return static_cast<int32_t>(call("qrv_ioctl", text("qrv_ioctl(%d, 0x%x)", fd, request), 0));
}

extern "C" int32_t qrv_recvfrom(int32_t fd, void *pBuffer, uint32_t bufferLen, uint32_t flags, void *pFrom,
                                uint32_t *pFromLen) {
    const std::string line = text("qrv_recvfrom(%d, %u)", fd, bufferLen);
    if (flags != 0 || pFrom == nullptr || pFromLen == nullptr || *pFromLen != 12) {
        misuse(line + ": flags or sender's address");
    }
    std::deque<std::vector<uint8_t>> &reads = state().reads;
    const size_t have = reads.empty() ? 0 : std::min<size_t>(reads.front().size(), bufferLen);
    const int64_t got = call("qrv_recvfrom", line, reads.empty() ? -1 : static_cast<int64_t>(have));
    if (got > 0) {
        memcpy(pBuffer, reads.front().data(), static_cast<size_t>(got));
        reads.pop_front();
    }
    return static_cast<int32_t>(got);
}

extern "C" int32_t qrv_select(int32_t maxFd, QrvFdSet *pRead, const QrvTimeval *pTimeout) {
    if (locked()) {
        misuse("qrv_select with the mutex held");
    }
    state().selects.push_back(text("%u.%06u %d", pTimeout->sec, pTimeout->usec, maxFd));
    int64_t ready = 0;
    for (int32_t fd = 0; fd < static_cast<int32_t>(QRV_FD_SET_WORDS * 32); ++fd) {
        uint32_t &word = pRead->word[fd / 32];
        const uint32_t bit = 1u << (fd % 32);
        if ((word & bit) == 0) {
            continue;
        }
        if (state().sockets.count(fd) == 0 || fd > maxFd) {
            misuse(text("qrv_select on %d, which is not open or beyond the highest", fd));
        }
        if (state().reads.empty()) {
            word &= ~bit;
        } else {
            ++ready;
        }
    }
    return static_cast<int32_t>(quiet("qrv_select", state().selects.back(), ready));
}

extern "C" int32_t qrv_close(int32_t fd) {
    if (state().sockets.erase(fd) == 0) {
        misuse(text("qrv_close(%d) of a socket that is not open", fd));
    }
    return static_cast<int32_t>(call("qrv_close", text("qrv_close(%d)", fd), 0));
}

extern "C" int32_t qrvNetlinkSGrpSend(uint32_t group, uint32_t flags, const void *pMessage, uint32_t len) {
    const uint8_t *p = static_cast<const uint8_t *>(pMessage);
    uint16_t type;
    memcpy(&type, p + 4, sizeof(type));
    const bool isRequest = type == QRV_RTM_NQA_STATEREQ && len == QRV_RTM_HEADER_BYTES + sizeof(NqaStatusMsg);
    const std::string line = text("qrvNetlinkSGrpSend(%u, %u, ", group, type) +
                             (isRequest ? nqaRequest(p, len) : hex(p, len)) + ")";
    if (flags != 0) {
        misuse(line + ": flags");
    }
    return static_cast<int32_t>(fallible("qrvNetlinkSGrpSend", line, static_cast<int64_t>(len), -1));
}
