// Addresses of next hops: comparing and printing them.
//
// An address is 16 bytes in network order, an IPv4 address in the first 4. Its version is coded 1 for
// IPv4; anything else is taken as IPv6.
#ifndef NEXTHOP_PBR_ADDRESS_H
#define NEXTHOP_PBR_ADDRESS_H

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>

#include "core/pbr_types.h"

constexpr uint32_t PBR_ADDRESS_BYTES = 16;
constexpr uint32_t PBR_ADDRESS_TEXT_SIZE = 46; // longest IPv6 text and its terminator

// Bytes of an address of that version that count. Lock: none
inline uint32_t pbrAddressSize(uint32_t ipVer) {
    return ipVer == PBR_IP_VERSION_4 ? 4 : PBR_ADDRESS_BYTES;
}

// Whether two addresses of that version are equal. Lock: none
inline bool pbrAddressEqual(uint32_t ipVer, const uint8_t *pA, const uint8_t *pB) {
    return memcmp(pA, pB, pbrAddressSize(ipVer)) == 0;
}

// The printed address, in the caller's storage.
struct PbrAddressText {
    char text[PBR_ADDRESS_TEXT_SIZE];
};

// Prints an address: four decimal bytes, or the shortened IPv6 form. Lock: none
inline PbrAddressText pbrAddressPrint(uint32_t ipVer, const uint8_t *pAddress) {
    PbrAddressText out = {};
    (void)inet_ntop(ipVer == PBR_IP_VERSION_4 ? AF_INET : AF_INET6, pAddress, out.text, sizeof(out.text));
    return out;
}

#endif
