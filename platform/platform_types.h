// The integer types and the linkage that every seam header uses.
//
// The seam (`platform/`) is what the daemon sees of the machine it runs on: one header per platform
// component, each a contract. A program is linked with exactly one implementation: a switch's own
// libraries, the host platform (`host/`), or the recording fake of the tests. Headers only; the
// functions have C linkage because a switch's libraries are C.
#ifndef PLATFORM_PLATFORM_TYPES_H
#define PLATFORM_PLATFORM_TYPES_H

#include <cstddef>
#include <cstdint>

// General result codes, shared by all platform components and handlers (32 bits, module 0x03E8).
constexpr uint32_t QRV_OK = 0;                        // done
constexpr uint32_t QRV_FAIL = 0xFFFFFFFFu;            // generic failure, -1 as a signed number
constexpr uint32_t QRV_ERR_NO_RECORD = 0x03E80001u;   // no free record in a pool
constexpr uint32_t QRV_ERR_NO_ROW = 0x03E80002u;      // the addressed row does not exist
constexpr uint32_t QRV_ERR_IN_USE = 0x03E8000Cu;      // in use, cannot be modified
constexpr uint32_t QRV_ERR_NOT_PERMITTED = 0x03E8000Du;// the caller may not do this
constexpr uint32_t QRV_ERR_NOT_KEPT = 0x03E80E01u;    // it could not be kept for the next start: not done
constexpr uint32_t QRV_ERR_BAD_ARGUMENT = 0x03E8001Au;// missing key or bad argument
constexpr uint32_t QRV_ERR_SOCKET = 0x03E8001Bu;      // start-up: the route socket
constexpr uint32_t QRV_ERR_TASK = 0x03E8001Cu;        // start-up: the worker task

#endif
