// Route messages about links (types 32 and 34, platform/qrv_rtm.h), and when the kernel's changes cause them.
#ifndef HOST_IFNET_LINK_MESSAGES_H
#define HOST_IFNET_LINK_MESSAGES_H

#include <cstdint>
#include <optional>
#include <vector>

#include "host/ifnet/ifnet.h"
#include "platform/qrv_rtm.h"

namespace host {

// A link message about `unit`, with one attribute that names `other`, or with none. Lock: none
std::vector<uint8_t> linkMessage(uint16_t type, uint32_t unit);
std::vector<uint8_t> linkMessage(uint16_t type, uint32_t unit, QrvRtmLinkAttr attribute, uint32_t other);

// The messages for a link that was `before` (none: it is new) and is `after` (none: it is gone), in their
// order: what it left, that it is gone or new, what it joined. Other changes cause none. Lock: none
std::vector<std::vector<uint8_t>> linkMessagesOf(const std::optional<IfnetLink> &before,
                                                 const std::optional<IfnetLink> &after);

// Publishes them to the link group. Lock: none
void linkMessagesPublish(const std::vector<std::vector<uint8_t>> &messages);

} // namespace host

#endif
