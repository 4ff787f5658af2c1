// What the tests of the management plane share: keys, calls as the command server makes them, and a
// printed image of the store for "nothing has changed".
//
// Keys are handed over at an odd address: handlers must not assume alignment. After every call the
// mutex must be free and the store must be whole.
#ifndef TESTS_UNIT_API_API_CALLS_H
#define TESTS_UNIT_API_API_CALLS_H

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "api/pbr_func_map.h"
#include "api/pbr_if_api.h"
#include "api/pbr_keys.h"
#include "api/pbr_list_api.h"
#include "api/pbr_next_hop_api.h"
#include "api/pbr_node_api.h"
#include "api/pbr_scalar_api.h"
#include "api/pbr_walk.h"
#include "core/pbr_info.h"
#include "core/pbr_types.h"
#include "store/pbr_records.h"
#include "tests/fake/fake.h"

namespace api_test {

constexpr uint32_t SYNC_REFUSAL = 0x0BAD0001u; // fake::FAULT_CODE as the handlers return it

// A key's bytes, as they come off the socket.
using Key = std::vector<uint8_t>;
Key listKey(const std::string &name);
Key listKey(const std::string &bytes16, uint16_t nameLen);
Key nodeKey(const std::string &list, uint32_t nodeIndex, uint8_t hopIndex = 0, uint8_t mask = 0);
Key unitKey(uint32_t ifUnit);
std::string listName(const Key &key);
uint32_t nodeIndex(const Key &key);
uint8_t hopIndex(const Key &key);
uint32_t unit(const Key &key);
std::string show(const Key &key); // a\10\1 for a node or next-hop key

// What a get answered. bytes: the first len bytes of the buffer.
struct Answer {
    uint32_t code;
    uint32_t number;
    uint32_t len;
    std::string bytes;
};

uint32_t setNumber(IcmFieldHandler handler, const Key &key, uint32_t field, uint32_t number);
uint32_t setBytes(IcmFieldHandler handler, const Key &key, uint32_t field, const std::string &bytes);
Answer getNumber(IcmFieldHandler handler, const Key &key, uint32_t field);
// The buffer has 64 bytes more than the capacity, as the server's; those must keep their pattern unless
// mayExceed.
Answer getBytes(IcmFieldHandler handler, const Key &key, uint32_t field, uint32_t capacity,
                bool mayExceed = false);
uint32_t walkFirst(IcmFirstHandler handler, Key &key);
uint32_t walkNext(IcmNextHandler handler, const Key &in, Key &out);

// Rows made through the handlers; a failure fails the test.
void haveList(const std::string &list);
void haveNode(const std::string &list, uint32_t nodeIndex, uint32_t aclNum = 0, uint32_t ipVer = 0);
void haveNextHop(const std::string &list, uint32_t nodeIndex, uint8_t hopIndex,
                 const std::string &address = "");
void haveInterface(uint32_t ifUnit);
void haveBinding(uint32_t ifUnit, const std::string &list);

PbrListEntry *list(const std::string &name);
PbrNodeEntry *node(const std::string &list, uint32_t nodeIndex);
PbrNextHopEntry *hop(const std::string &list, uint32_t nodeIndex, uint8_t hopIndex);
PbrIfEntry *interface(uint32_t ifUnit);

// "10.0.0.1" or "2001:db8::1" as 4 or 16 bytes.
std::string address(const std::string &text);
std::string bytesOf(std::initializer_list<int> bytes);
std::string word(uint32_t value); // network order

// Every field of every record, without addresses in memory.
std::string storeImage();

// The trace line of a debug text of the management plane; text in C escapes, without its "\r\n".
std::string debugLine(const std::string &text);
// The trace line of the synchronisation service's call.
std::string syncLine(const std::string &key, uint32_t code, uint32_t flags, uint32_t value);
std::string syncBytesLine(const std::string &key, uint32_t code, uint32_t flags, const std::string &bytes);

// A started daemon with an empty store and an empty trace; checks the store at the end.
class ApiTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

using Lines = std::vector<std::string>;

} // namespace api_test

#endif
