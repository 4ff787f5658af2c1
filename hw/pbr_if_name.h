// Names of interfaces for log texts.
#ifndef HW_PBR_IF_NAME_H
#define HW_PBR_IF_NAME_H

#include "platform/qrv_if.h"

constexpr uint32_t PBR_IF_NAME_SIZE = 128;

// A printable name, in the caller's storage.
struct PbrIfName {
    char text[PBR_IF_NAME_SIZE];
};

// The name of an interface unit, as the platform gives it. Lock: none
inline PbrIfName pbrIfNameGet(uint32_t ifUnit) {
    PbrIfName name = {};
    (void)qrvIfUnit2Name(ifUnit, name.text, PBR_IF_NAME_SIZE);
    return name;
}

#endif
