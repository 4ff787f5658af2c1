// Sockets of the platform's network stack: the route socket and what waits for it.
//
// All numbers below are the platform's, not the operating system's: an implementation maps them.
#ifndef PLATFORM_QRV_SOCKET_H
#define PLATFORM_QRV_SOCKET_H

#include "platform/platform_types.h"

constexpr int32_t QRV_AF_NETLINK = 16;            // family of the route socket
constexpr int32_t QRV_SOCK_DGRAM = 2;             // type of the route socket
constexpr uint32_t QRV_FIONBIO = 0x8004667Eu;     // ioctl: value non-zero makes the socket non-blocking
constexpr uint32_t QRV_FIONREAD = 0x4004667Fu;    // ioctl: stores the number of bytes waiting
constexpr int32_t QRV_SOL_NETLINK = 270;          // option level: route socket
constexpr int32_t QRV_NETLINK_ADD_MEMBERSHIP = 1; // option: join the group in the value
constexpr int32_t QRV_SOL_SOCKET = 0xFFFF;        // option level: socket
constexpr int32_t QRV_SO_RCVBUF = 0x1002;         // option: bytes of waiting payload kept
constexpr int32_t QRV_SO_OWNER = 0x1019;          // option: protocol id of the socket's owner

constexpr uint32_t QRV_RTNLGRP_LINK = 1;  // link and aggregation messages
constexpr uint32_t QRV_RTNLGRP_NEIGH = 3; // neighbour messages
constexpr uint32_t QRV_RTNLGRP_ACL = 56;  // ACL rule messages
constexpr uint32_t QRV_RTNLGRP_HRD = 77;  // peer reports
constexpr uint32_t QRV_RTNLGRP_NQA = 89;  // probe status and status requests

constexpr uint32_t QRV_FD_SET_WORDS = 32; // 1024 descriptors

extern "C" {

// The route socket's own address; 12 bytes, machine order.
struct QrvNetlinkAddr {
    uint8_t len;    // 0
    uint8_t family; // QRV_AF_NETLINK
    uint16_t pad;   // 0
    uint32_t port;  // 0: the stack assigns it
    uint32_t groups;// 0: groups are joined one by one
};

// A set of descriptors 0..1023: descriptor n is bit n % 32 (least significant first) of word n / 32.
struct QrvFdSet {
    uint32_t word[QRV_FD_SET_WORDS];
};

struct QrvTimeval {
    uint32_t sec;
    uint32_t usec;
};

// Makes a socket; a route socket is (QRV_AF_NETLINK, QRV_SOCK_DGRAM, 0). Result: descriptor 0..1023,
// or -1. Lock: none
[[nodiscard]] int32_t qrv_socket(int32_t family, int32_t type, int32_t protocol);

// Binds the socket to an address of addrLen bytes. Result: 0, or negative. Lock: none
[[nodiscard]] int32_t qrv_bind(int32_t fd, const void *pAddr, uint32_t addrLen);

// Sets an option of valueLen bytes. Result: 0, anything else is a failure. Lock: none
[[nodiscard]] int32_t qrv_setsockopt(int32_t fd, int32_t level, int32_t option, const void *pValue,
                                     uint32_t valueLen);

// QRV_FIONBIO reads *pValue, QRV_FIONREAD writes it. Result: 0, or negative. Lock: none
int32_t qrv_ioctl(int32_t fd, uint32_t request, uint32_t *pValue);

// Reads what is waiting, at most bufferLen bytes, one or more whole route messages. pFrom: the
// sender's address; *pFromLen: its capacity in, its length out. Result: bytes read; 0 or negative
// when nothing was read. Lock: held by caller
int32_t qrv_recvfrom(int32_t fd, void *pBuffer, uint32_t bufferLen, uint32_t flags, void *pFrom,
                     uint32_t *pFromLen);

// Waits until a descriptor of pRead (0..maxFd) can be read or the time is over; pRead keeps those
// that can. Result: their number, 0 on time-out, negative on error. Lock: none, never across a lock
int32_t qrv_select(int32_t maxFd, QrvFdSet *pRead, const QrvTimeval *pTimeout);

// Closes the socket. Result: 0, or negative. Lock: none
int32_t qrv_close(int32_t fd);

// Sends a route message of len bytes to every member of a group; flags: 0. Nothing is waited for.
// Result: 0 or more, or negative on failure. Lock: held by caller
int32_t qrvNetlinkSGrpSend(uint32_t group, uint32_t flags, const void *pMessage, uint32_t len);
}
static_assert(sizeof(QrvNetlinkAddr) == 12 && offsetof(QrvNetlinkAddr, family) == 1 &&
              offsetof(QrvNetlinkAddr, port) == 4 && offsetof(QrvNetlinkAddr, groups) == 8);

#endif
