// One table of codes; every published code of core/pbr_types.h stands here.
#include "client/result_text.h"

#include <cstdio>

namespace client {

namespace {

#define PBR_RESULT(code) code, #code
constexpr ResultText TEXTS[] = {
    {PBR_RESULT(PBR_OK), "done", ""},
    {PBR_RESULT(PBR_FAIL), "no such row or field, or a value that cannot be taken",
     "check that the row exists and that the value has the right form"},
    {PBR_RESULT(PBR_ERR_LIST_LIMIT), "there are more lists than the limit allows, or the buffer is too short",
     "remove lists, or raise policyroute.maxlistnum and restart the daemon"},
    {PBR_RESULT(PBR_ERR_NO_RECORD), "no free record, or the list to hold it does not exist",
     "create the list first; else remove what is not needed or raise the limit "
     "(policyroute.maxlistnum, maxnodenum, maxifnum) and restart the daemon"},
    {PBR_RESULT(PBR_ERR_NO_ROW), "it does not exist", "create it first; 'pbrctl show lists' tells what exists"},
    {PBR_RESULT(PBR_ERR_IN_USE), "the list is bound to an interface and cannot be changed",
     "unbind it from its interfaces first, or use 'pbrctl apply', which does so around the change"},
    {PBR_RESULT(QRV_ERR_NOT_PERMITTED), "you may not do this",
     "run pbrctl as root, or become a member of the group that the daemon's option host.group names"},
    {PBR_RESULT(QRV_ERR_NOT_KEPT), "the daemon's journal cannot be written, so nothing was changed",
     "make room on the disk of the daemon's host.state-dir; 'pbrctl show journal' and the daemon's log say more"},
    {PBR_RESULT(PBR_ERR_BAD_ARGUMENT), "missing key or bad argument",
     "a list name has 1 to 16 bytes; indexes begin with 1; a time range must exist"},
    {QRV_ERR_SOCKET, "QRV_ERR_SOCKET", "the daemon's route socket could not be opened",
     "look at the daemon's log and restart it"},
    {QRV_ERR_TASK, "QRV_ERR_TASK", "the daemon's worker task could not be started",
     "look at the daemon's log and restart it"},
    {PBR_RESULT(PBR_ERR_FIRST_NEXT_HOP), "next hop 1 cannot be added to a node that has next hops",
     "choose a higher index, or remove the node's next hops and add them again in order"},
    {PBR_RESULT(PBR_ERR_BIND), "binding the list to the interface failed",
     "check that the list exists and that each of its nodes has an ACL and an action "
     "(next hop, out interface or priority)"},
    {PBR_RESULT(PBR_ERR_ACL_MISSING), "the ACL does not exist", "create it first: pbrctl acl create NUMBER"},
    {PBR_RESULT(PBR_ERR_ACL_USED), "the ACL is already used by a node",
     "an ACL serves one node of one list: use an ACL of its own, or take it from the other node first"},
    {PBR_RESULT(PBR_ERR_ZERO_NEXT_HOP), "the address of the next hop is zero", "give the next hop's address"},
    {PBR_RESULT(PBR_ERR_ACL_RANGE), "an ACL of this number can never be used by a node",
     "use 1001..2000 for IPv4, 3001..4000 for IPv6, or 5001 and up"},
    {PBR_RESULT(PBR_ERR_NO_LIST), "the list to bind does not exist", "create it first: pbrctl list add NAME"},
    {PBR_RESULT(PBR_ERR_NO_MATCH), "a node of the list matches nothing", "give each node an ACL"},
    {PBR_RESULT(PBR_ERR_NO_APPLY), "a node of the list has no action",
     "give each node a next hop, an out interface or a priority"},
    {PBR_RESULT(PBR_ERR_HAS_OUT_IF), "the node has an out interface, which excludes next hops",
     "take the out interface away first: pbrctl node set LIST INDEX --no-interface"},
    {PBR_RESULT(PBR_ERR_HAS_NEXT_HOP), "the node has next hops, which exclude an out interface",
     "remove the node's next hops first: pbrctl node clear LIST INDEX"},
    {PBR_RESULT(PBR_ERR_ACL_VERSION), "the ACL's number and the node's IP version disagree",
     "an IPv4 node takes ACLs 1001..2000, an IPv6 node 3001..4000"},
    {PBR_RESULT(PBR_ERR_VERSION_SET), "the node has another IP version already",
     "clear the node (pbrctl node clear LIST INDEX) or make a node of its own for the other version"},
    // PBR_ERR_UNBIND_NO_LIST is the number of PBR_ERR_NO_ROW.
};
#undef PBR_RESULT

} // namespace

const ResultText *resultTextGet(uint32_t code) {
    for (const ResultText &text : TEXTS) {
        if (text.code == code) {
            return &text;
        }
    }
    return nullptr;
}

std::string resultDescribe(uint32_t code) {
    const ResultText *pText = resultTextGet(code);
    char number[16];
    snprintf(number, sizeof(number), "(0x%08X)", code);
    return std::string(pText != nullptr ? pText->pMeaning : "the platform refused it") + " " + number;
}

std::string resultAdvice(uint32_t code) {
    const ResultText *pText = resultTextGet(code);
    return pText != nullptr ? pText->pAdvice : "look at the daemon's log for the reason";
}

} // namespace client
