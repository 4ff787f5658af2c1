// Opening and closing the route socket.
//
// The steps stand in one list in their order; each failure prints its own text, with printf or perror
// as published, and gives the descriptor back.
#include "rtmsg/pbr_rt_sock.h"

#include <cstdio>

#include "core/pbr_info.h"
#include "platform/qrv_if.h"
#include "platform/qrv_socket.h"
#include "platform/sil_process.h"

namespace {

const char TEXT_NO_SOCKET[] = "Create netlink socket failed(errno#%d)!\r\n";
const char TEXT_NO_BIND[] = "pbr route Sock bind failed.\r\n";

constexpr uint32_t RECEIVE_BUFFER_BYTES = 2500000;

// A socket option of start-up.
struct SockStep {
    int32_t level;
    int32_t option;
    uint32_t value;
    bool plain; // the text is printed as it is, without the error's name
    const char *failure;
};

// The neighbour group is joined although no message of it is handled; it is meant so.
const SockStep STEPS[] = {
    {QRV_SOL_NETLINK, QRV_NETLINK_ADD_MEMBERSHIP, QRV_RTNLGRP_NEIGH, false,
     "pbr route Sock setsockopt QRV_RTNLGRP_NEIGH failed.\r\n"},
    {QRV_SOL_NETLINK, QRV_NETLINK_ADD_MEMBERSHIP, QRV_RTNLGRP_LINK, false,
     "pbr route Sock setsockopt QRV_RTNLGRP_LINK failed.\r\n"},
    {QRV_SOL_NETLINK, QRV_NETLINK_ADD_MEMBERSHIP, QRV_RTNLGRP_HRD, true,
     "pbr route Sock setsockopt QRV_RTNLGRP_HRD."}, // without "failed" and line end, as published
    {QRV_SOL_NETLINK, QRV_NETLINK_ADD_MEMBERSHIP, QRV_RTNLGRP_ACL, false,
     "pbr route Sock setsockopt RTNLGRP_ACL."},
    {QRV_SOL_NETLINK, QRV_NETLINK_ADD_MEMBERSHIP, QRV_RTNLGRP_NQA, false,
     "pbr route Sock setsockopt RTNLGRP_NQA."},
    {QRV_SOL_SOCKET, QRV_SO_RCVBUF, RECEIVE_BUFFER_BYTES, false,
     "pbr route Sock setsockopt QRV_SO_RCVBUF failed.\r\n"},
    {QRV_SOL_SOCKET, QRV_SO_OWNER, QRV_PROTO_POLICY_ROUTE, false, "pbr route Sock name failed.\r\n"},
};

int32_t closeAndFail(int32_t fd) {
    (void)qrv_close(fd);
    return -1;
}

void printFailure(const SockStep &step) {
    if (step.plain) {
        printf("%s", step.failure);
        fflush(stdout);
    } else {
        perror(step.failure);
    }
}

int32_t socketMake() {
    const int32_t fd = qrv_socket(QRV_AF_NETLINK, QRV_SOCK_DGRAM, 0);
    const bool fits = fd >= 0 && static_cast<uint32_t>(fd) < QRV_FD_SET_WORDS * 32;
    if (fits) {
        return fd;
    }
    printf(TEXT_NO_SOCKET, errnoGet());
    fflush(stdout);
    return fd < 0 ? -1 : closeAndFail(fd); // a descriptor that the loop's read set cannot hold
}

} // namespace

int32_t pbrRtSockOpen() {
    const int32_t fd = socketMake();
    if (fd < 0) {
        return -1;
    }
    uint32_t one = 1;
    (void)qrv_ioctl(fd, QRV_FIONBIO, &one); // not examined
    QrvNetlinkAddr addr = {};
    addr.family = QRV_AF_NETLINK;
    if (qrv_bind(fd, &addr, sizeof(addr)) < 0) {
        perror(TEXT_NO_BIND);
        return closeAndFail(fd);
    }
    for (const SockStep &step : STEPS) {
        if (qrv_setsockopt(fd, step.level, step.option, &step.value, sizeof(step.value)) != 0) {
            printFailure(step);
            return closeAndFail(fd);
        }
    }
    return fd;
}

void pbrSocketClose() PBR_LOCK_HELD {
    if (gPbrInfo.rtSock != -1) {
        (void)qrv_close(gPbrInfo.rtSock);
        gPbrInfo.rtSock = -1;
    }
}
