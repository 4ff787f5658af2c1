// Which ACL numbers a node may match: pure questions.
#ifndef API_PBR_NODE_ACL_H
#define API_PBR_NODE_ACL_H

#include "core/pbr_types.h"

// Whether the number lies in a range that can never be bound: 1..1000, 2001..3000, 4001..5000.
// Lock: none
inline bool pbrAclUnbindable(uint32_t aclNum) {
    return (aclNum >= 1 && aclNum <= 1000) || (aclNum >= 2001 && aclNum <= 3000) ||
           (aclNum >= 4001 && aclNum <= 5000);
}

// Whether a node of that IP version takes a bindable ACL number: version 1 0 and 1001..2000, version 2
// 0 and 3001..4000, any other version every number. Lock: none
inline bool pbrAclFitsVersion(uint32_t aclNum, uint32_t ipVer) {
    if (aclNum == 0) {
        return true;
    }
    if (ipVer == PBR_IP_VERSION_4) {
        return aclNum >= 1001 && aclNum <= 2000;
    }
    if (ipVer == PBR_IP_VERSION_6) {
        return aclNum >= 3001 && aclNum <= 4000;
    }
    return true;
}

#endif
