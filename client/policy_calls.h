// Typed calls on the command socket: walks, gets, sets and whole rows, over client/command_client.h.
// Outputs are written on success only, unless a contract says otherwise. Lock: none, everywhere.
#ifndef CLIENT_POLICY_CALLS_H
#define CLIENT_POLICY_CALLS_H

#include <cstdint>
#include <string>
#include <vector>

#include "client/command_client.h"

namespace client {

constexpr uint32_t BYTES_CAPACITY = 512; // asked for in gets of bytes; longer than any value of the daemon

// Row values.
struct ListRow {
    std::string name;
    uint32_t status = 0; // PBR_ROW_ACTIVE, _CREATED, _INACTIVE
    uint32_t refCnt = 0; // interfaces bound to it, modulo 16
};
struct NodeRow {
    std::string list;
    uint32_t index = 0;
    uint32_t status = 0;
    uint32_t matchValue1 = 0;
    uint32_t matchValue2 = 0;
    uint32_t aclNum = 0;    // 0 none
    uint32_t ipVersion = 0; // 0 unset, PBR_IP_VERSION_4, _6
    uint32_t ipPri = 0;     // PBR_IP_PRI_NONE: none
    uint32_t outIfUnit = 0; // 0 none
    uint32_t vrfId = 0;
    uint32_t field7 = 0;
    uint32_t forwardFlag = 0;
    uint32_t isEcmp = 0;
    uint32_t timeRangeId = 0; // PBR_TIME_RANGE_NONE: none
};
struct NextHopRow {
    std::string list;
    uint32_t nodeIndex = 0;
    uint8_t index = 0;
    uint32_t status = 0;
    Bytes address; // 4 or 16 bytes, network order; zero when never set
    std::string nqaAdmin;
    std::string nqaTest;
};
struct InterfaceRow {
    uint32_t unit = 0;
    uint32_t status = 0;
    std::string list; // empty: none bound
};
struct ScalarRow {
    uint32_t maxListNum = 0;
    uint32_t maxNodeNum = 0;
    uint32_t listCount = 0;
    uint32_t debugFlags = 0;
    std::string version;
};

// Gets and sets of one field. command: the GET or SET command of the table.
CommandStatus numberGet(CommandClient &client, uint16_t command, const Bytes &key, uint32_t field,
                        uint32_t &value);
CommandStatus numberSet(CommandClient &client, uint16_t command, const Bytes &key, uint32_t field,
                        uint32_t value);
CommandStatus bytesGet(CommandClient &client, uint16_t command, const Bytes &key, uint32_t field,
                       Bytes &value);
CommandStatus bytesSet(CommandClient &client, uint16_t command, const Bytes &key, uint32_t field,
                       const Bytes &value);

// Walks: every row's key, in the daemon's order. A next-hop walk is made for one node at a time, because
// a walk across lists may name next hops that do not exist.
CommandStatus listsWalk(CommandClient &client, std::vector<std::string> &names);
CommandStatus nodesWalk(CommandClient &client, std::vector<NodePlace> &nodes);
CommandStatus nextHopsWalk(CommandClient &client, const std::string &list, uint32_t nodeIndex,
                           std::vector<uint8_t> &indexes);
CommandStatus interfacesWalk(CommandClient &client, std::vector<uint32_t> &units);

// Whole tables, the rows read with pipelined requests. A row that vanished meanwhile is left out.
CommandStatus listsRead(CommandClient &client, std::vector<ListRow> &rows);
CommandStatus nodesRead(CommandClient &client, std::vector<NodeRow> &rows);
CommandStatus nextHopsRead(CommandClient &client, const std::vector<NodeRow> &nodes,
                           std::vector<NextHopRow> &rows);
CommandStatus interfacesRead(CommandClient &client, std::vector<InterfaceRow> &rows);
CommandStatus scalarsRead(CommandClient &client, ScalarRow &row);

} // namespace client

#endif
