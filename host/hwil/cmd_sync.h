// Who keeps the sets that the daemon accepts, so that they come back at the next start.
//
// The synchronisation service (platform/qrv_hwil.h) hands each accepted set to the keeper before it is
// applied; the command server tells what the handler answered, before the answer leaves, and lets the
// keeper replay what it has before the socket opens. Without a keeper nothing is kept.
#ifndef HOST_HWIL_CMD_SYNC_H
#define HOST_HWIL_CMD_SYNC_H

#include <cstdint>

#include "platform/icm.h"
#include "platform/qrv_hwil.h"

namespace host {

// A set as the command server called it.
struct CommandSet {
    uint32_t commandId;
    const void *pKey; // null: the command has no key
    uint32_t keyLen;
    uint32_t fieldId;
    uint32_t number; // of a byte string: its length
};

class CommandKeeper {
public:
    virtual ~CommandKeeper() = default;

    // As qrvHwilCmdSyncApi. Lock: held by caller (the daemon's mutex)
    virtual uint32_t accepted(const void *pKey, uint32_t commandCode, const PbrApiValue *pValue,
                              const PbrSyncCtx *pCtx) = 0;

    // The handler has answered; nobody has heard of it yet. Also for sets that were never accepted. Lock: none
    virtual void answered(const CommandSet &set, uint32_t result) = 0;

    // Once, before the first client: brings everything back through the handlers. Lock: none
    virtual void replay(const IcmCommand *pCommands, uint32_t count) = 0;
};

// The keeper; null: none. Set once, before the command server starts. It lives as long as the process.
void commandKeeperSet(CommandKeeper *pKeeper);
CommandKeeper *commandKeeper();

} // namespace host

#endif
