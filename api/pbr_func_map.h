// The command map: every command id with its handler, handed to the command server at start-up.
//
// Beside it stand gIcmCommandShapes and gIcmCommandShapeCount (declared in platform/icm.h), which tell
// the server each command's calling form, key size and byte-string fields. Both come from one list.
#ifndef API_PBR_FUNC_MAP_H
#define API_PBR_FUNC_MAP_H

#include "api/pbr_keys.h"
#include "platform/icm.h"

// Indexed by command id, in id order; entry 0 has no handler. Lock: none (constant)
extern const IcmCommand gPbrFuncMap[PBR_COMMAND_COUNT];

#endif
